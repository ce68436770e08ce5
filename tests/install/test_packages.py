"""The packages themselves: the same sources make the same bytes, whatever the folder of the checkout, the umask, the time zone and
the language, so that a package can be checked against the sources that it is said to be made of; and what Debian asks of one."""
import hashlib
import os
import shutil
import subprocess

from support.engines import ENGINE, PROJECT


def sums(checkout):
    files = (checkout / "build/package/packages").iterdir()
    return {path.name: hashlib.sha256(path.read_bytes()).hexdigest() for path in files}


def beside_the_sources(folder, _):
    return {".git", "build"} if folder == str(PROJECT) else set()


def test_a_build_elsewhere_makes_the_same_bytes(tmp_path):
    other = tmp_path / "a-folder-of-another-length"
    shutil.copytree(PROJECT, other, symlinks=True, ignore=beside_the_sources)
    (other / "build").mkdir()
    (other / "build/engine").symlink_to(ENGINE.resolve())
    shutil.copytree(PROJECT / "build/web", other / "build/web", symlinks=True,
                    ignore=shutil.ignore_patterns("page_files.cpp"))     # what npm has fetched
    time = subprocess.check_output(["git", "log", "-1", "--format=%ct"], cwd=PROJECT, text=True).strip()
    environment = {**os.environ, "SOURCE_DATE_EPOCH": time, "TZ": "Pacific/Auckland", "LC_ALL": "C"}
    done = subprocess.run(["sh", "-c", "umask 077; exec packaging/packages"], cwd=other, env=environment,
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    assert sums(other) == sums(PROJECT) and len(sums(other)) == 5


def test_debians_own_check_finds_no_error():
    packages = sorted((PROJECT / "build/package/packages").glob("*.deb"))
    done = subprocess.run(["lintian", "--allow-root", "--fail-on", "error", *packages], capture_output=True, text=True)
    assert len(packages) == 2 and done.returncode == 0, done.stdout
