#!/usr/bin/python3
"""What the agent adds to a request that does nothing: processor time and system calls, by difference from a twin without it.

    bench/request.py [ROUNDS]

Two FastCGI processes, one with the agent and one without, take turns at 100 requests; the time is what the kernel's scheduler
counted for the process. Once with a daemon that listens, once with none. System calls are counted by strace, where there is
one. Then how long a request waits for a daemon that has stalled: one that never answers holds up the question for settings
for its 100 ms; one that accepts nobody holds up each of the two attempts to connect. Needs a finished build."""
import signal
import subprocess
import sys
import time

from measure import bench, engines, processor_us

TURN = 100
SYSTEM_CALLS, CPU_US, CPU_US_DAEMON_DEAD = 18, 60, 110      # what a request may cost
TIMEOUT_MS, SLACK_MS = 100, 10                              # what a wait for the daemon may take, and the clock's tick with it


def turn(server, script):
    """Microseconds of processor time per request."""
    before = processor_us(server.process.pid)
    for _ in range(TURN):
        server.request(script, "/index.php")
    return (processor_us(server.process.pid) - before) / TURN


def added_us(pair, script, rounds):
    return [turn(pair.agent, script) - turn(pair.bare, script) for _ in range(rounds)]


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


def waits_ms(pair, script, count):
    return [pair.agent.request(script, "/index.php").ms - pair.bare.request(script, "/index.php").ms for _ in range(count)]


def stalled(record, site, script):
    """A process that never had an answer asks again with each request."""
    site.daemon.start()
    site.daemon.reply = None                                # it takes everything and says nothing
    pair = site.serve(engines.FastCgi)
    record.add("empty request, daemon never answers: wait", "ms", waits_ms(pair, script, 15), TIMEOUT_MS + SLACK_MS)
    with site.daemon.full_backlog():
        pair.agent.request(script, "/index.php")            # drops the connection that it had
        record.add("empty request, daemon accepts nobody: wait", "ms", waits_ms(pair, script, 15), 2 * (TIMEOUT_MS + SLACK_MS))


def measure(record, site, rounds):
    site.daemon.configure({"zqs.resource.enabled": "true"})     # the memory sample is part of an ordinary request
    pair = site.serve(engines.FastCgi, env={"PHP_FCGI_MAX_REQUESTS": "0"})
    script = site.script("echo 1;", "index.php")
    print("what the agent adds to a request that does nothing")
    record.add("empty request, daemon listening: processor time", "us", added_us(pair, script, rounds), CPU_US)
    if subprocess.run(["which", "strace"], capture_output=True).returncode == 0:
        calls = {name: count for name, count in added_calls(pair, script).items() if count}
        print(f"  {calls}")
        record.add("empty request, daemon listening: system calls", "calls", [sum(calls.values())], SYSTEM_CALLS)
    site.daemon.stop()
    record.add("empty request, daemon dead: processor time", "us", added_us(pair, script, rounds), CPU_US_DAEMON_DEAD)
    stalled(record, site, script)


if __name__ == "__main__":
    sys.exit(bench("request", engines.Site(**{"zqs.agent_log_level": "OFF"}), measure, 31))
