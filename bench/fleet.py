#!/usr/bin/python3
"""Whether one ClickHouse bears a fleet: what arrives of 200 daemons and how late, what sending costs a daemon, what the rows take on
disk, and how long the overview's questions take over 100 million rows of sums.

    bench/fleet.py [--hosts N] [--seconds N] [--rollups N] [load|cost|questions ...]

All three unless some are named. "load" plays the daemons: each sends 50 actions a second every ten seconds, and its sums every
minute, as rows of the sample day with numbers, host and times of their own, over connections that it keeps, compressed as a daemon
compresses them. It shares the machine with the server. "cost" compares real daemons that get the same packets, of which one sends;
and has one send a day that it has stored. "questions" fills sums of 3 days by minute and 30 by hour inside the server, and asks what
the overview asks. The server keeps all of it in the folder for temporary files."""
import argparse
import gzip
import http.client
import os
import random
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time
from contextlib import closing, contextmanager
from pathlib import Path

from daemon import QUORBIT, Clients, Daemon
from measure import Record
from sums import sums
from support.clickhouse import running
from support.fake_daemon import wait_until
from support.fleet import copy_sample_store
from support.web import Web

RATE, BATCH_S, SUMS_S, THREADS = 50, 10, 60, 8
MOST_US, MOST_LATE_S, MOST_QUESTION_MS = 30, 15, 500
SIZES = {"Date": 2, "UInt8": 1, "UInt32": 4, "UInt64": 8, "Int64": 8}
DAYS_OF_MINUTES, DAYS_OF_HOURS = 3, 30
KINDS = {1: 30, 2: 25, 3: 30, 4: 4, 5: 5, 6: 5}        # of a hundred keys: actions, paths, statements, errors, calls, caches
QUESTIONS = [f"{question}&since={since}" for since in ("1h", "24h", "30d")
             for question in ("series?by=application", "top?by=action&n=50", "top?by=application", "top?by=host")]


@contextmanager
def fleet_server():
    """A server with the tables, and a folder whose applications.conf names it."""
    with contextmanager(running)(1) as server, tempfile.TemporaryDirectory(prefix="quorbit-bench-") as root:
        folder = Path(root) / "log/quorbit"
        folder.mkdir(parents=True)
        (folder / "applications.conf").write_text(f"store_url = {server.url()}\n")
        subprocess.run([QUORBIT, "clickhouse", "setup", "--root", root], check=True, capture_output=True)
        yield server, root


@contextmanager
def sender(server, host, store=None):
    """A daemon that sends to the server, or none of them; with a store to begin with."""
    with tempfile.TemporaryDirectory(prefix="quorbit-bench-") as root:
        found = Daemon(Path(root))
        try:
            if store or server:
                found.end()
                if store:
                    (found.folder / "quorbit.db").write_bytes(store.read_bytes())
                if server:
                    (found.folder / "applications.conf").write_text(f"store_url = {server.url()}\nhost_name = {host}\n")
                found.start()
            yield found
        finally:
            found.end()


def arrived(server, host):
    return int(server.ask(f"SELECT count() FROM quorbit.action WHERE host = '{host}'"))


def with_sample(server, record=None):
    """The day of the sample, sent by a real daemon; records what that cost it."""
    with tempfile.TemporaryDirectory(prefix="quorbit-bench-") as folder:
        store = copy_sample_store(Path(folder) / "quorbit.db")
        with sender(server, "sample", store) as target:
            wait_until(lambda: int(server.ask("SELECT count() FROM quorbit.sum_hour")) > 0, "the day and its sums", 120)
            count = arrived(server, "sample")
            if record:
                record.add("a day of the sample, sent at once: processor time of an action", "us", [target.processor_us() / count], MOST_US)
    return count


# --- load: what daemons send, played

class Rows:
    """Rows of a table of the sample as RowBinary, without the columns that differ from host to host and time to time."""

    def __init__(self, server, table, own, where):
        columns = [line.split("\t") for line in server.ask(
            f"SELECT name, type FROM system.columns WHERE database = 'quorbit' AND table = '{table}'").splitlines()]
        rest = [(name, kind) for name, kind in columns if name not in own]
        self.insert = f"INSERT INTO quorbit.{table} ({', '.join([*own, *(name for name, _ in rest)])}) FORMAT RowBinary"
        connection = http.client.HTTPConnection("127.0.0.1", server.http)
        connection.request("POST", "/", f"SELECT {', '.join(name for name, _ in rest)} FROM quorbit.{table} WHERE {where} FORMAT RowBinary")
        answer = connection.getresponse()
        data = answer.read()
        assert answer.status == 200, data[:300]
        connection.close()
        self.rows = list(self.split(data, [kind for _, kind in rest]))

    @staticmethod
    def split(data, kinds):
        at = 0
        while at < len(data):
            begin = at
            for kind in kinds:
                if kind == "String":
                    length, shift = 0, 0
                    while True:
                        byte, at = data[at], at + 1
                        length |= (byte & 0x7F) << shift
                        shift += 7
                        if byte < 0x80:
                            break
                    at += length
                elif kind.startswith("Nullable"):
                    at += 1 if data[at] else 9
                else:
                    at += SIZES[kind]
            yield data[begin:at]


class Fleet:
    def __init__(self, server, hosts, seconds):
        self.server, self.hosts, self.seconds = server, hosts, seconds
        busiest = server.ask("SELECT minute FROM quorbit.sum_minute GROUP BY minute ORDER BY count() DESC LIMIT 1")
        hour = int(busiest) // 60
        self.actions = Rows(server, "action", ("day", "source", "host", "id", "received_ms"), "host = 'sample' LIMIT 5000")
        own = ("day", "source", "host", "version")
        self.sums = [(Rows(server, table, (*own, time_column), f"{time_column} = {at}"), unit) for table, time_column, at, unit in
                     (("sum_minute", "minute", busiest, 60), ("sum_hour", "hour", hour, 3600), ("use_hour", "hour", hour, 3600))]
        self.sent, self.took_ms, self.late = 0, [], 0
        self.lock = threading.Lock()

    def send(self, connection, rows, data):
        connection.request("POST", "/?query=" + rows.insert.replace(" ", "%20"), gzip.compress(data, 1), {"Content-Encoding": "gzip"})
        answer = connection.getresponse()
        told = answer.read()
        assert answer.status == 200, told[:300]

    def batch(self, connection, host, number):
        now_ms, rows = int(time.time() * 1000), self.actions.rows
        name, count = b"played-%04d" % host, RATE * BATCH_S
        head = struct.pack("<HI", now_ms // 86400000, host + 1) + bytes([len(name)]) + name
        data = b"".join(head + struct.pack("<qq", host + 1 << 36 | number * count + i, now_ms - BATCH_S * 1000 * (count - i) // count)
                        + rows[(host * 37 + number * count + i) % len(rows)] for i in range(count))
        begin = time.monotonic()
        self.send(connection, self.actions, data)
        with self.lock:
            self.took_ms.append(1000 * (time.monotonic() - begin))
            self.sent += count

    def send_sums(self, connection, host, number):
        now, name = int(time.time()), b"played-%04d" % host
        for rows, unit in self.sums:
            head = struct.pack("<HI", now // 86400, host + 1) + bytes([len(name)]) + name + struct.pack("<QI", number, now // unit)
            self.send(connection, rows, b"".join(head + row for row in rows.rows))

    def play(self, thread, end):
        """This thread's hosts in turn, each every ten seconds at a time of its own."""
        mine = range(thread, self.hosts, THREADS)
        begin = end - self.seconds
        due = sorted((begin + BATCH_S * (host / self.hosts + number), number, host)
                     for host in mine for number in range(self.seconds // BATCH_S))
        with closing(http.client.HTTPConnection("127.0.0.1", self.server.http, timeout=60)) as connection:
            for at, number, host in due:
                time.sleep(max(0, at - time.monotonic()))
                if time.monotonic() > at + BATCH_S:
                    self.late += 1
                self.batch(connection, host, number + 1)
                if number % (SUMS_S // BATCH_S) == host % (SUMS_S // BATCH_S):
                    self.send_sums(connection, host, number + 1)

    def run(self):
        """Seconds by which the host that is furthest behind was, looked at every second."""
        end = time.monotonic() + self.seconds
        threads = [threading.Thread(target=self.play, args=(number, end)) for number in range(THREADS)]
        for thread in threads:
            thread.start()
        behind = []
        time.sleep(BATCH_S)                                    # until each has sent once
        while any(thread.is_alive() for thread in threads):
            time.sleep(1)
            newest = self.server.ask("SELECT min(newest) FROM (SELECT max(received_ms) AS newest FROM quorbit.action "
                                     "WHERE host LIKE 'played-%' GROUP BY host)")
            behind.append(time.time() - int(newest) / 1000)
        for thread in threads:
            thread.join()
        return behind, max(time.monotonic() - end + self.seconds, self.seconds)


def processor_us(pid):
    """Of all threads, also those that have ended."""
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return 1e6 * (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def load(record, options):
    with fleet_server() as (server, _):
        with_sample(server)
        fleet = Fleet(server, options.hosts, options.seconds)
        before = processor_us(server.process.pid)
        behind, seconds = fleet.run()
        spent = processor_us(server.process.pid) - before
        count = int(server.ask("SELECT count() FROM quorbit.action WHERE host LIKE 'played-%'"))
        assert count == fleet.sent, (count, fleet.sent)
        what = f"{options.hosts} daemons"
        record.add(f"{what}: rows of actions", "/s", [count / seconds])
        record.add(f"{what}: a batch of {RATE * BATCH_S} takes", "ms", fleet.took_ms)
        record.add(f"{what}: the server's processor time of an action, its sums included", "us", [spent / count])
        record.add(f"{what}: batches more than {BATCH_S} s late", "", [fleet.late])
        record.add(f"{what}: age of the newest row of the host furthest behind", "s", [statistics.median(behind)], MOST_LATE_S)
        for table in "action", "sum_minute":
            size = server.ask("SELECT sum(bytes_on_disk) / sum(rows) FROM system.parts "
                              f"WHERE active AND database = 'quorbit' AND table = '{table}'")
            record.add(f"{what}: a million rows of {table} on disk", "MB", [float(size)])


# --- cost: what a daemon spends

def cost(record, options):
    with fleet_server() as (server, _):
        with_sample(server, record)
        with sender(None, "") as silent, sender(server, "sends") as sending:
            clients = [Clients(target, "Bench", 3000, 20, RATE, options.seconds) for target in (silent, sending)]
            for client in clients:
                client.figures()
            sent = sending.settled("Bench")
            wait_until(lambda: arrived(server, "sends") >= sent, "all of it", 60)
            spent = [target.processor_us() / sent for target in (silent, sending)]
            for client in clients:
                client.end()
        record.add(f"{RATE} actions a second: processor time of an action, stored", "us", [spent[0]])
        record.add(f"{RATE} actions a second: and more for sending it", "us", [spent[1] - spent[0]], MOST_US)


# --- questions

def fill_sums(server, hosts, rollups):
    """Rows by number: host fastest, then key, then time, so that a block has days next to one another."""
    units = DAYS_OF_MINUTES * 1440 + DAYS_OF_HOURS * 24
    keys = max(rollups // hosts // units, 1)
    rng = random.Random(1)
    variants = ", ".join(f"unhex('{sums(rng, rng.choice((2, 5, 20, 100))).hex()}')" for _ in range(64))
    kinds = [kind for kind, share in KINDS.items() for _ in range(share)]
    kind_of_key = f"arrayElement({kinds}, 1 + intDiv(key_index * {len(kinds)}, {keys}))"
    key_id = "key_index * 2000003 + 7 + key_index % 2"         # odd, as of keys that are known
    server.ask("INSERT INTO quorbit.source (source, host, identity, claimed_ms) "
               f"SELECT number + 1, concat('web-', toString(number + 1)), number, 1 FROM numbers({hosts})")
    server.ask("INSERT INTO quorbit.sum_key (source, host, kind, id, application, name, last_ms) "
               f"SELECT number % {hosts} + 1, 'any', {kind_of_key}, {key_id}, "
               f"concat('Shop', toString(key_index % 5)), concat('WebAction/page', toString(key_index)), toUInt64(now()) * 1000 "
               f"FROM (SELECT number, intDiv(number, {hosts}) AS key_index FROM numbers({hosts * keys}))")
    for table, column, seconds, count in (("sum_hour", "hour", 3600, DAYS_OF_HOURS * 24),
                                          ("sum_minute", "minute", 60, DAYS_OF_MINUTES * 1440)):
        last, each = int(time.time()) // seconds, hosts * keys
        step = max(1_000_000 // each, 1)                       # of time at once
        for begin in range(0, count, step):
            server.ask(f"INSERT INTO quorbit.{table} (day, source, host, kind, {column}, key, version, sums) "
                       f"SELECT toDate(intDiv(at * {seconds}, 86400)), number % {hosts} + 1, "
                       f"concat('web-', toString(number % {hosts} + 1)), {kind_of_key}, at, {key_id}, number, "
                       f"arrayElement([{variants}], 1 + cityHash64(number) % 64) "
                       f"FROM (SELECT number, {last - count + 1 + begin} + intDiv(number, {each}) AS at, "
                       f"intDiv(number % {each}, {hosts}) AS key_index FROM numbers({min(step, count - begin) * each}))")
    return sum(int(server.ask(f"SELECT count() FROM quorbit.{table}")) for table in ("sum_hour", "sum_minute"))


def questions(record, options):
    with fleet_server() as (server, root):
        begin = time.monotonic()
        count = fill_sums(server, options.hosts, options.rollups)
        print(f"    {count:,} rows of sums of {options.hosts} hosts, made in {time.monotonic() - begin:.0f} s", flush=True)
        wait_until(lambda: server.ask("SELECT count() FROM system.merges") == "0", "the merges", 600)
        page = Web(root, "--store", server.url())
        try:
            for question in QUESTIONS:
                took = []
                for _ in range(5):
                    begin = time.monotonic()
                    assert page.json(question), question
                    took.append(1000 * (time.monotonic() - begin))
                record.add(f"{count / 1e6:.0f} million rows of sums: {question}", "ms", took, MOST_QUESTION_MS)
        finally:
            page.close()


def main():
    rows = {"load": load, "cost": cost, "questions": questions}
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("rows", nargs="*", metavar="ROW", help=", ".join(rows))
    options.add_argument("--hosts", type=int, default=200)
    options.add_argument("--seconds", type=int, default=60)
    options.add_argument("--rollups", type=int, default=100_000_000)
    chosen = options.parse_args()
    if wrong := [name for name in chosen.rows if name not in rows]:
        options.error(f"no such row: {wrong[0]}")
    record = Record("fleet")
    for name in chosen.rows or rows:
        rows[name](record, chosen)
    return record.keep()


if __name__ == "__main__":
    sys.exit(main())
