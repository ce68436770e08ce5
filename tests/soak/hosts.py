"""What a long run needs of the servers: overlapping generations, reloads, and the gauges of their processes."""
import os
import re
import signal
from pathlib import Path

from soak.load import FastCgi, Http
from support import engines

CRASH = re.compile(r"(?i).*(?:segmentation|exit signal|exited on signal|SIGSEGV|SIGABRT|double free|corrupt|zend_mm_heap).*")


class Gauges:
    """Sums over some processes. Private memory is all that no file lies beneath: heap, stacks, written data."""

    def __init__(self, pids):
        self.private_kib = sum(private_kib(pid) for pid in pids)
        self.descriptors = sum(len(os.listdir(f"/proc/{pid}/fd")) for pid in pids)

    def __str__(self):
        return f"{self.private_kib} KiB private, {self.descriptors} descriptors"


def private_kib(pid):
    return int(re.search(r"(?m)^Anonymous: *(\d+)", Path(f"/proc/{pid}/smaps_rollup").read_text())[1])


def children(pid):
    return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


class Reloading:
    """Mixed into a server: `reload()` is the graceful one, `generations()` how often it has become ready."""

    def generations(self):
        log = self.site.root / f"{self.name}.log"
        return len(re.findall(self.ready, log.read_text(errors="replace"))) if log.exists() else 0

    def reload(self):
        os.kill(self.process.pid, self.reload_signal)

    def serving(self):
        return children(self.process.pid)

    def crashes(self):
        return [line for line in (self.console() + self.site.log()).splitlines() if CRASH.match(line)]


class OverHttp(Reloading):
    ready = "resuming normal operations"
    reload_signal = signal.SIGUSR1
    processes = 16               # those of earlier generations finish their requests meanwhile
    lanes = 12

    def protocol(self, script, keep):
        return Http(self.port, keep)


class ApacheEvent(OverHttp, engines.Apache):
    pass


class ApacheWorker(OverHttp, engines.ApacheWorker):
    pass


class Fpm(Reloading, engines.Fpm):
    ready = "ready to handle connections"
    reload_signal = signal.SIGUSR2
    children = 4
    lanes = 8

    def command(self):
        command = super().command()
        config = self.site.root / f"{self.name}.conf"       # without a time to finish, a reload kills what is under way
        config.write_text(config.read_text().replace("[global]\n", "[global]\nprocess_control_timeout = 20\n", 1))
        return command

    def console(self):
        log = self.site.root / f"{self.name}.log"
        return super().console() + (log.read_text(errors="replace") if log.exists() else "")

    def protocol(self, script, keep):
        return FastCgi(self.socket, script)


KINDS = {"event": ApacheEvent, "worker": ApacheWorker, "fpm": Fpm}
