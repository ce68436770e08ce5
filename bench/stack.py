#!/usr/bin/python3
"""What nested calls take of the C stack: bytes per level of PHP recursion, and how deep a script may nest.

    bench/stack.py [--check]

Any extension that hooks execution makes PHP recursion C recursion; without one only calls through internal functions are. The
figure is the growth of the process's stack between two depths. Configurations: no extension; an empty one that only passes both
execute hooks through; the agent loaded but off; on. --check fails when the agent takes more than budget.toml allows above
the empty one per call; a level through array_map is two, the internal function and the callback, and one through __call too.
The depths are those at which nine tenths of the stack are full."""
import os
import resource
import subprocess
import sys
import tomllib

from measure import PROJECT, build_empty_hook, engines

KINDS = {"function": 1, "method": 1, "closure": 1, "array_map": 2, "__call": 2}      # hooked calls per level
SHALLOW, DEEP = 1000, 11000
STACKS_MIB = (8, 64, 256)


def stack_kib(ini, kind, depth):
    environment = {**engines.web_environment(PROJECT / "bench/php/stack.php", "/stack.php"), "PATH": os.environ["PATH"],
                   "NEST": kind, "DEPTH": str(depth)}
    done = subprocess.run([engines.ENGINE / "bin/php-cgi", "-q", "-c", ini], env=environment, capture_output=True, check=True,
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_STACK, (1 << 28, resource.RLIM_INFINITY)))
    return int(done.stdout.rsplit(b"\n", 1)[-1])


def bytes_per_level(ini, kind):
    return (stack_kib(ini, kind, DEEP) - stack_kib(ini, kind, SHALLOW)) * 1024 / (DEEP - SHALLOW)


def main():
    limit = tomllib.loads((PROJECT / "bench/budget.toml").read_text())["stack_bytes_per_call"]["on"]
    passed = []
    site = engines.Site()
    plain = {"memory_limit": "-1"}
    settings = {"none": site.ini_file(False, plain), "empty hook": site.ini_file(False, {**plain, "extension": build_empty_hook()}),
                "off": site.ini_file(extra={**plain, "zqs.agent_enabled": "0"}), "on": site.ini_file(extra=plain)}
    try:
        print(f"{'bytes per level':16}" + "".join(f"{name:>12}" for name in settings) + "   above it per call" +
              "".join(f"{f'depth in {mib} MiB':>18}" for mib in STACKS_MIB))
        for kind, calls in KINDS.items():
            found = {name: bytes_per_level(ini, kind) for name, ini in settings.items()}
            above = (found["on"] - found["empty hook"]) / calls
            passed += [f"{kind}: {above:.0f}, allowed {limit}"] if above > limit else []
            print(f"{kind:16}" + "".join(f"{value:12.0f}" for value in found.values()) + f"{above:20.0f}" +
                  "".join(f"{int(mib * (1 << 20) * .9 / found['on']):>18}" for mib in STACKS_MIB))
    finally:
        site.close()
    for line in passed:
        print(f"over the budget: {line}")
    return 1 if passed and "--check" in sys.argv else 0


if __name__ == "__main__":
    sys.exit(main())
