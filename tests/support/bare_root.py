"""A Debian 12 with processes of its own, in a folder: as debootstrap leaves it, with a PHP 5.6 that an operator has
built, and where a test asks for it with systemd as its first process. Needs root."""
import os
import re
import shutil
import socket
import subprocess
from contextlib import contextmanager
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
FPM_UNIT = f"""[Service]
Environment=PHP_INI_SCAN_DIR={CONF}
ExecStart=/usr/local/sbin/php-fpm -y /etc/php-fpm.conf -R
[Install]
WantedBy=multi-user.target
"""
UNSHARE = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
DAEMONS_OWN = {f"/var/log/quorbit/{name}" for name in (
    ".quorbit.sock", "quorbit.pid", "quorbit.pid.lock", "daemon.log", "quorbit.db", "quorbit.db-wal", "quorbit.db-shm",
    "quorbit.db-orders", "quorbit.db-reserve", "board")}
SYSTEMS = ("/var/lib/", "/var/cache/", "/var/log/dpkg", "/var/log/apt", "/var/log/alternatives", "/run/", "/tmp/",
           "/root/", "/etc/passwd", "/etc/group", "/etc/shadow", "/etc/gshadow", "/etc/ld.so.cache", "/etc/subuid",
           "/etc/subgid", "/usr/lib/x86_64-linux-gnu")


def debian():
    """The system as debootstrap leaves it, from where this one has its packages."""
    if not CACHE.exists():
        lists = [Path("/etc/apt/sources.list"), *Path("/etc/apt/sources.list.d").glob("*.sources")]
        make = ["mmdebstrap", "--quiet", "--variant=minbase", "--mode=root", "bookworm", CACHE]
        subprocess.run([*make, *(path for path in lists if path.exists())], check=True)
    return CACHE


def typed(page, heading, number=1):
    """The commands of a block below that heading: of the first one, or of that number."""
    section = (PROJECT / page).read_text().split(f"\n## {heading}\n", 1)[1].split("\n## ")[0]
    block = re.findall(r"^```(?:sh)?\n(.*?)^```", section, re.S | re.M)[number - 1]
    return [line.partition("#")[0].strip() for line in block.splitlines()]


def first_child(process):
    try:
        children = Path(f"/proc/{process}/task/{process}/children").read_text().split()
    except FileNotFoundError:
        return None
    return int(children[0]) if children else None


class Root:
    """The folder, and what runs in it below a process that does nothing, or below systemd once it is booted."""
    namespaces, depth = ("--mount", "--pid"), 1

    def __init__(self, folder):
        self.folder = folder
        subprocess.run(["tar", "-x", "-C", folder, "--strip-components=1", "-f", debian()], check=True)
        shutil.rmtree(folder / "etc/apt/sources.list.d")
        shutil.copytree("/etc/apt", folder / "etc/apt", dirs_exist_ok=True, symlinks=True)
        shutil.copy("/etc/resolv.conf", folder / "etc/resolv.conf")
        (folder / "usr/sbin/policy-rc.d").write_text("#!/bin/sh\nexit 101\n")
        (folder / "usr/sbin/policy-rc.d").chmod(0o755)
        mounts = f"mount -t proc proc {folder}/proc && mount -t tmpfs run {folder}/run"
        self.init = subprocess.Popen([*UNSHARE, "sh", "-c", f"{mounts} && exec chroot {folder} sleep infinity"])
        self.servers = []
        wait_until(lambda: (self.inner() or 0) and Path(f"/proc/{self.inner()}/root/proc/1").exists(), "the namespaces")

    def inner(self):
        """The first process there, or none."""
        found = self.init.pid
        for _ in range(self.depth):
            found = found and first_child(found)
        return found

    def words(self, line):
        environment = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
                       "PHP_INI_SCAN_DIR": CONF, "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"}
        inner = self.inner()
        return ["nsenter", "-t", str(inner), *self.namespaces, f"--root=/proc/{inner}/root", "--wdns=/root",
                "env", "-i", *(f"{key}={value}" for key, value in environment.items()), "sh", "-c", line]

    def type(self, line, accept=(0,)):
        done = subprocess.run(self.words(line), capture_output=True, text=True, timeout=600, stdin=subprocess.DEVNULL)
        assert done.returncode in accept, f"{line}\n{done.stdout}{done.stderr}"
        return done.stdout + done.stderr

    def host_php(self, headers=False):
        """A PHP 5.6 as an operator has built it, with the libraries that it needs, and if asked with its headers."""
        engine = ENGINE.resolve()
        unused = shutil.ignore_patterns("apache", "man", *([] if headers else ["include"]))
        shutil.copytree(engine, Path(f"{self.folder}{engine}"), symlinks=True, ignore=unused)
        for name in ("bin/php", "sbin/php-fpm", "bin/php-config", "bin/phpize"):
            (self.folder / "usr/local" / name).symlink_to(engine / name)
        (self.folder / CONF[1:]).mkdir(parents=True)
        (self.folder / "etc/php-fpm.conf").write_text(FPM)
        (self.folder / "srv").mkdir(exist_ok=True)
        (self.folder / "srv/index.php").write_text("<?php usleep(20000); echo 'page';")
        (self.folder / "srv/quick.php").write_text("<?php echo 'quick';")
        linked = subprocess.check_output(["ldd", engine / "sbin/php-fpm"], text=True)
        paths = [os.path.realpath(path) for path in re.findall(r"=> (/\S+)", linked)]
        owners = subprocess.run(["dpkg", "-S", *paths], capture_output=True, text=True).stdout
        libraries = sorted(set(re.findall(r"^([^:]+):", owners, re.M)))
        self.type("apt-get update && apt-get install -y --no-install-recommends " + " ".join(libraries))

    def serve(self):
        """FPM, started or started again."""
        self.end_servers()
        command = self.words("exec php-fpm -y /etc/php-fpm.conf -R")
        self.servers.append(subprocess.Popen(command, stderr=subprocess.DEVNULL))
        wait_until(lambda: self.get() is not None, "FPM")

    def end_servers(self):
        for server in self.servers:
            self.type("kill $(pidof php-fpm | tr ' ' '\\n' | sort -n | head -n 1)")
            server.wait(20)
        self.servers = []

    def boot(self):
        """From now on systemd runs there, with a network of its own. Skips the test on a machine that refuses."""
        self.close()
        (self.folder / "usr/sbin/policy-rc.d").unlink()
        (self.folder / "etc/systemd/system/php-fpm.service").write_text(FPM_UNIT)
        self.namespaces, self.depth = ("--mount", "--pid", "--net", "--uts", "--ipc", "--cgroup"), 2
        container = f"systemd-nspawn -D {self.folder} --boot --keep-unit --register=no --console=pipe --quiet"
        mounts = "mount -t tmpfs run /run && mkdir -p /run/systemd/system"
        start = ["sh", "-c", f"{mounts} && exec {container} --private-network"]
        said = self.folder.with_suffix(".log")
        with said.open("w") as log:
            self.init = subprocess.Popen([*UNSHARE, *start], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: self.init.poll() is not None or self.is_up(), "systemd", 120)
        if self.init.poll() is not None:
            pytest.skip("systemd-nspawn refuses: " + said.read_text())

    def is_up(self):
        ask = "systemctl is-active multi-user.target"
        return self.inner() and subprocess.run(self.words(ask), capture_output=True).returncode == 0

    def get(self, page="index.php"):
        """The page by FPM; nothing when nobody listens."""
        request = {"SCRIPT_FILENAME": f"/srv/{page}", "SCRIPT_NAME": f"/{page}", "REQUEST_URI": f"/{page}",
                   "REQUEST_METHOD": "GET", "SERVER_NAME": "shop.test", "SERVER_PROTOCOL": "HTTP/1.1"}
        try:
            with socket.socket(socket.AF_UNIX) as client:
                client.settimeout(20)
                client.connect(f"/proc/{self.inner()}/root/run/php.sock")
                client.sendall(fastcgi_request(request))
                return client.makefile("rb").read()
        except OSError:
            return None

    def files(self):
        """What is there beside what belongs to the system itself, links and folders included."""
        look = ["find", ".", "-xdev", "!", "-path", "./proc/*"]
        found = subprocess.check_output(look, cwd=self.folder, text=True).split("\n")
        return {path[1:] for path in found if path[1:] and not path[1:].startswith(SYSTEMS)}

    def download(self, *packages):
        """Installs what these need from the archive."""
        install = "apt-get install -y --no-install-recommends "
        needed = re.findall(r"^Inst (?!quorbit)(\S+)", self.type(f"{install} {' '.join(packages)} --simulate"), re.M)
        self.type(install + " ".join(needed))

    def close(self):
        self.init.kill()
        self.init.wait()


@contextmanager
def bare_root(tmp_path_factory):
    if os.geteuid() != 0:
        pytest.skip("needs root")
    folder = Path(tmp_path_factory.mktemp("root"))
    folder.chmod(0o755)
    found = Root(folder)
    try:
        yield found
    finally:
        found.close()
        shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture
def bare(tmp_path_factory):
    with bare_root(tmp_path_factory) as found:
        yield found


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
