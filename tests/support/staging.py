"""make install below a staging folder, and the engine and daemon that run from there."""
import grp
import os
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from support.engines import ENGINE, IS_ROOT, PROJECT
from support.fake_daemon import wait_until

EXTENSION_DIR = "/opt/php/modules"
GROUP = "www-data" if IS_ROOT else grp.getgrgid(os.getegid()).gr_name


@pytest.fixture
def root():
    folder = Path(tempfile.mkdtemp(prefix="zq", dir="/tmp"))     # short: the path of a socket must fit in 107 bytes
    yield folder
    shutil.rmtree(folder)


def make(verb, root, **variables):
    settings = {"DESTDIR": root, "EXTENSION_DIR": EXTENSION_DIR, "WEB_GROUP": GROUP, **variables}
    return subprocess.run(["make", "-C", PROJECT, verb, *(f"{name}={value}" for name, value in settings.items())],
                          capture_output=True, text=True, timeout=60)


def installed(root):
    return {str(path)[len(str(root)):] for path in root.rglob("*") if not path.is_dir()}


def php(root, program, *arguments, **keywords):
    """The engine with the installed ini file as its php.ini, turned to the staging folder."""
    return subprocess.run([ENGINE / "bin" / program, "-c", f"{root}/usr/share/quorbit/quorbit.ini",
                           "-d", f"extension_dir={root}{EXTENSION_DIR}", "-d", f"zqs.prefix={root}/usr",
                           "-d", f"zqs.runtime_root={root}/var", *arguments], capture_output=True, timeout=60, **keywords)


def stop_daemon(root):
    pid = int((root / "var/log/quorbit/quorbit.pid").read_text())
    assert os.readlink(f"/proc/{pid}/exe") == f"{root}/usr/bin/quorbit"
    os.kill(pid, signal.SIGTERM)
    wait_until(lambda: not Path(f"/proc/{pid}/exe").exists(), "the daemon's end")


def install_package(name, root):
    """What a package of this build has, below the staging folder."""
    facts = {"DESTDIR": str(root), "PACKAGE_VERSION": "1", "PACKAGE_DATE": "-", "MAINTAINER": "-"}
    subprocess.run([PROJECT / "packaging/install", name], env={**os.environ, **facts}, check=True, timeout=60)
