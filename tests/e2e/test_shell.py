"""What the shell and `man` know of the commands, and what a terminal gets that a pipe does not."""
import os
import re
import subprocess

import pytest

from support.engines import BUILD
from support.local_daemon import QUORBIT


def quorbit(*words):
    return subprocess.run([QUORBIT, *words], capture_output=True, text=True, timeout=20)


def test_every_command_has_examples_and_stands_in_the_manual():
    commands = re.findall(r"^  ([a-z]+) ", quorbit("--help").stdout.partition("Commands:")[2], re.M)
    manual = (BUILD / "manual/quorbit.1").read_text()
    assert {"show", "status", "profile"} <= set(commands) and "manual" not in commands
    for command in commands:
        told = quorbit(command, "--help").stdout
        assert f"Examples:\n  quorbit {command}" in told or command == "names", command
        assert quorbit("help", command).stdout == told
        assert f".SS quorbit {command}" in manual


@pytest.mark.parametrize("page", ["quorbit.1", "applications.conf.5"])
def test_manual_pages_are_in_order(page):
    checked = subprocess.run(["groff", "-man", "-ww", "-z", BUILD / "manual" / page], capture_output=True, text=True, timeout=30)
    assert (checked.returncode, checked.stderr) == (0, "")


def bash_offers(root, *words):
    """The replies that bash would offer for the last word."""
    script = (f'source "{BUILD}/manual/bash"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _quorbit; '
              '((${#COMPREPLY[@]} == 0)) || printf "%s\\n" "${COMPREPLY[@]}"')
    done = subprocess.run(["bash", "-c", script, "bash", "quorbit", "--root", root, *words], capture_output=True, text=True,
                          timeout=20, env={"PATH": f"{BUILD}/bin:{os.environ['PATH']}"}, cwd=root)
    assert done.stderr == ""
    return done.stdout.splitlines()


def test_bash_completes_commands_options_and_values(real):
    real.site.settings["zqs.app_name"] = "My Shop"
    real.php()
    real.reports(1)
    offers = lambda *words: bash_offers(real.site.root, *words)  # noqa: E731
    assert {"show", "status", "--version"} <= set(offers("")) and offers("sta") == ["status"]
    assert offers("profile", "Shop", "--form") == ["--format"]
    assert offers("profile", "Shop", "--format", "c") == ["callgrind"]
    assert offers("profile", "") == offers("show", "--app", "M") == ["My\\ Shop"] and offers("show", "--app", "x") == []
    assert offers("names", "--settings", "ww") == ["www"] and offers("show", "-n", "") == []


def test_zsh_reads_its_completion():
    done = subprocess.run(["zsh", "-f", "-n", BUILD / "manual/zsh"], capture_output=True, text=True, timeout=20)
    assert (done.returncode, done.stderr) == (0, "")


def test_colours_are_for_terminals_that_want_them(real, monkeypatch):
    monkeypatch.setenv("TERM", "xterm")
    for value, coloured in ("", True), ("1", False):
        monkeypatch.setenv("NO_COLOR", value)
        lines = real.on_terminal(100, "status", accept=(1,))         # no daemon has been started yet
        assert any("\x1b[" in line for line in lines) == coloured
        assert "\x1b[" not in real.command("status")
