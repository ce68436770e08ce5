"""Private database servers: one MariaDB and one PostgreSQL per test run, in folders of their own, on UNIX sockets only."""
import ctypes
import pwd
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from support.engines import EXTENSION, IS_ROOT, PROJECT, WEB_USER
from support.fake_daemon import wait_until

SHARE = Path("/usr/share/mysql")
POSTGRES = next(iter(sorted(Path("/usr/lib/postgresql").glob("*/bin"), reverse=True)), Path("/usr/lib/postgresql/15/bin"))

# `users` has one row, so that a sleep in its select list runs once.
MYSQL_TABLES = """
CREATE DATABASE shop;
USE shop;
CREATE TABLE users (id INT AUTO_INCREMENT PRIMARY KEY, name VARCHAR(40)) ENGINE=InnoDB;
INSERT INTO users (name) VALUES ('Ada');
CREATE USER owner@localhost;
GRANT ALL ON shop.* TO owner@localhost;
CREATE DEFINER = owner@localhost VIEW closed AS SELECT name FROM users;
CREATE TABLE orders (id INT PRIMARY KEY, total INT) ENGINE=InnoDB;
CREATE USER web@localhost IDENTIFIED VIA mysql_native_password USING PASSWORD('secret');
GRANT SELECT, INSERT, UPDATE, DELETE ON shop.users TO web@localhost;
GRANT SELECT, INSERT, UPDATE, DELETE ON shop.orders TO web@localhost;
GRANT CREATE TEMPORARY TABLES ON shop.* TO web@localhost;
GRANT SELECT ON shop.closed TO web@localhost;
FLUSH PRIVILEGES;
"""
PG_TABLES = """
CREATE TABLE users (id SERIAL PRIMARY KEY, name TEXT);
INSERT INTO users (name) VALUES ('Ada');
CREATE TABLE orders (id INT PRIMARY KEY, total INT);
CREATE TABLE slow (id INT, note TEXT);
CREATE FUNCTION nap() RETURNS trigger AS 'BEGIN PERFORM pg_sleep(0.03); RETURN COALESCE(NEW, OLD); END' LANGUAGE plpgsql;
CREATE TRIGGER nap BEFORE INSERT OR DELETE ON slow FOR EACH ROW EXECUTE FUNCTION nap();
INSERT INTO slow VALUES (7, 'old');
CREATE ROLE web LOGIN;
GRANT ALL ON ALL TABLES IN SCHEMA public TO web;
GRANT ALL ON ALL SEQUENCES IN SCHEMA public TO web;
GRANT CREATE ON SCHEMA public TO web;
"""


def die_with_parent():
    """A server must not outlive its tests, not even killed ones."""
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)


class DatabaseServer:
    def __init__(self):
        self.root = Path(tempfile.mkdtemp(prefix="zqdb", dir="/tmp"))      # short: a socket path has 107 bytes at most
        self.root.chmod(0o755)
        self.data = self.root / "data"
        self.data.mkdir()
        if IS_ROOT:                                                        # neither server wants to be root
            for path in (self.root, self.data):
                shutil.chown(path, WEB_USER, pwd.getpwnam(WEB_USER).pw_gid)
        self.process = None

    def spawn(self, argv, **options):
        owner = {"user": WEB_USER, "group": pwd.getpwnam(WEB_USER).pw_gid, "extra_groups": []} if IS_ROOT else {}
        return subprocess.Popen([str(a) for a in argv], cwd=self.root, preexec_fn=die_with_parent, stderr=subprocess.STDOUT,
                                **owner, **options)

    def run(self, argv, text=""):
        with self.spawn(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
            output = process.communicate(text.encode(), 60)[0].decode(errors="replace")
        assert process.returncode == 0, output[-2000:]

    def start(self):
        log = self.root / "server.log"
        with open(log, "wb") as file:
            self.process = self.spawn(self.command(), stdin=subprocess.DEVNULL, stdout=file)
        wait_until(lambda: b"ready " in log.read_bytes() or self.process.poll() is not None, f"{self.command()[0]}", 30)
        assert self.process.poll() is None, log.read_text(errors="replace")[-2000:]

    def stop(self):
        if self.process:
            self.process.send_signal(self.stop_signal)
            try:
                self.process.wait(20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        shutil.rmtree(self.root, ignore_errors=True)

    stop_signal = signal.SIGTERM


class MariaDb(DatabaseServer):
    """Account web@localhost, "secret", with the password scheme that PHP 5.6 speaks."""

    def __init__(self):
        super().__init__()
        self.socket = self.root / "db.sock"
        self.pdo = f"mysql:unix_socket={self.socket};dbname=shop"

    def options(self):
        return ["--no-defaults", f"--datadir={self.data}", f"--tmpdir={self.root}", f"--lc-messages-dir={SHARE}",
                "--innodb-buffer-pool-size=16M", "--innodb-log-file-size=4M", "--innodb-flush-log-at-trx-commit=0",
                "--skip-performance-schema", "--innodb-use-native-aio=0"]

    def prepare(self):
        tables = ["mysql_system_tables", "mysql_performance_tables", "mysql_system_tables_data"]
        system = "".join((SHARE / f"{name}.sql").read_text() for name in tables)
        self.run(["/usr/sbin/mariadbd", *self.options(), "--bootstrap", "--enforce-storage-engine="],
                 f"CREATE DATABASE mysql;\nUSE mysql;\n{system}\nFLUSH PRIVILEGES;\n{MYSQL_TABLES}")

    def command(self):
        return ["/usr/sbin/mariadbd", *self.options(), f"--socket={self.socket}", f"--pid-file={self.root}/db.pid",
                "--skip-networking"]


class PostgreSql(DatabaseServer):
    """Role web, trusted on the socket."""

    def __init__(self):
        super().__init__()
        self.socket = self.root / ".s.PGSQL.5432"
        self.dsn = f"host={self.root} dbname=postgres user=web"
        self.pdo = f"pgsql:host={self.root};dbname=postgres;user=web"

    def prepare(self):
        self.run([POSTGRES / "initdb", "-D", self.data, "-A", "trust", "-U", "owner", "-E", "UTF8", "--locale=C", "--no-sync"])
        single = [POSTGRES / "postgres", "--single", "-j", "-D", self.data, "-c", "fsync=off", "postgres"]
        self.run(single, PG_TABLES.replace(";\n", ";\n\n"))

    def command(self):
        return [POSTGRES / "postgres", "-D", self.data, "-k", self.root, "-c", "listen_addresses=", "-c", "fsync=off",
                "-c", "shared_buffers=8MB", "-c", "max_connections=20"]

    stop_signal = signal.SIGINT


def started(kind):
    server = kind()
    try:
        server.prepare()
        server.start()
        yield server
    finally:
        server.stop()


@pytest.fixture(scope="session")
def mariadb():
    yield from started(MariaDb)


@pytest.fixture(scope="session")
def postgres():
    yield from started(PostgreSql)


@pytest.fixture(scope="session")
def doubles():
    """The extension that stands in for client libraries that cannot be had; built when it is missing or old."""
    subprocess.run([PROJECT / "tests/support/build-doubles"], check=True)
    return {"extension": str(PROJECT / "build/doubles.so")}


@pytest.fixture(scope="session")
def shim_library(tmp_path_factory):
    library = tmp_path_factory.mktemp("shim") / "shim.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, Path(__file__).with_name("shim.c"), "-Wl,--no-as-needed",
                    EXTENSION], check=True)
    return library


@pytest.fixture
def shim(site, shim_library):
    """Puts shim.c between the agent and the machine; the environment that names the two files by which to steer it."""
    site.extension = shim_library
    return {"SHIM_MEMINFO": str(site.root / "meminfo"), "SHIM_CLOCK": str(site.root / "clock")}
