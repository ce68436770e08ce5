"""Servers for the engine's tests of its database clients, private ones, fresh for every pass."""
import contextlib

import phpt

from support.databases import MariaDb, PostgreSql

MYSQL_ACCOUNT = """FLUSH PRIVILEGES;
CREATE DATABASE test;
CREATE OR REPLACE USER root@localhost IDENTIFIED VIA mysql_native_password USING PASSWORD('');
GRANT ALL ON *.* TO root@localhost WITH GRANT OPTION;
"""


class MySqlOfTests(MariaDb):
    name, folders = "mysql", phpt.MYSQL

    def prepare(self):
        super().prepare()
        self.run(["/usr/sbin/mariadbd", *self.options(), "--bootstrap"], MYSQL_ACCOUNT)

    @staticmethod
    def environment(folder):
        socket = f"{folder}/db.sock"
        return {"MYSQL_TEST_HOST": "localhost", "MYSQL_TEST_SOCKET": socket, "MYSQL_TEST_USER": "root", "MYSQL_TEST_DB": "test",
                "PDO_MYSQL_TEST_DSN": f"mysql:host=localhost;unix_socket={socket};dbname=test",
                "PDO_MYSQL_TEST_HOST": "localhost", "PDO_MYSQL_TEST_SOCKET": socket, "PDO_MYSQL_TEST_DB": "test",
                "PDO_MYSQL_TEST_USER": "root", "PDO_MYSQL_TEST_PASS": ""}


class PgSqlOfTests(PostgreSql):
    name, folders = "pgsql", phpt.PGSQL

    def prepare(self):
        super().prepare()
        self.run([self.command()[0], "--single", "-j", "-D", self.data, "-c", "fsync=off", "postgres"], "CREATE DATABASE test;\n\n")

    @staticmethod
    def environment(folder):
        return {"PGSQL_TEST_CONNSTR": f"host={folder} dbname=test user=owner",
                "PDO_PGSQL_TEST_DSN": f"pgsql:host={folder} dbname=test user=owner password="}


SERVERS = (MySqlOfTests, PgSqlOfTests)


@contextlib.contextmanager
def running(tests):
    """The servers that these tests need."""
    servers = [kind() for kind in SERVERS if any(test.startswith(kind.folders) for test in tests)]
    try:
        for server in servers:
            server.prepare()
            server.start()
        yield servers
    finally:
        for server in servers:
            server.stop()
