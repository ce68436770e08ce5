#!/usr/bin/python3
"""Writes the tables and the plot of docs/performance.md from the records of one run. Called by bench/report."""
import json
import os
import platform
import re
import sys

import matplotlib

from measure import EMPTY, IDLE, KERNEL, NONE, OFF, ON, PROFILING, PROJECT, RECORDS, TRACED, has_counter_clock

matplotlib.use("svg")
import matplotlib.pyplot as plot  # noqa: E402

PAGE, PICTURE = PROJECT / "docs/performance.md", PROJECT / "docs/performance.svg"
NAMES = (NONE, EMPTY, OFF, ON, KERNEL, TRACED, IDLE, PROFILING)
COLOURS = dict(zip(NAMES, ("#bbbbbb", "#888888", "#7fb37f", "#2f7d32", "#b8c94a", "#1b5e9b", "#e3a33b", "#b3402a")))
SCRIPTS = ("yardstick", "request", "packet", "memory")
WORKS = {"Zend/bench.php": "Zend/bench.php", "page_calls": "page of 13,000 calls", "page_queries": "page of queries"}


def read(name):
    path = RECORDS / f"{name}.json"
    if not path.exists():
        sys.exit(f"{path.relative_to(PROJECT)} is missing: bench/report without --again makes it")
    return json.loads(path.read_text())["rows"]


def figures(rows, group):
    """{work: {configuration: row}} of one group."""
    found = {}
    for row in rows:
        if row.get("group") == group:
            found.setdefault(row["work"], {})[row["configuration"]] = row
    return found


def table(head, lines):
    rows = [head, ["---"] * len(head), *lines]
    return "\n".join("| " + " | ".join(row) + " |" for row in rows) + "\n"


def number(value, unit=None):
    if unit == "times":
        return f"{value:.3f}"
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.1f}" if abs(value) >= 10 else f"{value:.3g}"


def calls_table(rows):
    lines = []
    for kind, by in figures(rows, "calls").items():
        base = by[NONE]["median"]
        cells = (f"{number(by[name]['median'])} ({by[name]['median'] / base:.2f})" if name in by else "" for name in NAMES)
        lines.append([kind.replace("_", " "), *cells])
    return table(["ns per call (times no extension)", *NAMES], lines)


def ratios_table(rows):
    lines = []
    for work, by in figures(rows, "ratios").items():
        cells = [f"{number(by[NONE]['median'])} {by[NONE]['unit']}"]
        for row in (by.get(name) for name in NAMES[1:]):
            cells.append(f"{row['median']:.3f} ({row['low']:.3f} to {row['high']:.3f})" if row else "")
        lines.append([WORKS[work], *cells])
    return table(["processor time", NONE, *(f"{name}, times" for name in NAMES[1:])], lines)


def limits_table(scripts):
    lines = []
    for script, rows in scripts.items():
        for row in rows:
            if "limit" in row:
                bound = f"{'at least' if row['at_least'] else 'at most'} {row['limit']:g} {row['unit']}"
                middle, low, high = (number(row[key], row["unit"]) for key in ("median", "low", "high"))
                what = row["what"].replace("_", " ")
                lines.append([what, f"**{middle}** {row['unit']}", f"{low} to {high}", str(row["rounds"]), bound,
                              "met" if row["held"] else "**missed**", f"`bench/{script}.py`"])
    return table(["what", "median", "quartiles", "rounds", "limit", "", "printed by"], lines)


def draw(rows):
    plot.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "performance", "font.size": 9, "font.family": "sans-serif"})
    figure, (left, right) = plot.subplots(1, 2, figsize=(11, 4.2), layout="constrained")
    calls, works = figures(rows, "calls"), figures(rows, "ratios")
    for at, name in enumerate(NAMES):
        there = [(i, by[name]["median"]) for i, by in enumerate(calls.values()) if name in by]
        left.bar([i + (at - 3.5) * 0.11 for i, _ in there], [value for _, value in there], 0.11, color=COLOURS[name], label=name)
        there = [(i, by[name]) for i, by in enumerate(works.values()) if name in by and name != NONE]
        right.bar([i + (at - 4) * 0.12 for i, _ in there], [row["median"] for _, row in there], 0.12, color=COLOURS[name],
                  yerr=list(zip(*((row["median"] - row["low"], row["high"] - row["median"]) for _, row in there))),
                  error_kw={"linewidth": 0.8})
    left.set(title="one call, ns of processor time", yscale="log")
    left.set_xticks(range(len(calls)), [kind.replace("_", "\n") for kind in calls])
    right.set(title="processor time by that without an extension", yscale="log", ylim=(0.9, None))
    right.set_xticks(range(len(works)), [WORKS[work] for work in works])
    right.axhline(1, color="black", linewidth=0.6)
    for axes, ticks in ((left, (50, 100, 200, 500, 1000, 2000, 5000)), (right, (1, 1.1, 1.25, 1.5, 2, 3, 5, 8))):
        axes.set_yticks(ticks, [f"{tick:g}" for tick in ticks])
        axes.minorticks_off()
        axes.grid(axis="y", linewidth=0.3)
    figure.legend(*left.get_legend_handles_labels(), frameon=False, loc="lower center", bbox_to_anchor=(0.5, -0.07),
                  ncol=len(NAMES))
    figure.savefig(PICTURE, bbox_inches="tight", metadata={"Date": None, "Creator": None})
    PICTURE.write_text("\n".join(line.rstrip() for line in PICTURE.read_text().splitlines()) + "\n")


def machine():
    found = re.search(r"model name\s*: (.*)", open("/proc/cpuinfo").read())
    model = re.sub(r"\s+", " ", found.group(1)) if found else platform.machine()
    clock = "the time-stamp counter" if has_counter_clock() else "the kernel's clock"
    return f"Measured on {os.cpu_count()} processors ({model}), timed with {clock}.\n"


def main():
    scripts = {name: read(name) for name in SCRIPTS}
    yardstick = scripts["yardstick"]
    picture = "![one call, and three pieces of work](performance.svg)\n"
    parts = [machine(), picture, calls_table(yardstick), ratios_table(yardstick),
             "### Against the limits\n", limits_table(scripts), "### Instructions of a call\n",
             "```\n" + (RECORDS / "instructions.txt").read_text().strip() + "\n```\n"]
    begin, end = "<!-- begin: written by bench/report -->\n", "<!-- end -->\n"
    page = PAGE.read_text()
    before, _, rest = page.partition(begin)
    _, found, after = rest.partition(end)
    assert found, f"{PAGE.name} has lost its marks"
    PAGE.write_text(before + begin + "\n" + "\n".join(parts) + "\n" + end + after)
    draw(yardstick)


if __name__ == "__main__":
    main()
