"""PHP engines under test: command line, CGI, FastCGI, FPM, the built-in server and Apache, each with the agent and, as its
twin, without. A request goes to both; what the client sees must be the same."""
import http.client
import os
import pwd
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

from support import wire
from support.fake_daemon import FakeDaemon, wait_until

PROJECT = Path(__file__).resolve().parents[2]
ENGINE = Path(os.environ.get("QUORBIT_ENGINE", PROJECT / "build/engine"))              # another, such as one under a sanitizer
BUILD = Path(os.environ.get("QUORBIT_BUILD", PROJECT / "build"))                       # another, such as a sanitized one
SHIPPED = BUILD / "zqprof.so"
EXTENSION = BUILD / "patient/zqprof.so"    # the same, but it waits 2 s for the daemon: a busy machine answers later than in 100 ms
SCRIPTS = PROJECT / "tests/e2e/php"
WEB_USER = "www-data"
IS_ROOT = os.geteuid() == 0
signal.signal(signal.SIGTERM, signal.default_int_handler)      # whoever is told to end ends the servers that it started, too
AGENT = "the agent"                        # its place in a php.ini's "load"


@dataclass
class Result:
    """What a client sees of one request, and what the daemon got meanwhile."""
    status: int = None
    headers: list = field(default_factory=list)
    body: bytes = b""
    stderr: bytes = b""
    code: int = None
    ms: float = 0
    held_up_ms: float = field(default=0, compare=False)    # of a process: neither at work nor waiting for a processor
    bare: "Result" = None                  # the twin's result
    queries: list = field(default_factory=list)
    metrics: list = field(default_factory=list)
    events: list = field(default_factory=list)

    @property
    def metric(self):
        assert len(self.metrics) == 1, f"{len(self.metrics)} metric packets; body {self.body[:300]!r}, {self.stderr[:300]!r}"
        return self.metrics[0]

    @property
    def monitored(self):
        return bool(self.metrics)

    def seen(self):
        kept = [(name.lower(), value) for name, value in self.headers if name.lower() not in ("date", "host")]
        return {"status": self.status, "headers": kept, "body": self.body, "stderr": self.stderr, "code": self.code}

    def check_twin(self, bare, differs):
        """`differs` names what a feature changes on purpose; everything else must be equal."""
        self.bare = bare
        mine, other = self.seen(), bare.seen()
        wrong = {key for key in mine if mine[key] != other[key]}
        assert wrong == set(differs), "\n".join(f"{key}: {mine[key]!r}\n with no agent: {other[key]!r}" for key in wrong) or differs


class Timed(subprocess.Popen):
    """Knows, when it has ended, how long it was held up. A busy machine leaves a process waiting for a processor, which the
    kernel counts, and counts as nothing here."""
    held_up_ms = 0

    def __init__(self, *arguments, **options):
        self.started = time.monotonic()          # before there is a process that could wait for a processor
        super().__init__(*arguments, **options)

    def wait(self, timeout=None):
        if self.returncode is None:
            os.waitid(os.P_PID, self.pid, os.WEXITED | os.WNOWAIT)
            ran, queued, _ = map(int, Path(f"/proc/{self.pid}/schedstat").read_text().split())
            self.held_up_ms = (time.monotonic() - self.started) * 1000 - (ran + queued) / 1e6
        return super().wait(timeout)


def parse_cgi(output):
    head, gap, body = output.partition(b"\r\n\r\n")
    if not gap:
        return None, [], output
    headers = [tuple(line.decode("latin-1").split(": ", 1)) for line in head.split(b"\r\n")]
    status = [int(value[:3]) for name, value in headers if name == "Status"]
    return (status or [200])[0], headers, body


def web_environment(script, uri, method="GET", body=b"", headers=None):
    """The variables of a CGI request; header names as a client writes them."""
    path, _, query = uri.partition("?")
    found = {"GATEWAY_INTERFACE": "CGI/1.1", "SERVER_PROTOCOL": "HTTP/1.1", "SERVER_NAME": "shop.test", "SERVER_PORT": "81",
             "REDIRECT_STATUS": "200", "REQUEST_METHOD": method, "SCRIPT_NAME": path, "REQUEST_URI": uri, "QUERY_STRING": query,
             "SCRIPT_FILENAME": str(script), "DOCUMENT_ROOT": str(Path(script).parent), "CONTENT_LENGTH": str(len(body))}
    if body:
        found["CONTENT_TYPE"] = "application/x-www-form-urlencoded"
    for name, value in (headers or {}).items():
        found["HTTP_" + name.upper().replace("-", "_")] = value
    return found


def fastcgi_request(variables, body=b""):
    """A responder's request, the first on its connection, which ends with the answer."""
    def record(kind, content):
        return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content

    def pair(name, value):
        sizes = b"".join(bytes([len(x)]) if len(x) < 128 else struct.pack(">I", len(x) | 1 << 31) for x in (name, value))
        return sizes + name + value

    message = record(1, struct.pack(">HB5x", 1, 0))
    for kind, content in ((4, b"".join(pair(name.encode(), str(value).encode()) for name, value in variables.items())), (5, body)):
        for at in range(0, len(content), 0xFFFF):
            message += record(kind, content[at:at + 0xFFFF])
        message += record(kind, b"")
    return message


def replace(path, text):
    """A file that is complete at any time: engines that start just now have it mapped, and would die of a shorter one."""
    fresh = path.with_suffix(f".{threading.get_ident()}")
    fresh.write_text(text)
    return fresh.replace(path)


class Site:
    """A private runtime root with a daemon in it, a document root, and the php.ini files with and without the agent."""
    open = set()                             # those that are not closed yet

    def __init__(self, **ini):
        for path in (EXTENSION, ENGINE / "bin/php", ENGINE / "bin/php-cgi"):
            assert path.exists(), f"{path} is missing: run make unit first"
        self.root = Path(tempfile.mkdtemp(prefix="zq", dir="/tmp"))     # short: a socket path has 107 bytes at most
        self.root.chmod(0o755)
        self.logs = self.root / "log/quorbit"
        self.logs.mkdir(parents=True)
        self.docroot = self.root / "www"
        self.docroot.mkdir()
        (self.root / "prefix/bin").mkdir(parents=True)                  # nothing there: no daemon is launched
        if IS_ROOT:
            os.chown(self.logs, 0, pwd.getpwnam(WEB_USER).pw_gid)
        self.logs.chmod(0o2770)
        self.settings = {"zqs.prefix": self.root / "prefix", "zqs.runtime_root": self.root, "zqs.app_name": "Shop", **ini}
        self.daemon = FakeDaemon(str(self.logs / ".quorbit.sock"))
        self.servers = []
        self.extension = EXTENSION
        self.open.add(self)

    def close(self):
        self.open.discard(self)
        for server in self.servers:
            server.stop()
        self.daemon.stop()
        faults = self.daemon.faults
        shutil.rmtree(self.root, ignore_errors=True)
        assert not faults, faults

    def ini_file(self, agent=True, extra=None):
        """The path of a php.ini, in a folder of its own; names are the engine's, `zqs.*` ones only go to the agent. What is
        loaded comes in the order of "load", a list of lines and AGENT, or behind one "zend_extension"."""
        settings = {"date.timezone": "UTC", **{k: v for k, v in (extra or {}).items() if not k.startswith("zqs.")}}
        preload = settings.pop("zend_extension", None)
        load = settings.pop("load", [f'zend_extension="{preload}"'] * bool(preload) + [AGENT])
        ours = [f'extension="{self.extension}"'] if agent else []
        text = "".join(f"{line}\n" for entry in load for line in (ours if entry is AGENT else [entry]))
        if agent:
            settings.update(self.settings)
            settings.update({k: v for k, v in (extra or {}).items() if k.startswith("zqs.")})
        text += "".join(f'{key}="{value}"\n' for key, value in settings.items())
        folder = self.root / f"ini{abs(hash(text))}"
        folder.mkdir(exist_ok=True)
        return replace(folder / "php.ini", text)

    def script(self, code, name="index.php"):
        path = self.docroot / name
        path.parent.mkdir(parents=True, exist_ok=True)
        return replace(path, "<?php " + code)

    def log(self):
        path = self.logs / "php-agent.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def logged(self, text):
        """What follows this text in each line of the log that has it."""
        return [line.partition(text)[2] for line in self.log().splitlines() if text in line]

    def run(self, argv, env=None, stdin=b"", web=False, timeout=120):
        started = time.monotonic()
        with Timed([str(a) for a in argv], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=self.docroot,
                   env={"PATH": os.environ["PATH"], "PHP_INI_SCAN_DIR": "", **(env or {})}) as process:
            try:
                output, errors = process.communicate(stdin, timeout)
            except BaseException:
                process.kill()
                raise
        result = Result(body=output, stderr=errors, code=process.returncode, ms=(time.monotonic() - started) * 1000,
                        held_up_ms=process.held_up_ms)
        if web:
            result.status, result.headers, result.body = parse_cgi(output)
        return result

    def both(self, binary, arguments, ini=None, env=None, stdin=b"", web=False, twin=True, differs=(), settings=None):
        """Runs a process with the agent, collects what the daemon got, and compares with a run of the bare engine. Without
        `settings` the daemon answers as before."""
        if settings is not None:
            self.daemon.configure(settings)
        self.daemon.forget()
        result = self.run([ENGINE / "bin" / binary, "-c", self.ini_file(True, ini), *arguments], env, stdin, web)
        self.daemon.settle()
        result.queries, result.metrics, result.events = map(self.daemon.received, (wire.Query, wire.Metric, wire.Event))
        if twin:
            result.check_twin(self.run([ENGINE / "bin" / binary, "-c", self.ini_file(False, ini), *arguments], env, stdin, web),
                              differs)
        return result

    def cli(self, code, *arguments, **options):
        return self.both("php", ["-f", self.script(code, "job.php"), "--", *arguments], **options)

    def cgi(self, code, uri="/index.php", method="GET", body=b"", headers=None, env=None, drop=(), **options):
        variables = web_environment(self.script(code), uri, method, body, headers)
        variables = {key: value for key, value in {**variables, **(env or {})}.items() if key not in drop}
        return self.both("php-cgi", [], env=variables, stdin=body, web=True, **options)

    def serve(self, kind, ini=None, **options):
        """A running server with the agent and its twin without."""
        return Pair(self, kind, ini, options)


class Pair:
    def __init__(self, site, kind, ini, options):
        self.site = site
        self.agent, self.bare = (kind(site, site.ini_file(agent, ini), agent, **options) for agent in (True, False))
        site.servers += [self.agent, self.bare]
        self.agent.start()
        self.bare.start()

    def get(self, code, uri="/index.php", twin=True, differs=(), metrics=1, **request):
        """One request; waits for as many metric packets as it should bring."""
        daemon = self.site.daemon
        script = self.site.script(code, uri.partition("?")[0].lstrip("/"))
        daemon.forget()
        result = self.agent.request(script, uri, **request)
        if metrics:
            result.metrics = daemon.wait_metrics(metrics)
        result.queries, result.events = daemon.received(wire.Query), daemon.received(wire.Event)
        if twin:
            result.check_twin(self.bare.request(script, uri, **request), differs)
        return result


class Server:
    """A server process; `pids` are the processes below it that serve."""

    def __init__(self, site, ini, agent, env=None):
        self.env = env or {}
        self.site, self.ini, self.name = site, ini, type(self).__name__.lower() + ("" if agent else "0") + str(len(site.servers))
        self.process = None
        self.socket = str(site.root / f"{self.name}.sock")

    def start(self):
        self.output = open(self.site.root / f"{self.name}.out", "wb")
        self.process = subprocess.Popen([str(a) for a in self.command()], stdin=subprocess.DEVNULL, stdout=self.output,
                                        stderr=self.output, start_new_session=True, cwd=self.site.docroot,
                                        env={"PATH": os.environ["PATH"], "PHP_INI_SCAN_DIR": "", **self.env})
        wait_until(lambda: self.answers() or self.process.poll() is not None, f"{self.name} to answer")
        assert self.process.poll() is None, self.console()

    def console(self):
        return (self.site.root / f"{self.name}.out").read_text(errors="replace")

    def answers(self):
        try:
            self.connect().close()
            return True
        except OSError:
            return False

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(self.stop_signal)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
                self.process.wait()
        if self.process:
            self.output.close()

    stop_signal = signal.SIGTERM


class FastCgi(Server):
    """php-cgi as one FastCGI process."""

    def command(self):
        return [ENGINE / "bin/php-cgi", "-c", self.ini, "-b", self.socket]

    def connect(self):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.settimeout(30)
        sock.connect(self.socket)
        return sock

    def request(self, script, uri, method="GET", body=b"", headers=None, env=None):
        message = fastcgi_request({**web_environment(script, uri, method, body, headers), **(env or {})}, body)
        started, output, result = time.monotonic(), {6: b"", 7: b""}, Result()
        with self.connect() as sock, sock.makefile("rb") as stream:
            sock.sendall(message)
            while header := stream.read(8):
                _, kind, _, size, padding = struct.unpack(">BBHHBx", header)
                content = stream.read(size + padding)[:size]
                if kind == 3:
                    result.code = struct.unpack(">I4x", content)[0]
                    break
                output[kind] += content
        result.ms, result.stderr = (time.monotonic() - started) * 1000, output[7]
        result.status, result.headers, result.body = parse_cgi(output[6])
        return result


class Fpm(FastCgi):
    """php-fpm with two children of the web server's user."""
    children = 2
    manager = "static"

    def command(self):
        config = self.site.root / f"{self.name}.conf"
        owner = f"user = {WEB_USER}\ngroup = {WEB_USER}\nlisten.owner = {WEB_USER}\n" if IS_ROOT else ""
        config.write_text(f"[global]\nerror_log = {self.site.root}/{self.name}.log\ndaemonize = no\n"
                          f"pid = {self.site.root}/{self.name}.pid\n[www]\nlisten = {self.socket}\n{owner}"
                          f"pm = {self.manager}\npm.max_children = {self.children}\npm.start_servers = 1\n"
                          f"pm.min_spare_servers = 1\npm.max_spare_servers = 1\n")
        return [ENGINE / "sbin/php-fpm", "-c", self.ini, "-y", config, "-F"] + (["-R"] if IS_ROOT else [])


class Http(Server):
    port = None

    def start(self):
        for attempt in range(3):              # somebody may take the port between the look and the start
            with socket.create_server(("127.0.0.1", 0)) as probe:
                self.port = probe.getsockname()[1]
            try:
                return super().start()
            except AssertionError:
                if attempt == 2:
                    raise

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), 1)

    def request(self, script, uri, method="GET", body=b"", headers=None):
        started = time.monotonic()
        client = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        client.request(method, uri, body or None, {"Connection": "close", "Host": "shop.test", **(headers or {})})
        answer = client.getresponse()
        result = Result(answer.status, answer.getheaders(), answer.read())
        client.close()
        result.ms = (time.monotonic() - started) * 1000
        return result


class BuiltIn(Http):
    """php -S: one process, one thread."""

    def command(self):
        return [ENGINE / "bin/php", "-c", self.ini, "-S", f"127.0.0.1:{self.port}", "-t", self.site.docroot]

    stop_signal = signal.SIGINT


class Apache(Http):
    """Apache's event MPM: one process with many threads. More processes than one come only while it reloads."""
    mpm = "event"
    threads = 16
    processes = 1
    stack_kib = None

    def command(self):
        config, modules = self.site.root / f"{self.name}.conf", Path("/usr/lib/apache2/modules")
        owner = f"User {WEB_USER}\nGroup {WEB_USER}\n" if IS_ROOT else ""
        if self.mpm == "prefork":
            workers = f"MinSpareServers 1\nMaxSpareServers {self.threads}"
        else:
            workers = (f"ServerLimit {self.processes}\nThreadsPerChild {self.threads}\nThreadLimit {self.threads}\n"
                       f"MinSpareThreads 1\nMaxSpareThreads {self.threads}")
            workers += f"\nThreadStackSize {self.stack_kib * 1024}" if self.stack_kib else ""
        config.write_text(f"""ServerRoot {self.site.root}
ServerName shop.test
PidFile {self.site.root}/{self.name}.pid
DefaultRuntimeDir {self.site.root}
ErrorLog {self.site.root}/{self.name}.log
Listen 127.0.0.1:{self.port}
LoadModule mpm_{self.mpm}_module {modules}/mod_mpm_{self.mpm}.so
LoadModule authz_core_module {modules}/mod_authz_core.so
LoadModule php5_module {ENGINE}/apache/libphp5.so
{owner}StartServers 1
{workers}
MaxRequestWorkers {self.threads}
PHPIniDir {self.ini.parent}
DocumentRoot {self.site.docroot}
<FilesMatch "\\.php$">
SetHandler application/x-httpd-php
</FilesMatch>
""")
        own = ENGINE / "sbin/apache2"         # an engine that needs preparations has one
        return [own if own.exists() else "/usr/sbin/apache2", "-d", self.site.root, "-f", config, "-D", "FOREGROUND"]

    def console(self):
        log = self.site.root / f"{self.name}.log"
        return super().console() + (log.read_text(errors="replace") if log.exists() else "")


class ApacheWorker(Apache):
    """Apache's worker MPM."""
    mpm = "worker"


def at_once(count, work):
    """Runs work(i) in `count` threads and gives the results; a failure in one is raised here."""
    results, failures = [None] * count, []

    def one(i):
        try:
            results[i] = work(i)
        except Exception as failure:          # handed to the caller's thread
            failures.append(failure)

    threads = [threading.Thread(target=one, args=(i,)) for i in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if failures:
        raise failures[0]
    return results
