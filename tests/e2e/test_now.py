"""What every PHP process does at this moment, on the board that agents write and `quorbit now` reads."""
import threading

import pytest

from support.board import AT_ONCE, Many, Threads, held, now, peer, start  # noqa: F401
from support.engines import Apache, Fpm
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
    assert [row["age_us"] for row in requests] == sorted((row["age_us"] for row in requests), reverse=True)
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
