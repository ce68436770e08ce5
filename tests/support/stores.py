"""Private Redis servers, single and as a cluster of one node, on sockets of their own, and the extension that speaks to them."""
import shutil
import socket
import subprocess

import pytest

from support.databases import DatabaseServer, started
from support.engines import PROJECT
from support.fake_daemon import wait_until

# Debian's redis-tools has the server under a second name, and starts no service as redis-server does; the name by which it
# is called decides what it is.
BINARY = shutil.which("redis-server") or "/usr/bin/redis-check-rdb"


class Redis(DatabaseServer):
    def __init__(self):
        super().__init__()
        self.socket = self.root / "redis.sock"

    def prepare(self):
        (self.root / "redis-server").symlink_to(BINARY)

    def options(self):
        return ["--port", "0"]

    def command(self):
        return [self.root / "redis-server", "--unixsocket", self.socket, "--unixsocketperm", "777", "--dir", self.root,
                "--save", "", "--databases", "4", *self.options()]

    def ask(self, *words):
        """The answer to one command, at most 64 KiB of it."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as sock:
            sock.connect(str(self.socket))
            sock.sendall((" ".join(words) + "\r\n").encode())
            return sock.recv(1 << 16).decode().rstrip()


class Cluster(Redis):
    """One node that has all slots; clients of a cluster only know ports."""

    def __init__(self):
        super().__init__()
        with socket.create_server(("127.0.0.1", 0)) as clients, socket.create_server(("127.0.0.1", 0)) as nodes:
            self.port, self.node_port = (probe.getsockname()[1] for probe in (clients, nodes))

    def options(self):
        return ["--bind", "127.0.0.1", "--port", str(self.port), "--cluster-enabled", "yes", "--cluster-port", str(self.node_port),
                "--cluster-announce-ip", "127.0.0.1"]

    def start(self):
        super().start()
        assert self.ask("CLUSTER", "ADDSLOTSRANGE", "0", "16383") == "+OK"
        wait_until(lambda: self.ask("SET", "probe", "1") == "+OK", "the cluster")


@pytest.fixture(scope="session")
def redis():
    yield from started(Redis)


@pytest.fixture
def cluster():
    yield from started(Cluster)


@pytest.fixture
def mortal_redis():
    """A server that a test may kill and start again."""
    yield from started(Redis)


@pytest.fixture(scope="session")
def phpredis():
    """Settings that load the client extension; it is built when the machine has none."""
    subprocess.run([PROJECT / "engine/extensions", "redis"], check=True)
    return {"extension": str(PROJECT / "build/extensions/redis.so")}
