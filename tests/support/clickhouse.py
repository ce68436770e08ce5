"""Private ClickHouse servers, alone and as the shards of a cluster, in folders of their own on loopback ports of their own."""
import signal
import socket
import urllib.error
import urllib.request
from contextlib import ExitStack

import pytest

from support.databases import DatabaseServer
from support.fake_daemon import wait_until

USER, PASSWORD = "agent", "s3/cret"

USERS = f"""<yandex>
  <profiles><default><max_memory_usage>2000000000</max_memory_usage></default></profiles>
  <quotas><default/></quotas>
  <users>
    <default><password/><networks><ip>127.0.0.1</ip></networks><profile>default</profile><quota>default</quota></default>
    <{USER}><password>{PASSWORD}</password><networks><ip>127.0.0.1</ip></networks><profile>default</profile>
      <quota>default</quota></{USER}>
  </users>
</yandex>"""


def free_ports(count):
    with ExitStack() as open_sockets:
        found = [open_sockets.enter_context(socket.create_server(("127.0.0.1", 0))) for _ in range(count)]
        return [sock.getsockname()[1] for sock in found]


class ClickHouse(DatabaseServer):
    def __init__(self):
        super().__init__()
        self.http, self.tcp, self.interserver = free_ports(3)
        self.shards = [self]

    def configuration(self):
        shards = "".join(f"<shard><replica><host>127.0.0.1</host><port>{shard.tcp}</port></replica></shard>" for shard in self.shards)
        return f"""<yandex>
  <logger><level>warning</level><log>{self.root}/log</log><errorlog>{self.root}/errors</errorlog></logger>
  <listen_host>127.0.0.1</listen_host>
  <http_port>{self.http}</http_port><tcp_port>{self.tcp}</tcp_port><interserver_http_port>{self.interserver}</interserver_http_port>
  <path>{self.data}/</path><tmp_path>{self.root}/tmp/</tmp_path><users_config>{self.root}/users.xml</users_config>
  <default_profile>default</default_profile><default_database>default</default_database>
  <mark_cache_size>100000000</mark_cache_size><timezone>Asia/Kolkata</timezone>
  <remote_servers><fleet>{shards}</fleet></remote_servers>
</yandex>"""

    def prepare(self):
        (self.root / "users.xml").write_text(USERS)

    stop_signal = signal.SIGKILL                                 # it would take 15 s; its folder goes with it

    def command(self):
        return ["/usr/sbin/clickhouse-server", f"--config-file={self.root}/config.xml"]

    def start(self):
        (self.root / "config.xml").write_text(self.configuration())
        with open(self.root / "server.log", "ab") as log:
            self.process = self.spawn(self.command(), stdin=-3, stdout=log)
        wait_until(lambda: self.answers() or self.process.poll() is not None, "the server", 60)
        assert self.process.poll() is None, (self.root / "server.log").read_text(errors="replace")[-2000:]

    def answers(self):
        try:
            return self.ask("SELECT 1") == "1"
        except OSError:
            return False

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def ask(self, sql):
        """The answer as text; an error of the server is an assertion that fails."""
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self.http}/", sql.encode(), 30) as answer:
                return answer.read().decode().rstrip("\n")
        except urllib.error.HTTPError as error:
            raise AssertionError(error.read().decode(errors="replace")[:500]) from error

    def url(self, database="quorbit"):
        hosts = ",".join(f"127.0.0.1:{shard.http}" for shard in self.shards)
        return f"http://{USER}:{PASSWORD.replace('/', '%2F')}@{hosts}/{database}"


def running(count):
    """So many servers, each of which knows all as the shards of the cluster "fleet"."""
    servers = [ClickHouse() for _ in range(count)]
    try:
        for server in servers:
            server.shards = servers
            server.prepare()
            server.start()
        yield servers[0]
    finally:
        for server in servers:
            server.stop()


@pytest.fixture(scope="module")
def clickhouse_server():
    yield from running(1)


@pytest.fixture
def clickhouse(clickhouse_server):
    """One that runs and has no tables of a fleet yet."""
    if clickhouse_server.process.poll() is not None:
        clickhouse_server.start()
    clickhouse_server.ask("DROP DATABASE IF EXISTS quorbit")
    return clickhouse_server
