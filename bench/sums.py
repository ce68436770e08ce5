#!/usr/bin/python3
"""How long questions about a week take that the store answers from its sums, and what those sums take on disk.

    bench/sums.py [NAMES [REQUESTS]]

The row "week" of bench/daemon.py is the same. Makes a store of NAMES actions (1,000) and REQUESTS a second (500) over a week: hours of seven days, minutes of three, each name
in each of them, with as many statements again; written directly in the form that daemon/facts/sums.h and histogram.h describe.
Names are as busy as those of a real site, by Zipf's law. Then it asks, five times each, and prints the medians."""
import random
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from itertools import accumulate
from math import ceil, log
from pathlib import Path

from daemon import QUORBIT, Daemon, cost_of
from measure import Record

GAMMA = 1.02 / 0.98
KINDS = {1: "WebAction/shop/page%d", 3: "SELECT a, b FROM t%d WHERE c = ?"}
VARIANTS = 8                                    # of the sums of a name in a unit of time
MOST_MS = 300
QUESTIONS = {"top --since 7d": ["top", "--since", "7d"], "top --since 7d --sort p95": ["top", "--since", "7d", "--sort", "p95"],
             "queries --since 7d": ["queries", "--since", "7d"], "top --since 1h": ["top", "--since", "1h"]}


def varint(value):
    out = bytearray()
    while value >= 0x80:
        out.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes([*out, value])


def sums(rng, count):
    """The sums of so many durations around a tenth of a second, as bytes."""
    durations = [int(rng.lognormvariate(11.5, 0.5)) for _ in range(min(count, 400))]
    buckets = {}
    for us in durations:
        bucket = ceil(log(us) / log(GAMMA)) + 1
        buckets[bucket] = buckets.get(bucket, 0) + max(count // len(durations), 1)
    total = sum(durations) * count // len(durations)
    figures = [count, count // 100, total, total // 3, total // 20, total // 10, total // 2, total // 50, total // 3, count * 12]
    row = [len(figures), *figures, max(durations), rng.randrange(10**7), rng.randrange(10**6)]
    next_bucket = 0
    for bucket in sorted(buckets):
        row += [bucket - next_bucket, buckets[bucket]]
        next_bucket = bucket + 1
    return b"".join(map(varint, row))


def fill(path, names, requests):
    store = sqlite3.connect(path)
    store.execute("PRAGMA synchronous = OFF")
    rng = random.Random(1)
    now = int(time.time())
    share = 1 / list(accumulate(1 / rank for rank in range(1, names + 1)))[-1]
    for kind, name in KINDS.items():
        store.executemany("INSERT INTO sum_key VALUES (?,?,'Shop',?,'','','','','','',0,'','',?,?,'')",
                          ((kind * 100_000 + i, kind, name % i, now * 1000, now * 1000) for i in range(names)))
        for table, unit, units in (("sum_hour", 3600, 7 * 24), ("sum_minute", 60, 3 * 1440)):
            rates = [requests * unit * share / (i + 1) for i in range(names)]
            variants = [[sums(rng, max(round(rate), 1)) for _ in range(VARIANTS)] for rate in rates]
            last = now // unit
            store.executemany(f"INSERT INTO {table} VALUES (?,?,?,?)",
                              ((kind, at, kind * 100_000 + i, variants[i][(at + i) % VARIANTS])
                               for at in range(last - units + 1, last + 1) for i in range(names)))
            print(f"    {table}, kind {kind}: {units * names} rows of {statistics.mean(len(v) for row in variants for v in row):.0f} bytes",
                  flush=True)
    store.commit()
    store.close()


def ask(root, words):
    """Milliseconds, the start of the command included."""
    begin = time.monotonic()
    subprocess.run([QUORBIT, *words, "--root", root], stdout=subprocess.DEVNULL, check=True)
    return (time.monotonic() - begin) * 1000


def week(record, names=1000, requests=500):
    with tempfile.TemporaryDirectory(prefix="quorbit-bench-") as folder:
        target = Daemon(Path(folder))
        path = target.folder / "quorbit.db"
        target.wait_stored("", 0, 1)
        target.end()
        fill(path, names, requests)
        record.add("sums of a week: the store", "MB", [path.stat().st_size / 2**20])
        for name, words in QUESTIONS.items():
            record.add(f"sums of a week: quorbit {name}", "ms", [statistics.median(ask(folder, words) for _ in range(5))], MOST_MS)
        record.add("sums of a week: most memory of a command", "MB", [max(next(cost_of(folder, words)) for words in QUESTIONS.values())])


def main():
    record = Record("sums")
    week(record, *map(int, sys.argv[1:]))
    return record.keep()


if __name__ == "__main__":
    sys.exit(main())
