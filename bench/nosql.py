#!/usr/bin/python3
"""What the agent costs a script that does nothing but ask a Redis server for a key, and what such calls leave in memory.

    bench/nosql.py [PAIRS]

Two scripts, one on the engine with the agent and one without, take turns at 1,000 calls over a UNIX socket; the figure is
the median of the pairs' ratios. Both stay in one action all the while, so that whatever a call kept would add up. Ends with
status 1 when a bound is passed. Needs a finished build; Redis is started privately. All run on one processor: where the scheduler
puts a client and its server decides more about such a call than anything in it."""
import os
import subprocess
import sys
from statistics import median

from measure import PROJECT, engines
from support.stores import Redis

CALLS, RATIO_BOUND = 1000, 1.03
SCRIPT = """
$r = new Redis; $r->connect('%s'); $r->set('key', 'value'); $r->get('key');
$seconds = $i = $t = 0; $before = memory_get_usage();
while (fgets(STDIN)) {
    $t = microtime(true);
    for ($i = 0; $i < %d; $i++) $r->get('key');
    $seconds = microtime(true) - $t;
    echo $seconds, ' ', memory_get_usage() - $before, "\\n";
}
"""


class Script:
    def __init__(self, site, redis, agent):
        # a call that the busy machine delays would enter the trace and be counted as memory
        ini = site.ini_file(agent, {"extension": str(PROJECT / "build/extensions/redis.so"), "zqs.action_tracer.enabled": "0"})
        argv = [engines.ENGINE / "bin/php", "-c", ini, "-f", site.script(SCRIPT % (redis.socket, CALLS), "loop.php")]
        self.process = subprocess.Popen([str(a) for a in argv], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)

    def turn(self):
        """Seconds of 1,000 calls, and bytes that the script holds more than before its first turn."""
        self.process.stdin.write("go\n")
        seconds, kept = self.process.stdout.readline().split()
        return float(seconds), int(kept)

    def end(self):
        self.process.stdin.close()
        assert self.process.wait() == 0


def measure(site, redis, pairs):
    """(seconds of one call bare, median ratio, bytes kept by the first turns, by the last ones)."""
    scripts = {agent: Script(site, redis, agent) for agent in (False, True)}
    first = {agent: script.turn()[1] for agent, script in scripts.items()}     # warms up the caches of both
    bare, ratios, kept = [], [], {}
    for i in range(pairs):
        found = {agent: scripts[agent].turn() for agent in ((False, True) if i % 2 else (True, False))}
        bare.append(found[False][0])
        ratios.append(found[True][0] / found[False][0])
        kept = {agent: turn[1] for agent, turn in found.items()}
    for script in scripts.values():
        script.end()
    return median(bare) / CALLS, median(ratios), first, kept


def main():
    pairs = int(sys.argv[1]) if len(sys.argv) > 1 else 100
    subprocess.run([PROJECT / "engine/extensions", "redis"], check=True)
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    site, redis = engines.Site(), Redis()
    try:
        redis.prepare()
        redis.start()
        call, ratio, first, kept = measure(site, redis, pairs)
        site.daemon.settle()
        metric, = site.daemon.received(engines.wire.Metric)
        assert {row[2] for row in metric.nosql} == {"CONNECT", "SET", "GET"}, metric.nosql
    finally:
        redis.stop()
        site.close()
    growth = {agent: kept[agent] - first[agent] for agent in kept}
    good = ratio <= RATIO_BOUND and growth[True] == growth[False]
    print(f"redis get, {pairs * CALLS} calls of {call * 1e6:.2f} us: ratio {ratio:.4f}, bound {RATIO_BOUND}")
    print(f"memory that these calls keep: {growth[True]} bytes with the agent, {growth[False]} without")
    print("ok" if good else "ABOVE THE BOUND")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
