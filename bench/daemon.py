#!/usr/bin/python3
"""What the daemon can bear: packets a second that it stores whole, processor time for each, how long queries wait meanwhile, memory.

    bench/daemon.py [ROW...]

Rows are the sizes below and "flood", "accounts", "empty", "idle", "commands", "bounds", "week"; all when none is named. The load comes from daemon_load.cpp,
whose clients lose a packet when an agent would. Each row has a daemon of its own, whose store is at its bound, so that each
packet pushes out an older one. "Without loss" is the highest rate of those tried at which every packet was stored within a third
of a second of its sending, so that no backlog hides an overload; the generator shares the machine with the daemon. Limits are held
for what one client may do to others: those have to hold on a busy machine too."""
import json
import os
import pwd
import re
import sqlite3
import subprocess
import sys
import tempfile
import time
from contextlib import closing, contextmanager
from pathlib import Path

from measure import PROJECT, Record

QUORBIT = Path(os.environ.get("QUORBIT", PROJECT / "build/bin/quorbit"))          # another, to compare with
STORE_MB = 64
SECONDS, AGENTS, QUERY_MS = 3, 200, 5
GUESSES = {"859": 30_000, "3000": 10_000, "20000": 2_500, "1000000": 100}         # by bytes: the rate that is tried first
SMALL, LEAST_RATE, MOST_SMALL_MS, MOST_SMALL_MB = "859", 20_000, 10, 100            # with sums by minute and hour
MOST_LOST, MOST_QUERY_MS, MOST_MB, MOST_IDLE_MB = 1, 50, 384, 48
COMMANDS = ("top", "top -n 100000", "show", "show --json", "show -n 100000", "show -n 1000000 --json", "status")
MOST_COMMAND_MB, MOST_COMMAND_S, FULL_STORE_MB = 256, 2, 512
MOST_LOG_MB = 136


def build_load():
    """build/bench/daemon_load, made when its source is newer."""
    source, target = PROJECT / "bench/daemon_load.cpp", PROJECT / "build/bench/daemon_load"
    if not target.exists() or target.stat().st_mtime < source.stat().st_mtime:
        target.parent.mkdir(parents=True, exist_ok=True)
        subprocess.check_call(["g++", "-std=c++20", "-O2", source, "-o", target, "-lpthread"])
    return target


class Daemon:
    def __init__(self, root, store_mb=STORE_MB):
        self.root, self.folder = root, root / "log/quorbit"
        self.folder.mkdir(parents=True)
        for path in (root, self.folder):
            path.chmod(0o755)
        names = {"daemon_log_level": "warning", "daemon_log_file_name": "daemon.log", "pid_file": "quorbit.pid",
                 "ipc_listen_file": ".quorbit.sock"}
        config = self.folder / ".quorbit.cfg"
        config.write_text("".join(f"zqs.{key}={self.folder / name if '.' in name else name}\n" for key, name in names.items()))
        self.bound(store_mb)
        self.config, self.socket = config, self.folder / ".quorbit.sock"
        self.start()

    def bound(self, store_mb):
        (self.folder / "applications.conf").write_text(f"store_mb = {store_mb}\n")

    def start(self):
        self.process = subprocess.Popen([QUORBIT, "-f", self.config, "--foreground"])
        while not self.socket.exists():
            assert self.process.poll() is None, "the daemon ended"
            time.sleep(0.01)

    def end(self):
        self.process.terminate()
        self.process.wait(30)

    def fill(self):
        """A store of the size that it has by default; the daemon is not running then."""
        run(self, "Bench", 3000, 1, 10, 0.3)
        self.settled("Bench")
        self.end()
        with sqlite3.connect(self.folder / "quorbit.db") as store:
            store.execute(GROW, (FULL_STORE_MB * 1024 // 4,))       # a page each
            store.execute("UPDATE counter SET value = (SELECT max(id) FROM action) WHERE name = 'summed'")
        store.close()

    def stored(self, application):
        """Packets of the application that were committed."""
        shown = subprocess.run([QUORBIT, "status", "--root", self.root], capture_output=True, text=True).stdout
        found = re.search(rf"^{application}$.*?^  packets +(\d+)", shown, re.M | re.S)
        return int(found[1]) if found else 0

    def wait_stored(self, application, count, seconds):
        """How many there are when all are, or after so long."""
        end = time.monotonic() + seconds
        while (found := self.stored(application)) < count and time.monotonic() < end:
            time.sleep(0.02)
        return found

    def settled(self, application):
        """How many there are when no more come."""
        before, found = -1, 0
        while before != found:
            before, found = found, self.stored(application)
            time.sleep(0.7)
        return found

    def processor_us(self):
        tasks = Path(f"/proc/{self.process.pid}/task").glob("*/schedstat")
        return sum(int(task.read_text().split()[0]) for task in tasks) / 1000

    def memory_mb(self, what):
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(rf"{what}:\s*(\d+)", status)[1]) / 1024


@contextmanager
def daemon(store_mb=STORE_MB):
    with tempfile.TemporaryDirectory(prefix="quorbit-bench-") as root:
        found = Daemon(Path(root), store_mb)
        try:
            yield found
        finally:
            found.end()


class Clients:
    """A load under way; as another account when one is named."""

    def __init__(self, target, application, size, connections, rate, seconds, query_ms=0, kind="action", account=None):
        command = [build_load(), target.socket, application, kind, size, connections, rate, seconds, query_ms]
        who = pwd.getpwnam(account) if account else None
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        **({"user": who.pw_uid, "group": who.pw_gid, "extra_groups": []} if who else {}))

    def figures(self):
        """What it prints when it is through; its connections stay."""
        return json.loads(self.process.stdout.readline())

    def end(self):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait(30)


def run(*arguments, **more):
    clients = Clients(*arguments, **more)
    try:
        return clients.figures()
    finally:
        clients.end()


def probe(target, size, rate):
    """(figures, whether nothing was lost or late, packets stored a second, processor time for each)"""
    before, processor = target.settled("Bench"), target.processor_us()
    begin = time.monotonic()
    figures = run(target, "Bench", size, AGENTS, rate, SECONDS, QUERY_MS)
    through = time.monotonic()
    stored = target.wait_stored("Bench", before + figures["sent"], 0.34) - before
    rate_stored = stored / (time.monotonic() - begin)
    whole = figures["lost"] == 0 and stored >= figures["started"] and through - begin < SECONDS + 0.5
    total = target.settled("Bench") - before
    return figures, whole and figures["started"] >= 0.95 * rate * SECONDS, rate_stored, (target.processor_us() - processor) / max(total, 1)


def size_row(record, size):
    label = f"{int(size):,} B"
    with daemon() as target:
        rate, best = GUESSES[size] * 1.2, None
        for _ in range(8):
            figures, whole, stored_rate, processor = probe(target, size, rate)
            print(f"    {rate:8.0f}/s: {'all stored' if whole else 'some lost or late'}, lost by clients {figures['lost']}, stored "
                  f"{stored_rate:.0f}/s, {processor:.0f} us each, query p99 {figures['p99_ms']:.1f} ms", flush=True)
            if whole:
                best = rate, processor, figures
            elif best:
                break
            rate = rate * 1.15 if whole else min(rate * 0.85, max(stored_rate * 1.05, rate / 2))
        if best:
            record.add(f"{label}: without loss", "/s", [best[0]], LEAST_RATE if size == SMALL else None, at_least=True)
            record.add(f"{label}: processor time of a packet", "us", [best[1]])
            record.add(f"{label}: query meanwhile, 99th percentile", "ms", [best[2]["p99_ms"]], MOST_SMALL_MS if size == SMALL else None)
        else:
            record.add(f"{label}: without loss", "/s", [0], LEAST_RATE if size == SMALL else None, at_least=True)
        record.add(f"{label}: most memory, overload included", "MB", [target.memory_mb("VmHWM")],
                   MOST_SMALL_MB if size == SMALL else None)


def week_row(record):
    from sums import week
    week(record)


def beside(record, what, others, query_ms=QUERY_MS, limit_ms=None, **mine):
    """Our packets and queries while others send: what is lost, and how long queries wait."""
    with daemon() as target:
        theirs = Clients(target, **others)
        ours = run(target, "Ours", 3000, 20, 100, 5, query_ms, **mine)
        theirs.figures()
        theirs.end()
        stored = target.wait_stored("Ours", ours["started"], 10)
        record.add(f"{what}: packets of others lost", "%", [100 * (1 - stored / ours["started"])], MOST_LOST)
        record.add(f"{what}: queries of others, 99th percentile", "ms", [ours["p99_ms"]], limit_ms)
        record.add(f"{what}: most memory", "MB", [target.memory_mb("VmHWM")], MOST_MB)


def flood_row(record):
    others = {"application": "Flood", "size": 3000, "connections": 1, "rate": 0, "seconds": 6}
    beside(record, "one client floods", others, limit_ms=MOST_QUERY_MS)


def accounts_row(record):
    others = {"application": "Flood", "size": 3000, "connections": 1000, "rate": 0, "seconds": 6, "account": "nobody"}
    beside(record, "1,000 connections of an account flood", others, limit_ms=MOST_QUERY_MS, account="www-data")


def empty_row(record):
    others = {"application": "Flood", "size": 16_000_000, "connections": 20, "rate": 0, "seconds": 6, "kind": "empty"}
    beside(record, "16 MB of empty records", others, limit_ms=MOST_QUERY_MS)


def idle_row(record):
    """1,000 connections that have sent one packet of 300 KB each, and then are idle; a large one still gets through."""
    with daemon() as target:
        run(target, "Warm", 3000, 10, 1000, 1)
        target.settled("Warm")
        before = target.memory_mb("VmRSS")
        clients = Clients(target, "Bench", 300_000, 1000, 0, 0)
        clients.figures()
        target.settled("Bench")
        time.sleep(3)
        record.add("1,000 idle connections after 300 KB each: more memory", "MB", [target.memory_mb("VmRSS") - before], MOST_IDLE_MB)
        large = run(target, "Large", 1_000_000, 200, 15, 3)
        stored = target.wait_stored("Large", large["started"], 5)
        record.add("and 1 MB packets lost beside them", "%", [100 * (1 - stored / large["started"])], MOST_LOST)
        clients.end()


# Actions of 3 KB, the last half hour of a busy host, until the store has its full size.
GROW = """
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < ?1)
INSERT INTO action (received_ms, process, application, name, duration_ms, database_ms, cache_ms, external_ms, code_ms, status, error, packet)
SELECT received_ms - 1800000 + 1800000 * i / ?1, process, application, name || (i % 1000), duration_ms + i % 977, database_ms, cache_ms,
  external_ms, code_ms, status, error, packet FROM n, (SELECT * FROM action WHERE id = 1)
"""


def cost_of(root, words):
    """Megabytes and seconds of processor time that a command takes. A small process starts it: the peak begins with the size of
    whoever starts a program."""
    measure = ("import resource, subprocess, sys; subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, check=True); "
               "used = resource.getrusage(resource.RUSAGE_CHILDREN); print(used.ru_maxrss / 1024, used.ru_utime + used.ru_stime)")
    return map(float, subprocess.check_output([sys.executable, "-c", measure, QUORBIT, *words, "--root", root], text=True).split())


def commands_row(record):
    """What commands take on a store of the size that it has by default."""
    with daemon() as target:
        target.fill()
        for words in COMMANDS:
            megabytes, seconds = cost_of(target.root, words.split())
            record.add(f"{FULL_STORE_MB} MB of actions: {words}: memory", "MB", [megabytes], MOST_COMMAND_MB)
            record.add(f"{FULL_STORE_MB} MB of actions: {words}: processor time", "s", [seconds], MOST_COMMAND_S)


class Watch:
    """Until its end: the largest write-ahead log, and how long the newest of the packets that come all the time took to be stored."""

    def __init__(self, target):
        self.log_mb, self.late_ms, self.target = 0, 0, target

    def look(self, until, seconds):
        """Looks for so long, or until something is so."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and not until():
            path = self.target.folder / "quorbit.db"
            log = Path(f"{path}-wal")
            self.log_mb = max(self.log_mb, log.stat().st_size / 2**20 if log.exists() else 0)
            with closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as store:
                newest, = store.execute("SELECT max(received_ms) FROM action WHERE id > (SELECT max(id) - 100 FROM action)").fetchone()
            self.late_ms = max(self.late_ms, time.time() * 1000 - newest)
            time.sleep(0.01)


def bounds_row(record):
    """A store of its default size whose bound is lowered to a fiftieth; and readers that stand still: one within a transaction, and a
    command whose output nobody takes."""
    def watched(what, rate, seconds, until=lambda: False):
        clients = Clients(target, "Bench", 3000, 20, rate, seconds)
        watch = Watch(target)
        time.sleep(1)
        watch.look(until, seconds - 1)
        clients.figures()
        clients.end()
        record.add(f"{what}: write-ahead log at most", "MB", [watch.log_mb], MOST_LOG_MB)
        record.add(f"{what}: until stored, at most", "ms", [watch.late_ms])

    with daemon(FULL_STORE_MB) as target:
        store, log = target.folder / "quorbit.db", target.folder / "daemon.log"
        target.fill()
        target.start()
        for rate, what in ((100, "a pager"), (1500, "a pager under load")):
            with subprocess.Popen([QUORBIT, "show", "-n", "1000000", "--json", "--root", target.root], stdout=subprocess.PIPE) as pager:
                watched(what, rate, 10)
                pager.kill()
        with closing(sqlite3.connect(store, isolation_level=None)) as reader:
            reader.execute("BEGIN")
            reader.execute("SELECT count(*) FROM application").fetchone()
            watched("a transaction left open", 3000, 30)
            assert "was left behind" in log.read_text()
        target.bound(10)
        begin = time.monotonic()
        watched(f"store_mb from {FULL_STORE_MB} to 10", 100, 60, lambda: store.stat().st_size < 16 << 20)
        record.add("and the time it takes", "s", [time.monotonic() - begin])


def main():
    rows = {**{size: lambda record, size=size: size_row(record, size) for size in GUESSES},
            "flood": flood_row, "accounts": accounts_row, "empty": empty_row, "idle": idle_row, "commands": commands_row,
            "bounds": bounds_row, "week": week_row}
    record = Record("daemon")
    for name in sys.argv[1:] or rows:
        rows[name](record)
    return record.keep()


if __name__ == "__main__":
    sys.exit(main())
