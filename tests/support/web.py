"""A store filled with packets made here, `quorbit web` on it, and a browser that has nothing but this machine's loopback."""
import http.client
import json
import os
import re
import socket
import struct
import subprocess
import tempfile
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT
from support.wire import record

FLAGS = ("--headless=new --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-dev-shm-usage --disable-background-networking "
         "--disable-component-update --disable-sync --disable-extensions").split()


def number(value):
    return struct.pack("<i", value)


def sized(*items):
    return b"".join(b"%d:%s" % (len(item), item) for item in items)


def json_bytes(value):
    """JSON whose texts are bytes, as agents write them: whatever a script has."""
    return json.dumps(value, ensure_ascii=False).encode("utf-8", "surrogateescape")


def node(start, end, name, call, children=(), url="", **parameters):
    cls, _, function = call.rpartition("::")
    return [start, end, name, url, 1, cls, function, parameters, list(children)]


def packet(app, name, ms, uri="/", statements=(), error=None, trace=None, parameters=(), details=(), components=(), database_ms=0):
    """A metric packet; texts are bytes, statements (ms, vendor, text[, stack, plan]), an error (status, class, message)."""
    records = [record(0x11, app), record(0x0E, "account"), record(0x12, name), record(0x21, uri), record(0x1A, number(1)),
               record(0x1B, number(1)), record(0x14, number(0)), record(0x15, number(ms)), record(0x16, number(database_ms))]
    records += [record(0x27, sized(b"%d" % took, *texts)) for took, *texts in statements]
    records += [record(0x2B, b"%d\n%d\n%s" % component) for component in components]
    if error:
        records.append(record(0x2A, b"1\n%d\n%s\n%s\n%s" % error))
    if trace:
        records += [record(0x25, json_bytes(trace)), record(0x26, "t1")]
    records += [record(0x24, b"%s=%s" % pair) for pair in details] + [record(0x23, b"%s=%s" % pair) for pair in parameters]
    return record(0x0B, b"".join(records))


class Store:
    """A daemon in a folder of its own."""

    def __init__(self):
        self.temporary = tempfile.TemporaryDirectory(prefix="zqw", dir="/tmp")
        self.root = Path(self.temporary.name)
        self.folder = self.root / "log/quorbit"
        self.folder.mkdir(parents=True)
        names = {"daemon_log_file_name": "daemon.log", "pid_file": "quorbit.pid", "ipc_listen_file": ".quorbit.sock"}
        config = self.folder / ".quorbit.cfg"
        config.write_text("".join(f"zqs.{key}={self.folder / name}\n" for key, name in names.items()))
        self.process = subprocess.Popen([QUORBIT, "-f", config, "--foreground"])
        wait_until(self.answers, "the daemon")

    def answers(self):
        """Whether it takes connections: the socket is there a moment before."""
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(str(self.folder / ".quorbit.sock")) == 0

    def command(self, *words):
        return json.loads(subprocess.run([QUORBIT, *words, "--root", self.root], capture_output=True, check=True, timeout=30).stdout or "[]")

    def fill(self, *packets):
        self.send(*packets)
        wait_until(lambda: self.stored() == len(packets), "the packets in the store")

    def send(self, *packets):
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(self.folder / ".quorbit.sock"))
            client.sendall(b"".join(packets))

    def stored(self):
        done = subprocess.run([QUORBIT, "show", "--json", "-n", "1000", "--root", self.root], capture_output=True, timeout=30)
        return len(json.loads(done.stdout or "[]"))

    def close(self):
        self.process.terminate()
        self.process.wait(10)
        self.temporary.cleanup()


class Web:
    """A running `quorbit web`."""

    def __init__(self, root, *options, origin=None):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        self.origin = origin or f"http://127.0.0.1:{self.port}"
        listen = [] if "--listen" in options else ["--listen", f"127.0.0.1:{self.port}"]
        self.errors = tempfile.TemporaryFile()
        self.process = subprocess.Popen([QUORBIT, "web", "--root", root, *listen, *options],
                                        stdout=subprocess.PIPE, stderr=self.errors, text=True)
        printed = ""
        while "Bearer" not in printed:
            line = self.process.stdout.readline()
            assert line, "quorbit web ended"
            printed += line
        self.link = re.search(r"http\S+/login#\w+", printed)[0]
        self.token = re.search(r"Bearer (\w+)", printed)[1]
        if "--sample" in options:
            wait_until(lambda: b"--root" in self.told(), "where the sample is")
            self.sample_root = self.told().decode().split("--root ")[1].strip()

    def told(self):
        """What it has said on standard error."""
        return os.pread(self.errors.fileno(), 1 << 20, 0)

    def ask(self, path, method="GET", body=None, token=True, **headers):
        """Status, headers and body of one request; a header that is None is left out."""
        sent = {"Authorization": f"Bearer {self.token}"} if token else {}
        sent.update({name.replace("_", "-"): value for name, value in headers.items()})
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        connection.request(method, path, body, sent)
        answer = connection.getresponse()
        return answer.status, {name.lower(): value for name, value in answer.getheaders()}, answer.read()

    def json(self, path):
        status, _, body = self.ask("/api/v1/" + path)
        assert status == 200, body
        return json.loads(body)

    def close(self):
        self.process.terminate()
        assert self.process.wait(10) == 0
        self.process.stdout.close()
        self.errors.close()


def browser():
    options = webdriver.ChromeOptions()
    for flag in [*FLAGS, "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", "--window-size=1280,900"]:
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver", env={**os.environ, "TZ": "Asia/Tokyo"}))


def looks(driver, width=1280, dark=False):
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {"width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False})
    driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})
