"""What an operator is told who may not look, whose daemon is gone or old, and who ends a profile early."""
import os
import pwd
import shutil
import signal
import subprocess

import pytest

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
    assert status == 0 and printed.startswith("The daemon is running") and refusals[WEB_USER] in printed


def test_status_tells_what_to_check_when_the_daemon_is_gone(real):
    real.php()
    real.reports(1)
    assert "CHECK" not in real.command("status")
    real.stop()
    printed = real.command("status")
    assert printed.startswith("No daemon answers.\n") and "last packet" in printed and "CHECK  no daemon answers on" in printed


def test_status_tells_a_daemon_that_is_older_than_the_program(real):
    program = real.site.root / "prefix/bin/quorbit"
    shutil.copy(QUORBIT, program)
    real.site.settings["zqs.prefix"] = real.site.root / "prefix"
    real.php()
    pid = int((real.logs / "quorbit.pid").read_text())
    try:
        assert "It is older" not in real.command("status")
        program.unlink()
        shutil.copy(QUORBIT, program)
        assert f"It is older than the quorbit that is installed: end it (kill {pid})" in real.command("status")
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
