"""The agent's log, its crash backtrace, and what phpinfo says."""
import http.client
import os
import re
import signal
from datetime import datetime, timedelta, timezone

import pytest

from support.engines import ENGINE, EXTENSION, Apache

LEVELS = ["CRITICAL", "ERROR", "WARNING", "INFO", "VERBOSE", "DEBUG"]
RECORD = re.compile(r"\n\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \(tid:(\d+),uid:(\d+)\) (\w+): ([^\n]*)")


def records(site):
    """All (tid, uid, level, message) of the log, which must consist of nothing else."""
    text = site.log()
    assert RECORD.sub("", text).strip("\n") == ""
    return RECORD.findall(text)


@pytest.mark.parametrize("name, written", [
    (None, 3), ("OFF", 0), ("critical", 1), ("ERROR", 2), ("WARNING", 3), ("Info", 4), ("vErBoSe", 5), ("DEBUG", 6), ("trace", 0), ("", 0)])
def test_levels(site, shim, name, written):
    """One run that has something to say at every level: nobody listens, nothing can be read or written. Without quotes, as php.ini
    mostly has them: its parser makes an empty text of OFF."""
    (site.logs / ".quorbit.cfg").mkdir()
    level = [] if name is None else ["-d", f"zqs.agent_log_level={name}"]
    with site.daemon.absent():
        site.both("php", [*level, "-f", site.script("", "job.php")], env={**shim, "SHIM_MEMINFO": "/nonexistent"})
    found = records(site)
    assert {level for _, _, level, _ in found} == set(LEVELS[:written])
    assert len({(tid, uid) for tid, uid, _, _ in found}) == (written > 0) and all(uid == str(os.getuid()) for _, uid, _, _ in found)


def test_messages_of_a_request(site):
    """In their order, at the most talkative level, and in the host's time, whatever the script calls its own."""
    site.cgi("putenv('TZ=ABC7'); echo 1;", ini={"zqs.agent_log_level": "DEBUG"}, env={"TZ": "XYZ-9"})
    stamps = [datetime.fromisoformat(stamp) for stamp in re.findall(r"\n(\d{4}-[\d.: -]+) \(", site.log())]
    tokyo = datetime.now(timezone.utc).replace(tzinfo=None) + timedelta(hours=9)
    assert tokyo - timedelta(minutes=10) < min(stamps) <= max(stamps) <= tokyo
    found = [(level, message) for _, _, level, message in records(site)]
    expected = [
        ("INFO", r"MINIT processing start, version \(Oct 20 2016\)"), ("DEBUG", r"connecting to daemon ipc=" + str(site.logs)),
        ("DEBUG", r"re-established contact with the daemon on fd=\d+"), ("VERBOSE", "MINIT processing done"),
        ("VERBOSE", r"RINIT processing start, app name=Shop, uri=/index.php"), ("DEBUG", "get app config from ini, app=Shop"),
        ("DEBUG", r"querying config from daemon, app=Shop ,license=empty key, fd=\d+"), ("DEBUG", r"update config time=\d+"),
        ("VERBOSE", r"action name is WebAction/URI/index.php"), ("VERBOSE", "RINIT processing done"),
        ("VERBOSE", r"RSHUTDOWN processing start\.\.\."), ("DEBUG", r"send_metric action=WebAction/URI/index.php, metric=\d+"),
        ("DEBUG", r"sending metric data to daemon, fd=\d+"), ("DEBUG", "send metric data ok"), ("VERBOSE", "RSHUTDOWN processing done"),
        ("VERBOSE", r"MSHUTDOWN processing start\.\.\."), ("DEBUG", r"close contact with the daemon on fd=\d+"),
        ("VERBOSE", "MSHUTDOWN processing done")]
    assert len(found) == len(expected), found
    for (level, message), (expected_level, pattern) in zip(found, expected):
        assert level == expected_level and re.match(pattern, message), (message, pattern)
    assert site.log().startswith("\n") and site.log().endswith("MSHUTDOWN processing done\n")


@pytest.mark.parametrize("writable, earlier", [(True, False), (False, False), (True, True), (False, True)])
def test_crash_leaves_a_backtrace_and_still_ends_the_process(site, shim, writable, earlier):
    """An earlier handler, which returns, is called once in between."""
    if not writable:
        (site.logs / "php-agent.log").mkdir()
    crash = site.cli('function f() { posix_kill(getmypid(), 11); usleep(500000); } f();', twin=False,
                     env={"SHIM_SIGSEGV": "1"} if earlier else {})
    assert (crash.code, crash.body, crash.stderr) == (-signal.SIGSEGV, b"", b"SEGV" * earlier)
    if writable:
        banner = re.search(r"\n======== \d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \(pid:(\d+),uid:(\d+)\) SIGSEGV backtrace"
                           r"\(Oct 20 2016\) ========\n((?:\t.+\n)+)\n========== SIGSEGV ==========\n", site.log())
        assert banner and int(banner[1]) == site.daemon.connections[0].pid and int(banner[2]) == os.getuid()
        assert 3 < banner[3].count("\n") < 100 and "zqprof.so" in banner[3]
        assert "zqprof.so" not in banner[3].partition("\n")[0]        # the handler itself is left out


def test_recursion_that_exhausts_the_stack_leaves_a_backtrace(site):
    """Which cannot be written on that stack; a signal that somebody sends says nothing of it."""
    endless = site.script("function f() { f(); } f();", "job.php")
    crash = site.run(["sh", "-c", 'ulimit -c 0; ulimit -s 1024; exec "$@"', "sh", ENGINE / "bin/php", "-c", site.ini_file(True), endless])
    frames = re.search(r" SIGSEGV backtrace\(Oct 20 2016\) ========\nstack exhausted\n((?:\t.+\n)+)\n=+ SIGSEGV =+\n", site.log())
    assert crash.code == -signal.SIGSEGV and frames and frames[1].count("zq_execute_ex") + frames[1].count("zqprof.so") > 10


def test_a_thread_that_exhausts_its_stack_leaves_a_backtrace(site):
    server = site.serve(Apache)
    with pytest.raises(http.client.RemoteDisconnected):
        server.get("function f() { f(); } f();", twin=False)
    frames = re.search(r" SIGSEGV backtrace\(Oct 20 2016\) ========\nstack exhausted\n((?:\t.+\n)+)\n=+ SIGSEGV =+\n", site.log())
    assert frames and frames[1].count("zq_execute_ex") + frames[1].count("zqprof.so") > 10


@pytest.mark.parametrize("ini, shown", [
    ({}, {"quorbit": "enabled", "zqs.license_key": "empty key"}),
    ({"zqs.agent_enabled": "0"}, {"quorbit": "disabled", "zqs.license_key": " "}),
    ({"zqs.agent_enabled": "2", "zqs.license_key": "k", "zqs.audit_mode": "1"},
     {"quorbit": "disabled", "zqs.license_key": "k", "zqs.audit_mode": "1"}),
])
def test_phpinfo(site, ini, shown):
    text = site.cli("phpinfo(INFO_MODULES);", ini=ini, twin=False).body.decode()
    table = re.search(r"\nquorbit\n\n(.*?)\n\n", text, re.S)[1]
    expected = {"quorbit": "enabled", "Version": "Oct 20 2016", "zqs.license_key": "empty key", "zqs.app_name": "Shop",
                "zqs.prefix": f"{site.root}/prefix", "zqs.runtime_root": f"{site.root}", "zqs.agent_log_level": "WARNING",
                "zqs.daemon_log_level": "INFO", "zqs.audit_mode": "0", **shown}
    assert dict(line.split(" => ") for line in table.split("\n")) == expected
    assert list(expected) == [line.split(" => ")[0] for line in table.split("\n")]


def test_module_loads_by_itself(site):
    """Without any php.ini: the defaults are good enough to start; settings and functions are all there. Hooks that stay behind must
    not lead to where a library was."""
    result = site.run([ENGINE / "bin/php", "-n", "-d", f"extension={EXTENSION}", "-d", f"zqs.runtime_root={site.root}",
                       "-d", f"zqs.prefix={site.root}", "-r",
                       'echo count(ini_get_all("quorbit")), " ", implode(" ", get_extension_funcs("quorbit"));'],
                      {"LD_DEBUG": "files", "LD_DEBUG_OUTPUT": str(site.root / "loader")})
    assert result.body.decode() == ("25 zqprof_rshutdowncall zqprof_headercall zqprof_curl_header vantor_start_webaction "
                                    "vantor_end_webaction vantor_notice_error")
    assert (result.stderr, result.code) == (b"", 0)
    loaded = "".join(path.read_text() for path in site.root.glob("loader.*"))
    assert "calling init: " + str(EXTENSION) in loaded and str(EXTENSION) + " [0];  destroying" not in loaded
