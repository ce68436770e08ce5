#!/usr/bin/python3
"""What the agent costs a script that does nothing but call a local server.

    bench/external.py [PAIRS]

Two scripts, one on the engine with the agent and one without, take turns at 20 calls; the figure is the median of the
pairs' ratios. The server is the engine's own, without the agent. The bound is held for calls that are only recorded, even
against an empty page, where nothing hides the cost, and for those that carry an identity and bring the callee's data
against a service that takes a millisecond. The latter against an empty page is shown for what it is: on a curl handle there
are two options to set and a PHP function to call for every header line of the answer, on a stream a context to make and one
more packet to send, and no service that has an identity to answer with is an empty page. Ends with status 1 when the bound
is passed. Needs a finished build. All run on one processor, first come, first served where that is permitted: where and when
the scheduler lets a client and its server run decides more about such a call than anything in it."""
import contextlib
import itertools
import os
import subprocess
import sys
from statistics import median

from measure import engines

CALLS, BOUND = 20, 1.05
ALONE = {"zqs.action_tracer.enabled": "1"}
CONNECTED = {**ALONE, "zqs.vantorIdSecret": "12|34", "zqs.transaction_tracer.enabled": "1"}
EMPTY, SERVICE = "empty.php", "service.php"
# (what it shows, settings, page)
CASES = [("recorded", ALONE, SERVICE), ("connected", CONNECTED, SERVICE),
         ("recorded, empty page", ALONE, EMPTY), ("connected, empty page", CONNECTED, EMPTY)]
SCRIPT = """
if (function_exists('vantor_start_webaction')) vantor_start_webaction('bench');
while (fgets(STDIN)) {
    $t = microtime(true);
    for ($i = 0; $i < %d; $i++) { %s }
    echo microtime(true) - $t, "\\n";
}
"""
LOOPS = {
    "curl": "$c = curl_init('%s'); curl_setopt($c, CURLOPT_RETURNTRANSFER, true); curl_exec($c);",
    "curl, headers": "$c = curl_init('%s'); curl_setopt($c, CURLOPT_RETURNTRANSFER, true);"
                     "curl_setopt($c, CURLOPT_HTTPHEADER, array('Accept: text/plain')); curl_exec($c);",
    "file_get_contents": "file_get_contents('%s');",
}


class Script:
    def __init__(self, site, code, agent):
        argv = [engines.ENGINE / "bin/php", "-c", site.ini_file(agent), "-f", site.script(SCRIPT % (CALLS, code), "loop.php")]
        self.process = subprocess.Popen([str(a) for a in argv], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)

    def turn(self):
        """Seconds of one call."""
        self.process.stdin.write("go\n")
        return float(self.process.stdout.readline()) / CALLS

    def end(self):
        self.process.stdin.close()
        assert self.process.wait() == 0


def measure(site, code, pairs):
    """(seconds of one call without the agent, median ratio)."""
    scripts = {agent: Script(site, code, agent) for agent in (False, True)}
    for script in scripts.values():
        script.turn()                                     # warms up the caches of both
    bare, ratios = [], []
    for i in range(pairs):
        found = {agent: scripts[agent].turn() for agent in ((False, True) if i % 2 else (True, False))}
        bare.append(found[False])
        ratios.append(found[True] / found[False])
    for script in scripts.values():
        script.end()
    site.daemon.settle()
    assert len(site.daemon.received(engines.wire.Metric)[-1].calls) == (pairs + 1) * CALLS
    site.daemon.forget()
    return median(bare), median(ratios)


def main():
    pairs = int(sys.argv[1]) if len(sys.argv) > 1 else 155
    site, good = engines.Site(), True
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    with contextlib.suppress(PermissionError):
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
    try:
        site.script("", EMPTY)
        site.script("usleep(1000);", SERVICE)
        server = engines.BuiltIn(site, site.ini_file(False), False)
        site.servers.append(server)
        server.start()
        print(f"{CALLS * pairs} calls each{'':<25}{'without':>12}{'added':>13}{'ratio':>9}{'bound':>8}")
        for (title, settings, page), (name, code) in itertools.product(CASES, LOOPS.items()):
            site.daemon.configure(settings)
            call, ratio = measure(site, code % f"http://127.0.0.1:{server.port}/{page}", pairs)
            held = page == SERVICE or settings is ALONE
            verdict = f"{BOUND:>8.2f}  {'ok' if ratio <= BOUND else 'ABOVE THE BOUND'}" if held else ""
            good = good and (not held or ratio <= BOUND)
            print(f"{title + ', ' + name:<40}{call * 1e6:>8.1f} us{call * (ratio - 1) * 1e6:>10.1f} us{ratio:>9.3f}{verdict}", flush=True)
    finally:
        site.close()
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
