#!/usr/bin/python3
"""What the agent adds to a request that does nothing: processor time and system calls, by difference from a twin without it.

    bench/request.py [ROUNDS]

Two FastCGI processes, one with the agent and one without, take turns at 100 requests; the time is what the kernel's scheduler
counted for the process. Once with a daemon that listens, once with none. System calls are counted by strace, where there is
one. Needs a finished build."""
import signal
import subprocess
import sys
import time
from pathlib import Path
from statistics import median

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests/harness"))

import engines  # noqa: E402

TURN = 100
SYSTEM_CALLS, CPU_US, CPU_US_DAEMON_DEAD = 18, 60, 110      # what a request may cost


def cpu_us(process):
    return int(Path(f"/proc/{process.pid}/schedstat").read_text().split()[0]) / 1000


def turn(server, script):
    """Microseconds of processor time per request."""
    before = cpu_us(server.process)
    for _ in range(TURN):
        server.request(script, "/index.php")
    return (cpu_us(server.process) - before) / TURN


def added_us(pair, script, rounds):
    return median(turn(pair.agent, script) - turn(pair.bare, script) for _ in range(rounds))


def system_calls(server, script):
    """Number of system calls of some requests, by name."""
    report = server.site.root / "strace.txt"
    tracer = subprocess.Popen(["strace", "-c", "-o", report, "-p", str(server.process.pid)], stderr=subprocess.DEVNULL)
    time.sleep(0.5)                                         # strace says nothing when it has attached itself
    for _ in range(TURN):
        server.request(script, "/index.php")
    tracer.send_signal(signal.SIGINT)
    tracer.wait()
    rows = [line.split() for line in report.read_text().splitlines()]
    return {row[-1]: int(row[3]) for row in rows if len(row) >= 5 and row[3].isdigit() and row[-1] != "total"}


def added_calls(pair, script):
    mine, bare = (system_calls(server, script) for server in (pair.agent, pair.bare))
    return {name: round((mine.get(name, 0) - bare.get(name, 0)) / TURN) for name in {*mine, *bare}}


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 31
    site = engines.Site(**{"zqs.agent_log_level": "OFF"})
    passed = []
    try:
        site.daemon.configure({"zqs.resource.enabled": "true"})     # the memory sample is part of an ordinary request
        pair = site.serve(engines.FastCgi, env={"PHP_FCGI_MAX_REQUESTS": "0"})
        script = site.script("echo 1;", "index.php")
        for name, limit, daemon in (("daemon listening", CPU_US, None), ("daemon dead", CPU_US_DAEMON_DEAD, site.daemon)):
            if daemon:
                daemon.stop()
            found = added_us(pair, script, rounds)
            passed += [name] if found > limit else []
            print(f"{name:17} {found:5.0f} us of processor time per request (allowed {limit})")
            if not daemon and subprocess.run(["which", "strace"], capture_output=True).returncode == 0:
                calls = {name: count for name, count in added_calls(pair, script).items() if count}
                passed += ["system calls"] if sum(calls.values()) > SYSTEM_CALLS else []
                print(f"{'':17} {sum(calls.values()):5} system calls (allowed {SYSTEM_CALLS}): {calls}")
    finally:
        site.close()
    return 1 if passed else 0


if __name__ == "__main__":
    sys.exit(main())
