"""make install and make uninstall, tried below a staging folder: what they place works from there, and goes again."""
import grp
import json
import os
import re
import stat
import subprocess

import pytest

from support.engines import ENGINE, EXTENSION, SHIPPED, web_environment
from support.fake_daemon import wait_until
from support.staging import EXTENSION_DIR, GROUP, installed, make, php, stop_daemon


def test_install_places_its_files_and_uninstall_takes_them_back(root):
    neighbour = root / "usr/bin/neighbour"
    neighbour.parent.mkdir(parents=True)
    neighbour.touch()
    assert make("install", root).returncode == 0
    ours = {f"{EXTENSION_DIR}/zqprof.so", "/usr/bin/quorbit", "/usr/share/quorbit/quorbit.ini", "/etc/logrotate.d/quorbit",
            "/usr/share/quorbit/prometheus-alerts.yml", "/usr/share/quorbit/grafana-dashboard.json", "/usr/share/quorbit/applications.conf",
            "/usr/share/man/man1/quorbit.1.gz", "/usr/share/man/man5/applications.conf.5.gz",
            "/usr/share/bash-completion/completions/quorbit", "/usr/share/zsh/vendor-completions/_quorbit",
            "/var/log/quorbit/php-agent.log", "/var/log/quorbit/applications.conf"}
    assert installed(root) == ours | {"/usr/bin/neighbour"}
    logs = root / "var/log/quorbit"
    log = logs / "php-agent.log"
    assert (stat.S_IMODE(logs.stat().st_mode), stat.S_IMODE(log.stat().st_mode)) == (0o2750, 0o666)
    assert {grp.getgrgid(path.stat().st_gid).gr_name for path in (logs, log)} == {GROUP}
    assert "@" not in (root / "etc/logrotate.d/quorbit").read_text()

    settings = logs / "applications.conf"
    assert re.search(r"\nzqs.vantorIdSecret = [0-9a-f]{16}\|1\n", settings.read_text())
    started = settings.read_text()

    log.write_text("a line")
    again = make("install", root)
    assert again.returncode == 0 and installed(root) == ours | {"/usr/bin/neighbour"} and log.read_text() == "a line"
    assert settings.read_text() == started
    assert "kept" in make("uninstall", root).stdout
    assert installed(root) == {"/usr/bin/neighbour", "/var/log/quorbit/php-agent.log"}
    os.truncate(log, 0)
    settings.write_text(started + "[Shop]\n")
    make("install", root)
    make("uninstall", root)
    assert settings.read_text() == started + "[Shop]\n"
    settings.unlink()
    make("uninstall", root)
    assert installed(root) == {"/usr/bin/neighbour"}
    assert not logs.exists() and not (root / "usr/share/quorbit").exists()


def test_a_running_php_keeps_the_library_that_it_mapped(root):
    make("install", root)
    with open(root / f".{EXTENSION_DIR}/zqprof.so", "rb") as mapped:
        make("install", root)
        assert os.fstat(mapped.fileno()).st_ino != (root / f".{EXTENSION_DIR}/zqprof.so").stat().st_ino
        assert mapped.read() == SHIPPED.read_bytes()


def test_the_installed_agent_starts_the_installed_daemon_and_reports(root):
    make("install", root)
    script = root / "page.php"
    script.write_text("<?php echo 'hello';")
    page = php(root, "php-cgi", env=web_environment(script, "/shop/page.php"))
    assert page.stdout.endswith(b"hello") and page.stderr == b""
    try:
        show = [root / "usr/bin/quorbit", "show", "--json", "--root", root / "var"]
        found = lambda: subprocess.run(show, capture_output=True, text=True, timeout=10).stdout  # noqa: E731
        wait_until(lambda: "page.php" in found(), "the action")
        assert len(json.loads(found())) == 1
    finally:
        stop_daemon(root)


def test_the_ini_file_names_every_setting_with_its_default(root):
    make("install", root)
    report = "echo json_encode(array_map(function ($s) { return (string)$s['global_value']; }, ini_get_all('quorbit')));"
    elsewhere = {"zqs.prefix": f"{root}/none", "zqs.runtime_root": f"{root}/var"}    # no daemon starts for this
    options = [word for name, value in elsewhere.items() for word in ("-d", f"{name}={value}")]
    run = subprocess.run([ENGINE / "bin/php", "-n", "-d", f"extension={EXTENSION}", *options, "-r", report],
                         capture_output=True, timeout=60)
    lines = (root / "usr/share/quorbit/quorbit.ini").read_text().splitlines()
    named = dict(re.match(r';?(zqs\.\S+) =\s*"?([^"]*)"?$', line).groups() for line in lines if re.match(r";?zqs\.", line))
    assert (named["zqs.prefix"], named["zqs.runtime_root"]) == ("/usr", "/var")
    assert {**named, **elsewhere} == json.loads(run.stdout)


def test_a_large_log_is_rotated_and_stays_writable_for_every_process(root):
    make("install", root, DESTDIR="", RUNTIME_ROOT=f"{root}/var", PREFIX=f"{root}/usr", SYSCONFDIR=f"{root}/etc",
         EXTENSION_DIR=f"{root}/modules")
    logs = root / "var/log/quorbit"
    for name, size, mode in [("php-agent.log", 21 << 20, 0o666), ("daemon.log", 1 << 20, 0o640)]:
        os.truncate(os.open(logs / name, os.O_CREAT | os.O_WRONLY), size)
        (logs / name).chmod(mode)
    rotate = ["/usr/sbin/logrotate", "-s", root / "state", root / "etc/logrotate.d/quorbit"]
    run = subprocess.run(rotate, capture_output=True, text=True, timeout=60)
    assert (run.returncode, run.stderr) == (0, "")
    assert {path.name for path in logs.iterdir()} == {"php-agent.log", "php-agent.log.1.gz", "daemon.log", "applications.conf"}
    fresh = (logs / "php-agent.log").stat()
    assert (fresh.st_size, stat.S_IMODE(fresh.st_mode), fresh.st_gid) == (0, 0o666, logs.stat().st_gid)


@pytest.mark.parametrize("variables, said", [
    ({"WEB_GROUP": "nobody-has-this-group"}, "nobody-has-this-group"),
    ({"PREFIX": "usr"}, '"usr" must be an absolute path'),
    ({"EXTENSION_DIR": "", "PHP_CONFIG": "/nonexistent/php-config"}, "/nonexistent/php-config"),
], ids=["no such group", "relative prefix", "no engine"])
def test_a_refused_install_places_nothing(root, variables, said):
    run = make("install", root, **variables)
    assert run.returncode != 0 and said in run.stderr
    assert list(root.iterdir()) == []
