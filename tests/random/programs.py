#!/usr/bin/python3
"""Random programs on php-cgi with the agent and without: page, headers, standard error and exit status must be the same, and
a whole packet must come of each. Three ways of being configured and two allocators take turns. A program that differs stays
in build/random.

    tests/random/programs.py [--programs N] [--seed TEXT] [--only K]
"""
import argparse
import os
import shutil
import subprocess
import sys
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

import generator
from support import engines, wire
from support.engines import PROJECT
from support.fake_daemon import PLAIN, wait_until
from support.peers import Peer, http_answer, read_http

KEPT = PROJECT / "build/random"
TIMEOUT_S = 60
AT_FAULT = 99             # valgrind's exit status then
MOST_UNDEFINED = 0.02     # of the programs
EXPECTED_PACKETS = 0.95   # of the programs: a busy machine may read a packet too late

EVERY_CALL = {"zqs.action_tracer.action_threshold": "-1", "zqs.action_tracer.slow_sql_threshold": "0",
              "zqs.action_tracer.stack_trace_threshold": "0", "zqs.action_tracer.record_sql": "obfuscated",
              "zqs.transaction_tracer.enabled": "1", "zqs.vantorIdSecret": "random|1", "zqs.error_collector.enabled": "1",
              "zqs.error_collector.record_db_errors": "1", "zqs.capture_params": "1"}
PAGES = {"zqs.rum.enabled": "1", "zqs.rum.script": "<script>f({})</script>", "zqs.error_collector.enabled": "1",
         "zqs.auto_action_naming": "0", "zqs.naming.rules":
         '[{"name":"r","match":{"method":0,"match":5,"value":"^/r"},"split":{"uri":"1","urlParams":"a"}}]'}
SETTINGS = {"traced": EVERY_CALL, "pages": PAGES,
            "profiled": {**EVERY_CALL, "zqs.profile_end_time": str(int(time.monotonic()) + 100_000)}}
# The engine's own, and the C library's, which overwrites what is freed.
ALLOCATORS = [{}, {"USE_ZEND_ALLOC": "0", "MALLOC_PERTURB_": "85"}]
INI = {"display_errors": "1", "html_errors": "0", "log_errors": "1", "error_log": "", "error_reporting": "-1",
       "session.gc_probability": "0", "soap.wsdl_cache_enabled": "0", "max_execution_time": "30"}
ANSWERS = {"/ok": http_answer(), "/json": http_answer('{"x":[1,2]}', kind="application/json"),
           "/long": http_answer("line\n" * 4000),
           "/missing": http_answer("none", "404 Not Found"), "/moved": http_answer("", "302 Found", ["Location: /ok"]),
           "/nothing": b"no answer\r\n\r\n"}


class Paths(Peer):
    """Answers by the path alone."""

    def serve(self, sock):
        path = read_http(sock).split(b" ")[1].decode()
        sock.sendall(next(answer for start, answer in ANSWERS.items() if path.startswith(start)))


def is_whole(result):
    """False when the engine itself crashed or hung: what it says then is left to chance."""
    return result[0] != "timeout" and result[0] >= 0


class Runs:
    """Runs programs with and without the agent, below a site of their own. `way` counts through the ways of running them."""

    def __init__(self, site):
        self.site, self.peer = site, Paths()
        site.daemon.reply = lambda query: wire.answer({**PLAIN, **SETTINGS[query.app]})
        self.bare = site.ini_file(False, INI)
        self.with_agent = [site.ini_file(True, {**INI, "zqs.app_name": name}) for name in SETTINGS]

    def execute(self, place, ini, allocator, prefix=()):
        """((exit status, headers and page, standard error), process id)"""
        env = engines.web_environment(place / "main.php", "/random/main.php?a=1&b[]=two")
        env |= {"PEER": f"http://127.0.0.1:{self.peer.port}", "PHP_INI_SCAN_DIR": "", **allocator}
        with subprocess.Popen([*prefix, engines.ENGINE / "bin/php-cgi", "-c", ini], env=env, cwd=place, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            try:
                output, errors = process.communicate(timeout=TIMEOUT_S)
            except subprocess.TimeoutExpired:
                process.kill()
                return ("timeout", b"", b""), process.pid
        return (process.returncode, output, errors), process.pid

    def without(self, place, way):
        return self.execute(place, self.bare, ALLOCATORS[way % 2])[0]

    def is_defined(self, place, bare, way):
        """Whether the bare engine knows what it does there: with the other allocator it does the same, and it reads nothing
        that it has freed."""
        if not is_whole(bare) or bare != self.without(place, way + 1):
            return False
        (status, _, _), _ = self.execute(place, self.bare, ALLOCATORS[1], ["valgrind", "-q", f"--error-exitcode={AT_FAULT}"])
        return status != AT_FAULT

    def compare(self, files, place, way):
        """(what the bare engine made of the program, what it was with the agent, packets)"""
        place.mkdir(exist_ok=True)
        for name, text in files.items():
            (place / name).write_text(text)
        for name in ("preamble.php", "libraries.php"):
            shutil.copy(PROJECT / "tests/random" / name, place)
        bare = self.without(place, way)
        agent, pid = self.execute(place, self.with_agent[way % 3], ALLOCATORS[way % 2])
        return bare, agent, self.packets(pid)

    def packets(self, pid):
        """How many a process that has ended got through; they are forgotten."""
        daemon = self.site.daemon
        wait_until(lambda: (mine := [c for c in daemon.connections if c.pid == pid]) and not any(c.open for c in mine),
                   f"the connections of process {pid} to end")
        ended = [c for c in daemon.connections if c.pid == pid]
        for connection in ended:
            daemon.connections.remove(connection)
        return len(daemon.received(wire.Metric, ended))


@dataclass
class Tally:
    """What came of the programs of one seed."""
    runs: Runs
    seed: str
    programs: int = 0
    packets: int = 0
    output: int = 0
    endings: Counter = field(default_factory=Counter)       # exit statuses on the bare engine
    undefined: int = 0        # what they do is left to chance, without the agent too
    different: list = field(default_factory=list)           # numbers of programs
    lock: threading.Lock = field(default_factory=threading.Lock)

    def try_program(self, number):
        files = generator.program(f"{self.seed}:{number}")
        place = self.runs.site.docroot / str(number)
        bare, agent, packets = self.runs.compare(files, place, number)
        with self.lock:
            self.programs += 1
            self.packets += packets
            self.output += len(bare[1])
            self.endings[bare[0]] += 1
            if bare != agent and self.runs.is_defined(place, bare, number):
                self.different.append(number)
                self.report(place, number, bare, agent)
            elif bare != agent:
                self.undefined += 1
        shutil.rmtree(place)

    def report(self, place, number, bare, agent):
        """Tells of a difference and keeps the program."""
        print(f"program {number}, {list(SETTINGS)[number % 3]}: {difference(bare, agent)}\n"
              f"    replay: make random RANDOM_SEED={self.seed} RANDOM_ONLY={number}", flush=True)
        kept = KEPT / f"{self.seed}-{number}"
        shutil.copytree(place, kept, dirs_exist_ok=True)
        print(f"    kept in {kept.relative_to(PROJECT)}", flush=True)

    def summary(self):
        endings = ", ".join(f"{count} with {status}" for status, count in sorted(self.endings.items(), key=str))
        return (f"{self.programs} programs of seed {self.seed}: {endings} as exit status; {self.output} bytes of output, "
                f"{self.packets} packets, {self.undefined} undefined by the engine, {len(self.different)} differences")

    def is_good(self):
        few = self.undefined <= 1 + MOST_UNDEFINED * self.programs
        return not self.different and few and self.packets >= EXPECTED_PACKETS * self.programs


def difference(bare, agent):
    """The first place where two results part."""
    for what, mine, other in zip(("exit status", "page", "standard error"), agent, bare):
        if mine != other:
            if isinstance(mine, bytes):
                at = max(len(os.path.commonprefix([mine, other])) - 60, 0)
                mine, other = mine[at:at + 160], other[at:at + 160]
            return f"{what} with the agent {mine!r}, without it {other!r}"
    return ""


def run_seed(site, seed, numbers):
    tally = Tally(Runs(site), seed)
    with ThreadPoolExecutor(os.cpu_count()) as workers:
        for _ in workers.map(tally.try_program, numbers):
            pass                                            # raises what a worker raised
    print(tally.summary(), flush=True)
    return tally.is_good()


def main():
    options = argparse.ArgumentParser()
    options.add_argument("--programs", type=int, default=500)
    options.add_argument("--seed", default=time.strftime("%Y%m%d"))
    options.add_argument("--only", type=int)
    given = options.parse_args()
    engines.EXTENSION = engines.BUILD / "traced/zqprof.so"
    site = engines.Site()
    numbers = range(given.programs) if given.only is None else [given.only]
    try:
        good = run_seed(site, given.seed, numbers)
    finally:
        cut_short = [fault for fault in site.daemon.faults if "stream ended inside a packet" in fault]
        site.daemon.faults = [fault for fault in site.daemon.faults if fault not in cut_short]    # counted as missing
        site.close()
    sys.exit(0 if good else 1)


if __name__ == "__main__":
    main()
