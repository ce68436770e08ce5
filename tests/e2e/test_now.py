"""What every PHP process does at this moment, on the board that agents write and `quorbit now` reads."""
import os
import threading
import time

import pytest

from support.board import AT_ONCE, Many, Threads, held, now, peer, start  # noqa: F401
from support.engines import Apache, Fpm, at_once
from support.fake_daemon import wait_until

BUSY = """
function step($db) { return $db->query('SELECT 1'); }
function work($db, $flag) { while (!file_exists($flag)) { step($db); clearstatcache(); } }
work(new PDO('sqlite::memory:'), '%s');"""


def pool_of(server, found):
    """The host may have others, of the same name as well."""
    pool, = (pool for pool in found["pools"] if pool["manager"] == server.process.pid)
    return pool


@pytest.mark.parametrize("held", [Many, Threads], indirect=True)
def test_every_request_in_flight_is_shown_with_what_it_waits_for_and_none_after_its_end(real, peer, held):
    server, answers = held
    found = now(real)
    requests = found["requests"]
    statements = ["CREATE TABLE product (name TEXT)"] + ["SELECT name FROM product WHERE name = ?"] * 2 if server.asks else []
    assert len({(row["process"], row["thread"]) for row in requests}) == len(requests) == AT_ONCE
    for row in requests:
        assert (row["application"], row["method"], row["path"], row["function"]) == ("Shop", "GET", "/page.php", "outer")
        assert row["counts"] == {"calls": len(statements) + 1, "sql": len(statements), "cache": 0, "http": 1}
        assert (row["waits_for"]["kind"], row["waits_for"]["text"], row["waits_for"]["cut"]) == ("HTTP", peer.url("/held"), False)
        assert [(call["kind"], call["text"], call["runs"]) for call in row["last"]] == [
            ("SQL", text, False) for text in statements] + [("HTTP", peer.url("/held"), True)]
        assert 0 < row["waits_for"]["duration_us"] <= row["age_us"] < 60_000_000
    ages = [row["age_us"] for row in requests]               # each when its slot was read, which takes a while on a busy machine
    assert all(after < before + 1_000_000 for before, after in zip(ages, ages[1:]))
    if not isinstance(server, Apache):
        waiting = [server.connect() for _ in range(3)]
        wait_until(lambda: pool_of(server, now(real))["waiting"] == len(waiting), "the connections in the queue")
        assert f"All {AT_ONCE} processes of pool www are busy, and {len(waiting)} connections wait." in now(real)["findings"]
        assert f"All {AT_ONCE} processes of pool www are busy" in real.command("status")
        for connection in waiting:
            connection.close()
    leaked = b"secret" in (real.logs / "board").read_bytes()
    assert not leaked
    assert pool_of(server, found)["busy"] == AT_ONCE
    assert f"HTTP {peer.url('/held')}" in real.command("now") and "No request" in real.command("now", "--app", "Other")

    peer.free.set()
    wait_until(lambda: len(answers) == AT_ONCE, "the answers")
    assert {answer.body for answer in answers} == {b"ok"}
    wait_until(lambda: not now(real)["requests"], "the requests to be gone from the board")


def test_one_process_tells_its_last_calls_and_phps_own_stack(real):
    server, flag = start(real, Fpm), real.site.root / "flag"
    script = real.site.script(BUSY % flag, "busy.php")
    lane = threading.Thread(target=lambda: server.request(script, "/busy.php"))
    lane.start()
    try:
        wait_until(lambda: any(row["counts"]["sql"] > 40 for row in now(real)["requests"]), "the request")
        row, = now(real)["requests"]
        one, = now(real, str(row["process"]))
        frames = [line.split(" ")[0] for line in one["stack"].splitlines()]
        assert frames == ["PDO::query", "step", "work"] and f"{script}:2" in one["stack"], one["stack"]
        assert len(one["last"]) == 32 and {call["text"] for call in one["last"]} == {"SELECT ?"}
        text = real.command("now", str(row["process"]))
        assert "Last calls" in text and f"work {script}:4" in text
    finally:
        flag.touch()
        lane.join()
    assert now(real)["requests"] == []


class Crowd(Fpm):
    children = 200


class CrowdOfThreads(Apache):
    threads = 200 + 32


REQUESTS = int(os.environ.get("QUORBIT_IN_FLIGHT", 600))  # for each server; make in-flight takes 10,000
DELAY_S = 0.2                                              # of a request's start, within which it has to be shown
LASTING = "$begin = microtime(true); usleep(3000000); printf('%.6f', $begin);"     # longer than a look takes on a busy machine


def looks_beside(real, lane):
    """By turns, as long as the lane runs: when a look began and ended, and the paths that it showed."""
    looks = []
    while lane.is_alive():
        begin = time.time()
        shown = [row["path"] for row in now(real)["requests"]]
        looks.append((begin, time.time(), shown))
    return looks


@pytest.mark.parametrize("kind", [Crowd, CrowdOfThreads])
def test_of_200_requests_in_flight_each_is_shown_in_time_none_twice_and_none_after_its_end(real, kind):
    if kind is CrowdOfThreads and "QUORBIT_IN_FLIGHT" not in os.environ:
        pytest.skip("make in-flight runs it, on a machine that does nothing else")
    server, at_a_time = start(real, kind), Crowd.children
    script = real.site.script(LASTING, "page.php")
    spans = {}                                             # by path: when PHP began with it, and when its answer had come

    def ask(lane):
        for i in range(REQUESTS // at_a_time):
            path = f"/page.php/{lane}-{i}"
            body = server.request(script, path).body
            spans[path] = float(body), time.time()

    lane = threading.Thread(target=lambda: at_once(at_a_time, ask))
    lane.start()
    looks = looks_beside(real, lane)
    lane.join()
    assert len(spans) == REQUESTS // at_a_time * at_a_time
    covered, longest = set(), 0
    for begin, end, shown in looks:
        assert len(set(shown)) == len(shown), "none is there twice"
        over = [path for path in shown if spans[path][1] < begin]
        due = {path for path, (began, answered) in spans.items() if began <= begin - DELAY_S and answered >= end}
        assert not over and due <= set(shown), (over, due - set(shown))
        covered |= due
        longest = max(longest, len(shown))
    print(f"{kind.__name__}: {len(spans)} requests, at most {longest} in flight, {len(looks)} looks of "
          f"{sum(end - begin for begin, end, _ in looks) / len(looks) * 1000:.0f} ms; {len(covered)} were due in one")
    assert longest > 0.9 * at_a_time and len(covered) > 0.9 * len(spans)
