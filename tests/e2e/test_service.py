"""The daemon under a service manager: what it tells it, to whom it gives way, and what its unit lets it do."""
import os
import signal
import socket
import subprocess

import pytest

from support.engines import IS_ROOT, PROJECT, Fpm
from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT
from support.staging import install_package


@pytest.fixture
def manager(real, tmp_path):
    """A manager's socket, and what starts the daemon as one does."""
    real.php(name="first.php")                                   # writes the configuration, and starts a daemon
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as told:
        told.bind(str(tmp_path / "notify"))
        told.settimeout(20)
        command = [QUORBIT, "-f", real.logs / ".quorbit.cfg", "--foreground"]
        start = lambda: subprocess.Popen(command, stderr=subprocess.PIPE, text=True,       # noqa: E731
                                         env={**os.environ, "NOTIFY_SOCKET": str(tmp_path / "notify")})
        yield told, start


def test_the_service_manager_hears_when_agents_are_served_and_when_no_more(real, manager):
    told, start = manager
    real.stop()
    daemon = start()
    assert told.recv(100) == b"READY=1"
    real.php()
    real.reports(1)
    assert told.recv(100) == b"WATCHDOG=1"
    assert real.processes() == [daemon.pid]                      # no parent beside the manager
    daemon.send_signal(signal.SIGTERM)
    assert told.recv(100) == b"STOPPING=1" and daemon.wait(10) == 0


def test_a_daemon_of_php_is_named_to_the_service_manager_until_it_has_gone(real, manager):
    told, start = manager
    wait_until(real.pids, "the daemon of PHP")
    refused = start()
    assert refused.wait(20) == 1 and f"process {real.pids()[0]}, answers on" in refused.stderr.read()


@pytest.mark.parametrize("name, command", [
    ("quorbit", "-f /var/log/quorbit/.quorbit.cfg --foreground"),
    ("quorbit-web", "web --listen 127.0.0.1:7180 --password-file /etc/quorbit-web.password")])
def test_each_unit_is_valid_and_lets_its_program_do_little(root, name, command):
    install_package("quorbit", root)
    unit = root / f"{name}.service"
    text = (root / f"lib/systemd/system/{name}.service").read_text()
    assert f"ExecStart=/usr/bin/quorbit {command}\n" in text
    unit.write_text(text.replace("ExecStart=", f"ExecStart={root}"))
    for words in (["verify", "--man=no", "--recursive-errors=no"], ["security", "--offline=true", "--threshold=20"]):
        run = subprocess.run(["systemd-analyze", *words, unit], capture_output=True, text=True, timeout=60, cwd=PROJECT)
        assert run.returncode == 0, run.stdout + run.stderr


CONTAINER = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"] + ([] if IS_ROOT else ["--user", "--map-root-user"])


class Contained(Fpm):
    stop_signal = signal.SIGKILL                                 # unshare passes no other on

    def command(self):
        return [*CONTAINER, *super().command()]


def test_containers_share_nothing_but_the_folder(site):
    """PHP in one, the daemon in another: neither sees the other's processes."""
    site.daemon.stop()
    site.settings["zqs.prefix"] = site.root / "nothing here"
    names = {"daemon_log_file_name": "daemon.log", "pid_file": "quorbit.pid", "ipc_listen_file": ".quorbit.sock"}
    config = site.logs / ".quorbit.cfg"
    config.write_text("".join(f"zqs.{key}={site.logs / name}\n" for key, name in names.items()))
    with subprocess.Popen([*CONTAINER, QUORBIT, "-f", config, "--foreground"]) as daemon:
        try:
            wait_until((site.logs / ".quorbit.sock").exists, "the daemon")
            server = Contained(site, site.ini_file(True), True)
            site.servers.append(server)
            server.start()
            assert server.request(site.script("echo 'page';"), "/index.php").body == b"page"
            ask = lambda *words: subprocess.run([QUORBIT, *words, "--root", site.root], capture_output=True, text=True, timeout=60).stdout  # noqa: E731
            wait_until(lambda: "index.php" in ask("show"), "the action")
            assert "Shop" in ask("status")
        finally:
            daemon.kill()                                        # unshare passes no other signal on
