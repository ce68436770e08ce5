"""The packages where systemd is the first process: the service that PHP's agents report to, its load, crash
and end, and the page."""
import gzip
import json
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest

from support.bare_root import bare_root, packages, typed
from support.fake_daemon import wait_until

PASSWORD = "a password of some length"
ASK = """import json, sys, urllib.request
url, password = "http://127.0.0.1:7180" + sys.argv[1], sys.argv[2]
asked = urllib.request.Request(url, headers={"Authorization": "Bearer " + password})
sys.stdout.buffer.write(urllib.request.urlopen(asked, timeout=60).read())"""
UNITS = ("quorbit.service", "quorbit-web.service")
INSTALL, _, ENABLE, DOCTOR = typed("README.md", "Into a real server")


class Host:
    """One with FPM and the packages, as the page says; its daemon and the page are services."""

    def __init__(self, bare):
        self.bare, self.type = bare, bare.type
        names = packages(bare.folder / "root")
        bare.host_php()
        bare.download("systemd-sysv", "dbus", "procps", *(f"./{name}" for name in names))
        bare.boot()
        self.type("systemctl enable --now php-fpm.service")
        self.type(INSTALL.replace("apt ", "apt-get -y ", 1))
        self.type(re.search(r"^ *(systemctl restart php-fpm\S*)$", self.type(ENABLE), re.M)[1])
        place, edit, start = typed("docs/install.md", "Debian packages", 2)
        self.type(f"{place}; echo '{PASSWORD}' > {edit.split()[1]}; {start}")
        listens = lambda: "127.0.0.1:7180" in self.type("journalctl -u quorbit-web")  # noqa: E731
        wait_until(lambda: bare.get() and self.is_served() and listens(), "all services")

    def shows(self, what, unit="quorbit.service"):
        return self.type(f"systemctl show -p {what} --value {unit}").strip()

    def daemons(self):
        """The processes of /usr/bin/quorbit that serve agents."""
        return self.type("pgrep -f '^/usr/bin/quorbit -f'", accept=(0, 1)).split()

    def stored(self):
        return json.loads(self.type("quorbit top --json"))["all"]["count"]

    def is_served(self):
        return self.shows("ActiveState") == "active" and self.shows("MainPID") in self.daemons()

    def send(self, count):
        """So many requests, four at a time."""
        with ThreadPoolExecutor(4) as visitors:
            answers = list(visitors.map(lambda _: self.bare.get("quick.php"), range(count)))
        assert all(answer and b"quick" in answer for answer in answers)

    def fetch(self, path):
        """From the container's loopback interface, where nothing of this machine listens."""
        there = ["nsenter", "-t", str(self.bare.inner()), "--net"]
        done = subprocess.run([*there, sys.executable, "-c", ASK, path, PASSWORD], capture_output=True, timeout=120)
        assert done.returncode == 0, done.stderr
        return done.stdout


@pytest.fixture(scope="module")
def host(tmp_path_factory):
    with bare_root(tmp_path_factory) as bare:
        yield Host(bare)


def test_agents_report_to_the_service_and_start_no_daemon(host):
    assert "Nothing is amiss." in host.type(f"{DOCTOR} --fpm /run/php.sock")
    assert host.daemons() == [host.shows("MainPID")]


def test_the_page_is_served_on_the_loopback_interface(host):
    assert {"WebAction/URI/index.php"} <= {request["action"] for request in json.loads(host.fetch("/api/v1/requests"))}
    assert b"<html" in gzip.decompress(host.fetch("/"))


def test_what_the_units_forbid_is_not_missed_under_load(host):
    before = host.stored()
    host.send(3000)
    wait_until(lambda: host.stored() == before + 3000, "the load's actions")
    for unit in UNITS:
        assert b"[" in host.fetch("/api/v1/requests") and host.shows("NRestarts", unit) == "0"
        status = host.type(f"cat /proc/{host.shows('MainPID', unit)}/status")
        assert re.search(r"^Seccomp:\s+2$", status, re.M) and re.search(r"^NoNewPrivs:\s+1$", status, re.M)
        assert int(re.search(r"VmHWM:\s+(\d+)", status)[1]) * 1024 < int(host.shows("MemoryMax", unit)) / 2


def test_a_daemon_that_crashed_is_started_again_and_its_agents_find_it(host):
    crashed = host.shows("MainPID")
    host.type(f"kill -SEGV {crashed}")
    wait_until(lambda: host.shows("MainPID") not in (crashed, "0") and host.is_served(), "the service after a crash")
    before = host.stored()
    wait_until(lambda: host.bare.get("quick.php") and host.stored() > before, "an action after the crash")
    assert host.daemons() == [host.shows("MainPID")] and host.shows("NRestarts") == "1"


def test_stopping_the_service_stores_what_was_received(host):
    wait_until(lambda: host.is_served() and "Nothing is amiss." in host.type(DOCTOR), "the daemon")
    before = host.stored()
    host.send(500)
    host.type("systemctl stop quorbit.service")
    assert host.stored() == before + 500 and host.shows("Result") == "success"
    assert b"page" in host.bare.get() and not host.daemons()


def test_removal_ends_both_services_and_no_page(host):
    host.type("systemctl start quorbit.service && apt-get remove -y quorbit quorbit-php")
    assert {host.shows("ActiveState", unit) for unit in UNITS} == {"inactive"}
    assert b"page" in host.bare.get() and not host.daemons()
