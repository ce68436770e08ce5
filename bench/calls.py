#!/usr/bin/python3
"""What watching costs a call, and a script that does nothing but call: nanoseconds and ratios by the wall clock.

    bench/calls.py [ROUNDS]

Each round runs every configuration once, in turn; figures are medians, with the quartiles beside them. Configurations: no
extension; an empty one that only passes both execute hooks through; the agent loaded but off; on with its defaults; the same
where the kernel keeps time by something else than the time-stamp counter (root only: the host's answer is replaced in a mount
namespace); on with every call of 1 ms or more traced. Then what a call costs that enters the trace, with a build that has no
shortest time for it. Needs a finished build; a daemon that takes every packet listens meanwhile."""
import os
import statistics
import subprocess
import sys
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(PROJECT / "tests/harness"), str(PROJECT / "bench")]

import engines  # noqa: E402
from instructions import CLOCK_SOURCE, KINDS, build_empty_hook, build_traced  # noqa: E402

CALLS = 300000
TRACED_CALLS = 90000        # an action keeps 100,000
OTHER_CLOCK = "kernel clock"
ENGINE_BENCH = PROJECT / "build/engine-tests/Zend/bench.php"        # there after `make engine-suite`


def configurations(site):
    def ini(agent, **more):
        return site.ini_file(agent, {name.replace("__", "."): value for name, value in more.items()})

    return {"no extension": ini(False), "empty hook": ini(False, extension=build_empty_hook()),
            "agent off": ini(True, zqs__agent_enabled="0"), "agent on": ini(True),
            **({OTHER_CLOCK: ini(True)} if engines.IS_ROOT else {}),
            "all traced": ini(True, zqs__action_tracer__action_threshold="1", zqs__app_name="Traced")}


def under_another_clock(site):
    """The beginning of a command that runs where the kernel's clock source has another name."""
    (site.root / "clocksource").write_text("other\n")
    return ["unshare", "-m", "sh", "-c", f'mount --bind {site.root}/clocksource {CLOCK_SOURCE} && exec "$@"', "sh"]


def run(ini, script, environment, prefix=()):
    """Seconds that a page of its own process takes, and what it prints."""
    variables = {**engines.web_environment(script, "/calls.php"), "PATH": os.environ["PATH"], **environment}
    before = os.times()
    command = [*prefix, engines.ENGINE / "bin/php-cgi", "-q", "-c", ini]
    done = subprocess.run(command, env=variables, capture_output=True, check=True)
    after = os.times()
    return sum(after[2:4]) - sum(before[2:4]), done.stdout


def spread(values):
    low, middle, high = statistics.quantiles(values, n=4)
    return middle, f"{middle:7.3g} ({low:.3g} to {high:.3g})"


def nanoseconds(ini, kind, count, prefix=()):
    text = run(ini, PROJECT / "bench/php/calls.php", {"CALLS": kind, "COUNT": str(count)}, prefix)[1]
    return float(text.rsplit(b"\n", 1)[-1])


def calls(settings, rounds, prefixes):
    print(f"nanoseconds per call, {rounds} rounds: median (quartiles)")
    for kind in KINDS:
        found = {name: [] for name in settings}
        for _ in range(rounds):
            for name, ini in settings.items():
                found[name].append(nanoseconds(ini, kind, CALLS, prefixes.get(name, ())))
        floor = statistics.median(found["no extension"])
        for name, values in found.items():
            middle, text = spread(values)
            print(f"  {kind:18} {name:13} {text:28} {middle - floor:+6.0f} ns")


def traced_calls(site, rounds):
    """What entering the trace adds to a call of some microseconds, without the writing in the end."""
    site.extension = build_traced()
    short, long = (site.ini_file(extra={"zqs.action_tracer.action_threshold": ms, "zqs.app_name": f"T{ms}"})
                   for ms in ("2000", "-1"))
    site.extension = engines.EXTENSION
    pairs = [[nanoseconds(ini, "long_function", TRACED_CALLS) for ini in (short, long)] for _ in range(rounds)]
    print(f"  entering the trace {spread([traced - plain for plain, traced in pairs])[1]} ns")


def engine_bench(settings, rounds, prefixes):
    print(f"Zend/bench.php, processor time by that without an extension, {rounds} rounds: median (quartiles)")
    ratios = {name: [] for name in settings if name != "no extension"}
    for _ in range(rounds):
        floor = run(settings["no extension"], ENGINE_BENCH, {})[0]
        for name in ratios:
            ratios[name].append(run(settings[name], ENGINE_BENCH, {}, prefixes.get(name, ()))[0] / floor)
    for name, values in ratios.items():
        print(f"  {name:13} {spread(values)[1]}")


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 31
    site = engines.Site()
    try:
        settings = configurations(site)
        prefixes = {OTHER_CLOCK: under_another_clock(site)}
        calls(settings, rounds, prefixes)
        traced_calls(site, rounds)
        if ENGINE_BENCH.exists():
            engine_bench(settings, max(3, rounds // 3), prefixes)
    finally:
        site.close()


if __name__ == "__main__":
    main()
