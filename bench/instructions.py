#!/usr/bin/python3
"""What the agent adds to one call, in instructions counted by callgrind: figures that a busy machine cannot blur.

The same PHP loop runs under php-cgi with two counts of iterations; the difference, divided by the difference of the counts,
is the price of one iteration; the quick function is one that cannot be slow, which the agent does not time. Configurations: no extension, one that only passes both execute hooks through (the floor), the
same with two readings of the clock that the agent uses here, the agent loaded but off, the agent on with its defaults; and a
build with no shortest time for a trace, so that every call enters it, which includes writing and sending it in the end. Then
the engine's own Zend/bench.php as a whole, with the agent off, by the empty hook. With --check, fails when budget.toml's limits
are passed; what the agent adds when it is on is counted above the hook that reads the clock. Needs a finished build; a daemon
that takes every packet listens meanwhile.
"""
import argparse
import os
import re
import subprocess
import sys
import tomllib

from measure import CLOCK_SOURCE, PROJECT, build_empty_hook, build_traced, engines

HERE = PROJECT / "bench"
KINDS = ("user_function", "user_method", "internal_function", "quick_function", "internal_method", "outermost_function")
FEW, MANY = 1000, 11000
FLOOR = {"off": "empty hook", "on": "clock hook"}
UNTIMED = dict.fromkeys(FLOOR, "empty hook")


def configurations(site):
    """php.ini files by name; `site` listens for the agent."""
    empty = site.ini_file(False, {"extension": build_empty_hook()})
    found = {"none": site.ini_file(False), "empty hook": empty, "clock hook": empty,
             "off": site.ini_file(extra={"zqs.agent_enabled": "0"}), "on": site.ini_file()}
    site.extension = build_traced()
    found["traced"] = site.ini_file(extra={"zqs.action_tracer.action_threshold": "-1", "zqs.app_name": "Traced"})
    site.extension = engines.EXTENSION
    return found


def count(ini, script, variables, *options):
    """Instructions of one process; `options` are the engine's."""
    environment = {**engines.web_environment(script, "/calls.php"), "PATH": os.environ["PATH"], **variables}
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", engines.ENGINE / "bin/php-cgi", "-q", "-d", "max_execution_time=0",
               "-c", ini, *options]
    done = subprocess.run(command, env=environment, capture_output=True, text=True)
    found = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode or not found:
        sys.exit(f"{' '.join(map(str, command))}\n{done.stdout}{done.stderr}")
    return int(found.group(1))


def per_call(name, ini, kind):
    clock = {"EMPTY_HOOK_CLOCK": CLOCK_SOURCE.read_text().strip()} if name == "clock hook" else {}  # "tsc": as the agent then does
    few, many = (count(ini, HERE / "php/calls.php", {"CALLS": kind, "COUNT": str(calls), **clock}) for calls in (FEW, MANY))
    return (many - few) / (MANY - FEW)


def engine_bench():
    """Zend/bench.php in the engine's source, which is fetched when it is not there."""
    subprocess.check_call([PROJECT / "tests/engine/source"])
    return PROJECT / "build/engine-tests/Zend/bench.php"


def switched_off(settings, limit):
    """Prints what the agent adds to Zend/bench.php when it is off; the figure in words when it is above its limit."""
    script = engine_bench()
    hook, off = (count(settings[name], script, {}) for name in ("empty hook", "off"))
    print(f"Zend/bench.php: empty hook {hook:,}, off {off:,}: {off / hook:.4f} times, allowed {limit}")
    return [f"Zend/bench.php, off: {off / hook:.4f}, allowed {limit}"] if off > hook * limit else []


def measure(settings, limits):
    """Prints the table; the figures above their limits, in words."""
    passed = []
    print(f"{'instructions per call':22}" + "".join(f"{name:>12}" for name in settings) + "   above its hook: off, on")
    for kind in KINDS:
        figures = {name: per_call(name, ini, kind) for name, ini in settings.items()}
        floors, allowed = (UNTIMED, {name: limits["quick"] for name in FLOOR}) if kind == "quick_function" else (FLOOR, limits)
        above = {name: figures[name] - figures[floor] for name, floor in floors.items()}
        passed += [f"{kind}, {name}: {above[name]:.0f}, allowed {allowed[name]}" for name in above
                   if above[name] > allowed[name] and kind != "outermost_function"]    # which is a component: more than a call
        print(f"{kind:22}" + "".join(f"{value:12.0f}" for value in figures.values()) +
              f"{above['off']:13.0f}{above['on']:6.0f}", flush=True)
    return passed


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true")
    options = parser.parse_args()
    limits = tomllib.loads((HERE / "budget.toml").read_text())
    site = engines.Site()
    try:
        settings = configurations(site)
        passed = measure(settings, limits["instructions_per_call"])
        passed += switched_off(settings, limits["times_instructions_of_engine_bench"]["off"])
    finally:
        site.close()
    for line in passed:
        print(f"over the budget: {line}")
    return 1 if options.check and passed else 0


if __name__ == "__main__":
    sys.exit(main())
