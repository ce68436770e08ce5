"""The long runs. Each starts private servers below a folder of its own, gives what it measured, and raises when anything
was wrong; tests/e2e/test_lifecycle.py runs them briefly."""
import functools
import itertools
import shutil
import subprocess
import time
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path

from soak import pages
from soak.hosts import KINDS, Gauges
from soak.load import FINISHED, Load
from soak.sink import Sink
from support import engines, wire
from support.engines import AGENT

SCRIPTS = Path(__file__).parent / "php"
QUIET = {"display_errors": "0", "log_errors": "0"}
TRACED = {"zqs.action_tracer.action_threshold": "1"}      # here as well as in the daemon's answer, which may come too late
LOST_PACKET, LATE_ANSWER = "send metric data fail", "recv app config"
FLAT_KIB = 512                             # more growth than that from the middle of a run to its end is a leak
LATE_THREADS = 3                           # so many may serve their first request, and connect, in its second half
ANSWERS_PER_RELOAD = 20
# How many packets a process of php/tree.php sends, by its end; one if not named here.
PACKETS = {"is killed": 0, "becomes another": 0, "ends twice": 2}
NEIGHBOURS = {"opcache.enable": "1", "opcache.enable_cli": "1", "opcache.memory_consumption": "64",
              "opcache.max_wasted_percentage": "50", "opcache.revalidate_freq": "0", "opcache.file_update_protection": "0",
              "xdebug.max_nesting_level": "200"}
CLASHES = "xdebug.default_enable"          # then Xdebug takes the engine's error callback, and calls nobody else


@dataclass
class Run:
    """One loaded server and the daemon behind it."""
    site: engines.Site
    server: object
    sink: Sink
    load: Load
    figures: dict = field(default_factory=dict)

    def missing(self):
        """Requests that were answered, and of which no packet told."""
        return [n for n, answered in enumerate(self.load.answered) if answered and not self.sink.seen[n]]

    def check(self):
        """Every answer right, and one complete packet for each, except those that the agent's log says were lost."""
        said, late = (self.site.log().count(line) for line in (LOST_PACKET, LATE_ANSWER))
        deadline = time.monotonic() + 30                  # a packet may leave after its answer
        while len(self.missing()) > said and time.monotonic() < deadline:
            time.sleep(0.05)
        missing, seen = self.missing(), bytes(self.sink.seen)
        unanswered = sum(1 for n in range(self.load.next) if seen[n] and not self.load.answered[n])
        self.figures |= {"requests": self.load.next, "answered": self.load.right, "not answered": dict(self.load.lost),
                         "sent again": self.load.repeated, "packets": self.sink.packets, "queries": self.sink.queries,
                         "connections": self.sink.connections,
                         "answered without a packet": len(missing), "lost packets in the log": said,
                         "late answers of the daemon in the log": late,
                         "packets of requests not answered": unanswered}
        wrong = {"wrong answers": self.load.wrong, "sent again too often": self.load.repeated > self.load.next / 100,
                 "told twice": [n for n, times in enumerate(seen) if times > 1][:10],
                 "torn": max(self.sink.torn - said, 0), "faults": self.sink.faults,
                 "complaints": self.sink.complaints() if self.sink.faults else [],
                 "crashes": self.server.crashes()[:10], "lost in silence": missing[:10] if len(missing) > said else []}
        assert not any(wrong.values()), ({what: found for what, found in wrong.items() if found}, self.figures)
        return self.figures


@contextmanager
def running(kind, count, keep=False, ini=None):
    """A site with one server of that kind, the counting daemon behind it, and the load that is to come."""
    site = engines.Site()
    site.daemon.stop()
    sink = Sink(site.daemon.path, count, pages.told)
    try:
        for file in SCRIPTS.iterdir():
            shutil.copy(file, site.docroot)
        server = KINDS[kind](site, site.ini_file(True, {**QUIET, **TRACED, **(ini or {})}), True)
        site.servers.append(server)
        server.start()
        yield Run(site, server, sink, Load(server.protocol(site.docroot / "index.php", keep), server.lanes, count, pages.answer))
    finally:
        for server in site.servers:
            server.stop()
        sink.stop()
        site.close()


def check_flat(marks):
    """Memory and descriptors at the end are those of the middle; gives both figures of both."""
    middle, end = (sorted(mark.private_kib for mark in part)[len(part) // 2]
                   for part in (marks[len(marks) // 4:len(marks) // 2], marks[-len(marks) // 4:]))
    descriptors = [min(mark.descriptors for mark in part) for part in (marks[:len(marks) // 2], marks[len(marks) // 2:])]
    assert end <= middle + FLAT_KIB, [str(mark) for mark in marks]
    assert descriptors[1] <= descriptors[0] + LATE_THREADS, [str(mark) for mark in marks]   # the least: some have files open
    return {"private KiB, middle and end": (middle, end), "least descriptors, first and second half": tuple(descriptors)}


def requests(kind, count, say=print):
    """So many requests to one group of processes."""
    marks, pids = [], set()
    with running(kind, count, keep=True) as run:
        def tick():
            if run.load.next >= count * (len(marks) + 1) / 20:
                marks.append(Gauges(run.server.serving()))
                pids.add(tuple(run.server.serving()))
                say(f"{run.load.next:9} requests: {marks[-1]}, {run.sink.packets} packets")
        started = time.monotonic()
        run.load.run(tick)
        run.figures["seconds"] = round(time.monotonic() - started)
        run.check()
        assert not run.load.lost, run.figures
        assert len(pids) == 1, f"other processes serve than at the beginning: {pids}"
        return run.figures | check_flat(marks)


def reloads(kind, count, say=print):
    """So many graceful reloads under load; the figures of memory are those of the process that is reloaded."""
    done, answers, marks, started = 0, 0, [], time.monotonic()
    with running(kind, (count + 1) * 2000) as run:
        def tick():
            nonlocal done, answers
            if run.server.generations() <= done or run.load.right < answers + ANSWERS_PER_RELOAD:
                return None
            if done >= count * len(marks) / 20:
                marks.append(Gauges([run.server.process.pid]))
                say(f"{done:5} reloads: {marks[-1]}; {run.load.right} answers, {run.sink.packets} packets")
            if done == count:
                return FINISHED
            done, answers = done + 1, run.load.right
            run.server.reload()
            return None
        run.load.run(tick)
        run.check()
        run.figures |= {"reloads": done, "seconds": round(time.monotonic() - started)}
        return run.figures | check_flat(marks)


def forks(rounds, depth=3, breadth=3):
    """Trees of processes that fork with an action open: each reports its own run, over a connection of its own."""
    site, processes, packets = engines.Site(), 0, 0
    try:
        shutil.copy(SCRIPTS / "tree.php", site.docroot)
        for _ in range(rounds):
            site.daemon.forget()
            done = site.run([engines.ENGINE / "bin/php", "-c", site.ini_file(True, QUIET), "tree.php", depth, breadth])
            site.daemon.settle()
            ends = dict(line.split(" ", 1) for line in done.body.decode().splitlines())
            expected = {int(pid): PACKETS.get(end, 1) for pid, end in ends.items() if PACKETS.get(end, 1)}
            speakers = [(c.pid, len(site.daemon.received(wire.Metric, [c]))) for c in site.daemon.connections if c.packets]
            assert len(ends) == sum(breadth ** level for level in range(depth + 1)), (ends, done.stderr[-2000:])
            assert len(dict(speakers)) == len(speakers) and dict(speakers) == expected, (ends, speakers, site.log()[-2000:])
            processes, packets = processes + len(ends), packets + sum(expected.values())
        assert not site.log(), site.log()[-2000:]
    finally:
        site.close()
    return {"trees": rounds, "processes": processes, "packets": packets}


ORDERS = [" ".join(order) for names in (("opcache", "agent"), ("xdebug", "agent"), ("opcache", "xdebug", "agent"))
          for order in itertools.permutations(names)]


@functools.cache
def neighbour_lines():
    """The php.ini lines that load each. (Xdebug demands to be loaded as a Zend extension.)"""
    folder = subprocess.run([engines.ENGINE / "bin/php-config", "--extension-dir"], capture_output=True, text=True).stdout.strip()
    subprocess.run([engines.PROJECT / "engine/extensions", "xdebug"], check=True)
    libraries = {"opcache": f"{folder}/opcache.so", "xdebug": engines.PROJECT / "build/extensions/xdebug.so"}
    return {"agent": AGENT, **{name: f'zend_extension="{path}"' for name, path in libraries.items()}}


def neighbour_settings(order, clashes="0"):
    return {**NEIGHBOURS, CLASHES: clashes, "load": [neighbour_lines()[name] for name in order.split()]}


def neighbours(order):
    """The command line with neighbours loaded in that order, one of ORDERS: nothing may differ from a run without the agent."""
    site = engines.Site()
    try:
        shutil.copy(SCRIPTS / "neighbours.php", site.docroot)
        for clashes, arguments in (("0", []), ("1", []), ("0", ["300"])):
            ini = {**QUIET, **neighbour_settings(order, clashes)}
            result = site.both("php", ["neighbours.php", site.root, *arguments], ini=ini)
            assert b"sdrawkcab" in result.body, (result.body, result.stderr)
            assert (b"from the cache" in result.body) == ("opcache" in order), result.body
            assert result.metric.action == "BackgroundAction/Script/neighbours.php", result.metric
        assert not site.log(), site.log()
    finally:
        site.close()


def neighbours_under_load(kind, order, count):
    """A server with neighbours loaded in that order, whose cached code is thrown away now and then."""
    with running(kind, count, keep=True, ini=neighbour_settings(order)) as run:
        run.load.run()
        run.check()
        assert not run.load.lost, run.figures
        return run.figures
