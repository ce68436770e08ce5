"""Requests that end with their process, of which no packet comes: what the daemon makes of them, and of those that only end."""
import json
import os
import signal
import threading
from contextlib import suppress
from http.client import HTTPException
from pathlib import Path

import pytest

from support.board import AT_ONCE, Many, Threads, held, now, peer, start, swept  # noqa: F401
from support.engines import Apache, at_once
from support.fake_daemon import wait_until


def failed(real, name):
    """The actions of that script that have an error."""
    found = json.loads(real.command("show", "--json", "--errors", "-n", "1000") or "[]")
    return [action for action in found if action["action"].endswith(name)]


def error_of(real, action):
    error = json.loads(real.command("show", str(action["id"]), "--json"))["error"]
    return error["class"], error["message"]


@pytest.mark.parametrize("held, how", [(Many, "with SIGKILL "), (Threads, "")], indirect=["held"])
def test_requests_in_flight_that_are_killed_are_reported_with_their_call_and_signal(real, peer, held, how):
    for pid in {row["process"] for row in now(real)["requests"]}:
        os.kill(pid, signal.SIGKILL)
    real.reports(AT_ONCE, "page.php")
    for action in real.shown("page.php"):
        assert error_of(real, action) == ("Killed", f"The process ended {how}in HTTP {peer.url('/held')}"), "Apache logs no SIGKILL"
    assert now(real)["requests"] == []


@pytest.mark.parametrize("held", [Threads], indirect=True)
def test_a_thread_that_crashes_takes_the_others_of_its_process_along_and_they_say_so(real, peer, held):
    server, _ = held
    script = real.site.script("function deep() { deep(); } deep();", "deep.php")
    with suppress(OSError, HTTPException):
        server.request(script, "/deep.php")
    wait_until(lambda: len(failed(real, "")) >= AT_ONCE + 1, "the reports")
    for name, words in (("deep.php", "with SIGSEGV in PHP, deep"),
                        ("page.php", f"with SIGSEGV of another thread in HTTP {peer.url('/held')}")):
        for action in failed(real, name):
            assert error_of(real, action) == ("Killed", f"The process ended {words}")


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


class InLittleMemory(Many):
    """In a cgroup of its own that has little memory. One request at a time, or the kernel also kills those that only begin; on a
    machine that does other work it does so all the same: QUORBIT_OOM=1 make e2e T=test_killed.py, where nothing else runs."""
    memory_bytes = 64 << 20
    children = 2
    lanes = 1
    group = None

    def start(self):
        if not os.environ.get("QUORBIT_OOM"):
            pytest.skip("QUORBIT_OOM=1 runs it, on a machine that does nothing else")
        for folder, limit in (("/sys/fs/cgroup/memory", "memory.limit_in_bytes"), ("/sys/fs/cgroup", "memory.max")):
            group = Path(folder) / f"quorbit-{os.getpid()}"
            with suppress(OSError):
                group.mkdir()
                self.group = group
                (group / limit).write_text(str(self.memory_bytes))
                break
        else:
            self.leave()
            pytest.skip("no cgroup with a bound of memory can be made here")
        super().start()
        children = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        for pid in (str(self.process.pid), *children):
            (self.group / "cgroup.procs").write_text(pid)

    def stop(self):
        super().stop()
        self.leave()

    def leave(self):
        if self.group:
            wait_until(lambda: not (self.group / "cgroup.procs").read_text(), "the processes to be gone")
            self.group.rmdir()
            self.group = None


IN_SQL = """
$db = new PDO('sqlite::memory:');
$db->sqliteCreateFunction('finish', function () { %s });
$db->query("SELECT finish() WHERE 'secret' <> ''");"""
ENDS = {                                                   # a server, what its requests do inside a statement, and what is said of it
    "kill -9": (Many, "posix_kill(getmypid(), 9);", "with SIGKILL"),
    "a segmentation fault": (Many, "function deep() { deep(); } deep();", "with SIGSEGV"),
    "FPM's timeout": (Impatient, "sleep(60);", "by FPM's request_terminate_timeout"),
    "no memory": (InLittleMemory, "ini_set('memory_limit', -1); str_repeat('x', 1 << 30);", "by the kernel's OOM killer"),
}


@pytest.mark.parametrize("how", ENDS)
def test_of_200_that_are_killed_each_is_reported_with_its_call_and_counts_as_an_error(real, how):
    kind, end, words = ENDS[how]
    server, count = start(real, kind), 200
    script = real.site.script(IN_SQL % end, "doomed.php")

    def ask(_):
        for _ in range(count // kind.lanes):
            with suppress(OSError, AssertionError, ValueError):
                server.request(script, "/doomed.php")

    def sums(by):
        return json.loads(real.command("top", "--json", "--by", by) or '{"rows": []}')["rows"]

    at_once(kind.lanes, ask)
    wait_until(lambda: len(failed(real, "doomed.php")) >= count, "the reports")
    assert len(failed(real, "doomed.php")) == count
    wait_until(lambda: sum(row["count"] for row in sums("error")) == count, "the sums")
    error, = sums("error")
    assert error["name"] == f"Killed: The process ended {words} in SQL SELECT finish() WHERE ?..."
    action, = (row for row in sums("action") if row["name"].endswith("doomed.php"))
    assert action["count"] == action["errors"] == count


def test_of_200_that_reach_the_limit_of_memory_each_is_the_error_that_it_is(real):
    server, count = start(real, Many), 200
    script = real.site.script("ini_set('memory_limit', '16M'); str_repeat('x', 1 << 26);", "greedy.php")
    at_once(AT_ONCE, lambda _: [server.request(script, "/greedy.php") for _ in range(count // AT_ONCE)])
    wait_until(lambda: len(failed(real, "greedy.php")) >= count, "the reports")
    swept(real)
    assert len(failed(real, "greedy.php")) == count
    for action in real.shown("greedy.php"):
        kind, message = error_of(real, action)
        assert kind != "Killed" and "Allowed memory size" in message


@pytest.mark.parametrize("kind", [Patient, PatientThreads])
def test_of_2000_requests_that_end_while_the_server_is_reloaded_none_is_killed(real, kind):
    server, lanes, each, done = start(real, kind), 4, 500, []
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
        wait_until(lambda: len(done) >= before + 100 or not lane.is_alive(), "answers after a reload", 30)
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
