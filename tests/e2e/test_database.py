"""Each way of running a statement: what is recorded of it, with its stack, plan and place in the trace, and its failure."""
import re
from dataclasses import dataclass

import pytest

from support.cases import line_of, program

SLOW = {"zqs.action_tracer.action_threshold": "1", "zqs.action_tracer.slow_sql_threshold": "20",
        "zqs.action_tracer.explain_enabled": "true", "zqs.action_tracer.explain_threshold": "20",
        "zqs.action_tracer.stack_trace_threshold": "20"}
VENDORS = {"mysql": "MySQL", "pg": "PostgreSQL", "sqlite": "SQLite", "SQLite": "SQLite", "oci": "Oracle"}  # by their APIs' names
SELECT = {"MySQL": "SELECT SLEEP(0.03), name FROM users", "PostgreSQL": "SELECT pg_sleep(0.03), name FROM users",
          "SQLite": "SELECT nap(), name FROM users", "Oracle": "SELECT 'slow:30' FROM users"}
TWICE = "INSERT INTO users (id, name) VALUES (1, 'top secret')"


@dataclass
class Api:
    """How the page connects; a pattern of the driver's words when failures are reported; the plan's dialect and first column."""
    link: str
    error: str = None
    plan: tuple = None
    node: str = None              # of the trace, when another function runs the statement
    slow: str = None              # the statement, when it is not the usual one
    broken: str = "SELECT 'top secret' FROM missing7"
    recorded: str = None          # when it is not the statement as run
    vendor: str = None            # when the function's name does not tell


MYSQL_ERROR, PG_ERROR, SQLITE_ERROR = "denied .*missing7", "relation .*missing7.* does not exist", "no such table: missing7"
MYSQL_PLAN, PG_PLAN = ("MySQL", "id"), ("PGSQL", "QUERY PLAN")
DOUBLE, DOUBLE_CLASS = (Api(link, slow="SELECT 'slow:30' FROM users", broken="fail") for link in ("double", "double_class"))

APIS = {
    "mysql_query": Api("mysql", MYSQL_ERROR, MYSQL_PLAN),
    "mysql_query without link": Api("mysql", MYSQL_ERROR, MYSQL_PLAN),
    "mysql_db_query": Api("mysql", MYSQL_ERROR, MYSQL_PLAN),
    "mysql_unbuffered_query": Api("mysql"),
    "mysqli_query": Api("mysqli"),
    "mysqli_real_query": Api("mysqli"),
    "mysqli_multi_query": Api("mysqli"),
    "mysqli_prepare": Api("mysqli", node="mysqli_stmt_execute"),
    "mysqli_stmt_prepare": Api("mysqli", node="mysqli_stmt_execute"),
    "mysqli::query": Api("mysqli", MYSQL_ERROR),
    "mysqli::real_query": Api("mysqli", MYSQL_ERROR),
    "mysqli::multi_query": Api("mysqli", MYSQL_ERROR),
    "mysqli::prepare": Api("mysqli", MYSQL_ERROR, node="mysqli_stmt.execute"),
    "mysqli_stmt::prepare": Api("mysqli", MYSQL_ERROR, node="mysqli_stmt.execute"),
    "mysqli_stmt::execute": Api("mysqli", "Duplicate entry", broken=TWICE),
    "pg_query": Api("pg", PG_ERROR, PG_PLAN),
    "pg_query without link": Api("pg", PG_ERROR, PG_PLAN),
    "pg_query_params": Api("pg", PG_ERROR, PG_PLAN, slow="SELECT pg_sleep(0.03), name FROM users WHERE id = $1"),
    "pg_query_params without link": Api("pg", PG_ERROR, PG_PLAN),
    "pg_execute": Api("pg"),
    "pg_insert": Api("pg", slow="note", recorded='INSERT INTO slow VALUE {"id":8,"note":"it\'s"}'),
    "pg_delete": Api("pg", slow="old", recorded='DELETE FROM slow WHERE {"id":7,"note":"old"}'),
    "sqlite_query": DOUBLE,
    "sqlite_exec": DOUBLE,
    "sqlite_unbuffered_query": DOUBLE,
    "SQLiteDatabase::query": DOUBLE_CLASS,
    "SQLiteDatabase::queryExec": DOUBLE_CLASS,
    "SQLiteDatabase::unbufferedQuery": DOUBLE_CLASS,
    "SQLite3::query": Api("sqlite3"),
    "SQLite3::querySingle": Api("sqlite3"),
    "SQLite3::exec": Api("sqlite3"),
    "oci_execute": DOUBLE,
    "PDO::query on MySQL": Api("pdo_mysql", MYSQL_ERROR, ("PDO", "id"), vendor="MySQL"),
    "PDO::query on PostgreSQL": Api("pdo_pg", PG_ERROR, ("PDO", "QUERY PLAN"), vendor="PostgreSQL"),
    "PDO::query on SQLite": Api("pdo_sqlite", SQLITE_ERROR, ("PDO", "addr"), vendor="SQLite"),
    "PDO::exec on SQLite": Api("pdo_sqlite", vendor="SQLite"),
    "PDOStatement::execute on MySQL": Api("pdo_mysql", MYSQL_ERROR, vendor="MySQL"),
    "PDOStatement::execute on SQLite": Api("pdo_sqlite", "UNIQUE|must be unique", broken=TWICE, vendor="SQLite"),
}


class Page:
    """A script that runs a statement through one API, inside the function page()."""
    code = program("database_links.php") + program("database.php")

    def __init__(self, site, name, getfixture):
        self.site, self.api, self.call = site, APIS[name], name.partition(" on ")[0]
        self.vendor = self.api.vendor or VENDORS[re.match("mysql|pg|sqlite|SQLite|oci", name)[0]]
        self.node = self.api.node or self.call.partition(" ")[0].replace("::", ".")
        self.slow = self.api.slow or SELECT[self.vendor]
        self.line = f"index.php:{line_of(self.code, f'case {chr(34)}{self.call}{chr(34)}')})"
        self.env, self.ini = {"API": self.call, "LINK": self.api.link}, {}
        if self.api.link in ("double", "double_class"):
            self.ini = getfixture("doubles")
        elif self.vendor == "MySQL":
            self.env["MYSQL_SOCKET"] = str(getfixture("mariadb").socket)
        elif self.vendor == "PostgreSQL":
            self.env["PG_DSN"] = getfixture("postgres").dsn

    def run(self, sql, settings):
        return self.site.cgi(self.code, env={**self.env, "SQL": sql}, ini=self.ini, settings=settings).metric


@pytest.fixture
def page(site, request):
    return Page(site, request.param, request.getfixturevalue)


def find(node, name):
    """The path from the root to the last node of this name, or nothing: connecting may have taken long as well."""
    if ".".join(filter(None, node[5:7])) == name:
        return [node]
    below = next((path for path in (find(child, name) for child in reversed(node[8])) if path), None)
    return [node] + below if below else None


@pytest.mark.parametrize("page", APIS, indirect=True)
def test_a_slow_statement_is_recorded_with_stack_plan_and_place(page):
    metric = page.run(page.slow, SLOW)
    record = metric.sql[-1]
    assert (record.db, record.statement) == (page.vendor, page.api.recorded or page.slow)
    assert 25 <= record.ms <= metric.duration_ms and metric.db_ms == sum(r.ms for r in metric.sql)
    assert [f.split("(")[0] for f in record.stack] == [page.node, "page"] and record.stack[0].endswith(page.line)
    assert metric.error is None
    if page.api.plan:
        assert (record.plan["dialect"], record.plan["keys"][0]) == page.api.plan
        assert all(len(row) == len(record.plan["keys"]) for row in record.plan["values"]) and record.plan["values"]
    else:
        assert record.plan is None
    root, caller, node = find(metric.trace, page.node)
    assert caller[6] == "page" and root[:7] == [0, metric.duration_ms, "", "", 1, "PHP", "execute"]
    verb, table = re.match("(SELECT|INSERT|DELETE).* (?:FROM|INTO) (\\w+)", record.statement).groups()
    assert node[2:5] == [f"Database {page.vendor}/{table}/{verb}", "", 1] and node[1] - node[0] in (record.ms, record.ms + 1)
    assert node[7]["sql"] == record.statement and node[7]["stacktrace"] == record.stack
    assert node[7].get("explainPlan") == record.plan
    spent, own = metric.components["PHP/NULL/page"][:2]
    assert own <= spent - record.ms, "the function is charged with its query's time"


@pytest.mark.parametrize("page", APIS, indirect=True)
def test_a_failing_statement_is_reported_once(page):
    metric = page.run(page.api.broken, {"zqs.action_tracer.action_threshold": "60000"})
    assert metric.trace is None, "a page below the action threshold has no trace"
    if not page.api.error:
        assert metric.error is None
        return
    assert metric.error["class"] == "DB_ERROR" and re.search(page.api.error, metric.error["message"])
    hidden = re.sub("[0-9]", "?", re.sub("'[^']*'", lambda quoted: "'" + "?" * (len(quoted[0]) - 2) + "'", page.api.broken))
    assert metric.error["message"].endswith(f". sql=[{hidden}]")
    assert "page" in metric.error["stack"][1] and metric.error["stack"][0].endswith(page.line)


@pytest.mark.parametrize("page", ["mysqli::query", "PDO::query on SQLite"], indirect=True)
@pytest.mark.parametrize("settings, stack, plan, traced", [
    ({"zqs.action_tracer.slow_sql_threshold": "60000"}, False, True, True),
    ({"zqs.action_tracer.slow_sql": "false"}, False, True, True),
    ({"zqs.action_tracer.explain_threshold": "60000"}, True, False, True),
    ({"zqs.action_tracer.explain_enabled": "false"}, True, False, True),
    ({"zqs.action_tracer.action_threshold": "60000"}, True, True, False),
    ({"zqs.action_tracer.enabled": "false"}, False, False, False),
])
def test_each_threshold_switches_its_own_detail(page, settings, stack, plan, traced):
    metric = page.run(page.slow, {**SLOW, **settings})
    record = metric.sql[-1]
    assert (bool(record.stack), bool(record.plan), bool(metric.trace)) == (stack, plan and bool(page.api.plan), traced)
    assert record.ms >= 25 and metric.db_ms >= 25


@pytest.mark.parametrize("page", ["mysqli::query", "PDO::query on MySQL"], indirect=True)
@pytest.mark.parametrize("setting", ["zqs.error_collector.enabled", "zqs.error_collector.record_db_errors"])
def test_failures_are_not_reported_when_switched_off(page, setting):
    metric = page.run(page.api.broken, {setting: "false"})
    assert metric.error is None and metric.sql[-1].statement == page.api.broken
