"""What can fail around the agent, one thing at a time: the page is what it is without the agent and comes in time, nothing
crashes, and what is lost is what docs/reliability.md says."""
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

from support import wire
from support.cases import cases, program
from support.engines import AGENT, BUILD, ENGINE, EXTENSION, IS_ROOT, PROJECT, WEB_USER, FastCgi, web_environment
from support.fake_daemon import PLAIN, SILENCE
from support.sockets import Mortal

EVERY_HOOK = program("faults/every_hook.php")
PROFILE = {"zqs.capture_params": "1", "zqs.action_tracer.action_threshold": "-1", "zqs.error_collector.enabled": "1",
           "zqs.error_collector.record_db_errors": "0"}
PROMPT_MS = 5000          # on a busy machine; what blocks takes longer
NAMESPACE = ["unshare", "--mount"] + ([] if IS_ROOT else ["--user", "--map-root-user"])


def compare(site, prefix=(), code=EVERY_HOOK, ini=None, env=None):
    """A page with the agent, after it was found to be what it is without; `prefix` goes before the engine's command."""
    script = site.script(code)
    script.chmod(0o644)
    variables = {**web_environment(script, "/index.php?rounds=3"), **(env or {})}
    bare, result = (site.run([*prefix, ENGINE / "bin/php-cgi", "-c", site.ini_file(agent, ini)], variables, web=True)
                    for agent in (False, True))
    result.check_twin(bare, ())
    assert result.body.startswith(b"page") and result.ms - bare.ms < PROMPT_MS
    site.daemon.settle()
    result.metrics = site.daemon.received(wire.Metric)
    return result


def test_daemon_dies_at_any_byte(site):
    """Of the query, of its own answer, of the profile's events and of the packet."""
    site.daemon.configure({**PROFILE, "zqs.profile_end_time": str(int(time.monotonic()) + 1000)})
    site.daemon.through = Mortal
    Mortal.allowance, Mortal.total = 1 << 40, 0
    assert len(compare(site).metrics) == 1
    total = Mortal.total
    for allowance in [1, 3, 4, 5, 40, 120, 250, 300, 350, 400, *range(500, total, total // 24), total - 1, total]:
        site.daemon.forget()
        Mortal.allowance = allowance
        # without the complete answer nothing is monitored; after it the packet may find a way by a connection of its own
        assert len(compare(site).metrics) <= (allowance >= 500)


@pytest.mark.parametrize("command", ["kill -9 $$", "echo noise; echo noise >&2; exit 3", "sleep 8 &", "exec 0<&-; ulimit -n 0"])
def test_start_command_fails(site, command):
    program = site.root / "prefix/bin/quorbit"
    program.write_text(f"#!/bin/sh\n{command}\n")
    program.chmod(0o755)
    with site.daemon.absent():
        compare(site)


@pytest.mark.parametrize("listens", [True, False])
def test_descriptors_run_out(site, listens):
    """The script takes all there are, then does its work."""
    code = "$all = array(); while ($file = @fopen(__FILE__, 'r')) $all[] = $file; error_reporting(0);" + EVERY_HOOK
    prefix = ["sh", "-c", 'ulimit -n 40; exec "$@"', "sh"]
    if listens:
        assert len(compare(site, prefix, code).metrics) == 1
    else:
        with site.daemon.absent():
            compare(site, prefix, code)


def log_on_a_full_disk(site):
    (site.logs / "php-agent.log").symlink_to("/dev/full")


def log_folder_read_only(site):
    site.logs.chmod(0o555)
    return ["setpriv", f"--reuid={WEB_USER}", f"--regid={WEB_USER}", "--clear-groups"] if IS_ROOT else []


def log_is_a_folder(site):
    (site.logs / "php-agent.log").mkdir()


def log_beyond_the_size_limit(site):
    return ["sh", "-c", 'ulimit -f 0; exec "$@"', "sh"]


@pytest.mark.parametrize("fault", [log_on_a_full_disk, log_folder_read_only, log_is_a_folder, log_beyond_the_size_limit])
def test_log_cannot_be_written(site, fault):
    prefix = fault(site) or ()
    assert len(compare(site, prefix, ini={"zqs.agent_log_level": "DEBUG"}).metrics) == 1
    with site.daemon.absent():
        compare(site, prefix, ini={"zqs.agent_log_level": "DEBUG"})


def test_extension_before_it_does_not_start(site, doubles):
    """The engine then starts none of those after it, but begins and ends their requests all the same."""
    code = """echo 'page'; ob_start(); phpinfo(INFO_MODULES); ob_end_clean();
        foreach (array('vantor_start_webaction', 'vantor_end_webaction', 'vantor_notice_error', 'zqprof_rshutdowncall',
                       'zqprof_headercall', 'zqprof_curl_header') as $name)
            if (is_callable($name)) $name === 'zqprof_curl_header' ? $name(fopen(__FILE__, 'r'), 'line') : @$name('error');"""
    ini = {"load": [f'extension="{doubles["extension"]}"', AGENT], "display_startup_errors": "0"}
    result = compare(site, code=code, ini=ini, env={"DOUBLES_NEED_NOBODY": "1"})
    assert b"required module 'nobody' is not loaded" in result.stderr and not result.metrics


def test_another_allocator_is_preloaded(site):
    """The engine and the C library's own functions take it, while extensions are bound to the C library's."""
    library = next(Path("/usr/lib").glob("*/libjemalloc.so.2"))
    site.daemon.configure({**PROFILE, "zqs.error_collector.record_db_errors": "1", "zqs.capture_params": "1",
                           "zqs.naming.rules": '[{"name":"n","match":{"method":0,"match":5,"value":"^/i"},"split":{"uri":"1"}}]'})
    for allocator in ("1", "0"):                                                   # the engine's own above it, or it alone
        server = site.serve(FastCgi, {"zqs.agent_log_level": "DEBUG"}, env={"LD_PRELOAD": library, "USE_ZEND_ALLOC": allocator})
        for code in (EVERY_HOOK, "nope();", "$db = new PDO('sqlite::memory:'); $db->query('SELECT * FROM nothing');"):
            metric = server.get(code, "/index.php?rounds=3").metric
            assert metric.action == "WebAction/n/index.php"
        assert metric.error["class"] == "DB_ERROR"
    assert "no such table" in metric.error["message"]
    imported = subprocess.run(["nm", "-D", "--undefined-only", EXTENSION], capture_output=True, text=True, check=True).stdout
    giving = r" (strn?dup|v?asprintf|open_memstream|getline|getdelim|realpath|_safe_malloc|zend_strndup)\b"
    assert re.findall(giving, imported) == []


def test_runtime_folder_is_missing(site):
    site.daemon.stop()
    shutil.rmtree(site.logs)
    compare(site, ini={"zqs.agent_log_level": "DEBUG"})


def test_proc_is_not_mounted(site):
    prefix = [*NAMESPACE, "sh", "-c", 'mount -t tmpfs none /proc && exec "$@"', "sh"]
    site.daemon.configure({"zqs.resource.enabled": "1"})
    assert len(compare(site, prefix).metrics) == 1


def test_wall_clock_jumps(site, shim):
    """A year ahead, a year back, at every reading: durations do not know."""
    result = site.cgi("function pause() { usleep(30000); } pause();", env={**shim, "SHIM_WALL": "1"},
                      ini={"zqs.agent_log_level": "DEBUG"}, settings=PROFILE)
    assert 30 <= result.metric.duration_ms < 30 + PROMPT_MS
    assert 30 <= result.metric.components["PHP/NULL/pause"][0] <= result.metric.duration_ms
    assert len(set(re.findall(r"\n(\d{4})-", site.log()))) == 2


def test_memory_ends_anywhere(site):
    """Also inside the agent, with every call traced: the page and the error are sent, and reported."""
    site.extension = BUILD / "traced/zqprof.so"
    site.daemon.configure(PROFILE)
    ini = {"display_errors": "1", "html_errors": "0", "memory_limit": "3M"}
    server = site.serve(FastCgi, ini)
    places = set()
    for i in range(40):
        page = server.get(EVERY_HOOK, f"/index.php?filler={i * 61}{'&plain=1' if i % 4 else ''}", twin=False)
        assert page.body.startswith(b"page") and page.body.count(b"Allowed memory size of 3145728 bytes") == 1, page.body[-300:]
        assert page.metric.error["message"].startswith("Allowed memory size")
        places.add(page.metric.error["stack"][0])
    assert len(places) >= 3


@pytest.mark.parametrize("limit", ["time", "memory"])
@pytest.mark.parametrize("code, _", cases("faults/places.php"))
def test_limit_ends_a_request_inside(site, code, _, limit):
    """The engine leaves by a long jump, past every hook that is at work."""
    site.daemon.configure(PROFILE)
    result = compare(site, code=code, ini={"display_errors": "1", "html_errors": "0"}, env={"LIMIT": limit})
    assert result.metrics[0].error["message"].startswith("Maximum exec" if limit == "time" else "Allowed memory")


@pytest.mark.parametrize("reply", [wire.answer(PLAIN), SILENCE])
@pytest.mark.parametrize("handled", [True, False])
def test_sigterm_in_the_middle(site, handled, reply):
    """Ends the process as it would without the agent; a script that handles it goes on, and is reported."""
    site.daemon.reply = reply
    code = "declare(ticks = 1); pcntl_signal(SIGTERM, function () { echo 'handled'; $GLOBALS['end'] = 1; });" if handled else ""
    script = site.script(code + "echo 'page'; for ($i = 0; $i < 5000 && empty($end); $i++) usleep(3000); echo 'end';", "job.php")

    def run(agent):
        command = [ENGINE / "bin/php", "-c", site.ini_file(agent), "-f", script]
        with subprocess.Popen(command, stdout=subprocess.PIPE, cwd=site.docroot) as process:
            assert process.stdout.read(4) == b"page"
            process.send_signal(signal.SIGTERM)
            return process.stdout.read(), process.wait(20)

    assert run(True) == run(False) == ((b"handledend", 0) if handled else (b"", -signal.SIGTERM))
    site.daemon.settle()
    assert len(site.daemon.received(wire.Metric)) == handled


# On a disk of 24 MB of its own, which another program fills to the last block: sends packets through a daemon, prints
# what the store came to.
FULL_DISK = """
import os, re, signal, socket, sqlite3, subprocess, sys
from contextlib import closing
from pathlib import Path
from support import wire
from support.fake_daemon import wait_until
quorbit, folder = sys.argv[1], Path(sys.argv[2])
subprocess.check_call(["mount", "-t", "tmpfs", "-o", "size=24m,mode=755", "none", folder])
(folder / ".quorbit.cfg").write_text("".join(f"zqs.{key}={value}\\n" for key, value in {
    "daemon_log_level": "info", "daemon_log_file_name": folder / "daemon.log", "pid_file": folder / "quorbit.pid",
    "ipc_listen_file": folder / ".quorbit.sock"}.items()))
store, sent = folder / "quorbit.db", 0
# Whoever sends the store elsewhere has it open as well, in the same process.
elsewhere = "store_url = http://127.0.0.1:1/none\\n"
(folder / "applications.conf").write_text(elsewhere)

def packets():
    shown = subprocess.run([quorbit, "status", "-f", folder / ".quorbit.cfg"], capture_output=True, text=True).stdout
    return int((re.findall("^  packets +([0-9]+)", shown, re.M) or ["0"])[0])

def dropped():
    with closing(sqlite3.connect(store)) as read:
        if not read.execute("SELECT 1 FROM sqlite_master WHERE name = 'dropped'").fetchone():
            return 0                                 # it is being made
        return read.execute("SELECT ifnull(sum(count), 0) FROM dropped WHERE reason = 'backlog full'").fetchone()[0]

def send(count, name=b"cart"):
    global sent
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(folder / ".quorbit.sock"))
        for _ in range(count):
            client.sendall(wire.record(0x0B, wire.record(0x11, b"Shop") + wire.record(0x12, name) + wire.record(0x77, bytes(3000))))
    sent += count

def store_all(count):
    send(count)
    wait_until(lambda: packets() + dropped() == sent, f"{sent} packets, there are {packets()}", 60)

def fill(name):
    # every block
    with open(folder / name, "wb", buffering=0) as filler:
        try:
            while filler.write(bytes(4096)): pass
        except OSError:
            pass

def start():
    daemon = subprocess.Popen([quorbit, "-f", folder / ".quorbit.cfg", "--foreground"])
    wait_until(lambda: (folder / ".quorbit.sock").exists(), "the daemon")
    return daemon

daemon = start()
try:
    store_all(1500)
    wait_until((folder / "quorbit.db-reserve").exists, "the reserve")
    daemon.send_signal(signal.SIGSTOP)               # or the filler takes the reserve as well, when it is given up meanwhile
    fill("filler")
    daemon.send_signal(signal.SIGCONT)
    for _ in range(8):
        store_all(1000)
    assert store.stat().st_size < 12 << 20           # with the reserve or, where the disk was looked at first, without
    daemon.terminate()
    daemon.wait(10)
    daemon = start()
    store_all(500)
    (folder / "applications.conf").write_text(elsewhere + "store_mb = 2\\n")
    store_all(500)
    wait_until(lambda: store.stat().st_size < 3 << 20, f"the lower bound, {store.stat().st_size}")
    (folder / "filler").unlink()
    (folder / "applications.conf").unlink()
    store_all(500)
    wait_until((folder / "quorbit.db-reserve").exists, "the reserve again")
    log = (folder / "daemon.log").read_text()
    lost = re.findall("works again; ([0-9]+) packets", log)
    assert lost and set(lost) == {"0"} and dropped() == 0 and "the store does not grow" in log and "the disk has room again" in log, log
    for path in folder.glob("quorbit.db*"):          # where there is no store yet, there is nothing that could make room
        path.unlink()
    fill("filler")
    sent = 0
    send(6000, b"long" * 4000)                       # 64 MiB may wait
    wait_until(lambda: (folder / "daemon.log").read_text().count("cannot be written") > 1, "the line in the log")
    (folder / "filler").unlink()
    send(1)
    wait_until(store.exists, "a store")
    wait_until(lambda: packets() + dropped() == sent, f"{sent} packets, there are {packets()} and {dropped()} were dropped", 60)
    told = lambda: sum(map(int, re.findall("([0-9]+) packets and queries were not stored", (folder / "daemon.log").read_text())))
    wait_until(lambda: told() == dropped() > 1000, f"what was lost in the log, {told()} of {dropped()}")
    wait_until((folder / "quorbit.db-reserve").exists, "the reserve once more")
finally:
    daemon.terminate()
    daemon.wait(10)
"""


def test_a_full_disk_makes_room_inside_the_store(site):
    """Nothing is lost: the oldest actions make room, a restart works, a lower bound is reached, and all is as before when there is room.
    What the backlog cannot hold while there is none at all is counted."""
    site.daemon.stop()
    done = subprocess.run([*NAMESPACE, "/usr/bin/python3", "-c", FULL_DISK, PROJECT / "build/bin/quorbit", site.logs], capture_output=True,
                          text=True, timeout=120)
    assert done.returncode == 0, done.stderr


def test_every_fault_of_the_table_has_its_test():
    """And every door of docs/security.md, which names fuzz targets as well."""
    table = (PROJECT / "docs/reliability.md").read_text().partition("## Faults")[2].partition("\n## ")[0]
    doors = (PROJECT / "docs/security.md").read_text().partition("## The doors")[2].partition("\n## ")[0]
    sources = "".join(path.read_text() for path in (PROJECT / "tests/e2e").glob("test_*.py"))
    named = re.findall(r"`(test_\w+)`", table + doors)
    assert len(named) > 30 and [name for name in named if f"def {name}(" not in sources] == []
    targets = {path.name.removesuffix("_fuzz.cpp") for path in (PROJECT / "tests/fuzz").glob("*_fuzz.cpp")}
    fuzzed = {name for listed in re.findall(r"fuzz ((?:`\w+`(?:, )?)+)", doors) for name in re.findall(r"\w+", listed)}
    assert fuzzed <= targets and targets - fuzzed <= {"sql_names"}
