"""quorbit setup, from the packages' files in a staging folder, on three programs of one engine that share a folder of ini files."""
import json
import os
import shutil
import subprocess

import pytest

from support.engines import ENGINE
from support.staging import install_package

PROGRAMS = {"php": "bin", "php-cgi": "bin", "php-fpm": "sbin"}


class Host:
    def __init__(self, root):
        self.root, self.scanned = root, root / "conf.d"
        self.ini, self.off = self.scanned / "quorbit.ini", self.scanned / "quorbit.ini.off"
        self.scanned.mkdir()
        (self.scanned / "10-other.ini").write_text("extension_dir = /nowhere\n")
        (root / "bin").mkdir()
        for package in ("quorbit", "quorbit-php"):
            install_package(package, root)
        for name in PROGRAMS:
            self.program(name)

    def program(self, name, first=""):
        """The engine's program of that name, with the folder as the one that it scans."""
        path = self.root / "bin" / name
        path.write_text(f'#!/bin/sh\nexport PHP_INI_SCAN_DIR={self.scanned}\n{first}\n'
                        f'exec {ENGINE}/{PROGRAMS[name]}/{name} "$@"\n')
        path.chmod(0o755)
        return path

    def setup(self, *words):
        """(status, answer), with the names of our programs in place of their paths. Without a path among the words, what
        changes something is told to change our programs and nobody else's."""
        ours = [] if not words or str(self.root) in words[-1] else [self.root / "bin" / name for name in PROGRAMS]
        run = subprocess.run([self.root / "usr/bin/quorbit", "setup", *words, *ours, "--json"], capture_output=True, text=True,
                             timeout=60, env={"PATH": f"{self.root}/bin:{os.environ['PATH']}"})
        answer = json.loads(run.stdout.replace(f"{self.root}/bin/", ""))
        answer["ours"] = {php["php"]: php for php in answer["php"] if php["php"] in PROGRAMS}
        return run.returncode, answer

    def results(self, *words):
        status, answer = self.setup(*words)
        return status, {result["php"]: result["outcome"] for result in answer["results"] if result["php"] in PROGRAMS}


@pytest.fixture
def host(root):
    return Host(root)


def test_every_php_is_found_and_tells_what_it_is(host):
    status, answer = host.setup()
    assert status == 0 and answer["ours"].keys() == PROGRAMS.keys()
    assert {(php["server"], php["version"], php["build"], php["ini_folder"], php["enabled"], php["trouble"])
            for php in answer["ours"].values()} == {
        (server, "5.6.15", "API20131226,TS", str(host.scanned), False, "") for server in ("CLI", "CGI", "FPM")}


def test_it_is_switched_on_and_off_once_and_nothing_is_left(host):
    before = sorted(host.root.rglob("*"))
    assert host.results("enable", "--dry-run") == (0, dict.fromkeys(PROGRAMS, "changed")) and not host.ini.exists()
    status, results = host.results("enable", "--app", "Shop")
    assert status == 0 and sorted(results.values()) == ["changed", "unchanged", "unchanged"]    # they share the file
    assert host.results("enable")[1] == dict.fromkeys(PROGRAMS, "unchanged")
    assert all(php["enabled"] and php["enabled_by"] == str(host.ini) for php in host.setup()[1]["ours"].values())
    code = 'echo ini_get("zqs.app_name"), " ", ini_get("zqs.prefix");'
    said = subprocess.run([host.root / "bin/php", "-d", "zqs.runtime_root=/dev/null", "-r", code], capture_output=True, text=True)
    assert (said.stdout, said.stderr) == (f"Shop {host.root}/usr", "")
    assert host.results("disable", "--dry-run")[1]["php"] == "changed" and host.ini.exists()
    assert sorted(host.results("disable")[1].values()) == ["changed", "unchanged", "unchanged"]
    assert host.results("disable") == (0, dict.fromkeys(PROGRAMS, "unchanged"))
    assert sorted(host.root.rglob("*")) == before


def test_settings_of_the_operator_outlive_switching_off(host):
    host.setup("enable", "--app", "Shop")
    host.ini.write_text(host.ini.read_text() + "zqs.license_key = abc\n")
    host.setup("disable")
    assert not host.ini.exists() and "abc" in host.off.read_text()
    host.setup("enable", "--app", "Till")
    assert not host.off.exists()
    assert host.ini.read_text().splitlines()[-2:] == ['zqs.app_name = "Till"', "zqs.license_key = abc"]


def broken_module(host):
    (host.root / "usr/lib/quorbit/no-debug-zts-20131226/zqprof.so").write_text("no library")


def reader_that_does_not_load_it(host):
    host.program("php-fpm", f"[ ! -e {host.ini} ] || export PHP_INI_SCAN_DIR=")


def foreign_line(host):
    (host.scanned / "extra.ini").write_text("extension = /somewhere/zqprof.so\n")


def missing_folder(host):
    shutil.rmtree(host.scanned)


@pytest.mark.parametrize("hinder, said", [
    (broken_module, "does not load it: "),
    (reader_that_does_not_load_it, "php-fpm does not load it"),
    (foreign_line, "a file that is not ours: name the application there"),
    (missing_folder, "the folder that it scans is missing: mkdir -p"),
])
def test_what_would_not_work_is_refused_and_taken_back(host, hinder, said):
    hinder(host)
    status, answer = host.setup("enable", "--app", "Shop", str(host.root / "bin/php"))
    assert status == 1 and said in answer["results"][0]["said"]
    assert not host.ini.exists()


def test_a_program_that_another_account_can_change_is_named_and_not_run(host):
    ran = host.root / "ran"
    host.program("php", f"touch {ran}").chmod(0o777)
    assert "was not run" in host.setup()[1]["ours"]["php"]["trouble"] and not ran.exists()
