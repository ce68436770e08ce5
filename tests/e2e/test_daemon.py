"""The real daemon: the agent starts it, it answers by applications.conf, keeps what comes, and shows it."""
import fcntl
import json
import os
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
from contextlib import ExitStack
from pathlib import Path

import pytest

from support import wire
from support.engines import PROJECT, at_once
from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT


def test_many_processes_at_once_start_one_daemon(real):
    assert at_once(10, lambda i: real.php("echo 1;")) == [b"1"] * 10
    wait_until(lambda: len(real.pids()) == 1, "a single daemon")
    assert real.pids() == [int((real.logs / "quorbit.pid").read_text())]
    real.php("function work() { usleep(30000); } work();", "work.php")
    real.reports(1, "work.php")
    newest, = real.shown("work.php")
    assert newest["application"] == "Shop" and 30 <= newest["duration_ms"] < 10000
    assert "PHP/NULL/work" in real.command("show", str(newest["id"]))
    assert "work.php" in real.command("top") and "Shop" in real.command("status")
    assert not any(path.stat().st_mode & 0o007 for path in real.logs.glob("quorbit.*"))
    assert (real.logs / ".quorbit.sock").stat().st_mode & 0o777 == 0o666       # whom the folder lets in


def test_daemon_ends_and_starts_again_with_what_it_kept(real):
    real.php()
    real.reports(1)
    real.stop()
    assert not (real.logs / ".quorbit.sock").exists() and not (real.logs / "quorbit.pid").exists()
    assert len(real.shown()) == 1
    real.php()
    real.reports(2)
    assert len(real.pids()) == 1


def test_who_keeps_the_daemon_from_starting_is_told(real):
    real.php()
    real.stop()
    with open(real.logs / "quorbit.pid.lock") as lock:
        fcntl.flock(lock, fcntl.LOCK_SH)
        run = subprocess.run([QUORBIT, "-f", real.logs / ".quorbit.cfg"], capture_output=True, text=True, timeout=20)
    told = f"quorbit.pid.lock is locked by process {os.getpid()}, and nobody answers"
    assert run.returncode == 1 and told in run.stderr and told in (real.logs / "daemon.log").read_text()


def test_a_daemon_that_crashes_is_started_again_within_bounds(real):
    real.php()
    real.reports(1)
    log = real.logs / "daemon.log"
    for crash in range(1, 5):
        before, = real.pids()
        os.kill(before, signal.SIGKILL)
        wait_until(lambda: log.read_text().count("listening on") == crash + 1, f"the daemon after {crash} crashes", 20)
        if crash == 1:
            real.php()
            real.reports(2)
    os.kill(real.pids()[0], signal.SIGKILL)
    wait_until(lambda: not real.processes(), "the parent to give up")
    assert log.read_text().count("starting it again") == 4 and " CRITICAL: " in log.read_text()


@pytest.mark.parametrize("ending", [signal.SIGTERM, signal.SIGKILL])
def test_a_daemon_ends_with_its_parent(real, ending):
    real.php()
    parent, = set(real.processes()) - set(real.pids())
    os.kill(parent, ending)
    wait_until(lambda: not real.processes(), "both to end")
    assert not (real.logs / "quorbit.pid").exists() and not (real.logs / ".quorbit.sock").exists()


def test_a_remade_folder_and_signals_of_others_leave_the_daemon_as_it_was(real):
    real.php()
    real.reports(1)
    before = real.processes()
    shutil.rmtree(real.logs)
    real.logs.mkdir()
    wait_until(lambda: (real.logs / "quorbit.pid").exists(), "a pid file", 20)
    assert [int((real.logs / "quorbit.pid").read_text())] == real.pids() and (real.logs / "quorbit.pid.lock").exists()
    for number in (signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM, signal.SIGIO, signal.SIGPROF, signal.SIGVTALRM):
        for pid in before:
            os.kill(pid, number)
    real.php()
    real.reports(1)
    assert real.processes() == before


# Preloaded: once the file of that name is there, nothing that is written comes to an end.
STALL = """
#include <unistd.h>
#include <stdlib.h>
#include <sys/syscall.h>
ssize_t pwrite64(int file, const void *bytes, size_t count, long at)
{
    while (!access(getenv("STALL"), F_OK)) usleep(10000);
    return syscall(SYS_pwrite64, file, bytes, count, at);
}
"""


@pytest.mark.parametrize("obstacle", ["foreign lock", "disk that stalls"])
def test_sigterm_ends_it_whatever_the_disk_does(real, obstacle, tmp_path):
    real.php()
    real.reports(1)
    real.stop()
    library, stall = tmp_path / "stall.so", tmp_path / "stall"
    subprocess.run(["gcc", "-shared", "-fPIC", "-o", library, "-x", "c", "-"], input=STALL, text=True, check=True)
    command = [QUORBIT, "-f", real.logs / ".quorbit.cfg", "--foreground"]
    with subprocess.Popen(command, env={"LD_PRELOAD": str(library), "STALL": str(stall)}) as daemon:
        wait_until(lambda: (real.logs / ".quorbit.sock").exists(), "the daemon")
        real.php()
        real.reports(2)
        blocker = sqlite3.connect(real.logs / "quorbit.db", isolation_level=None)
        if obstacle == "foreign lock":
            blocker.execute("BEGIN IMMEDIATE")
        else:
            stall.touch()
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(real.logs / ".quorbit.sock"))
            client.sendall(wire.record(0x0B, wire.record(0x11, "Shop")) * 100)
        with socket.socket(socket.AF_UNIX) as client:                  # answered when the hundred have been received
            client.connect(str(real.logs / ".quorbit.sock"))
            client.sendall(wire.record(0x0A, wire.record(0x11, "Shop")))
            client.recv(1000)
        daemon.terminate()
        daemon.wait(5)
        blocker.close()
    assert re.search(r" (\d+) packets and queries were not stored before the end", (real.logs / "daemon.log").read_text())
    assert not (real.logs / "quorbit.pid").exists()


def test_descriptors_run_out_and_are_there_again(real):
    real.php()
    real.stop()
    limited = ["prlimit", "--nofile=36:36", QUORBIT, "-f", real.logs / ".quorbit.cfg"]
    subprocess.run(limited, check=True, timeout=20)

    def connect():
        client = socket.socket(socket.AF_UNIX)
        client.connect(str(real.logs / ".quorbit.sock"))
        return client

    def asked(client):
        client.sendall(wire.record(0x0A, wire.record(0x11, "Shop")))
        return client.recv(1000)

    with connect() as first:
        asked(first)
        others = [connect() for _ in range(60)]
        log = real.logs / "daemon.log"
        wait_until(lambda: "no more connections for now" in log.read_text(), "the line in the log")
        (real.logs / "applications.conf").write_text("[Shop]\nzqs.agent_enabled = 0\n")
        assert b"zqs.details=1" in asked(first)                              # it answers, from the new file or the one before
        for other in others:
            other.close()
        wait_until(lambda: "connections are taken again" in log.read_text(), "connections")
        wait_until(lambda: b"zqs.agent_enabled=0" in asked(first), "the settings")
        assert log.read_text().count("no more connections for now") == 1


def test_applications_are_configured_by_the_operators_file(real):
    """Settings reach the application they are for, and a changed file reaches the next process."""
    real.php()
    for enabled, count in [("1", 2), ("0", 2), ("1", 3)]:
        (real.logs / "applications.conf").write_text(f"[*]\nzqs.agent_enabled = 0\n[Shop]\nzqs.agent_enabled = {enabled}\n")
        real.php()
        real.reports(count)


@pytest.mark.parametrize("words, told", [
    (["show", "abc"], "the number of an action"), (["show", "-n", "0"], "not in range"), (["top", "--since", "1w"], "a time such as"),
    (["profile", "Shop"], "TIME is required"), (["status", "--shop"], "--shop"), (["shew"], "shew")])
def test_wrong_usage_is_told_in_one_line_and_the_usage(words, told):
    done = subprocess.run([QUORBIT, *words], capture_output=True, text=True, timeout=20)
    what, usage = done.stderr.splitlines()
    command = words[0] if len(words) > 1 else "[OPTIONS]"
    assert (done.returncode, done.stdout) == (2, "") and told in what and usage.startswith(f"Usage: quorbit {command}")


def test_every_command_tells_the_version():
    version = re.search(r"project\(quorbit VERSION ([0-9.]+)", (PROJECT / "CMakeLists.txt").read_text())[1]
    for words in ["--version"], ["show", "--version"]:
        assert subprocess.check_output([QUORBIT, *words], text=True) == f"quorbit {version} (protocol Oct 20 2016)\n"


def test_an_unknown_application_is_told_from_those_that_are_known(real):
    real.php()
    real.reports(1)
    for words in ["show"], ["top"], ["tail"], ["profile"]:
        words += ["Shpo", "1s"] if words == ["profile"] else ["--app", "Shpo"]
        done = subprocess.run([QUORBIT, *words, "--root", real.site.root], capture_output=True, text=True, timeout=20)
        assert (done.returncode, done.stdout, done.stderr) == (1, "", 'quorbit: there is no application "Shpo"; known: Shop\n')


def test_top_shows_as_many_names_as_fit(real):
    for first in "abcde":
        for second in "abcdef":
            real.php(name=first + second + ".php")
    real.reports(1, "ef.php")
    assert len(real.command("top").splitlines()) == 31
    assert len(real.command("top", "-n", "4").splitlines()) == 6 and "... and 26 more (-n)" in real.command("top", "-n", "4")
    assert len(real.on_terminal(80, "top")) == 23


def test_lists_fit_the_terminal_and_a_pipe_gets_whole_names(real):
    name = "long" * 40 + ".php"
    real.php(name=name)
    real.reports(1, name)
    for words in ["show"], ["top"]:
        assert name in real.command(*words)
        lines = real.on_terminal(80, *words)
        assert max(map(len, lines)) == 80 and ".php" in lines[1] and name not in lines[1]


@pytest.mark.parametrize("noise", [b"\xff" * 64, wire.record(0x0B, b"\x11\0\0\x09x"), wire.record(0x0A, b"")[:3], b""])
def test_a_broken_client_costs_only_its_connection(real, noise):
    real.php()
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(real.logs / ".quorbit.sock"))
        client.sendall(noise)
        real.php()
        real.reports(2)


def memory_kb(pid):
    return int(re.search(r"VmRSS:\s*(\d+)", Path(f"/proc/{pid}/status").read_text())[1])


def test_idle_connections_hold_no_memory(real):
    """A thousand that have sent a packet of 300 KB each; what the burst took goes back. Who stops within a packet is cut off."""
    real.php()
    real.reports(1)
    pid, = real.pids()
    before = memory_kb(pid)
    packet = wire.record(0x0B, wire.record(0x11, "Shop") + wire.record(0x25, bytes(300_000)))
    with ExitStack() as clients:
        for _ in range(1000):
            client = clients.enter_context(socket.socket(socket.AF_UNIX))
            client.connect(str(real.logs / ".quorbit.sock"))
            client.sendall(packet)
        client.sendall(packet[:3])
        wait_until(lambda: memory_kb(pid) < before + 32_768, "the memory to go back", 20)
        client.settimeout(30)
        assert client.recv(1) == b""


PROFILED = "function deep() { usleep(5000); } function middle() { deep(); } for ($i = 0; $i < 3; $i++) middle();"


def test_a_profile_shows_the_calls_of_an_application(real):
    real.php()
    real.reports(1)
    said = {"table": r"FUNCTION\n +\d+ +\d+ ms +\d+% +\d+ ms +\d+% +usleep\n(.*\n)*.* > middle > deep > usleep\n",
            "folded": r"(?m)^action Background;middle;deep;usleep \d{2,}$", "raw": r"\n +\d+ +> deep\n",
            "callgrind": "^# callgrind format\n", "speedscope": '"type":"evented","unit":"milliseconds"'}
    with ExitStack() as ended:
        command = [QUORBIT, "profile", "Shop", "1s", "--root", real.site.root, "--format"]
        output = {form: open(real.site.root / form, "w+") for form in said}         # a pipe would fill while nobody reads it
        running = {form: subprocess.Popen([*command, form], stdout=output[form]) for form in said}
        for form, profile in running.items():
            ended.enter_context(output[form])
            ended.enter_context(profile)
            ended.callback(profile.kill)
        wait_until(lambda: real.php(PROFILED) == b"" and all(p.poll() is not None for p in running.values()), "the profiles", 30)
        printed = {form: (real.site.root / form).read_text() for form in said}
    for form, expected in said.items():
        assert re.search(expected, printed[form]), printed[form]
    calls = real.site.root / "callgrind.out"
    calls.write_text(printed["callgrind"])
    annotated = subprocess.run(["callgrind_annotate", "--inclusive=yes", calls], capture_output=True, text=True, timeout=60)
    assert annotated.returncode == 0 and annotated.stderr == "", annotated.stderr
    assert re.search(r"PROGRAM TOTALS\n(.*\n)*.*php:middle.*\n.*php:deep", annotated.stdout), annotated.stdout
    assert json.loads(printed["speedscope"])["shared"]["frames"]


MANY_QUICK = """function product($db, $id) {
    return $db->query("WITH RECURSIVE n(i) AS (SELECT $id UNION ALL SELECT i + 1 FROM n LIMIT 800) SELECT sum(i) FROM n");
}
$db = new PDO('sqlite::memory:');
$spent = 0;
for ($i = 0; $i < 800; $i++) {
    $begin = microtime(true); product($db, $i); $spent += microtime(true) - $begin;
}
file_put_contents(__DIR__ . '/spent', $spent * 1e6);"""


def test_many_quick_statements_show_their_share_and_their_line(real):
    """The commonest fault of applications, with settings untouched: 800 statements that take no millisecond each. The page's
    stamps are around the agent's, so that its figure is the larger one, by a slice of time each time that the processor is
    taken between them: of five runs the one that was disturbed least counts."""
    far = []
    for run in range(1, 6):
        real.php(MANY_QUICK)
        real.reports(run)
        newest = real.shown()[0]
        shown, whole_us = real.command("show", str(newest["id"])), newest["database_us"] + newest["code_us"]
        own = 100 * float((real.site.docroot / "spent").read_text()) / whole_us
        printed, = re.findall(r"spent in +database [^(]*\((\d+)%\)", shown)
        far.append(own - int(printed))
        assert newest["statement_count"] == 800 and re.search(r"SQLite +800 times, (each under 1 ms|\d+ ms together)", shown), shown
        assert re.search(f" run at +{real.site.docroot}/job.php:2\n", shown) and far[-1] > -1, shown
    assert min(far) <= 3, far


def test_a_store_is_moved_away_while_a_command_reads_it(real):
    for _ in range(3):
        real.php()
    real.reports(3)
    command = [QUORBIT, "tail", "--root", real.site.root]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as tail:
        try:
            assert "ACTION" in tail.stdout.readline() and all("job.php" in tail.stdout.readline() for _ in range(3))
            tail.send_signal(signal.SIGSTOP)                           # so that the new store overtakes the numbers it has seen
            (real.logs / "quorbit.db").rename(real.logs / "broken.db")
            for name in ["moved.php"] + ["next.php"] * 4:
                real.php(name=name)
            real.reports(4, "next.php")
            tail.send_signal(signal.SIGCONT)
            assert ["moved.php" in tail.stdout.readline() for _ in range(5)] == [True] + [False] * 4 and real.shown() == []
        finally:
            tail.kill()
