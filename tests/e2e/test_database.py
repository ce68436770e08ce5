"""Each way of running a statement: what is recorded of it, with its stack, plan and place in the trace, and its failure."""
import re
from dataclasses import dataclass

import pytest

SLOW = {"zqs.action_tracer.action_threshold": "1", "zqs.action_tracer.slow_sql_threshold": "20",
        "zqs.action_tracer.explain_enabled": "true", "zqs.action_tracer.explain_threshold": "20",
        "zqs.action_tracer.stack_trace_threshold": "20"}

MYSQL = '$link = @mysql_connect(":SOCKET", "web", "secret"); mysql_select_db("shop", $link);'
MYSQLI = '$link = new mysqli("localhost", "web", "secret", "shop", 0, "SOCKET");'
PG = '$link = pg_connect("DSN");'
PDO = '$link = new PDO("PDO", "web", "secret");'
NAP = "function nap() { usleep(30000); return 1; } "
TABLE = "CREATE TABLE users (id INTEGER PRIMARY KEY, name TEXT); INSERT INTO users VALUES (1, 'Ada')"
SQLITE3 = f'{NAP}$link = new SQLite3(":memory:"); $link->createFunction("nap", "nap"); @$link->exec("{TABLE}");'
PDO_SQLITE = (f'{NAP}$link = new PDO("sqlite::memory:"); $link->sqliteCreateFunction("nap", "nap"); '
              f'foreach (explode(";", "{TABLE}") as $sql) $link->exec($sql);')
OTHER = "$link = 1;"
OTHER_CLASS = '$link = new SQLiteDatabase("file");'

SELECT = {"MySQL": "SELECT SLEEP(0.03), name FROM users", "PostgreSQL": "SELECT pg_sleep(0.03), name FROM users",
          "SQLite": "SELECT nap(), name FROM users", "Oracle": "SELECT 'slow:30' FROM users"}
BROKEN = "SELECT 'top secret' FROM missing7"
TWICE = "INSERT INTO users (id, name) VALUES (1, 'top secret')"


@dataclass
class Api:
    """`run` is PHP that runs `$sql` on `$link`; `error` a pattern of the driver's words when its failures are reported."""
    vendor: str
    connect: str
    run: str
    node: str                     # of the trace: "class.method" or function
    error: str = None
    plan: tuple = None            # dialect and first column
    slow: str = None
    broken: str = BROKEN
    recorded: str = None          # when it is not the statement as run

    def statement(self, slow):
        return (self.slow or SELECT[self.vendor]) if slow else self.broken


def prepared(prepare, execute):
    return f"($s = {prepare}) ? {execute} : $s"


MYSQL_PLAN, PG_PLAN = ("MySQL", "id"), ("PGSQL", "QUERY PLAN")
MYSQL_ERROR, PG_ERROR, SQLITE_ERROR = "denied .*missing7", "relation .*missing7.* does not exist", "no such table: missing7"
FILE_SELECT = "SELECT 'slow:30' FROM users"

APIS = {
    "mysql_query": Api("MySQL", MYSQL, "mysql_query($sql, $link)", "mysql_query", MYSQL_ERROR, MYSQL_PLAN),
    "mysql_query without link": Api("MySQL", MYSQL, "mysql_query($sql)", "mysql_query", MYSQL_ERROR, MYSQL_PLAN),
    "mysql_db_query": Api("MySQL", MYSQL, '@mysql_db_query("shop", $sql, $link)', "mysql_db_query", MYSQL_ERROR, MYSQL_PLAN),
    "mysql_unbuffered_query": Api("MySQL", MYSQL, "mysql_unbuffered_query($sql, $link)", "mysql_unbuffered_query"),
    "mysqli_query": Api("MySQL", MYSQLI, "mysqli_query($link, $sql)", "mysqli_query"),
    "mysqli_real_query": Api("MySQL", MYSQLI, "mysqli_real_query($link, $sql)", "mysqli_real_query"),
    "mysqli_multi_query": Api("MySQL", MYSQLI, "mysqli_multi_query($link, $sql)", "mysqli_multi_query"),
    "mysqli_prepare": Api("MySQL", MYSQLI, prepared("mysqli_prepare($link, $sql)", "mysqli_stmt_execute($s)"),
                          "mysqli_stmt_execute"),
    "mysqli_stmt_prepare": Api("MySQL", MYSQLI, prepared("($t = mysqli_stmt_init($link)) && mysqli_stmt_prepare($t, $sql)",
                                                         "mysqli_stmt_execute($t)"), "mysqli_stmt_execute"),
    "mysqli::query": Api("MySQL", MYSQLI, "$link->query($sql)", "mysqli.query", MYSQL_ERROR),
    "mysqli::real_query": Api("MySQL", MYSQLI, "$link->real_query($sql)", "mysqli.real_query", MYSQL_ERROR),
    "mysqli::multi_query": Api("MySQL", MYSQLI, "$link->multi_query($sql)", "mysqli.multi_query", MYSQL_ERROR),
    "mysqli::prepare": Api("MySQL", MYSQLI, prepared("$link->prepare($sql)", "$s->execute()"), "mysqli_stmt.execute", MYSQL_ERROR),
    "mysqli_stmt::prepare": Api("MySQL", MYSQLI, prepared("($t = $link->stmt_init()) && $t->prepare($sql)", "$t->execute()"),
                                "mysqli_stmt.execute", MYSQL_ERROR),
    "mysqli_stmt::execute": Api("MySQL", MYSQLI, prepared("$link->prepare($sql)", "$s->execute()"), "mysqli_stmt.execute",
                                "Duplicate entry", broken=TWICE),
    "pg_query": Api("PostgreSQL", PG, "pg_query($link, $sql)", "pg_query", PG_ERROR, PG_PLAN),
    "pg_query without link": Api("PostgreSQL", PG, "pg_query($sql)", "pg_query", PG_ERROR, PG_PLAN),
    "pg_query_params": Api("PostgreSQL", PG, 'pg_query_params($link, $sql, strpos($sql, "$1") ? array(1) : array())',
                           "pg_query_params", PG_ERROR, PG_PLAN, slow="SELECT pg_sleep(0.03), name FROM users WHERE id = $1"),
    "pg_query_params without link": Api("PostgreSQL", PG, "pg_query_params($sql, array())", "pg_query_params", PG_ERROR, PG_PLAN),
    "pg_execute": Api("PostgreSQL", PG, prepared('@pg_prepare($link, "p", $sql)', '@pg_execute($link, "p", array())'),
                      "pg_execute"),
    "pg_insert": Api("PostgreSQL", PG, '@pg_insert($link, "slow", array("id" => 8, $sql => "it\'s"))', "pg_insert", slow="note",
                     recorded='INSERT INTO slow VALUE {"id":8,"note":"it\'s"}'),
    "pg_delete": Api("PostgreSQL", PG, '@pg_delete($link, "slow", array("id" => 7, "note" => $sql))', "pg_delete", slow="old",
                     recorded='DELETE FROM slow WHERE {"id":7,"note":"old"}'),
    "sqlite_query": Api("SQLite", OTHER, "sqlite_query($link, $sql)", "sqlite_query", slow=FILE_SELECT, broken="fail"),
    "sqlite_exec": Api("SQLite", OTHER, "sqlite_exec($link, $sql)", "sqlite_exec", slow=FILE_SELECT, broken="fail"),
    "sqlite_unbuffered_query": Api("SQLite", OTHER, "sqlite_unbuffered_query($link, $sql)", "sqlite_unbuffered_query",
                                   slow=FILE_SELECT, broken="fail"),
    "SQLite3::query": Api("SQLite", SQLITE3, "$link->query($sql)", "SQLite3.query"),
    "SQLite3::querySingle": Api("SQLite", SQLITE3, "$link->querySingle($sql)", "SQLite3.querySingle"),
    "SQLite3::exec": Api("SQLite", SQLITE3, "$link->exec($sql)", "SQLite3.exec"),
    "SQLiteDatabase::query": Api("SQLite", OTHER_CLASS, "$link->query($sql)", "SQLiteDatabase.query", slow=FILE_SELECT,
                                 broken="fail"),
    "SQLiteDatabase::queryExec": Api("SQLite", OTHER_CLASS, "$link->queryExec($sql)", "SQLiteDatabase.queryExec",
                                     slow=FILE_SELECT, broken="fail"),
    "SQLiteDatabase::unbufferedQuery": Api("SQLite", OTHER_CLASS, "$link->unbufferedQuery($sql)",
                                           "SQLiteDatabase.unbufferedQuery", slow=FILE_SELECT, broken="fail"),
    "oci_execute": Api("Oracle", OTHER, prepared("oci_parse($link, $sql)", 'oci_execute("slow:30")'), "oci_execute",
                       broken="fail"),
    "PDO::query on MySQL": Api("MySQL", PDO, "$link->query($sql)", "PDO.query", MYSQL_ERROR, ("PDO", "id")),
    "PDO::exec on MySQL": Api("MySQL", PDO, "$link->exec($sql)", "PDO.exec"),
    "PDOStatement::execute on MySQL": Api("MySQL", PDO, prepared("$link->prepare($sql)", "$s->execute()"),
                                          "PDOStatement.execute", MYSQL_ERROR),
    "PDO::query on PostgreSQL": Api("PostgreSQL", PDO, "$link->query($sql)", "PDO.query", PG_ERROR, ("PDO", "QUERY PLAN")),
    "PDO::exec on PostgreSQL": Api("PostgreSQL", PDO, "$link->exec($sql)", "PDO.exec"),
    "PDOStatement::execute on PostgreSQL": Api("PostgreSQL", PDO, prepared("$link->prepare($sql)", "$s->execute()"),
                                               "PDOStatement.execute", PG_ERROR),
    "PDO::query on SQLite": Api("SQLite", PDO_SQLITE, "$link->query($sql)", "PDO.query", SQLITE_ERROR, ("PDO", "addr")),
    "PDO::exec on SQLite": Api("SQLite", PDO_SQLITE, "$link->exec($sql)", "PDO.exec"),
    "PDOStatement::execute on SQLite": Api("SQLite", PDO_SQLITE, prepared("$link->prepare($sql)", "$s->execute()"),
                                           "PDOStatement.execute", "UNIQUE constraint|PRIMARY KEY must be unique", broken=TWICE),
}


@pytest.fixture
def api(request):
    return APIS[request.param]


@pytest.fixture
def page(site, api, request):
    """Runs a script that passes the wanted statement to the API from line 3, inside a function."""
    connect, ini = api.connect, {}
    if api.connect in (OTHER, OTHER_CLASS):
        ini = request.getfixturevalue("doubles")
    elif api.vendor == "MySQL":
        server = request.getfixturevalue("mariadb")
        connect = connect.replace("SOCKET", str(server.socket)).replace('"PDO"', f'"{server.pdo}"')
    elif api.vendor == "PostgreSQL":
        server = request.getfixturevalue("postgres")
        connect = connect.replace("DSN", server.dsn).replace('"PDO"', f'"{server.pdo}"')

    def run(sql, settings):
        site.daemon.configure(settings)
        return site.cgi(connect + "\nfunction page($link, $sql) {\nreturn @(" + api.run + ");\n}\n" +
                        f'$got = page($link, "{sql.replace("$", chr(92) + "$")}"); echo gettype($got), " ", is_bool($got) ? '
                        '(int)$got : "", "\\n"; $e = error_get_last(); echo $e["message"], $e["line"];', ini=ini)
    return run


def find(node, name):
    """The path from the root to the first node of this name, or nothing."""
    if ".".join(filter(None, node[5:7])) == name:
        return [node]
    below = next((path for path in (find(child, name) for child in node[8]) if path), None)
    return [node] + below if below else None


def every_api(**kept):
    return pytest.mark.parametrize("api", [name for name, api in APIS.items() if all(getattr(api, k) for k in kept)], indirect=True)


@every_api()
def test_a_slow_statement_is_recorded_with_stack_plan_and_place(page, api):
    sql = api.statement(slow=True)
    metric = page(sql, SLOW).metric
    record = metric.sql[-1]
    assert (record.db, record.statement) == (api.vendor, api.recorded or sql)
    assert 25 <= record.ms <= metric.duration_ms and metric.db_ms == sum(r.ms for r in metric.sql)
    assert [f.split("(")[0] for f in record.stack] == [api.node, "page"] and record.stack[0].endswith("index.php:3)")
    assert metric.error is None
    if api.plan:
        assert (record.plan["dialect"], record.plan["keys"][0]) == api.plan
        assert all(len(row) == len(record.plan["keys"]) for row in record.plan["values"]) and record.plan["values"]
    else:
        assert record.plan is None
    root, caller, node = find(metric.trace, api.node)
    assert caller[6] == "page" and root[:7] == [0, metric.duration_ms, "", "", 1, "PHP", "execute"]
    verb, table = re.match("(SELECT|INSERT|DELETE).* (?:FROM|INTO) (\\w+)", record.statement).groups()
    assert node[2:5] == [f"Database {api.vendor}/{table}/{verb}", "", 1] and node[1] - node[0] in (record.ms, record.ms + 1)
    assert node[7]["sql"] == record.statement and node[7]["stacktrace"] == record.stack
    assert node[7].get("explainPlan") == record.plan
    own, spent = metric.components["PHP/NULL/page"][1], metric.components["PHP/NULL/page"][0]
    assert own <= spent - record.ms, "the function is charged with its query's time"


@every_api()
def test_a_failing_statement_is_reported_once(page, api):
    metric = page(api.broken, {}).metric
    assert metric.trace is None, "a page below the action threshold has no trace"
    if not api.error:
        assert metric.error is None
        return
    assert metric.error["class"] == "DB_ERROR" and re.search(api.error, metric.error["message"])
    hidden = re.sub("[0-9]", "?", re.sub("'[^']*'", lambda quoted: "'" + "?" * (len(quoted[0]) - 2) + "'", api.broken))
    assert metric.error["message"].endswith(f". sql=[{hidden}]")
    assert "page" in metric.error["stack"][1] and metric.error["stack"][0].endswith("index.php:3)")


@pytest.mark.parametrize("api", ["mysqli::query", "PDO::query on SQLite", "pg_query"], indirect=True)
@pytest.mark.parametrize("settings, stack, plan, traced", [
    ({}, True, True, True),
    ({"zqs.action_tracer.slow_sql_threshold": "500"}, False, True, True),
    ({"zqs.action_tracer.slow_sql": "false"}, False, True, True),
    ({"zqs.action_tracer.explain_threshold": "500"}, True, False, True),
    ({"zqs.action_tracer.explain_enabled": "false"}, True, False, True),
    ({"zqs.action_tracer.action_threshold": "2000"}, True, True, False),
    ({"zqs.action_tracer.enabled": "false"}, False, False, False),
])
def test_each_threshold_switches_its_own_detail(page, api, settings, stack, plan, traced):
    metric = page(api.statement(slow=True), {**SLOW, **settings}).metric
    record = metric.sql[-1]
    assert (bool(record.stack), bool(record.plan), bool(metric.trace)) == (stack, plan and bool(api.plan), traced)
    assert record.ms >= 25 and metric.db_ms >= 25


@pytest.mark.parametrize("api", ["mysqli::query", "PDO::query on MySQL"], indirect=True)
@pytest.mark.parametrize("settings", [{"zqs.error_collector.enabled": "false"}, {"zqs.error_collector.record_db_errors": "false"}])
def test_failures_are_not_reported_when_switched_off(page, api, settings):
    metric = page(api.broken, settings).metric
    assert metric.error is None and metric.sql[-1].statement == api.broken
