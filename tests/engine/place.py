"""Where the engine's runner of tests works: a copy of the tests, since they write beside themselves, and a network, a /tmp and
processes of its own, since they share ports and names of files, and leave servers behind."""
import functools
import hashlib
import os
import re
import shutil
import subprocess
import tempfile

import phpt
from support.databases import die_with_parent

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
NAMESPACES = ["unshare", "--net", "--mount", "--ipc", "--pid", "--fork", "--kill-child", "--mount-proc"]
# A layer over the engine's source takes what is written. Some file systems cannot carry one: then there is a copy.
LAYER = 'mkdir "$place/src" && mount -t overlay tests -o "lowerdir=$source,upperdir=$place/written,workdir=$place/work" "$place/src"'
SETUP = f"""
place="$1" source="$2"
shift 2
ip link set lo up
if [ -d "$place/written" ]; then {LAYER}; fi
while [ "$1" != -- ]; do
    mkdir -p "$place/$2"
    mount --bind "$1" "$place/$2"
    shift 2
done
shift
mount --rbind "$place" /tmp
cd /tmp/src
"$@"
"""
NEIGHBOURS = ["tests/quicktester.inc", "sapi/cli/tests", phpt.PDO]         # what tests of other folders include
PROGRESS = re.compile(r"REDIRECT .*?\[([^\]\n]+)\]\) (begin|done)\n|"
                      r"TEST \d+/\d+ \[([^\]\n]+\.phpt)\]\r(?:[^\r]*?\b)?(PASS|FAIL|XFAIL|SKIP|BORK|WARN|LEAK)\b")
RAN = {"PASS", "FAIL", "XFAIL", "WARN", "LEAK"}


@functools.cache
def namespaces_work():
    return shutil.which("ip") is not None and subprocess.run([*NAMESPACES, "true"], capture_output=True).returncode == 0


@functools.cache
def layers_work():
    with tempfile.TemporaryDirectory(dir="/tmp") as place:
        for name in ("written", "work"):
            os.mkdir(os.path.join(place, name))
        return namespaces_work() and subprocess.run([*NAMESPACES, "sh", "-c", LAYER], capture_output=True,
                                                    env={**os.environ, "place": place, "source": TOP}).returncode == 0


def root_folder(test):
    """The extension, or the part of the engine, that a test belongs to."""
    parts = test.split("/")
    return "/".join(parts[:2]) if parts[0] in ("ext", "sapi") else parts[0]


class Place:
    """`mounts` are {name: folder} to be seen beside the tests."""

    def __init__(self, folder, source, tests, everything_through_cgi, mounts):
        self.folder, self.source, self.tests, self.mounts = folder, source, tests, mounts
        self.src = os.path.join(folder, "written" if layers_work() else "src")
        os.makedirs(self.src)
        os.mkdir(os.path.join(folder, "work"))
        os.chmod(folder, 0o1777)                       # it will be somebody's /tmp
        redirected = any(test.startswith("ext/pdo_") for test in tests)
        adapted = sorted({*tests, *(phpt.find(source, [phpt.PDO]) if redirected else [])})
        whole = [] if layers_work() else sorted({*map(root_folder, tests), *NEIGHBOURS, "run-tests.php"})
        subprocess.run(["xargs", "-0", "cp", "-a", "--parents", "-t", self.src], cwd=source, check=True,
                       input="\0".join([*whole, *adapted]).encode())
        for test in adapted:
            phpt.adapt(os.path.join(self.src, test), self._uri(test), everything_through_cgi)

    def inside(self, path=""):
        """The path of a file of this place as the tests see it, below "src" for the tests themselves."""
        if namespaces_work():
            return os.path.join("/tmp", path)
        first, slash, rest = path.partition("/")
        return self.mounts.get(first, os.path.join(self.folder, first)) + slash + rest

    def start(self, settings, environment):
        with open(os.path.join(self.src, "list.txt"), "w") as handle:
            handle.writelines(self.inside(f"src/{test}") + "\n" for test in self.tests)
        command = [self.inside("engine/bin/php"), "-n", "run-tests.php", "-q", "-n", "--offline", "--set-timeout", "120"]
        for key, value in settings.items():
            command += ["-d", f"{key}={value}"]
        command += ["-r", "list.txt"]
        if namespaces_work():
            pairs = [word for name, host in self.mounts.items() for word in (host, name)]
            command = [*NAMESPACES, "sh", "-ec", SETUP, "sh", self.folder, self.source, *pairs, "--", *command]
        variables = {"PATH": os.environ["PATH"], "HOME": self.inside(), "NO_INTERACTION": "1",
                     "TEST_PHP_EXECUTABLE": self.inside("engine/bin/php"), "TEST_PHP_SRCDIR": self.inside("src"),
                     "TEST_PHP_CGI_EXECUTABLE": self.inside("engine/bin/php-cgi"), **environment}
        self.log = open(os.path.join(self.folder, "log.txt"), "w+", encoding="latin-1", newline="")
        self.process = subprocess.Popen(command, cwd=self.folder if namespaces_work() else self.src, env=variables, stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=subprocess.STDOUT, start_new_session=True, preexec_fn=die_with_parent)

    def stop(self):
        """Ends what is still running, and with it all that its tests have started."""
        self.process.kill()
        self.process.wait()

    def outcomes(self):
        """{test: (outcome, digest of the output if the test failed)}, once the runner has ended. Tests of PDO that a driver's
        test leads to are named "driver's test: test"."""
        self.process.wait()
        self.log.seek(0)
        found, driver = {}, ""
        for redirecting, step, path, outcome in PROGRESS.findall(self.log.read()):
            if step:
                driver = self._name(redirecting) + ": " if step == "begin" else ""
                continue
            test = self._name(path)
            beside = os.path.dirname(driver) if driver else os.path.dirname(test)
            found[driver + test] = (outcome, self._digest(f"{beside}/{os.path.basename(test)}") if outcome == "FAIL" else "")
        self.log.close()
        return found

    def _uri(self, test):
        """What a script of the command line has in its place: the script's path, which some tests go by."""
        return self.inside(f"src/{test[:-1]}")

    def _name(self, path):
        return path.removeprefix(self.inside("src/"))

    def _digest(self, test):
        output = os.path.join(self.src, test[:-len("phpt")] + "out")
        if not os.path.exists(output):
            return "no output"
        with open(output, "rb") as handle:
            return hashlib.sha256(handle.read()).hexdigest()

    def expected_actions(self, outcomes):
        """The actions of the tests that ran."""
        found = []
        for name, (outcome, _) in outcomes.items():
            driver, _, test = name.rpartition(": ")
            if outcome in RAN:
                written = os.path.join(os.path.dirname(driver or test), os.path.basename(test))
                found += phpt.expected_actions(os.path.join(self.src, test), self.inside(f"src/{written}"), self._uri(test))
        return found
