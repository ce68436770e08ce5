#!/usr/bin/python3
"""Whether `quorbit web` is in the daemon's way: how long packets take until they are committed while the page is asked 50 times a
second for a minute, against the same without, in turns of ten seconds; and the memory that it takes, with a store of 512 MB.

    bench/web.py

A packet of our own is sent every fifth of a second and looked for in the store every two milliseconds, beside 100 packets a second of
others. The questions are those that an open overview, a list and a request ask."""
import random
import socket
import sqlite3
import statistics
import sys
import threading
import time
from pathlib import Path

from daemon import FULL_STORE_MB, GROW, Clients, daemon, run
from measure import Record
from support import web

TURNS, TURN_SECONDS, RATE, PROBES = 6, 10, 50, 5
MOST_MB, MOST_SLOWER = 64, 1.1
PATHS = ("requests?n=100", "top?since=1h&n=50", "series?by=application&since=1h", "top?by=application&since=1h", "top?by=host&since=1h",
         "requests/{id}", "requests/{id}/elements", "top?by=query&since=24h&n=200", "services?since=1h", "series?by=action&since=24h&heat=1")


def fill(target):
    """Actions until the store has its full size, and their sums, which the daemon makes when it starts again."""
    run(target, "Bench", 3000, 1, 10, 0.3)
    target.settled("Bench")
    target.end()
    with sqlite3.connect(target.folder / "quorbit.db") as store:
        store.execute(GROW, (FULL_STORE_MB * 1024 // 4,))
        last = store.execute("SELECT max(id) FROM action").fetchone()[0]
        store.execute("UPDATE counter SET value = ? WHERE name = 'action'", (last,))
    store.close()
    (target.folder / "applications.conf").write_text(f"store_mb = {2 * FULL_STORE_MB}\n")
    target.start()
    run(target, "Bench", 3000, 1, 10, 1)
    store = sqlite3.connect(f"file:{target.folder}/quorbit.db?mode=ro", uri=True)
    while store.execute("SELECT value FROM counter WHERE name = 'summed'").fetchone()[0] <= last:
        time.sleep(0.1)
    store.close()
    return last


def ask(server, last, rate, end, took):
    """Questions at that rate until then; what each took."""
    rng = random.Random(rate)
    due = time.monotonic()
    while due < end:
        begin = time.monotonic()
        path = rng.choice(PATHS).format(id=rng.randrange(1, last))
        status, _, body = server.ask("/api/v1/" + path)
        assert status == 200, (path, body[:200])
        took.append(1000 * (time.monotonic() - begin))
        due += 1 / rate
        time.sleep(max(0, due - time.monotonic()))


def probe(target, number, end):
    """How long each packet takes until it is in the store, in milliseconds."""
    packet = web.packet(b"Probe", b"WebAction/probe", 5)
    store = sqlite3.connect(f"file:{target.folder}/quorbit.db?mode=ro", uri=True, isolation_level=None)
    stored = "SELECT ifnull(max(packets), 0) FROM application WHERE name = 'Probe'"
    rng, lags = random.Random(number), []
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(target.socket))
        while time.monotonic() < end:
            before, begin = store.execute(stored).fetchone()[0], time.monotonic()
            client.sendall(packet)
            while store.execute(stored).fetchone()[0] == before:
                assert time.monotonic() < begin + 30, "a packet was lost"
                time.sleep(0.002)
            lags.append(1000 * (time.monotonic() - begin))
            time.sleep(rng.random() * 2 / PROBES)
    store.close()
    return lags


def turn(target, server, last, number, asked, took):
    end = time.monotonic() + TURN_SECONDS
    askers = [threading.Thread(target=ask, args=(server, last, RATE / 10, end, took)) for _ in range(10 if asked else 0)]
    for asker in askers:
        asker.start()
    lags = probe(target, number, end)
    for asker in askers:
        asker.join()
    return lags


def main():
    record = Record("web")
    with daemon() as target:
        last = fill(target)
        server = web.Web(target.root)
        others = Clients(target, "Bench", 3000, 20, 100, 2 * TURNS * (TURN_SECONDS + 2))
        lags, work, took = {False: [], True: []}, {False: [], True: []}, []
        for number in range(2 * TURNS):
            asked = number % 2 == 1
            before, begin = target.processor_us(), time.monotonic()
            lags[asked] += turn(target, server, last, number, asked, took)
            work[asked].append((target.processor_us() - before) / 1000 / (time.monotonic() - begin))
        status = Path(f"/proc/{server.process.pid}/status").read_text()
        megabytes = int(status.partition("VmHWM:")[2].split()[0]) / 1024
        server.close()
        others.end()
    for what, of in (("median", statistics.median), ("95th percentile", lambda lags: statistics.quantiles(lags, n=20)[-1])):
        alone, beside = of(lags[False]), of(lags[True])
        record.add(f"a packet until it is committed, {what}", "ms", [alone])
        record.add(f"the same, {RATE} questions a second", "times", [beside / alone], MOST_SLOWER if what == "median" else None)
    record.add("processor time of the daemon in a second", "ms", work[False])
    record.add(f"the same, {RATE} questions a second", "times", [statistics.median(work[True]) / statistics.median(work[False])], MOST_SLOWER)
    record.add("questions answered", "/s", [len(took) / (TURNS * TURN_SECONDS)])
    record.add("an answer, 95th percentile", "ms", [statistics.quantiles(took, n=20)[-1]])
    record.add(f"most memory of quorbit web, store of {FULL_STORE_MB} MB", "MB", [megabytes], MOST_MB)
    return record.keep()


if __name__ == "__main__":
    sys.exit(main())
