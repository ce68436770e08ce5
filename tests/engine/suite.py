"""PHP's own test suite on the same engine without the agent and with it, and what differs.

Every test runs on the command line and through php-cgi: on the bare engine, with the agent loaded but switched off, with it
monitoring while a daemon listens, with it monitoring while there is none, and with every call traced. A test that ends
otherwise than on the bare engine, or fails there with another output, is repeated alone, up to three times on both, before
it counts as a difference. The agent must really have been at work: what arrives at the daemon is counted.
"""
import argparse
import collections
import os
import resource
import shutil
import signal
import sys
import tempfile
import time

import databases
import phpt
from counting import Daemon
from place import RAN, Place, namespaces_work

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
BUILD = os.path.join(TOP, "build")
WANTED_SHARE = 0.95
REPEATS = 3
MOST_LINES = 60                                        # of differences, and of faults, per mode

Mode = collections.namedtuple("Mode", "name extension listening settings")
MODES = {mode.name: mode for mode in (
    Mode("bare", None, False, {}),
    Mode("off", "zqprof.so", True, {"zqs.agent_enabled": 0}),
    Mode("monitoring", "zqprof.so", True, {}),
    Mode("dead", "zqprof.so", False, {}),
    Mode("traced", "traced/zqprof.so", True, {"zqs.action_tracer.action_threshold": 1}))}
SAPIS = ("cli", "cgi")

# what one pass gave: {test: (outcome, digest)}, what was expected to arrive, what did
Pass = collections.namedtuple("Pass", "outcomes expected seen traces faults seconds")


def split(tests, count):
    """The tests for each of `count` runners; those that share a database server stay together."""
    shares = [[] for _ in range(count)]
    rest = []
    for test in tests:
        together = [n for n, kind in enumerate(databases.SERVERS) if test.startswith(kind.folders)]
        (shares[together[0] % count] if together else rest).append(test)
    rest.reverse()
    while rest:
        min(shares, key=len).append(rest.pop())
    return [share for share in shares if share]


class Suite:
    def __init__(self, options, work):
        self.engine, self.source = os.path.realpath(options.engine), os.path.realpath(options.source)
        self.build, self.shards, self.work, self.passes = options.build, options.shards, work, 0

    def run(self, sapi, mode, tests, shards=None):
        """One pass over `tests`."""
        self.passes += 1
        started = time.monotonic()
        folder = os.path.join(self.work, str(self.passes))
        runners = []
        with databases.running(tests) as servers:
            try:
                for number, share in enumerate(split(tests, shards or self.shards)):
                    runners.append(Runner(self, os.path.join(folder, str(number)), sapi, mode, share, servers))
                ends = [runner.end() for runner in runners]
            finally:
                for runner in runners:
                    runner.place.stop()
        if not os.environ.get("SUITE_KEEP"):
            shutil.rmtree(folder, ignore_errors=True)
        outcomes = {test: outcome for end in ends for test, outcome in end.outcomes.items()}
        sums = [sum(column) for column in list(zip(*ends))[1:4]]
        return Pass(outcomes, *sums, [fault for end in ends for fault in end.faults], time.monotonic() - started)


class Runner:
    """One of the processes that share a pass, with the daemon that its tests talk to."""

    def __init__(self, suite, folder, sapi, mode, tests, servers):
        self.mode = mode
        mounts = {"engine": suite.engine, **{server.name: str(server.root) for server in servers}}
        self.place = Place(folder, suite.source, tests, sapi == "cgi", mounts)
        self.logs = os.path.join(folder, "root/log/quorbit")
        os.makedirs(self.logs)
        os.chmod(self.logs, 0o777)
        settings = {}
        if mode.extension:
            shutil.copy(os.path.join(suite.build, mode.extension), os.path.join(folder, "zqprof.so"))
            settings = {"extension": self.place.inside("zqprof.so"), "zqs.runtime_root": self.place.inside("root"),
                        "zqs.prefix": self.place.inside("root/none"), **mode.settings}
        environment = {}
        for server in servers:
            environment.update(server.environment(self.place.inside(server.name)))
        self.daemon = Daemon(os.path.join(self.logs, ".quorbit.sock")) if mode.listening else None
        self.place.start(settings, environment)

    def end(self):
        outcomes = self.place.outcomes()
        expected = collections.Counter(self.place.expected_actions(outcomes)) if self.mode.extension else collections.Counter()
        ran = sum(expected.values())
        if not self.daemon:
            return Pass(outcomes, ran, min(ran, self.failed_connects()), 0, [], 0)     # servers and children of tests report as well
        report = self.daemon.report()
        if self.mode.name == "off":                    # it looks at start-up whether a daemon is there, and then keeps still
            faults = [f"{name} was reported" for name in report.actions]
            return Pass(outcomes, ran, min(ran, report.connections), report.traces, report.faults + faults, 0)
        seen = sum(min(count, report.actions[name]) for name, count in expected.items())
        return Pass(outcomes, ran, seen, report.traces, report.faults, 0)

    def failed_connects(self):
        """Requests that wanted to report and found nobody."""
        path = os.path.join(self.logs, "php-agent.log")
        if not os.path.exists(path):
            return 0
        with open(path, errors="replace") as handle:
            return sum("send metric data fail" in line for line in handle)


def differs(bare, agent):
    """Whether sets of outcomes of repeated runs have nothing in common. Where the bare engine itself gives several outputs,
    only the outcome counts."""
    if len(bare) > 1:
        bare, agent = {outcome for outcome, _ in bare}, {outcome for outcome, _ in agent}
    return not bare & agent


def differences(suite, sapi, mode, bare, agent, excused):
    """[(test, the bare engine's outcomes, the agent's)] that are excused or stay when both are repeated alone, and how many
    did not stay."""
    none = ("NONE", "")
    seen = {test: ({bare.get(test, none)}, {agent.get(test, none)}) for test in {*bare, *agent}}
    first = sorted(test for test, sets in seen.items() if differs(*sets))
    listed, suspects = ([test for test in first if (test in excused) == wanted] for wanted in (True, False))
    for _ in range(REPEATS):
        if not suspects:
            break
        files = sorted({test.split(": ")[0] for test in suspects})
        for column, again in enumerate((suite.run(sapi, MODES["bare"], files, 1), suite.run(sapi, mode, files, 1))):
            for test in suspects:
                seen[test][column].add(again.outcomes.get(test, none))
        suspects = [test for test in suspects if differs(*seen[test])]
    words = [(test, *("/".join(sorted({outcome for outcome, _ in side})) for side in seen[test])) for test in listed + suspects]
    return words, len(first) - len(words)


def excuses(stack):
    """{test: modes} of differences.txt, as far as they hold for this stack limit."""
    found = {}
    with open(os.path.join(HERE, "differences.txt")) as handle:
        for line in handle:
            words = line.split("#")[0].split()
            if words:
                test, _, limit = words[0].partition("@")
                if limit in ("", stack):
                    found[test] = set(words[1:])
    return found


def keep(build, sapi, mode, outcomes):
    """The outcome of every test, in a file to look into."""
    folder = os.path.join(build, "engine-suite")
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, f"{sapi}-{mode}.txt"), "w") as handle:
        handle.writelines(f"{outcome:5} {test}\n" for test, (outcome, _) in sorted(outcomes.items()))


def row(sapi, mode, done, notes=""):
    counts = collections.Counter(outcome for outcome, _ in done.outcomes.values())
    other = sum(count for outcome, count in counts.items() if outcome not in ("PASS", "FAIL", "XFAIL", "SKIP"))
    ran = sum(counts[outcome] for outcome in RAN)
    numbers = [len(done.outcomes), ran, counts["PASS"], counts["FAIL"], counts["XFAIL"], counts["SKIP"], other]
    print(f"{sapi:4} {mode:11}" + "".join(f"{number:7}" for number in numbers) + f"{done.seconds:7.0f}  {notes}", flush=True)


def judged(suite, sapi, mode, bare, done, excused):
    """Prints a mode's row and its differences; returns whether all is well."""
    excused = {test for test, modes in excused.items() if not modes or modes & {mode.name, f"{sapi}/{mode.name}"}}
    differing, flaky = differences(suite, sapi, mode, bare.outcomes, done.outcomes, excused)
    arrived = {"off": "processes started", "dead": "reports without a daemon"}.get(mode.name, f"packets, {done.traces} traces")
    row(sapi, mode.name, done, f"{done.seen} of {done.expected} {arrived}; {len(differing)} differ, {flaky} did when not alone")
    well = True
    for number, (test, before, after) in enumerate(differing):
        listed = test in excused
        well = well and listed
        if number < MOST_LINES:
            print(f"     differs: {test}: {before} without, {after} with{' (listed)' if listed else ''}")
    for fault in done.faults[:MOST_LINES]:
        well = False
        print(f"     fault: {fault}")
    if not done.expected or done.seen < WANTED_SHARE * done.expected:
        well = False
        print(f"     the agent was not at work in {WANTED_SHARE:.0%} of the tests")
    return well


def chosen(sapi, words):
    """The modes that `words` ask for: "mode" for every way of running, or "sapi/mode"."""
    traceable = sapi == "cgi"                          # scripts of the command line are not traced
    return [mode for mode in MODES if {mode, f"{sapi}/{mode}"} & set(words) and (traceable or mode != "traced")]


def run_all(suite, options, tests):
    print(f"{len(tests)} test files, stack {options.stack}, {options.shards} at a time" +
          ("" if namespaces_work() else "; no namespaces here: tests share ports and /tmp") +
          "\nsapi mode          all    ran   pass   fail  xfail   skip  other seconds")
    well = True
    for sapi in SAPIS:
        modes = chosen(sapi, options.modes.split())
        if not modes:
            continue
        bare = suite.run(sapi, MODES["bare"], tests)
        keep(suite.build, sapi, "bare", bare.outcomes)
        row(sapi, "bare", bare)
        for mode in modes:
            if mode == "bare":
                continue
            done = suite.run(sapi, MODES[mode], tests)
            keep(suite.build, sapi, mode, done.outcomes)
            well = judged(suite, sapi, MODES[mode], bare, done, excuses(options.stack)) and well
    return well


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--engine", default=os.path.join(BUILD, "engine"))
    parser.add_argument("--build", default=BUILD, help="where zqprof.so and traced/zqprof.so are")
    parser.add_argument("--source", default=os.path.join(BUILD, "engine-tests"), help="the engine's source")
    parser.add_argument("--stack", default="unlimited", help="stack limit in MiB, or unlimited")
    parser.add_argument("--shards", type=int, default=os.cpu_count())
    parser.add_argument("--modes", default=" ".join(MODES), help=f"of {' '.join(MODES)}, or cli/mode, cgi/mode; bare always runs")
    parser.add_argument("--list", help="file that names the tests, one a line")
    parser.add_argument("folders", nargs="*", default=["Zend", "tests", "ext", "sapi"], help="folders, tests, or patterns of them")
    return parser.parse_args()


def limit_stack(text):
    limit = resource.RLIM_INFINITY if text == "unlimited" else int(text) << 20
    _, hard = resource.getrlimit(resource.RLIMIT_STACK)
    resource.setrlimit(resource.RLIMIT_STACK, (limit, hard))


def main():
    options = arguments()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended"))         # what was started ends with us, /tmp is left clean
    limit_stack(options.stack)
    if options.list:
        with open(options.list) as handle:
            options.folders = [line.split("#")[0].strip() for line in handle if line.split("#")[0].strip()]
    tests = phpt.find(options.source, options.folders)
    work = tempfile.mkdtemp(prefix="qsuite-", dir="/tmp")
    try:
        well = run_all(Suite(options, work), options, tests)
    finally:
        if not os.environ.get("SUITE_KEEP"):
            shutil.rmtree(work, ignore_errors=True)
    sys.exit(not well)


if __name__ == "__main__":
    main()
