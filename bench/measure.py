"""What the measuring scripts share: the configurations that are compared, rounds in which they take turns, medians with their
spread, and the record that bench/report makes its tables of.

A figure that has a limit is recorded with it; limits are decisions, kept beside what they limit, never set from a measurement."""
import json
import os
import statistics
import subprocess
import sys
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[1]
sys.path.append(str(PROJECT / "tests"))

from support import engines, wire  # noqa: E402
from support.fake_daemon import FakeDaemon  # noqa: E402

engines.EXTENSION = engines.SHIPPED
RECORDS = PROJECT / "build/bench/records"
NONE, EMPTY, OFF, ON, TRACED, IDLE, PROFILING = ("no extension", "empty hook", "agent off", "agent on", "all traced",
                                                 "Xdebug idle", "Xdebug profiling")
CLOCK_SOURCE = Path("/sys/devices/system/clocksource/clocksource0/current_clocksource")
KERNEL = "agent on, kernel's clock"
CPUS = sorted(os.sched_getaffinity(0))


def build_empty_hook():
    """build/bench/empty_hook.so, made when its source is newer."""
    source, target = PROJECT / "bench/empty_hook.c", PROJECT / "build/bench/empty_hook.so"
    if not target.exists() or target.stat().st_mtime < source.stat().st_mtime:
        target.parent.mkdir(parents=True, exist_ok=True)
        includes = subprocess.check_output([engines.ENGINE / "bin/php-config", "--includes"], text=True).split()
        subprocess.check_call(["gcc", "-O2", "-fPIC", "-shared", "-w", "-DCOMPILE_DL_EMPTY_HOOK", *includes, "-o", target, source])
    return target


def build_traced():
    """build/traced/zqprof.so, in which no call is too short for a trace."""
    subprocess.check_call(["cmake", "--build", PROJECT / "build", "--target", "zqprof_traced"], stdout=subprocess.DEVNULL)
    return PROJECT / "build/traced/zqprof.so"


class Drain(FakeDaemon):
    """A daemon that answers queries and takes everything else without looking at it, so that it is never what is measured."""

    def _one(self, connection):
        header = connection.read(4)
        left = int.from_bytes(header[1:], "big")
        while left and (part := connection.sock.recv(min(left, 1 << 20))):
            left -= len(part)
        if header[:1] == b"\x0a":
            connection.sock.sendall(self.reply)
        return bool(header)


def drained_site(**settings):
    """A site whose daemon is a Drain, and whose log is off."""
    site = engines.Site(**{"zqs.agent_log_level": "OFF", **settings})
    site.daemon.stop()
    site.daemon = Drain(site.daemon.path)
    site.daemon.reply = wire.answer({"zqs.resource.enabled": "false"})      # a busy machine must not shed what is measured
    return site


def has_counter_clock():
    """The kernel itself keeps time with the time-stamp counter, so the agent may."""
    return CLOCK_SOURCE.read_text().strip() == "tsc"


def under_another_clock(site):
    """The beginning of a command that runs where the kernel's clock source has another name (root only)."""
    (site.root / "clocksource").write_text("other\n")
    return ["unshare", "-m", "sh", "-c", f'mount --bind {site.root}/clocksource {CLOCK_SOURCE} && exec "$@"', "sh"]


def pin(cpu):
    """For a child process: a prefix of its command that keeps it on one processor, the last for what is measured."""
    return ["taskset", "-c", str(CPUS[cpu])]


def build_xdebug():
    subprocess.run([PROJECT / "engine/extensions", "xdebug"], check=True)
    return PROJECT / "build/extensions/xdebug.so"


def configurations(site, names):
    """A php.ini for each of the names. In "all traced" every call of a microsecond enters the trace, and it is sent."""
    profile = site.root / "profile"
    profile.mkdir(exist_ok=True)

    def xdebug(**more):
        more = {"max_nesting_level": 100000, **more}
        return site.ini_file(False, {"zend_extension": build_xdebug(), **{f"xdebug.{key}": value for key, value in more.items()}})

    def traced():
        shipped, site.extension = site.extension, build_traced()
        try:
            return site.ini_file(True, {"zqs.action_tracer.action_threshold": "-1"})
        finally:
            site.extension = shipped

    make = {NONE: lambda: site.ini_file(False),
            EMPTY: lambda: site.ini_file(False, {"extension": build_empty_hook()}),
            OFF: lambda: site.ini_file(True, {"zqs.agent_enabled": "0"}),
            ON: lambda: site.ini_file(True),
            KERNEL: lambda: site.ini_file(True),
            TRACED: traced,
            IDLE: lambda: xdebug(),
            PROFILING: lambda: xdebug(profiler_enable=1, profiler_output_dir=profile, profiler_output_name="out")}
    return {name: make[name]() for name in names}


def processor_us(pid):
    """Processor time that the kernel's scheduler counted for a process of one thread."""
    return int(Path(f"/proc/{pid}/schedstat").read_text().split()[0]) / 1000


def in_turns(names, rounds, measure):
    """Lists of measure(name), one figure a round; every other round goes backwards."""
    found = {name: [] for name in names}
    for number in range(rounds):
        for name in (names if number % 2 else reversed(names)):
            found[name].append(measure(name))
    return found


def spread(values):
    """(median, lower quartile, upper quartile)."""
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else values * 3
    return middle, low, high


def ratios(values, base):
    """Each round's figure by that of the base in the same round."""
    return [value / other for value, other in zip(values, base)]


class Record:
    """The figures of one script, printed as they come and kept below build/ when it ends."""

    def __init__(self, name):
        self.name, self.rows, self.missed = name, [], []

    def add(self, what, unit, values, limit=None, at_least=False, **more):
        """One figure from the rounds' values: printed with its spread and, where it has one, its limit."""
        middle, low, high = spread(values)
        held = limit is None or (middle >= limit if at_least else middle <= limit)
        row = {"what": what, "unit": unit, "median": middle, "low": low, "high": high, "rounds": len(values), "held": held}
        row |= more
        if limit is not None:
            row |= {"limit": limit, "at_least": at_least}
        self.rows.append(row)
        bound = "" if limit is None else f"   {'at least' if at_least else 'at most'} {limit:g}: {'ok' if held else 'MISSED'}"
        print(f"  {what:52} {middle:9.4g} {unit:8} ({low:.4g} to {high:.4g}){bound}", flush=True)
        self.missed += [] if held else [what]
        return middle

    def keep(self):
        """Writes the record; the exit status of a script: 1 when a limit was missed."""
        RECORDS.mkdir(parents=True, exist_ok=True)
        (RECORDS / f"{self.name}.json").write_text(json.dumps({"rows": self.rows}, indent=1) + "\n")
        return 1 if self.missed else 0


def bench(name, site, work, rounds):
    """Has work(record, site, rounds) done, with as many rounds as the command line says or these, and ends what it started.
    Gives the script's exit status."""
    record = Record(name)
    try:
        work(record, site, int(sys.argv[1]) if len(sys.argv) > 1 else rounds)
    finally:
        site.close()
    return record.keep()
