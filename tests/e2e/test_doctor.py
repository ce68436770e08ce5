"""`quorbit doctor` on a sound set-up, and on one that is broken in one way at a time: it names what is wrong and what mends it."""
import json
import os
import pwd
import shutil
import signal
import sqlite3
import subprocess
import time
from contextlib import suppress
from pathlib import Path

import pytest

from support.engines import ENGINE, EXTENSION, IS_ROOT, WEB_USER, Fpm
from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT

needs_root = pytest.mark.skipif(not IS_ROOT, reason="pools of other accounts and file systems need root")


class Doctor:
    """A site as an operator has it: a php program that reads the site's php.ini, and a daemon that PHP starts."""

    def __init__(self, real):
        self.real, self.site, self.logs = real, real.site, real.logs
        self.root = self.proc = self.site.root
        self.php, self.ini = self.site.root / "bin/php", self.site.ini_file()
        self.php.parent.mkdir()
        self.program(f'exec {ENGINE}/bin/php -c {self.ini} "$@"')
        if IS_ROOT:
            os.chown(self.logs, 0, pwd.getpwnam(WEB_USER).pw_gid)
        self.logs.chmod(0o2750)
        (self.logs / "php-agent.log").touch()
        (self.logs / "php-agent.log").chmod(0o666)
        self.words, self.fpm, self.second = [self.php], None, None

    def program(self, last):
        self.php.write_text(f"#!/bin/sh\nexport PHP_INI_SCAN_DIR=\n{last}\n")
        self.php.chmod(0o755)

    def conf(self, text):
        (self.logs / "applications.conf").write_text(text)

    def start_daemon(self):
        subprocess.run([self.php, "-v"], stdout=subprocess.DEVNULL, check=True)
        wait_until(lambda: (self.logs / ".quorbit.sock").exists(), "the daemon")

    def serve(self, settings):
        """Has a pool with these lines that the doctor is to try."""
        class Pool(Fpm):
            def command(pool):
                words = super().command()
                config = self.site.root / f"{pool.name}.conf"
                config.write_text(config.read_text() + settings)
                return words

        self.fpm = Pool(self.site, self.ini, True)
        self.site.servers.append(self.fpm)
        self.fpm.start()
        self.words, self.proc = ["--fpm", self.fpm.socket, self.php], "/proc"

    def __call__(self):
        """(status, {check: "what. remedy"}) of what is amiss with this site; the machine has other processes of PHP."""
        run = subprocess.run([QUORBIT, "doctor", "--root", self.root, "--proc", self.proc, *self.words, "--json"],
                             capture_output=True, text=True, timeout=60)
        answer = json.loads(run.stdout)
        ours = {self.fpm.process.pid, *self.children()} if self.fpm else set()
        if (self.logs / "quorbit.pid").exists():
            ours.add(int((self.logs / "quorbit.pid").read_text()))
        return run.returncode, {finding["check"]: f'{finding["what"]}. {finding["remedy"]}' for finding in answer["findings"]
                                if ours & set(finding["processes"]) or
                not finding["processes"] and (finding["check"] != "two_daemons" or str(self.site.root) in finding["what"])}

    def children(self):
        found = subprocess.run(["ps", "-o", "pid=", "--ppid", str(self.fpm.process.pid)], capture_output=True, text=True)
        return [int(word) for word in found.stdout.split()]


@pytest.fixture
def doctor(real):
    found = Doctor(real)
    yield found
    for folder in Path("/proc").glob("[0-9]*"):                    # those of other programs as well, unlike real's own
        with suppress(OSError):
            if str(found.site.root).encode() in (folder / "cmdline").read_bytes() and (folder / "comm").read_text().startswith("quorbit"):
                os.kill(int(folder.name), signal.SIGTERM)
    if found.second:
        found.second.wait(10)
    subprocess.run(["umount", "-l", found.logs], stderr=subprocess.DEVNULL)


def test_a_sound_host_is_told_so_with_a_request_through_each_way(doctor):
    doctor.start_daemon()
    if IS_ROOT:
        doctor.serve("")
    else:
        doctor.proc = doctor.site.root
    doctor.ini.write_text(doctor.ini.read_text() + "zqs.license_key = abc\n")
    report = doctor.site.root / "report.txt"
    doctor.words += ["--report", report]
    status, findings = doctor()
    assert findings == {} and (status == 0 or IS_ROOT)             # the machine's other processes of PHP count for the status
    names = [action["action"] for action in json.loads(doctor.real.command("show", "--json"))]
    assert len(names) == 1 + IS_ROOT and all("quorbit-doctor-" in name for name in names)
    text = report.read_text()
    assert "a request ran, and its action arrived" in text and '"zqs.license_key": "(not shown)"' in text
    doctor.words, doctor.proc = [doctor.php], doctor.site.root
    assert doctor() == (0, {})


def test_a_program_that_another_account_can_change_is_not_run(doctor):
    ran = doctor.site.root / "ran"
    doctor.program(f"touch {ran}")
    doctor.php.chmod(0o777)
    run = subprocess.run([QUORBIT, "doctor", "--root", doctor.root, "--proc", doctor.proc], capture_output=True, text=True, timeout=60,
                         env={"PATH": f"{doctor.php.parent}:{os.environ['PATH']}"})
    assert f"{doctor.php} cannot load the agent" in run.stdout and not ran.exists()


def no_folder(doctor):
    shutil.rmtree(doctor.logs)


def other_build(doctor):
    doctor.program('printf "PHP Version => 7.4.33\\nPHP Extension Build => API20190902,NTS\\n"')


def loaded_twice(doctor):
    doctor.ini.write_text(doctor.ini.read_text() + f'extension="{EXTENSION}"\n')


def long_path(doctor):
    doctor.root = doctor.site.root / ("x" * 120)


def full_disk(doctor):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m,mode=2750", "none", doctor.logs], check=True)
    os.chown(doctor.logs, 0, pwd.getpwnam(WEB_USER).pw_gid)


def old_daemon(doctor):
    prefix = doctor.site.root / "prefix/bin"
    prefix.mkdir(parents=True, exist_ok=True)
    doctor.ini.write_text(doctor.ini.read_text() + f'zqs.prefix="{prefix.parent}"\n')
    shutil.copy(QUORBIT, prefix / "quorbit")
    doctor.start_daemon()
    shutil.copy(QUORBIT, prefix / "new")
    (prefix / "new").rename(prefix / "quorbit")
    doctor.proc = "/proc"


def refused_above_the_folder(doctor):
    doctor.start_daemon()
    doctor.serve("")
    (doctor.site.root / "log").chmod(0o700)


def open_basedir(doctor):
    doctor.start_daemon()
    doctor.serve(f"php_admin_value[open_basedir] = {doctor.site.docroot}\n")


def other_file_system(doctor):
    doctor.start_daemon()
    doctor.serve(f"chroot = {doctor.site.docroot}\n")


def clock_set_back(doctor):
    doctor.start_daemon()
    subprocess.run([doctor.php, doctor.site.script("", "job.php")], check=True)
    doctor.real.reports(1)
    with sqlite3.connect(doctor.logs / "quorbit.db") as store:
        store.execute("UPDATE action SET received_ms = ?", [int(time.time() * 1000) + 3600_000])


def ini_in_another_folder(doctor):
    folder = doctor.ini.parent / "conf.d"
    folder.mkdir()
    (folder / "quorbit.ini").write_text("extension = zqprof.so\n")
    doctor.ini.write_text(doctor.ini.read_text().replace("extension=", ";extension="))


def agent_off(doctor):
    doctor.ini.write_text(doctor.ini.read_text() + "zqs.agent_enabled = 0\n")


def url_filter(doctor):
    doctor.conf("[*]\nzqs.urls_captured = ^/shop/$\n")


def guard_active(doctor):
    doctor.conf("[*]\nzqs.resource.used = 99\n")


def other_root(doctor):
    other = doctor.site.root / "other"
    (other / "log").mkdir(parents=True)
    shutil.copytree(doctor.logs, other / "log/quorbit")
    doctor.start_daemon()
    doctor.ini.write_text(doctor.ini.read_text() + f'zqs.runtime_root="{other}"\nzqs.prefix="/nowhere"\n')


def two_daemons(doctor):
    other = doctor.site.root / "other/log/quorbit"
    shutil.copytree(doctor.logs, other, ignore=shutil.ignore_patterns("*quorbit.*"))
    config = other / ".quorbit.cfg"
    config.write_text((doctor.logs / ".quorbit.cfg").read_text().replace(str(doctor.logs), str(other)))
    doctor.second = subprocess.Popen([QUORBIT, "-f", config, "--foreground"])
    wait_until(lambda: (other / ".quorbit.sock").exists(), "the second daemon")
    doctor.proc = "/proc"


def broken_store(doctor):
    doctor.start_daemon()
    doctor.real.stop()
    (doctor.logs / "quorbit.db").write_bytes(b"no database" * 1000)
    for name in ("quorbit.db-wal", "quorbit.db-shm"):
        (doctor.logs / name).unlink(missing_ok=True)


def newer_store(doctor):
    doctor.start_daemon()
    doctor.real.stop()
    with sqlite3.connect(doctor.logs / "quorbit.db") as store:
        store.execute("PRAGMA user_version = 1000")


def folder_of_another_group(doctor):
    os.chown(doctor.logs, 0, 0)
    doctor.start_daemon()
    doctor.serve("")


def pool_of_another_account(doctor):
    doctor.start_daemon()
    doctor.serve(f"[client]\nlisten = {doctor.site.root}/client.sock\nuser = nobody\ngroup = nogroup\npm = static\npm.max_children = 1\n")


def terminated_requests(doctor):
    doctor.start_daemon()
    doctor.serve("request_terminate_timeout = 30s\n")


def nobody_asks_for_it(doctor):
    doctor.conf("[Shpo]\nzqs.capture_params = 1\nzqs.capture_parms = 1\n")


BROKEN = [
    (no_folder, 2, {"folder_missing": "make install"}),
    (other_build, 2, {"php_unfit": "needs a thread-safe PHP 5.6"}),
    (loaded_twice, 1, {"loaded_twice": "take one line"}),
    (long_path, 2, {"socket_path": "shorter path", "folder_missing": "make install"}),
    (full_disk, 1, {"full_disk": "free some space"}),
    (old_daemon, 1, {"daemon_old": "kill "}),
    (refused_above_the_folder, 2, {"account_refused": "namei -l"}),
    (open_basedir, 2, {"probe_failed": "open_basedir"}),
    (other_file_system, 2, {"other_folder": "mount --bind", "probe_failed": "--url"}),
    (clock_set_back, 1, {"clock_off": "in the future"}),
    (ini_in_another_folder, 2, {"ini_not_read": "quorbit setup enable", "not_enabled": "quorbit setup enable"}),
    (agent_off, 2, {"probe_lost": "zqs.agent_enabled"}),
    (url_filter, 2, {"probe_lost": "^/shop/$"}),
    (guard_active, 2, {"probe_lost": "zqs.resource.safe"}),
    (other_root, 2, {"probe_lost": "its zqs.runtime_root is"}),
    (two_daemons, 1, {"two_daemons": "kill "}),
    (broken_store, 2, {"store_unreadable": "move it away"}),
    (newer_store, 2, {"store_unreadable": ". install the newer one again"}),
    (folder_of_another_group, 2, {"no_access": "chgrp -R"}),
    (pool_of_another_account, 1, {"no_access": "usermod -aG"}),
    (terminated_requests, 1, {"terminated": "max_execution_time"}),
    (nobody_asks_for_it, 1, {"conf_wrong": 'no agent goes by that name'}),
]
NEED_ROOT = {full_disk, refused_above_the_folder, other_file_system, open_basedir, folder_of_another_group, pool_of_another_account, terminated_requests}


@pytest.mark.parametrize("break_it, status, expected",
                         [pytest.param(*row, id=row[0].__name__, marks=[needs_root] * (row[0] in NEED_ROOT)) for row in BROKEN])
def test_what_is_wrong_is_named_with_what_mends_it(doctor, break_it, status, expected):
    if break_it.__code__.co_names[:1] != ("start_daemon",) and break_it not in (no_folder, old_daemon, full_disk, other_root):
        doctor.start_daemon()
    break_it(doctor)
    if break_it is full_disk:
        (doctor.logs / "php-agent.log").touch()
        (doctor.logs / "php-agent.log").chmod(0o666)
    found_status, findings = doctor()
    assert {check: text for check, text in findings.items() if check not in expected} == {}
    assert findings.keys() == expected.keys()
    for check, words in expected.items():
        assert words in findings[check]
    assert found_status == status
