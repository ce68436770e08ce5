"""What docs/security.md promises: who reaches what, what a request or another account can do, and what leaves a process."""
import json
import os
import pwd
import re
import socket
import sqlite3
import stat
import subprocess
import time
from contextlib import closing, suppress
from pathlib import Path

import pytest

from support import wire
from support.cases import program
from support.engines import IS_ROOT, PROJECT, WEB_USER
from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT
from support.peers import Peer
from support.staging import make, php, stop_daemon

needs_accounts = pytest.mark.skipif(not IS_ROOT, reason="other accounts need root")
WEB_UID = pwd.getpwnam(WEB_USER).pw_uid
NAMES = re.findall(r'^\t"(.*)",$', (PROJECT / "daemon/base/config.cpp").read_text(), re.M)      # the table folder_names

# Prints what the account that runs it can do in the folder that it is given.
PROBE = """
import os, socket, sys
folder = sys.argv[1] + "/"
attempts = {
    "connect": lambda: socket.socket(socket.AF_UNIX).connect(folder + ".quorbit.sock"),
    "append to the agent's log": lambda: open(folder + "php-agent.log", "a"),
    "read the store": lambda: open(folder + "quorbit.db"), "read its journal": lambda: open(folder + "quorbit.db-wal"),
    "configure": lambda: open(folder + "applications.conf", "w"), "redirect": lambda: os.symlink("/", folder + "daemon.log.1"),
    "keep the daemon from starting": lambda: open(folder + "quorbit.pid.lock"),
    "speak for the daemon": lambda: os.rename(folder + ".quorbit.sock", folder + "moved"),
}
for name, attempt in attempts.items():
    try:
        attempt()
        print(name)
    except OSError:
        pass
"""


@needs_accounts
def test_the_web_servers_group_reaches_the_socket_and_the_log_and_nobody_else_anything(root):
    make("install", root)
    root.chmod(0o755)
    logs = root / "var/log/quorbit"
    assert php(root, "php", "-r", "echo 1;").stdout == b"1"
    try:
        wait_until(lambda: (logs / "quorbit.db-wal").exists(), "the store")
        for account, allowed in [(WEB_USER, {"connect", "append to the agent's log"}), ("nobody", set())]:
            probe = subprocess.run(["/usr/bin/python3", "-c", PROBE, logs], user=account, group=pwd.getpwnam(account).pw_gid,
                                   extra_groups=[], capture_output=True, text=True, timeout=20)
            assert (set(probe.stdout.splitlines()), probe.stderr) == (allowed, "")
    finally:
        stop_daemon(root)


def sockets_of(pid):
    """Inode numbers of the sockets that a process holds."""
    links = []
    for link in Path(f"/proc/{pid}/fd").iterdir():
        with suppress(FileNotFoundError):                    # closed meanwhile
            links.append(os.readlink(link))
    return {int(link[8:-1]) for link in links if link.startswith("socket:")}


def test_the_daemon_listens_on_its_socket_alone(real):
    real.php()
    pid, = real.pids()
    wait_until(lambda: len(sockets_of(pid)) == 1, "php's connection to close")
    unix = [line.split() for line in Path("/proc/net/unix").read_text().splitlines()[1:]]
    assert [line[7] for line in unix if int(line[6]) in sockets_of(pid)] == [str(real.logs / ".quorbit.sock")]


def answered(real):
    """What the daemon tells whoever asks for an application's settings."""
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(real.logs / ".quorbit.sock"))
        client.sendall(wire.record(0x0A, wire.record(0x11, "Shop")))
        return client.recv(1000)


@needs_accounts
@pytest.mark.parametrize("kind", ["link", "pipe"])
@pytest.mark.parametrize("name", ["php-agent.log", *NAMES])
def test_what_another_account_left_in_the_folder_leads_nowhere(real, name, kind):
    """Where the folder is open to it: root's PHP and root's daemon neither follow nor wait, and nobody is told what a file holds."""
    secret = "[*]\nzqs.rum.script = secret of root\n"
    victim, planted = real.site.root / "victim", real.logs / name
    victim.touch(0o600)
    victim.write_text(secret)
    planted.symlink_to(victim) if kind == "link" else os.mkfifo(planted)
    os.lchown(planted, WEB_UID, -1)
    real.site.settings["zqs.agent_log_level"] = "DEBUG"
    assert real.php("echo 1;") == b"1"
    with suppress(OSError):                                                  # some of these keep it from starting
        assert b"secret of root" not in answered(real)
    real.stop()
    assert {path.name for path in real.logs.iterdir()} <= {"php-agent.log", *NAMES}
    assert (victim.read_text(), stat.S_IMODE(victim.stat().st_mode)) == (secret, 0o600)


@needs_accounts
def test_settings_come_from_a_file_of_root_that_has_no_other_name(real):
    victim, conf = real.site.root / "victim", real.logs / "applications.conf"
    victim.write_text("[*]\nzqs.rum.script = read\n")
    for given, make_it in [(False, lambda: os.link(victim, conf)), (True, lambda: conf.symlink_to("../../victim"))]:
        real.stop()
        victim.chmod(0o600)
        make_it()
        real.php()
        assert (b"zqs.rum.script=read" in answered(real)) == given
        conf.unlink()


@needs_accounts
def test_the_daemon_takes_its_files_names_from_root_or_itself_only(real):
    config = real.site.root / "other.cfg"
    config.write_text(f"zqs.pid_file={real.logs}/x.pid\nzqs.ipc_listen_file={real.logs}/x.sock\n")
    os.chown(config, WEB_UID, -1)
    run = subprocess.run([QUORBIT, "-f", config], capture_output=True, text=True, timeout=20)
    assert (run.returncode, list(real.logs.iterdir())) == (1, []) and "belongs to another account" in run.stderr


@pytest.mark.parametrize("relative", [False, True])
def test_an_operators_link_redirects_the_log(site, relative):
    elsewhere = site.root / "elsewhere.log"
    (site.logs / "php-agent.log").symlink_to("../../elsewhere.log" if relative else elsewhere)
    for _ in range(2):
        site.cli("", ini={"zqs.agent_log_level": "INFO"}, twin=False)
    assert elsewhere.read_text().count("MINIT") == 2 and stat.S_IMODE(elsewhere.stat().st_mode) == 0o666


@needs_accounts
def test_root_gives_the_daemon_to_the_folders_owner(real):
    real.site.logs.chmod(0o2750)
    os.chown(real.logs, WEB_UID, -1)
    real.php()
    real.reports(1)
    pid, = real.pids()
    status = dict(line.split(":\t", 1) for line in Path(f"/proc/{pid}/status").read_text().splitlines())
    assert set(status["Uid"].split()) == {str(WEB_UID)} and status["Groups"].strip() == ""
    assert {path.stat().st_uid for path in real.logs.glob("quorbit.*")} == {WEB_UID}


def test_a_flood_of_large_queries_finds_the_daemon_bounded(real):
    """While the store cannot be written: 600 MB of what a query says of its process."""
    real.php()
    real.reports(1)
    pid, = real.pids()
    query = wire.record(0x0A, wire.record(0x11, "Shop") + wire.record(0x1C, b"Server API=" + bytes(12 << 20)))
    blocker = sqlite3.connect(real.logs / "quorbit.db", isolation_level=None)
    blocker.execute("BEGIN IMMEDIATE")
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(real.logs / ".quorbit.sock"))
        for _ in range(50):
            client.sendall(query)
            assert client.recv(100)[0] == 0x0A
    blocker.close()
    peak_kb = int(re.search(r"VmHWM:\s*(\d+)", Path(f"/proc/{pid}/status").read_text())[1])
    assert peak_kb < 300_000


# Each is a word that stands nowhere else; see php/security.php.
SECRETS = {"in-query", "in-form", "in-cookie", "in-header", "in-referer", "in-literal", "in-argument", "in-url", "in-url-query",
           "in-message"}
ALWAYS = {"in-referer", "in-literal", "in-url"}
ERROR = {"in-message", "in-argument"}


@pytest.mark.parametrize("given, leaves", [
    ({"zqs.error_collector.enabled": "1"}, ERROR),
    ({"zqs.error_collector.enabled": "0"}, set()),
    ({"zqs.action_tracer.enabled": "1", "zqs.action_tracer.action_threshold": "1", "zqs.action_tracer.record_sql": "off",
      "zqs.error_collector.enabled": "0"}, {"in-url-query"}),
    ({"zqs.capture_params": "1"}, {*ERROR, "in-query", "in-form"}),
    ({"zqs.capture_params": "1", "zqs.ignored_params": "password"}, {*ERROR, "in-query"}),
    ({"zqs.vantorIdSecret": "1|2", "zqs.transaction_tracer.enabled": "1"}, ERROR),
], ids=["errors", "no errors", "traced without SQL", "parameters", "but some", "one transaction"])
def test_what_leaves_the_process(site, given, leaves):
    site.daemon.configure({"zqs.action_tracer.enabled": "0", **given})
    with closing(Peer(delay_ms=2)) as peer:
        metric = site.cgi(program("security.php"), "/login.php?token=in-query", "POST", b"password=in-form",
                          {"Cookie": "PHPSESSID=in-cookie", "Authorization": "Basic in-header",
                           "Referer": "http://x/?t=in-referer"}, env={"PEER": f"127.0.0.1:{peer.port}"}, twin=False).metric
    sent = str(metric)
    assert {secret for secret in SECRETS if re.search(secret + r"\b(?!-)", sent)} == ALWAYS | leaves


def test_bytes_of_a_request_stay_text(site):
    """Line ends, terminal commands and format directives: no record of the log is the visitor's, nor a header of a call."""
    site.daemon.configure({"zqs.vantorIdSecret": "12|34", "zqs.transaction_tracer.enabled": "1"})
    evil = "%n%s%1$s\x1b[2J\x9b2J\n2030-01-01 00:00:00.000 (tid:1,uid:0) CRITICAL: forged"
    with closing(Peer()) as peer:
        result = site.cgi("file_get_contents(getenv('PEER'));", f"/{evil}", env={
            "PEER": peer.url(), "SERVER_NAME": evil, "HTTP_X_VANTOR_ID": "12|9;x=1\r\nForged: 1;r=2\r\nForged: 2"},
            ini={"zqs.agent_log_level": "DEBUG", "zqs.auto_app_naming": "1"}, twin=False)
        request, = peer.take()
    assert b"x=1  Forged: 1\r\n" in request and b"\nForged" not in request
    assert not any("forged" in name.lower() for name, _ in result.headers)
    log = site.log()
    assert "%n%s%1$s" in log and not re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f]", log)
    assert {record[:5] for record in log.split("\n") if record} == {f"{time.localtime().tm_year}-"}


def test_a_long_form_field_does_not_hold_up_a_naming_rule(site):
    """Matching takes time by the square of what is looked at, and PHP's time limit waits meanwhile."""
    condition = {"type": 3, "name": "mail", "match": 5, "value": "[a-z]+@"}
    rule = {"name": "Mail", "match": {"method": 0, "match": 0, "value": "", "params": [condition]}, "split": {}}
    site.daemon.configure({"zqs.naming.rules": json.dumps([rule])})
    for value, action in [("a@b", "WebAction/Mail/"), ("a" * 2_000_000, "WebAction/URI/index.php")]:
        result = site.cgi("", method="POST", body=f"mail={value}".encode(), twin=False)
        assert (result.metric.action, result.ms < 5000) == (action, True)


@pytest.mark.parametrize("settings, name", [
    ({"zqs.auto_action_naming": "0", "zqs.web_action_uri_params_captured": "/index.php,-,q"}, "WebAction/URI/index.php?q="),
    ({"zqs.naming.rules": json.dumps([{"name": "R", "match": {"method": 0, "match": 0, "value": ""}, "split": {"bodyParams": "q"}}])},
     "WebAction/R/?q="),
])
def test_a_form_field_of_megabytes_makes_no_name_of_megabytes(site, settings, name):
    """It would be a packet that no daemon takes: a visitor could hide requests, and fill memory and log."""
    site.daemon.configure(settings)
    assert site.cgi("", method="POST", body=b"q=" + b"x" * 3_500_000, twin=False).metric.action == name + "x" * 256
