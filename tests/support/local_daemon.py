"""The project's own daemon, as a site's agent starts it, and the commands that show what it keeps."""
import fcntl
import json
import os
import signal
import struct
import subprocess
import termios
from contextlib import suppress
from pathlib import Path

import pytest

from support.engines import ENGINE, PROJECT
from support.fake_daemon import wait_until

QUORBIT = PROJECT / "build/bin/quorbit"


class Real:
    """A site whose agent finds the project's own daemon under its prefix."""

    def __init__(self, site):
        site.daemon.stop()
        site.settings["zqs.prefix"] = PROJECT / "build"
        self.site, self.logs = site, site.logs

    def php(self, code="", name="job.php"):
        script = self.site.script(code, name)
        done = subprocess.run([ENGINE / "bin/php", "-c", self.site.ini_file(), script], capture_output=True,
                              timeout=20, env={"PHP_INI_SCAN_DIR": ""})      # a daemon that kept the pipe would hold this up
        assert (done.returncode, done.stderr) == (0, b""), done
        return done.stdout

    def command(self, *words):
        return subprocess.run([QUORBIT, *words, "--root", self.site.root], capture_output=True, text=True, timeout=90).stdout

    def on_terminal(self, columns, *words, accept=(0,)):
        """The lines that a terminal of so many columns and 24 rows gets."""
        ours, theirs = os.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        assert subprocess.run([QUORBIT, *words, "--root", self.site.root], stdout=theirs, timeout=30).returncode in accept
        os.close(theirs)
        with os.fdopen(ours, "rb") as terminal:
            return terminal.read1(65536).decode().splitlines()

    def shown(self, name="job.php"):
        """The actions of that script, newest first."""
        return [a for a in json.loads(self.command("show", "--json") or "[]") if a["action"].endswith(name)]

    def reports(self, count, name="job.php"):
        wait_until(lambda: len(self.shown(name)) >= count, f"{count} actions of {name}")
        assert len(self.shown(name)) == count

    def pids(self):
        """The daemons of this root that serve, found by what they run and not by what they say."""
        return [pid for pid in self.processes() if Path(f"/proc/{pid}/comm").read_text() != "quorbit-parent\n"]

    def processes(self):
        """The same, and the parents that watch them."""
        found = []
        for folder in Path("/proc").glob("[0-9]*"):
            try:
                if str(self.logs).encode() in (folder / "cmdline").read_bytes() and os.readlink(folder / "exe") == str(QUORBIT):
                    found.append(int(folder.name))
            except OSError:
                pass
        return found

    def stop(self):
        for pid in self.processes():
            with suppress(ProcessLookupError):                   # the other has ended it
                os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not self.processes(), "the daemon to end")


@pytest.fixture
def real(site):
    found = Real(site)
    yield found
    found.stop()
