"""What an operator is told who may not look, whose daemon is gone or old, and who ends a profile early."""
import json
import os
import pwd
import shutil
import signal
import socket
import subprocess
import sys

import pytest

from support import wire
from support.engines import IS_ROOT, WEB_USER
from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT

needs_accounts = pytest.mark.skipif(not IS_ROOT, reason="other accounts need root")


def as_account(real, account, *words):
    """Exit status, and all that a command prints to that account."""
    program = real.site.root / "quorbit"                             # the checkout may be closed to it
    shutil.copy(QUORBIT, program)
    done = subprocess.run([program, *words, "--root", real.site.root], user=account, group=pwd.getpwnam(account).pw_gid, extra_groups=[],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=20)
    return done.returncode, done.stdout


@needs_accounts
def test_an_account_that_may_not_look_is_told_who_may(real):
    os.chown(real.logs, 0, pwd.getpwnam(WEB_USER).pw_gid)
    real.logs.chmod(0o2750)
    real.php()
    real.reports(1)
    refusals = {"nobody": f"nobody may not look into {real.logs}; root and members of the group {WEB_USER} may",
                WEB_USER: f"{WEB_USER} may not read {real.logs}/quorbit.db; root may"}
    for account, refusal in refusals.items():
        for words in ["show"], ["tail"], ["top"], ["profile", "Shop", "1s"], ["profile", "--stop", "Shop"]:
            assert as_account(real, account, *words) == (1, f"quorbit: {refusal}\n")
    assert as_account(real, "nobody", "status") == (1, f"quorbit: {refusals['nobody']}\n")
    status, printed = as_account(real, WEB_USER, "status")
    assert status == 1 and printed.startswith("The daemon is running") and refusals[WEB_USER] in printed


def test_status_tells_what_to_check_when_the_daemon_is_gone(real):
    real.php()
    real.reports(1)
    assert "no daemon answers" not in real.command("status")
    real.stop()
    printed = real.command("status")
    assert subprocess.run([QUORBIT, "profile", "Shop", "1s", "--root", real.site.root], capture_output=True, timeout=20).returncode == 1
    assert printed.startswith("No daemon answers.\n") and "last packet" in printed and "CHECK  no daemon answers on" in printed


def test_status_tells_a_daemon_that_is_older_than_the_program(real):
    program = real.site.root / "prefix/bin/quorbit"
    shutil.copy(QUORBIT, program)
    real.site.settings["zqs.prefix"] = real.site.root / "prefix"
    real.php()
    pid = int((real.logs / "quorbit.pid").read_text())
    try:
        assert "is older than" not in real.command("status")
        program.unlink()
        shutil.copy(QUORBIT, program)
        assert f"is older than the quorbit that is installed. To mend: kill {pid}" in real.command("status")
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not (real.logs / "quorbit.pid").exists(), "the daemon to end")


@pytest.mark.parametrize("how", ["interrupt", "stop"])
def test_a_running_profile_is_named_and_ended_early(real, how):
    real.php()
    real.reports(1)
    command = [QUORBIT, "profile", "Shop", "60s", "--root", real.site.root]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as profile:
        try:
            wait_until(lambda: "A profile of Shop, 60 s, waits" in real.command("status"), "the order", 30)
            wait_until(lambda: real.php() == b"" and "was started" in real.command("status"), "the profile to start", 30)
            if how == "stop":
                assert real.command("profile", "--stop", "Shop").startswith("Ended 1 profile of Shop")
            else:
                profile.send_signal(signal.SIGINT)
            assert "ended early" in profile.communicate(timeout=20)[1] and profile.returncode == 0
        finally:
            profile.kill()
    assert "A profile" not in real.command("status")
    assert real.command("profile", "--stop", "Shop") == ""


MEASURE = """
import resource, subprocess, sys
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, check=True)
used = resource.getrusage(resource.RUSAGE_CHILDREN)
print(used.ru_maxrss / 1024, used.ru_utime + used.ru_stime)
"""


def cost_of(real, *words):
    """Megabytes and seconds of processor time that a command takes. A small process starts it: the peak begins with the size
    of whoever starts a program."""
    command = [sys.executable, "-c", MEASURE, QUORBIT, *words, "--root", real.site.root]
    return tuple(map(float, subprocess.run(command, stdout=subprocess.PIPE, check=True, timeout=60).stdout.split()))


def test_what_a_packet_says_does_not_decide_what_a_command_takes(real):
    real.php()
    real.reports(1)
    head = wire.record(0x11, b"Forged") + wire.record(0x12, b"page") + wire.record(0x20, b"transaction")
    insert = b"INSERT INTO t VALUES (" + b"1," * 3_000_000 + b"1)"
    plan = b'{"keys":[' + b"1," * 20000 + b'1],"values":[' + b"[]," * 20000 + b"[]]}"
    bodies = [b"\0" * 15_000_000, b"".join(wire.record(0x27, b"1:15:MySQL%d:%s" % (len(insert), insert)) for _ in range(2)),
              wire.record(0x27, b"1:15:MySQL8:SELECT 1%d:%s" % (len(plan), plan)), wire.record(0x25, b"[" * 7_000_000)]
    for body in bodies:
        with socket.socket(socket.AF_UNIX) as agent:
            agent.connect(str(real.logs / ".quorbit.sock"))
            agent.sendall(wire.record(0x0B, head + body))
    listed = lambda: json.loads(real.command("show", "--json", "--app", "Forged"))
    wait_until(lambda: "Forged" in real.command("show") and len(listed()) == len(bodies), "the packets", 30)
    for action in listed():
        for how in [], ["--full"], ["--json"]:
            megabytes, seconds = cost_of(real, "show", str(action["id"]), *how)
            assert megabytes < 256 and seconds < 2, (action["id"], how, megabytes, seconds)
