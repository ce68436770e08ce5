#!/usr/bin/python3
"""What another commit's agent sends for the end-to-end tests of this checkout, and what this one's agent sends: every
difference of the configuration queries, metric packets and profile events. `make wire-compare BASE=COMMIT` calls this.

    tests/wire_compare.py COMMIT [PYTEST ARGUMENT...]

The agent of COMMIT is built in a folder of its own below build/wire. Both run all pages of tests/e2e, or those that the arguments
choose, against the fake daemon, which asks for nothing that the protocol's first version does not know. Times, ids, process numbers,
ports and temporary paths are masked. Tests that differ are repeated alone: where one of a commit's runs is like one of the
other's, the difference was one of time. Ends with status 1 when a difference is left."""
import collections
import difflib
import json
import os
import re
import subprocess
import sys
import threading
from pathlib import Path

from support import wire

PROJECT = Path(__file__).resolve().parents[1]
WORK = PROJECT / "build/wire"
REPEATS = 3
MOST_LINES = 40                     # of one test's differences
NUMBERS = {0x14, 0x15, 0x16, 0x18, 0x1A, 0x1B}
MASKED_LINES = {0x17: {0}, 0x2B: {0, 1}, 0x29: {3}}         # the lines of a record that are times
SOMETIMES = ("PHP/NULL/remainder code", "PHP/NULL/compile")   # components that come only when they took a millisecond
# files that have no packets from the fake daemon, or take very long
LEFT_OUT = ["memory", "browser", "engine_suite", "engine_cache", "install", "lifecycle", "skips", "wire", "security", "daemon"]
BY_CHANCE = "tests/e2e/test_outcomes.py::test_load_sheds_traces_by_chance_and_an_overload_lasts"


def mask_node(node):
    parameters = {key: "#" if key == "txId" else re.sub(r"\d+", "#", json.dumps(value)) if key == "txData" else value
                  for key, value in node[7].items()}
    return ["#", "#", *node[2:7], parameters, [mask_node(child) for child in node[8]]]


def mask(kind, body):
    """The text of a record without what differs from run to run."""
    if kind in NUMBERS:
        return "#"
    if kind in (wire.QUERY, wire.METRIC, wire.PROFILE):
        return [f"{part:02x} {mask(part, inner)}" for part, inner in wire.split(body)]
    text = wire.text(body)
    if kind in MASKED_LINES:
        text = "\n".join("#" if number in MASKED_LINES[kind] else line for number, line in enumerate(text.split("\n")))
    elif kind in (0x20, 0x26):
        text = "#"
    elif kind == 0x2C:
        text = re.sub(r"^\d+ \d+", "# #", text)
    elif kind == 0x27:
        text = str(["#", *wire.items(body)[1:]])
    elif kind == 0x25:
        text = json.dumps(mask_node(json.loads(text, strict=False)))
    text = re.sub(r"zq(db)?[a-z0-9_*]{3,8}(?=%2F|/|\\/|\*)", "zq", text)
    text = re.sub(r"(127\.0\.0\.1|localhost)(:|%3A)\d+", r"\1\2#", text)
    text = text.replace("\n", "\\n")
    return re.sub(r"\bpid-\d+|module=\S+zqprof\.so|0x[0-9a-f]{6,}|\b\d{9,}\b", "#", text)


def lines_of(packets):
    """The masked packets of one test, as lines; packets of several processes come in any order."""
    found = []
    for raw in packets:
        (kind, body), = wire.split(raw)
        lines = [line for line in mask(kind, body) if not line.endswith(SOMETIMES)]
        found.append([f"packet {kind:02x}", *("  " + line for line in lines)])
    return [line for packet in sorted(found) for line in packet]


def build(commit):
    """A folder with the extension of that commit, plain, patient and traced."""
    name = subprocess.check_output(["git", "rev-parse", "--short=12", f"{commit}^{{commit}}"], text=True, cwd=PROJECT).strip()
    folder = WORK / name
    source, made = folder / "source", folder / "build"
    if (made / "traced/zqprof.so").exists():
        return made
    source.mkdir(parents=True, exist_ok=True)
    archive = subprocess.run(["git", "archive", name], cwd=PROJECT, check=True, capture_output=True)
    subprocess.run(["tar", "-x", "-C", source], input=archive.stdout, check=True)
    io = source / "ext/zqp_io.cpp"      # older commits have no constant for the time that a busy machine needs to answer
    io.write_text(io.read_text().replace("daemon_timeout_us = 100000;", "daemon_timeout_us = 999999;"))
    subprocess.run(["cmake", "-S", source, "-B", made, f"-DZQ_ENGINE={PROJECT}/build/engine", "-DZQ_DAEMON_TIMEOUT_MS=2000",
                    "--log-level=WARNING"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", made, f"-j{os.cpu_count()}", "--target", "zqprof", "zqprof_traced"], check=True,
                   stdout=subprocess.DEVNULL)
    (made / "patient").mkdir(exist_ok=True)
    (made / "patient/zqprof.so").symlink_to(made / "zqprof.so")
    return made


def run(made, name, arguments):
    """{test: the lines of what it had sent} with the extension of that folder."""
    log = WORK / f"{name}.packets"
    log.write_bytes(b"")
    output = open(WORK / f"{name}.log", "w")
    subprocess.run([sys.executable, "-m", "pytest", "-q", "--tb=no", *arguments], cwd=PROJECT, stdout=output, stderr=output,
                   env={**os.environ, "QUORBIT_BUILD": str(made), "QUORBIT_PACKETS": str(log)})
    packets = collections.defaultdict(list)
    for line in log.read_text().splitlines():
        test, _, raw = line.rpartition("\t")
        packets[test].append(bytes.fromhex(raw))
    return {test: lines_of(found) for test, found in packets.items()}


def main():
    commit, *chosen = sys.argv[1:]
    WORK.mkdir(parents=True, exist_ok=True)
    builds = {"base": build(commit), "here": PROJECT / "build"}
    chosen = chosen or ["tests/e2e", *(f"--ignore=tests/e2e/test_{name}.py" for name in LEFT_OUT), f"--deselect={BY_CHANCE}"]
    seen = {name: collections.defaultdict(list) for name in builds}
    differing = chosen
    for attempt in range(1 + REPEATS):
        for name, made in builds.items():
            for test, lines in run(made, name, differing).items():
                seen[name][test].append(lines)
        tests = sorted({*seen["base"], *seen["here"]})
        differing = [test for test in tests if not any(lines in seen["here"][test] for lines in seen["base"][test] or [[]])]
        print(f"run {attempt + 1}: {len(tests)} tests, {sum(len(runs[0]) for runs in seen['here'].values() if runs)} lines, "
              f"{len(differing)} tests differ", flush=True)
        if not tests:
            print("nothing was sent: no test was chosen, or none could run")
            return 2
        if not differing:
            break
    for test in differing:
        base, here = (seen[name][test][-1] if seen[name][test] else [] for name in builds)
        found = [line[:300] for line in difflib.unified_diff(base, here, "base", "here", n=0, lineterm="")]
        print(f"\n{test}", *found[:MOST_LINES], *([f"... {len(found) - MOST_LINES} more"] if len(found) > MOST_LINES else []), sep="\n")
    return 1 if differing else 0


if __name__ == "__main__":
    sys.setrecursionlimit(100_000)                    # a trace is as deep as the calls were
    threading.stack_size(256 << 20)
    status = [2]
    thread = threading.Thread(target=lambda: status.insert(0, main()))
    thread.start()
    thread.join()
    sys.exit(status[0])
