#!/usr/bin/python3
"""What the agent costs a script that does nothing but query, and how the report of an action grows with its statements.

    bench/database.py [ROUNDS]

Two scripts, one on the engine with the agent and one without, take turns at 1,000 queries, a hundred times: each is one
action of 100,000. A turn's ratio is that of the faster one with the agent to the faster one without of two; the figure is
the median over the turns, and over the rounds. The report is what a process does after its last query, beyond what the
bare engine does then. Ends with status 1 when a ratio is above its bound. Needs a finished build; MariaDB is started
privately, on a socket."""
import subprocess
import sys
import time
from statistics import median

from measure import engines
from support.databases import MariaDb

TURNS, QUERIES = 100, 1000
SCRIPT = """
if (function_exists('vantor_start_webaction')) vantor_start_webaction('bench');
$n = 0;
%s
while (fgets(STDIN)) {
    $t = microtime(true);
    for ($i = 0; $i < %d; $i++) %s;
    echo microtime(true) - $t, "\\n";
}
"""
SQLITE = "$db = new PDO('sqlite::memory:');"
MYSQLI = "$db = new mysqli('localhost', 'web', 'secret', 'shop', 0, '%s');"
LOOPS = [("PDO SQLite, query", SQLITE, "$db->query('SELECT 1')", 1.10),
         ("PDO SQLite, query and fetch", SQLITE, "$db->query('SELECT 1')->fetchColumn()", 1.10),
         ("PDO SQLite, no two the same", SQLITE, "$db->query('SELECT ' . $n++)", None),
         ("mysqli, query", MYSQLI, "$db->query('SELECT 1')", 1.05),
         ("mysqli, query and fetch", MYSQLI, "$db->query('SELECT 1')->fetch_row()", 1.05)]


class Script:
    def __init__(self, site, connect, query, agent, queries=QUERIES):
        code = SCRIPT % (connect, queries, query)
        argv = [engines.ENGINE / "bin/php", "-c", site.ini_file(agent), "-f", site.script(code, "loop.php")]
        self.process = subprocess.Popen([str(a) for a in argv], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)

    def turn(self):
        """Seconds of one turn."""
        self.process.stdin.write("go\n")
        return float(self.process.stdout.readline())

    def end(self):
        """Seconds from the last turn to the end of the process."""
        began = time.monotonic()
        self.process.stdin.close()
        assert self.process.wait() == 0
        return time.monotonic() - began


def reported(site):
    """Number of statements that the daemon got since the last time."""
    site.daemon.settle()
    count = sum(len(metric.sql) for metric in site.daemon.received(engines.wire.Metric))
    site.daemon.forget()
    return count


def measure(site, connect, query):
    """(seconds of one query without the agent, median ratio) of one action."""
    scripts = {agent: Script(site, connect, query, agent) for agent in (False, True)}
    bare, ratios = [], []
    for i in range(TURNS // 2):
        best = {False: 1e9, True: 1e9}
        for agent in (False, True, True, False) if i % 2 else (True, False, False, True):
            best[agent] = min(best[agent], scripts[agent].turn())
        bare.append(best[False] / QUERIES)
        ratios.append(best[True] / best[False])
    for script in scripts.values():
        script.end()
    assert reported(site) == TURNS * QUERIES
    return median(bare), median(ratios)


def compare(site, name, connect, query, bound, rounds):
    found = [measure(site, connect, query) for _ in range(rounds)]
    bare, ratio = (median(column) for column in zip(*found))
    good = bound is None or ratio <= bound
    verdict = f"{bound:>8.2f}  {'ok' if good else 'ABOVE THE BOUND'}" if bound else ""
    print(f"{name:<30}{bare * 1e6:>9.2f} us{bare * (ratio - 1) * 1e9:>9.0f} ns{ratio:>9.3f}{verdict}", flush=True)
    return good


def growth(site, rounds):
    print(f"\n{'statements':>12}{'report':>12}{'each':>12}")
    for count in (25000, 50000, 100000):
        spent = []
        for _ in range(rounds):
            ends = {}
            for agent in (False, True):
                script = Script(site, SQLITE, "$db->query('SELECT ' . $n++)", agent, count)
                script.turn()
                ends[agent] = script.end()
            spent.append(ends[True] - ends[False])
            assert reported(site) == count
        print(f"{count:>12}{median(spent) * 1000:>9.1f} ms{median(spent) / count * 1e6:>9.2f} us", flush=True)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 3
    site, server, good = engines.Site(), MariaDb(), True
    try:
        server.prepare()
        server.start()
        print(f"{TURNS * QUERIES} x SELECT 1{'':<14}{'without':>12}{'added':>12}{'ratio':>9}{'bound':>8}")
        for name, connect, query, bound in LOOPS:
            good = compare(site, name, connect.replace("%s", str(server.socket)), query, bound, rounds) and good
        growth(site, rounds)
    finally:
        server.stop()
        site.close()
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
