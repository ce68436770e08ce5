#!/usr/bin/python3
"""Applications of others as production runs them, from Debian's packages: the front page of WordPress on MariaDB and a page of
Smarty's templates under FPM, and HTML Purifier on the command line. Without the agent, with it, with everything traced, and with
Xdebug idle and profiling.

    bench/applications.py [ROUNDS]

All take turns, pinned to one processor; what is compared is processor time, and ratios are by the same round's figure without an
extension. How many calls each makes is what Xdebug counts, and which of them are of functions that the agent does not time is told
by their names alone. Needs a finished build, and Debian's servers or what apt has kept of them."""
import os
import re
import resource
import shutil
import subprocess
import sys
import threading
from contextlib import ExitStack, contextmanager
from pathlib import Path

from measure import (IDLE, NONE, ON, PROFILING, PROJECT, TRACED, bench, build_xdebug, configurations, drained_site, engines,
                     in_turns, pin, processor_us, ratios)
from support.databases import MariaDb, started
from support.host import SCRIPTS, install, place_blog, unpacked

ALL = (NONE, ON, TRACED, IDLE, PROFILING)
TURN = 3                        # requests in one turn
HOST = "blog.test"
LIMITS = {"WordPress, front page": {ON: 1.015, TRACED: 1.06}}
HERE = PROJECT / "bench/php/applications"


class OneChild(engines.Fpm):
    children = 1

    def command(self):
        return [*pin(-1), *super().command()]

    def child(self):
        return int(Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text())


def wordpress(server):
    answer = server.request(server.site.docroot / "blog/index.php", "/blog/", headers={"Host": HOST},
                            env={"SCRIPT_NAME": "/blog/index.php"})
    assert answer.status == 200 and b"Post 12" in answer.body, (answer.status, answer.body[:500], answer.stderr[:500])


def smarty(server):
    folder = server.site.docroot / "smarty"
    answer = server.request(folder / "smarty.php", "/smarty/smarty.php",
                            env={"SMARTY": str(unpacked("smarty3") / "usr/share/php/smarty3")})
    assert answer.status == 200 and answer.body.rstrip().endswith(b"</html>"), (answer.body[:500], answer.stderr[:500])


def purify(ini):
    """Milliseconds of processor time of one run."""
    environment = {"PATH": os.environ["PATH"], "PHP_INI_SCAN_DIR": "",
                   "PURIFIER": str(unpacked("php-htmlpurifier") / "usr/share/php"),
                   "PAGE": str(unpacked("wordpress") / "usr/share/wordpress/readme.html")}
    def spent():
        used = resource.getrusage(resource.RUSAGE_CHILDREN)
        return used.ru_utime + used.ru_stime

    before = spent()
    done = subprocess.run([*pin(-1), engines.ENGINE / "bin/php", "-c", ini, HERE / "purify.php"], env=environment,
                          capture_output=True, check=True)
    assert int(done.stdout) > 5000
    return 1000 * (spent() - before)


def lay_out(site, mariadb):
    site.docroot.chmod(0o777)
    shutil.copytree(SCRIPTS / "questions/shop", site.docroot / "shop")
    place_blog(site.docroot)
    for script in ("shop/install.php", "blog/install.php"):
        install(site.docroot, mariadb, script, HOST)
    shutil.copytree(HERE, site.docroot / "smarty")
    compiled = site.docroot / "smarty/compiled"
    compiled.mkdir(mode=0o777)
    compiled.chmod(0o777)


@contextmanager
def running(site, name, ini):
    server = OneChild(site, ini, name)
    server.name = f"fpm-{name.replace(' ', '-').lower()}"
    site.servers.append(server)
    server.start()
    yield server
    server.stop()


def untimed():
    """Names of the functions that the agent does not time, whatever their arguments."""
    return set(re.findall(r'^\t\{"(\w+)",', (PROJECT / "ext/zqp_quick.cpp").read_text(), re.M))


def count_calls(record, site, what, run):
    """Of one run as Xdebug's trace has it."""
    ini = site.ini_file(False, {"zend_extension": build_xdebug(), "xdebug.auto_trace": 1, "xdebug.trace_format": 1,
                                "xdebug.max_nesting_level": 100000, "xdebug.trace_output_dir": site.root, "xdebug.trace_output_name": "calls"})
    site.root.chmod(0o777)
    run(ini)
    names, quick = [], untimed()
    with open(site.root / "calls.xt", errors="replace") as trace:
        for line in trace:
            field = line.split("\t", 7)
            if len(field) > 6 and field[2] == "0":
                names.append((field[5], field[6] == "0"))
    (site.root / "calls.xt").unlink()
    internal = [name for name, is_internal in names if is_internal]
    record.add(f"{what}: calls", "", [len(names)])
    record.add(f"{what}: of them of internal functions", "", [len(internal)])
    record.add(f"{what}: share of these that is not timed", "%", [100 * sum(name in quick for name in internal) / len(internal)])


def compare(record, what, rounds, one):
    found = in_turns(ALL, rounds, one)
    record.add(f"{what}, {NONE}", "ms", found[NONE], group="applications", work=what, configuration=NONE)
    for name in ALL[1:]:
        record.add(f"{what}, {name}", "times", ratios(found[name], found[NONE]), LIMITS.get(what, {}).get(name),
                   group="applications", work=what, configuration=name)


def pages(record, site, inis, rounds):
    for what, ask in (("WordPress, front page", wordpress), ("Smarty, a list", smarty)):
        def once(ini):
            with running(site, "count", ini) as server:
                ask(server)

        once(inis[NONE])                                   # what is compiled once
        count_calls(record, site, what, once)
        with ExitStack() as stack:
            servers = {name: stack.enter_context(running(site, name, inis[name])) for name in ALL}

            def one(name):
                before = processor_us(servers[name].child())
                for _ in range(TURN):
                    ask(servers[name])
                return (processor_us(servers[name].child()) - before) / TURN / 1000

            for name in ALL:
                one(name)
            compare(record, what, rounds, one)


def measure(record, site, rounds):
    inis = configurations(site, ALL)
    (site.root / "profile").chmod(0o777)
    for mariadb in started(MariaDb):
        lay_out(site, mariadb)
        pages(record, site, inis, rounds)
    what = "HTML Purifier, command line"
    count_calls(record, site, what, purify)
    compare(record, what, rounds, lambda name: purify(inis[name]))


if __name__ == "__main__":
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    threading.stack_size(1 << 20)
    sys.exit(bench("applications", drained_site(), measure, 15))
