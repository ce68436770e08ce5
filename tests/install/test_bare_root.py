"""The packages on a Debian that has nothing else: what the README says is typed there, line by line, and each step leaves the files
that it should and no others. Beside the packages and the system there is only a PHP 5.6, as a host has it. Needs root."""
import json
import os
import re
import shutil
import socket
import subprocess
import threading
from pathlib import Path

import pytest

from support.engines import ENGINE, PROJECT, fastcgi_request
from support.fake_daemon import wait_until

CACHE = PROJECT / "build/bare-root.tar"
PACKAGES = PROJECT / "build/package/packages"
CONF = "/etc/php5.6/conf.d"                     # which this host's PHP scans
FPM = """[global]
daemonize = no
[www]
user = www-data
group = www-data
listen = /run/php.sock
pm = static
pm.max_children = 2
"""
DAEMONS_OWN = {f"/var/log/quorbit/{name}" for name in (
    ".quorbit.sock", "quorbit.pid", "daemon.log", "quorbit.db", "quorbit.db-wal", "quorbit.db-shm", "quorbit.db-orders", "quorbit.db-reserve", "quorbit.pid.lock")}
BY_INSTALLING = {"/var/log/quorbit", "/var/log/quorbit/php-agent.log", "/var/log/quorbit/.quorbit.cfg", "/var/log/quorbit/applications.conf",
                 "/etc/systemd/system/multi-user.target.wants/quorbit.service"}
SYSTEMS = ("/var/lib/", "/var/cache/", "/var/log/dpkg", "/var/log/apt", "/var/log/alternatives", "/run/", "/tmp/", "/etc/passwd", "/etc/group",
           "/etc/shadow", "/etc/gshadow", "/etc/ld.so.cache", "/etc/subuid", "/etc/subgid", "/root/", "/usr/lib/x86_64-linux-gnu")


def debian():
    """The system as debootstrap leaves it, from where this one has its packages."""
    if not CACHE.exists():
        sources = [path for path in [Path("/etc/apt/sources.list"), *Path("/etc/apt/sources.list.d").glob("*.sources")] if path.exists()]
        subprocess.run(["mmdebstrap", "--quiet", "--variant=minbase", "--mode=root", "bookworm", CACHE, *sources], check=True)
    return CACHE


class Root:
    """A Debian 12 with processes of its own."""

    def __init__(self, folder):
        self.folder = folder
        subprocess.run(["tar", "-x", "-C", folder, "--strip-components=1", "-f", debian()], check=True)
        shutil.rmtree(folder / "etc/apt/sources.list.d")
        shutil.copytree("/etc/apt", folder / "etc/apt", dirs_exist_ok=True, symlinks=True)
        shutil.copy("/etc/resolv.conf", folder / "etc/resolv.conf")
        (folder / "usr/sbin/policy-rc.d").write_text("#!/bin/sh\nexit 101\n")
        (folder / "usr/sbin/policy-rc.d").chmod(0o755)
        mounts = f"mount -t proc proc {folder}/proc && mount -t tmpfs run {folder}/run && exec chroot {folder} sleep infinity"
        self.init = subprocess.Popen(["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-c", mounts])
        self.servers = []
        wait_until(lambda: (self.inner() or 0) and Path(f"/proc/{self.inner()}/root/proc/1").exists(), "the namespaces")

    def inner(self):
        children = Path(f"/proc/{self.init.pid}/task/{self.init.pid}/children").read_text().split()
        return int(children[0]) if children else None

    def words(self, line):
        environment = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive",
                       "PHP_INI_SCAN_DIR": CONF, "LC_ALL": "C.UTF-8", "HOME": "/root"}
        return ["nsenter", "-t", str(self.inner()), "--mount", "--pid", f"--root=/proc/{self.inner()}/root", "--wdns=/root",
                "env", "-i", *(f"{key}={value}" for key, value in environment.items()), "sh", "-c", line]

    def type(self, line, accept=(0,)):
        done = subprocess.run(self.words(line), capture_output=True, text=True, timeout=600, stdin=subprocess.DEVNULL)
        assert done.returncode in accept, f"{line}\n{done.stdout}{done.stderr}"
        return done.stdout + done.stderr

    def host_php(self):
        """A PHP 5.6 as an operator has built it, with the libraries that it needs, and FPM running."""
        engine = ENGINE.resolve()
        shutil.copytree(engine, Path(f"{self.folder}{engine}"), symlinks=True, ignore=shutil.ignore_patterns("include", "apache", "man"))
        for name in ("bin/php", "sbin/php-fpm"):
            (self.folder / "usr/local" / name).symlink_to(engine / name)
        (self.folder / CONF[1:]).mkdir(parents=True)
        (self.folder / "etc/php-fpm.conf").write_text(FPM)
        (self.folder / "srv").mkdir(exist_ok=True)
        (self.folder / "srv/index.php").write_text("<?php usleep(20000); echo 'page';")
        linked = subprocess.check_output(["ldd", engine / "sbin/php-fpm"], text=True)
        paths = [os.path.realpath(path) for path in re.findall(r"=> (/\S+)", linked)]
        owners = subprocess.run(["dpkg", "-S", *paths], capture_output=True, text=True).stdout
        self.type("apt-get update && apt-get install -y --no-install-recommends " + " ".join(sorted(set(re.findall(r"^([^:]+):", owners, re.M)))))

    def serve(self):
        """FPM, started or started again."""
        self.end_servers()
        self.servers.append(subprocess.Popen(self.words("exec php-fpm -y /etc/php-fpm.conf -R"), stderr=subprocess.DEVNULL))
        wait_until(lambda: self.get() is not None, "FPM")

    def end_servers(self):
        for server in self.servers:
            self.type("kill $(pidof php-fpm | tr ' ' '\\n' | sort -n | head -n 1)")
            server.wait(20)
        self.servers = []

    def get(self):
        """The page by FPM; nothing when nobody listens."""
        try:
            with socket.socket(socket.AF_UNIX) as client:
                client.settimeout(20)
                client.connect(f"/proc/{self.inner()}/root/run/php.sock")
                client.sendall(fastcgi_request({"SCRIPT_FILENAME": "/srv/index.php", "SCRIPT_NAME": "/index.php", "REQUEST_URI": "/index.php",
                                                "REQUEST_METHOD": "GET", "SERVER_NAME": "shop.test", "SERVER_PROTOCOL": "HTTP/1.1"}))
                return client.makefile("rb").read()
        except OSError:
            return None

    def files(self):
        """What is there beside what belongs to the system itself, links and folders included."""
        found = subprocess.check_output(["find", ".", "-xdev", "!", "-path", "./proc/*"], cwd=self.folder, text=True).split("\n")
        return {path[1:] for path in found if path[1:] and not path[1:].startswith(SYSTEMS)}

    def close(self):
        self.init.kill()
        self.init.wait()


@pytest.fixture
def bare(tmp_path_factory):
    if os.geteuid() != 0:
        pytest.skip("needs root")
    folder = Path(tmp_path_factory.mktemp("root"))
    folder.chmod(0o755)
    found = Root(folder)
    yield found
    found.close()
    shutil.rmtree(folder, ignore_errors=True)


def packages(folder, version=None):
    """The two packages below that folder; with another version, if one is given."""
    names = []
    for path in sorted(PACKAGES.glob("quorbit*.deb")):
        if "dbgsym" in path.name:
            continue
        target = folder / path.name
        if version is None:
            shutil.copy(path, target)
        else:
            tree = folder / "tree"
            subprocess.run(["dpkg-deb", "-R", path, tree], check=True)
            control = tree / "DEBIAN/control"
            text = control.read_text()
            old = re.search(r"^Version: (.*)$", text, re.M)[1]
            control.write_text(text.replace(old, version))
            target = folder / path.name.replace(old, version)
            subprocess.run(["dpkg-deb", "-b", tree, target], check=True, stdout=subprocess.DEVNULL)
            shutil.rmtree(tree)
        names.append(target.name)
    assert len(names) == 2, names
    return names


def typed():
    """The commands of the README's first way, which docs/install.md repeats."""
    block, again = (re.search(heading + r"\n.*?```(?:sh)?\n(.*?)```", (PROJECT / page).read_text(), re.S)[1]
                    for page, heading in (("README.md", "## Into a real server"), ("docs/install.md", "## Debian packages")))
    assert block == again
    return [line.partition("#")[0].strip() for line in block.splitlines()]


def test_the_documented_commands_lead_from_nothing_to_the_first_action_and_back(bare):
    home = bare.folder / "root"
    names = packages(home)
    bare.host_php()
    bare.serve()
    install, setup, enable, doctor = typed()
    install = install.replace("apt ", "apt-get -y --no-install-recommends ", 1)
    needed = re.findall(r"^Inst (?!quorbit)(\S+)", bare.type(f"{install} --simulate"), re.M)
    bare.type("apt-get install -y --no-install-recommends " + " ".join(needed))        # first: their files are not ours
    before = bare.files()
    bare.type(install)
    assert "off" in bare.type(setup)
    assert "quorbit.ini" in bare.type(enable)
    bare.serve()                                                 # as its last lines say
    assert b"page" in bare.get()
    assert "Nothing is amiss." in bare.type(doctor)
    wait_until(lambda: "index.php" in bare.type("quorbit show --app Shop"), "the action")

    listed = {re.sub("^/lib/", "/usr/lib/", path) for path in bare.type("dpkg -L quorbit quorbit-php").split()}
    new = bare.files() - before
    assert new - listed - DAEMONS_OWN == BY_INSTALLING | {f"{CONF}/quorbit.ini"}
    assert {path for path in listed if path.startswith(("/usr/", "/lib/", "/etc/")) and not (bare.folder / path[1:]).exists()} == set()

    upgraded = packages(home, "9.9-1")
    stored = lambda: [action["id"] for action in json.loads(bare.type("quorbit show --json -n 100000"))]       # noqa: E731
    kept, answers, done = stored(), [], threading.Event()
    visitor = threading.Thread(target=lambda: [answers.append(bare.get()) for _ in iter(done.is_set, True)])
    visitor.start()
    try:
        bare.type("apt-get install -y ./" + " ./".join(upgraded))
    finally:
        done.set()
        visitor.join()
    assert len(answers) > 10 and all(answer and b"page" in answer for answer in answers)
    bare.serve()
    assert b"page" in bare.get()
    wait_until(lambda: len(stored()) > len(kept) + 1, "actions after the upgrade")
    assert set(kept) <= set(stored()) and stored() == list(range(max(stored()), 0, -1))
    assert bare.files() - listed - DAEMONS_OWN - before == BY_INSTALLING | {f"{CONF}/quorbit.ini"}

    bare.type("apt-get install -y --allow-downgrades ./" + " ./".join(names))
    bare.serve()
    bare.type("apt-get remove -y quorbit quorbit-php")
    assert b"page" in bare.get()                                 # a server that has not been restarted
    bare.serve()
    assert b"page" in bare.get()
    left = bare.files() - before
    assert left - DAEMONS_OWN == BY_INSTALLING | {"/etc/logrotate.d/quorbit"}
    bare.type("apt-get purge -y quorbit")
    assert bare.files() - before == set()
