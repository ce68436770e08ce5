"""What every PHP process does at this moment, on the board that agents write and `quorbit now` reads."""
import json
import os
import signal
import struct
import threading
from contextlib import suppress
from http.client import HTTPException

import pytest

from support.engines import Apache, Fpm, at_once
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


def pool_of(server, found):
    """The host may have others, of the same name as well."""
    pool, = (pool for pool in found["pools"] if pool["manager"] == server.process.pid)
    return pool


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


@pytest.mark.parametrize("held", [Many, Threads], indirect=True)
def test_requests_that_are_killed_are_reported_with_the_call_that_they_were_in(real, peer, held):
    for pid in {row["process"] for row in now(real)["requests"]}:
        os.kill(pid, signal.SIGKILL)
    real.reports(AT_ONCE, "page.php")
    for action in real.shown("page.php"):
        whole = json.loads(real.command("show", str(action["id"]), "--json"))
        assert whole["error"]["class"] == "Killed" and peer.url("/held") in whole["error"]["message"], whole
    assert now(real)["requests"] == []


def swept(real):
    """Waits until the daemon has looked at all slots of processes that are gone: it frees them."""
    def claims():
        return filter(None, struct.unpack("1024Q", (real.logs / "board").read_bytes()[64:64 + 8 * 1024]))

    wait_until(lambda: all(os.path.exists(f"/proc/{claim >> 32}") for claim in claims()), "the daemon to look at the board")


class Impatient(Many):
    """Ends requests that take a second."""
    settings = {"[www]\n": "[www]\nrequest_terminate_timeout = 1s\n"}

    def command(self):
        command, config = super().command(), self.site.root / f"{self.name}.conf"
        for line, lines in self.settings.items():
            config.write_text(config.read_text().replace(line, lines))
        return command


class Patient(Impatient):
    """Lets children finish their requests when it is reloaded."""
    settings = {"[global]\n": "[global]\nprocess_control_timeout = 30s\n"}
    children = 4
    reload_signal = signal.SIGUSR2


class PatientThreads(Apache):
    threads, processes = 4, 16                             # those of earlier generations finish their requests meanwhile
    reload_signal = signal.SIGUSR1


ENDS = {                                                   # a server, what its requests do inside a statement, and what is said of it
    "kill -9": (Many, "posix_kill(getmypid(), 9);", ""),
    "a segmentation fault": (Many, "function deep() { deep(); } deep();", "with SIGSEGV "),
    "FPM's timeout": (Impatient, "sleep(60);", ""),
}
DIE = """
$db = new PDO('sqlite::memory:');
$db->sqliteCreateFunction('finish', function () { %s });
$db->query("SELECT finish() WHERE 'secret' <> ''");"""


@pytest.mark.parametrize("how", ENDS)
def test_of_200_that_are_killed_each_is_reported_with_its_call(real, how):
    kind, end, words = ENDS[how]
    server, count = start(real, kind), 200
    script = real.site.script(DIE % end, "doomed.php")

    def ask(_):
        for _ in range(count // AT_ONCE):
            with suppress(OSError, AssertionError, ValueError):
                server.request(script, "/doomed.php")

    def reported():
        found = json.loads(real.command("show", "--json", "--errors", "-n", "300") or "[]")
        return [action for action in found if action["action"].endswith("doomed.php")]

    at_once(AT_ONCE, ask)
    wait_until(lambda: len(reported()) >= count, "the reports", 30)
    assert len(reported()) == count
    for action in reported()[::20]:
        error = json.loads(real.command("show", str(action["id"]), "--json"))["error"]
        assert error["class"] == "Killed" and error["message"].endswith(f"ended {words}in SQL SELECT finish() WHERE ?..."), error


@pytest.mark.parametrize("kind", [Patient, PatientThreads])
def test_requests_that_end_while_the_server_is_reloaded_are_not_killed(real, kind):
    server, lanes, each, done = start(real, kind), 4, 100, []
    script = real.site.script("usleep(10000); echo 'ok';", "quick.php")

    def is_answered():
        with suppress(OSError, HTTPException, AssertionError, ValueError):                # Apache may refuse one
            done.append(server.request(script, "/quick.php").body)
            return True

    def ask(_):
        for _ in range(each):
            wait_until(is_answered, "an answer", 30)

    lane = threading.Thread(target=lambda: at_once(lanes, ask))
    lane.start()
    wait_until(lambda: done, "an answer: only then a signal is none that ends the server")
    reloads = 0
    while lane.is_alive():
        before = len(done)
        os.kill(server.process.pid, kind.reload_signal)
        reloads += 1
        wait_until(lambda: len(done) >= before + 40 or not lane.is_alive(), "answers after a reload", 30)
    lane.join()
    assert reloads > 3 and done.count(b"ok") == len(done) == lanes * each
    wait_until(lambda: not now(real)["requests"], "the requests to be gone from the board")
    swept(real)
    assert json.loads(real.command("show", "--json", "--errors") or "[]") == []


def test_another_program_in_the_place_of_php_is_not_killed(real):
    real.php()
    wait_until(lambda: (real.logs / "board").exists(), "the board")
    real.php("pcntl_exec('/bin/true');", "other.php")
    swept(real)
    assert json.loads(real.command("show", "--json", "--errors") or "[]") == []


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
