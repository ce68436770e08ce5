#!/usr/bin/python3
"""The same PHP work without an extension, with an empty one that only passes both execute hooks through, with the agent loaded
but off, on with its defaults (also where it has to ask the kernel for the time) and with everything traced, and with Xdebug
idle and profiling.

    bench/yardstick.py [ROUNDS]

The work: one kind of call in a loop; calls that all enter a trace; the engine's own Zend/bench.php; a page of 13,000 calls and
one of queries, in one FastCGI process for each configuration; the latter's throughput under FPM. All configurations take
turns, pinned to one processor; figures are medians with their quartiles, and ratios are by the same round's figure without an
extension. Processor time where whole processes are compared, the script's own clock for loops. Needs a finished build."""
import os
import subprocess
import sys
import threading
import time

import instructions
from measure import (EMPTY, IDLE, KERNEL, NONE, OFF, ON, PROFILING, PROJECT, TRACED, bench, build_xdebug, configurations,
                     drained_site, engines, has_counter_clock, in_turns, pin, processor_us, ratios, under_another_clock)

COUNTER = has_counter_clock()
OTHER_CLOCK = (KERNEL,) if COUNTER and engines.IS_ROOT else ()
ALL = (NONE, EMPTY, OFF, ON, *OTHER_CLOCK, TRACED, IDLE, PROFILING)
KINDS = ("user_function", "user_method", "internal_function", "internal_method")
# what the agent may add or take, with the time-stamp counter and with the kernel's clock
OFF_NS, TRACED_NS, THROUGHPUT, QUERIES_RATIO = 3, 250, 0.98, 1.02
LIMITS = ((70, 100), (1.25, 1.35), (1.10, 1.14))
UNWATCHED_NS, ENGINE_RATIO, CALLS_RATIO = ({ON: a if COUNTER else b, KERNEL: b} for a, b in LIMITS)
PAGE_CALLS = {"page_calls": (12500, 13500), "page_queries": (100, 1000)}

CALLS, SLOW_CALLS = 200000, 50000
PREFIXES = {}               # of the commands of some configurations
SETTLE_US = 20000           # by then a process knows how fast the counter runs
TURN = 4                    # requests of a page in one turn
BLOCK = 40                  # requests of a page in one turn of FPM


class PinnedFastCgi(engines.FastCgi):
    prefix = ()

    def command(self):
        return [*self.prefix, *pin(-1), *super().command()]


class PinnedFpm(engines.Fpm):
    children = 1

    def command(self):
        return [*pin(-1), *super().command()]


def run(ini, script, prefix=(), **variables):
    """(seconds of processor time, output) of a page in a process of its own."""
    environment = {**engines.web_environment(script, "/bench.php"), "PATH": os.environ["PATH"], **variables}
    before = os.times()
    command = [*prefix, *pin(-1), engines.ENGINE / "bin/php-cgi", "-q", "-c", ini]
    done = subprocess.run(command, env=environment, capture_output=True, check=True)
    after = os.times()
    return sum(after[2:4]) - sum(before[2:4]), done.stdout


def loops(record, inis, rounds, group, names, kinds, counts):
    """Nanoseconds per call of each kind, by configuration."""
    script = PROJECT / "bench/php/calls.php"
    found = {}
    for kind in kinds:
        def one(name, kind=kind):
            count = counts.get(name, counts[NONE])
            text = run(inis[name], script, PREFIXES.get(name, ()), CALLS=kind, COUNT=str(count), SETTLE_US=str(SETTLE_US))[1]
            return float(text.rsplit(b"\n", 1)[-1])
        found[kind] = in_turns(names, rounds, one)
        for name in names:
            record.add(f"{kind}, {name}", "ns", found[kind][name], group=group, work=kind, configuration=name)
    return found


def above(values, base):
    return [value - other for value, other in zip(values, base)]


def calls(record, inis, rounds):
    print("one call in a loop")
    found = loops(record, inis, rounds, "calls", ALL, KINDS, {NONE: CALLS, PROFILING: CALLS // 10})
    for kind, by in found.items():
        for name in (ON, *OTHER_CLOCK):
            record.add(f"{kind}, {name}, above no extension", "ns", above(by[name], by[NONE]), UNWATCHED_NS[name])
        record.add(f"{kind}, agent off above the empty hook", "ns", above(by[OFF], by[EMPTY]), OFF_NS)
    print("a call that enters the trace")
    kinds = ("long_user_function", "long_function")
    for kind, by in loops(record, inis, rounds, "long calls", (NONE, ON, TRACED), kinds, {NONE: SLOW_CALLS}).items():
        record.add(f"{kind}, traced above no extension", "ns", above(by[TRACED], by[NONE]), TRACED_NS)


def compare(record, work, unit, found, limits):
    """What the work takes without an extension, and the other configurations by that."""
    for name, values in found.items():
        if name == NONE:
            record.add(f"{work}, {name}", unit, values, group="ratios", work=work, configuration=name)
        else:
            record.add(f"{work}, {name}", "times", ratios(values, found[NONE]), limits.get(name), group="ratios", work=work,
                       configuration=name)


def engine_bench(record, inis, rounds):
    script = instructions.engine_bench()
    print("Zend/bench.php, processor time")

    def one(name):
        return run(inis[name], script, PREFIXES.get(name, ()))[0]

    compare(record, "Zend/bench.php", "s", in_turns((NONE, ON), rounds, one), ENGINE_RATIO)
    names = (NONE, EMPTY, OFF, *OTHER_CLOCK, TRACED, IDLE)                  # a profile would be of half a gigabyte
    others = in_turns(names, max(2, rounds // 6), one)
    for name in names[1:]:
        record.add(f"Zend/bench.php, {name}", "times", ratios(others[name], others[NONE]), ENGINE_RATIO.get(name), group="ratios",
                   work="Zend/bench.php", configuration=name)


def count_calls(site, page):
    """The calls that a page makes, as Xdebug counts them."""
    ini = site.ini_file(False, {"zend_extension": build_xdebug(), "xdebug.auto_trace": 1, "xdebug.trace_format": 1,
                                "xdebug.trace_output_dir": site.root, "xdebug.trace_output_name": page})
    run(ini, site.docroot / f"{page}.php")
    rows = (line.split("\t") for line in (site.root / f"{page}.xt").read_text(errors="replace").splitlines())
    return sum(len(row) > 2 and row[2] == "0" for row in rows)


def start(site, kind, name, ini):
    server = kind(site, ini, name, env={"PHP_FCGI_MAX_REQUESTS": "0"})
    server.name = f"{kind.__name__}{len(site.servers)}".lower()
    server.prefix = PREFIXES.get(name, ())
    site.servers.append(server)
    server.start()
    return server


def ask(server, page, times):
    for _ in range(times):
        answer = server.request(server.site.docroot / f"{page}.php", f"/{page}.php")
        assert answer.status == 200 and answer.body.endswith(b"</html>"), answer


def pages(record, site, inis, rounds):
    servers = {name: start(site, PinnedFastCgi, name, inis[name]) for name in ALL}
    for page, limits in (("page_calls", CALLS_RATIO), ("page_queries", {ON: QUERIES_RATIO})):
        count = count_calls(site, page)
        least, most = PAGE_CALLS[page]
        assert least <= count <= most, f"{page} makes {count} calls"

        def one(name):
            before = processor_us(servers[name].process.pid)
            ask(servers[name], page, TURN)
            return (processor_us(servers[name].process.pid) - before) / TURN / 1000

        for name in ALL:
            one(name)
        print(f"{page}: {count} calls")
        compare(record, page, "ms", in_turns(ALL, rounds, one), limits)
    for server in servers.values():
        server.stop()


def throughput(record, site, inis, rounds):
    """Three clients keep one child busy; a turn is as many requests for the page of queries."""
    print("page_queries under FPM, requests a second")
    servers = {name: start(site, PinnedFpm, name, inis[name]) for name in (NONE, ON)}

    def one(name):
        began = time.monotonic()
        engines.at_once(3, lambda i: ask(servers[name], "page_queries", BLOCK // 3))
        return BLOCK // 3 * 3 / (time.monotonic() - began)

    for name in servers:
        one(name)
    found = in_turns((NONE, ON), rounds, one)
    record.add("page_queries under FPM, no extension", "req/s", found[NONE])
    record.add("page_queries under FPM, throughput, agent on", "times", ratios(found[ON], found[NONE]), THROUGHPUT, at_least=True)


def measure(record, site, rounds):
    site.docroot.chmod(0o777)
    for page in PAGE_CALLS:
        (site.docroot / f"{page}.php").write_text((PROJECT / f"bench/php/{page}.php").read_text())
    PREFIXES.update({name: under_another_clock(site) for name in OTHER_CLOCK})
    inis = configurations(site, ALL)
    run(inis[NONE], site.docroot / "page_queries.php")                  # makes its database
    calls(record, inis, rounds)
    pages(record, site, inis, rounds)
    throughput(record, site, inis, rounds)
    engine_bench(record, inis, rounds)


if __name__ == "__main__":
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    threading.stack_size(1 << 20)
    sys.exit(bench("yardstick", drained_site(), measure, 31))
