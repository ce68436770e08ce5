"""PHP's own test suite, run on the same engine without and with the agent, and what differs.

Every test of the given folders runs twice: on the bare engine, and with the extension loaded and monitoring while a
daemon listens. A test that ends otherwise than on the bare engine is repeated alone before it counts as a difference.
The agent must really have been at work: packets must have arrived for 95 % of the tests that ran.
"""
import argparse
import collections
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(TOP, "tests", "doubles"))
import wire                                            # noqa: E402
from fake_daemon import FakeDaemon                     # noqa: E402

OUTCOME = re.compile(r"TEST \d+/\d+ \[([^\]\n]+\.phpt)\]\r(?:[^\r]*?\b)?(PASS|FAIL|XFAIL|SKIP|BORK|WARN|LEAK)\b")
RAN = {"PASS", "FAIL", "XFAIL", "WARN", "LEAK"}


def listed(name):
    """Names of a text file, one a line; "#" begins a comment."""
    path = os.path.join(HERE, name)
    lines = open(path).read().splitlines() if os.path.exists(path) else []
    return {line.split("#")[0].split("|")[0].strip() for line in lines} - {""}


def find_tests(source, folders):
    found = []
    for folder in folders:
        for root, _, files in os.walk(os.path.join(source, folder)):
            found += [os.path.relpath(os.path.join(root, f), source) for f in files if f.endswith(".phpt")]
    return sorted(found)


def background_name(script):
    """The name under which the agent reports a script of the command line."""
    name = script.lstrip("/").replace("/", "%2F")
    return "BackgroundAction/Script/" + re.sub(r"\d{2,}", "*", name)


def own_network():
    """Words before a command that give it a loopback of its own: some tests listen on fixed ports, which shards would share."""
    if os.geteuid() != 0 or not (shutil.which("unshare") and shutil.which("ip")):
        return []
    return ["unshare", "--net", "sh", "-c", 'ip link set lo up && exec "$@"', "sh"]


class Run:
    """One pass over the suite: its own copy of the tests per shard, since tests write beside themselves."""

    def __init__(self, engine, source, folders, work, extension=None, root=None):
        self.engine, self.source, self.folders, self.work = engine, source, folders, work
        self.options = []
        if extension:
            settings = {"extension": extension, "zqs.runtime_root": root, "zqs.prefix": os.path.join(root, "none")}
            for key, value in settings.items():
                self.options += ["-d", f"{key}={value}"]

    def shard(self, number, tests):
        place = os.path.join(self.work, str(number))
        for folder in {*self.folders, "tests", "Zend/tests", "sapi/cli/tests"}:       # tests include one another's files
            shutil.copytree(os.path.join(self.source, folder), os.path.join(place, folder), dirs_exist_ok=True)
        shutil.copy(os.path.join(self.source, "run-tests.php"), place)
        with open(os.path.join(place, "list.txt"), "w") as handle:
            handle.writelines(os.path.join(place, test) + "\n" for test in tests)
        php = os.path.join(self.engine, "bin", "php")
        environment = {**os.environ, "NO_INTERACTION": "1", "TEST_PHP_EXECUTABLE": php,
                       "TEST_PHP_CGI_EXECUTABLE": os.path.join(self.engine, "bin", "php-cgi"), "TEST_PHP_SRCDIR": place}
        log = open(os.path.join(place, "log.txt"), "w+", encoding="latin-1", newline="")
        command = [*own_network(), php, "-n", "run-tests.php", "-q", "-n", *self.options, "-r", "list.txt"]
        return place, log, subprocess.Popen(command, cwd=place, env=environment, stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=subprocess.STDOUT)

    def outcomes(self, tests, shards):
        """{test: outcome}; a test that the runner said nothing about is missing."""
        running = [self.shard(n, tests[n::shards]) for n in range(shards)]
        found = {}
        for place, log, process in running:
            process.wait()
            log.seek(0)
            for path, outcome in OUTCOME.findall(log.read()):
                found[os.path.relpath(os.path.join(place, path), place)] = outcome   # the runner may shorten paths
            log.close()
        return found


def differences(plain, agent, tests, retry_plain, retry_agent):
    """[(test, plain outcome, agent's outcome)] that stay when both are repeated alone."""
    suspects = [test for test in tests if plain.get(test) != agent.get(test)]
    again_plain, again_agent = retry_plain(suspects), retry_agent(suspects)
    return [(test, again_plain.get(test, "none"), again_agent.get(test, "none"))
            for test in suspects if again_plain.get(test) != again_agent.get(test)]


def monitored_share(agent, actions, work, shards, tests):
    """Share of the tests that ran and of which a packet came. Digits collapse in names: they are compared as counts."""
    expected = collections.Counter()
    for number in range(shards):
        for test in tests[number::shards]:
            if agent.get(test) in RAN:
                script = os.path.join(os.path.realpath(work), str(number), test[:-1])
                expected[background_name(script)] += 1
    ran = sum(expected.values())
    seen = sum(min(count, actions[name]) for name, count in expected.items())
    return seen, ran


def check_loaded(engine, extension):
    php = os.path.join(engine, "bin", "php")
    listing = subprocess.run([php, "-n", "-d", f"extension={extension}", "-m"], capture_output=True, text=True)
    if "quorbit" not in listing.stdout:
        sys.exit(f"the extension does not load: {listing.stdout}{listing.stderr}")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--engine", default=os.path.join(TOP, "build", "engine"))
    parser.add_argument("--extension", default=os.path.join(TOP, "build", "zqprof.so"))
    parser.add_argument("--source", default=os.path.join(TOP, "build", "engine-tests"), help="the engine's source")
    parser.add_argument("--stack", default="unlimited", help="stack limit in MiB, or unlimited")
    parser.add_argument("--shards", type=int, default=os.cpu_count())
    parser.add_argument("folders", nargs="*", default=["Zend/tests", "tests"])
    return parser.parse_args()


def limit_stack(text):
    limit = resource.RLIM_INFINITY if text == "unlimited" else int(text) << 20
    _, hard = resource.getrlimit(resource.RLIMIT_STACK)
    resource.setrlimit(resource.RLIMIT_STACK, (limit, hard))


def compare(options, place):
    engine, source = os.path.realpath(options.engine), os.path.realpath(options.source)
    root = os.path.join(place, "root")
    os.makedirs(os.path.join(root, "log", "quorbit"))
    tests = find_tests(source, options.folders)
    daemon = FakeDaemon(os.path.join(root, "log", "quorbit", ".quorbit.sock"))

    def run(name, with_agent):
        extension = os.path.realpath(options.extension) if with_agent else None
        return Run(engine, source, options.folders, os.path.join(place, name), extension, root if with_agent else None)

    started = time.monotonic()
    plain = run("plain", False).outcomes(tests, options.shards)
    agent = run("agent", True).outcomes(tests, options.shards)
    daemon.settle()
    actions = collections.Counter(packet.action for packet in daemon.received(wire.Metric))
    seen, ran = monitored_share(agent, actions, os.path.join(place, "agent"), options.shards, tests)
    differing = differences(plain, agent, tests, lambda some: run("plain2", False).outcomes(some, 1),
                            lambda some: run("agent2", True).outcomes(some, 1))
    daemon.stop()
    print(f"{len(tests)} tests, {time.monotonic() - started:.0f} s, stack {options.stack}")
    for name, outcomes in (("without the agent", plain), ("with the agent", agent)):
        counts = collections.Counter(outcomes.get(test, "NONE") for test in tests)
        failed = [test for test in tests if outcomes.get(test, "NONE") in ("FAIL", "NONE")]
        print(f"  {name}: " + ", ".join(f"{counts[key]} {key}" for key in sorted(counts)) + "".join(f"\n    failed: {t}" for t in failed))
    print(f"  packets arrived for {seen} of {ran} tests that ran; {len(daemon.faults)} could not be decoded")
    return differing, seen, ran, daemon.faults


def main():
    options = arguments()
    check_loaded(options.engine, os.path.realpath(options.extension))
    limit_stack(options.stack)
    excused = listed("differences.txt")                # "test", or "test@8" for a stack of 8 MiB only
    place = tempfile.mkdtemp(prefix="qsuite-", dir="/tmp")
    try:
        differing, seen, ran, faults = compare(options, place)
    finally:
        shutil.rmtree(place, ignore_errors=True)
    unexcused = [row for row in differing if not excused & {row[0], f"{row[0]}@{options.stack}"}]
    for test, before, after in differing:
        print(f"  differs: {test}: {before} without, {after} with{'' if (test, before, after) in unexcused else ' (listed)'}")
    if not differing:
        print("  no differences")
    if seen < 0.95 * ran or not ran:
        sys.exit("the agent was not at work in 95 % of the tests")
    if unexcused or faults:
        sys.exit(1)


if __name__ == "__main__":
    main()
