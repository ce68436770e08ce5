"""What every PHP process does at this moment, on the board that agents write and `quorbit now` reads."""
import json
import os
import signal
import struct
import threading
from contextlib import suppress
from http.client import HTTPException

import pytest

from support.engines import IS_ROOT, Apache, Fpm, at_once
from support.fake_daemon import wait_until
from support.peers import Peer, http_answer, read_http

AT_ONCE = 20
ASK = """
function ask($db, $name) { $db->query("SELECT name FROM product WHERE name = '$name' OR 4711"); }
$db = new PDO('sqlite::memory:');
$db->exec('CREATE TABLE product (name TEXT)');
ask($db, 'secret one');
ask($db, 'secret two');"""
WAIT = """
function outer($url) { return file_get_contents("$url/held?token=secret"); }
echo outer('%s');"""
BUSY = """
function step($db) { return $db->query('SELECT 1'); }
function work($db, $flag) { while (!file_exists($flag)) { step($db); clearstatcache(); } }
work(new PDO('sqlite::memory:'), '%s');"""


class One(Fpm):
    children = 1


class Many(Fpm):
    children = AT_ONCE
    asks = ASK                                             # Apache's engine has no database


class Threads(Apache):
    threads = AT_ONCE + 12                                 # some wait for what comes next
    asks = ""


class Holding(Peer):
    """Answers nobody until it is told to."""

    def __init__(self):
        self.free = threading.Event()
        super().__init__()

    def serve(self, sock):
        self.requests.append(read_http(sock))
        self.free.wait(60)
        sock.sendall(http_answer())


@pytest.fixture
def peer():
    found = Holding()
    yield found
    found.free.set()
    found.close()


def start(real, kind):
    real.php()                                             # starts the daemon
    wait_until(lambda: (real.logs / "board").exists(), "the board")
    server = kind(real.site, real.site.ini_file(), True)
    real.site.servers.append(server)
    server.start()
    return server


def now(real, *words):
    return json.loads(real.command("now", "--json", *words) or "null")


@pytest.fixture
def held(real, peer, request):
    """A server with so many requests in flight, which wait for the peer; and what they are answered."""
    server = start(real, request.param)
    script = real.site.script(server.asks + WAIT % peer.url(""), "page.php")
    answers = []

    def ask():
        with suppress(OSError, HTTPException, AssertionError, ValueError):                 # of those that are killed
            answers.extend(at_once(AT_ONCE, lambda i: server.request(script, f"/page.php?i={i}")))

    lane = threading.Thread(target=ask)
    lane.start()
    wait_until(lambda: len(peer.requests) == AT_ONCE, "all requests to wait")
    yield server, answers
    peer.free.set()
    lane.join()


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
    leaked = b"secret" in (real.logs / "board").read_bytes()
    assert not leaked
    busy = {(pool["server"], pool["busy"]) for pool in found["pools"]}
    assert ("Apache" if isinstance(server, Apache) else "FPM", AT_ONCE) in busy
    assert f"HTTP {peer.url('/held')}" in real.command("now") and "No request" in real.command("now", "--app", "Other")

    peer.free.set()
    wait_until(lambda: len(answers) == AT_ONCE, "the answers")
    assert {answer.body for answer in answers} == {b"ok"}
    wait_until(lambda: not now(real)["requests"], "the requests to be gone from the board")


@pytest.mark.parametrize("held", [Many, Threads], indirect=True)
def test_requests_that_are_killed_are_reported_with_the_call_that_they_were_in(real, peer, held):
    for pid in {row["process"] for row in now(real)["requests"]}:
        os.kill(pid, signal.SIGKILL)
    real.reports(AT_ONCE, "page.php")
    for action in real.shown("page.php"):
        whole = json.loads(real.command("show", str(action["id"]), "--json"))
        assert whole["error"]["class"] == "Killed" and peer.url("/held") in whole["error"]["message"], whole
    assert now(real)["requests"] == []


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


def spoil_with_random(path):
    with path.open("r+b") as board:
        board.write(os.urandom(path.stat().st_size))


def take_every_slot(path):
    with path.open("r+b") as board:
        board.seek(64)
        board.write(struct.pack("Q", os.getpid() << 32 | os.getpid()) * 1024)


SPOILED = {                                                # how, what the log says ("": nothing), and whether before the process starts
    "absent": (lambda path: path.unlink(), "", True),
    "not to be written": (lambda path: path.chmod(0o440), "cannot be opened: Permission denied", True),
    "of another size": (lambda path: os.truncate(path, 4096), "is not of this version", True),
    "random": (spoil_with_random, "is not of this version", True),
    "full": (take_every_slot, "is full", True),
    "cut short while mapped": (lambda path: os.truncate(path, 0), "has been cut short", False),
    "random while mapped": (spoil_with_random, "", False),
}


@pytest.mark.skipif(not IS_ROOT, reason="root may write what its children may not")
@pytest.mark.parametrize("how", SPOILED)
def test_requests_go_on_whatever_the_board_is_and_the_log_says_so_once(real, how):
    spoil, words, before = SPOILED[how]
    site, board = real.site, real.logs / "board"
    real.php()
    wait_until(board.exists, "the board")
    if before:
        spoil(board)
    pair = site.serve(One)
    script = site.script(ASK + " foreach (range(1, 50) as $i) { ask($db, $i); } echo $i;", "page.php")
    for i in range(3):
        for _ in range(4):
            pair.agent.request(script, "/page.php").check_twin(pair.bare.request(script, "/page.php"), ())
        if not before and i == 0:
            spoil(board)
    real.reports(12, "page.php")
    told = [line for line in site.log().splitlines() if "the board" in line]
    assert len(told) == (1 if words else 0)
    assert all(words in line for line in told), told
