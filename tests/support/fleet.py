"""A site that sends what its daemon stores to a ClickHouse, and the store of a day to begin with."""
import sqlite3
import subprocess
from contextlib import closing

import pytest

from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT

ARRIVED = "SELECT count(), uniqExact(id), sum(length(packet)), ifNull(sum(duration_us), 0), sum(received_ms) FROM quorbit.action"


def configure(real, url, *lines, host="web-1"):
    text = "\n".join([f"store_url = {url}", "store_seconds = 1", f"host_name = {host}", *lines])
    (real.logs / "applications.conf").write_text(text + "\n")


def run(real, *words):
    return subprocess.run([QUORBIT, *words, "--root", real.site.root], capture_output=True, text=True, timeout=90)


def in_store(real, sql):
    with closing(sqlite3.connect(f"file:{real.logs}/quorbit.db?mode=ro", uri=True)) as store:
        return store.execute(sql).fetchall()


def actions_of(real):
    return in_store(real, "SELECT count(*), count(DISTINCT id), sum(length(packet)), sum(duration_us), sum(received_ms) FROM action")[0]


def arrived(server, host=None):
    return tuple(int(value) for value in server.ask(ARRIVED + (f" WHERE host = '{host}'" if host else "")).split("\t"))


def all_arrives(real, server, timeout=60, host=None):
    wait_until(lambda: arrived(server, host) == actions_of(real), "each action to arrive, and none twice", timeout)


def sums_arrive(real, server, host="web-1"):
    """Sums follow with every sixth batch: those of a table are the last that were sent of each row."""
    for table, columns in (("sum_minute", "kind, minute, key"), ("sum_hour", "kind, hour, key"), ("use_hour", "part, hour, action"),
                           ("sum_key", "kind, id"), ("machine_minute", "minute, pool"), ("release", "id"), ("application", "name")):
        stored = lambda: in_store(real, f"SELECT count(*) FROM {table}")[0][0]
        sent = f"SELECT uniqExact({columns}) FROM quorbit.{table.replace('machine_minute', 'machine')} WHERE host = '{host}'"
        wait_until(lambda: int(server.ask(sent)) == stored() > 0, f"the rows of {table}", 60)


def copy_sample_store(path):
    """The store of a day of two applications, at that path."""
    with subprocess.Popen([QUORBIT, "web", "--sample", "--listen", f"unix:{path.parent}/socket"], stderr=subprocess.PIPE,
                          stdout=subprocess.DEVNULL, text=True) as web:
        try:
            root = next(line.split()[-1] for line in web.stderr if "--root" in line)
            with closing(sqlite3.connect(f"file:{root}/log/quorbit/quorbit.db?mode=ro", uri=True)) as found, \
                    closing(sqlite3.connect(path)) as copy:
                found.backup(copy)
        finally:
            web.terminate()
    return path


@pytest.fixture(scope="module")
def sample_store(tmp_path_factory):
    return copy_sample_store(tmp_path_factory.mktemp("sample") / "quorbit.db")
