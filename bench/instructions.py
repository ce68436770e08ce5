#!/usr/bin/python3
"""What the agent adds to one call, in instructions counted by callgrind: figures that a busy machine cannot blur.

The same PHP loop runs under php-cgi with two counts of iterations; the difference, divided by the difference of the counts,
is the price of one iteration. Configurations: no extension, one that only passes both execute hooks through (the floor), the
same with two readings of the clock that the agent uses here, the agent loaded but off, the agent on with its defaults. With --check, fails when
budget.toml's limits are passed; what the agent adds when it is on is counted above the hook that reads the clock.
"""
import argparse
import os
import re
import subprocess
import sys
import tempfile
import tomllib

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
ENGINE = os.path.join(TOP, "build", "engine")
KINDS = ("user_function", "user_method", "internal_function", "internal_method")
FEW, MANY = 1000, 11000


def build_empty_hook():
    """build/bench/empty_hook.so, made when its source is newer."""
    source, target = os.path.join(HERE, "empty_hook.c"), os.path.join(TOP, "build", "bench", "empty_hook.so")
    if not os.path.exists(target) or os.path.getmtime(target) < os.path.getmtime(source):
        os.makedirs(os.path.dirname(target), exist_ok=True)
        includes = subprocess.check_output([f"{ENGINE}/bin/php-config", "--includes"], text=True).split()
        subprocess.check_call(["gcc", "-O2", "-fPIC", "-shared", "-w", "-DCOMPILE_DL_EMPTY_HOOK", *includes, "-o", target, source])
    return target


def configurations(root):
    agent = ["-d", f"extension={TOP}/build/zqprof.so", "-d", f"zqs.runtime_root={root}", "-d", f"zqs.prefix={root}",
             "-d", "zqs.agent_log_level=OFF"]
    return {
        "none": [],
        "empty hook": ["-d", f"extension={build_empty_hook()}"],
        "clock hook": ["-d", f"extension={build_empty_hook()}"],
        "off": [*agent, "-d", "zqs.agent_enabled=0"],
        "on": agent,
    }


CLOCK_SOURCE = "/sys/devices/system/clocksource/clocksource0/current_clocksource"
FLOOR = {"off": "empty hook", "on": "clock hook"}


def kernel_clock():
    """What the kernel keeps time by: "tsc" is the counter that the agent then reads too."""
    with open(CLOCK_SOURCE) as handle:
        return handle.read().strip()


def count(name, options, kind, iterations):
    environment = {"PATH": os.environ["PATH"], "REDIRECT_STATUS": "1", "REQUEST_METHOD": "GET", "SCRIPT_NAME": "/calls.php",
                   "REQUEST_URI": "/calls.php", "SCRIPT_FILENAME": os.path.join(HERE, "php", "calls.php"),
                   "CALLS": kind, "COUNT": str(iterations)}
    if name == "clock hook":
        environment["EMPTY_HOOK_CLOCK"] = kernel_clock()
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", f"{ENGINE}/bin/php-cgi", "-n", *options]
    done = subprocess.run(command, env=environment, capture_output=True, text=True)
    found = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode or not found:
        sys.exit(f"{' '.join(command)}\n{done.stdout}{done.stderr}")
    return int(found.group(1))


def per_call(name, options, kind):
    return (count(name, options, kind, MANY) - count(name, options, kind, FEW)) / (MANY - FEW)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true")
    options = parser.parse_args()
    with open(os.path.join(HERE, "budget.toml"), "rb") as handle:
        limits = tomllib.load(handle)["instructions_per_call"]
    passed = []
    with tempfile.TemporaryDirectory() as root:
        settings = configurations(root)
        print(f"{'instructions per call':22}" + "".join(f"{name:>12}" for name in settings) + "   above its hook: off, on")
        for kind in KINDS:
            figures = {name: per_call(name, arguments, kind) for name, arguments in settings.items()}
            above = {name: figures[name] - figures[FLOOR[name]] for name in limits}
            passed += [f"{kind}, {name}: {above[name]:.0f}, allowed {limits[name]}" for name in limits if above[name] > limits[name]]
            print(f"{kind:22}" + "".join(f"{value:12.0f}" for value in figures.values()) + f"{above['off']:13.0f}{above['on']:6.0f}")
    for line in passed:
        print(f"over the budget: {line}")
    return 1 if options.check and passed else 0


if __name__ == "__main__":
    sys.exit(main())
