"""Databases that fail, scripts that pass nonsense, plans that cannot be had: the script sees what it would see without the
agent (every run here is compared with one of the bare engine), and the packet stays readable."""
import json
import re

import pytest

EVERYTHING = {"zqs.action_tracer.action_threshold": "1", "zqs.action_tracer.slow_sql_threshold": "0",
              "zqs.action_tracer.stack_trace_threshold": "0"}
EXPLAINED = {**EVERYTHING, "zqs.action_tracer.explain_enabled": "true", "zqs.action_tracer.explain_threshold": "0"}

SQLITE = ('$db = new PDO("sqlite::memory:"); $db->exec("CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT)"); '
          '$db->exec("INSERT INTO t VALUES (1, \'one\')");\n')
MYSQLI = '$db = new mysqli("localhost", "web", "secret", "shop", 0, "SOCKET");\n'
MYSQL = '$link = @mysql_connect(":SOCKET", "web", "secret"); mysql_select_db("shop", $link);\n'
PDO_MYSQL = '$db = new PDO("MYSQL", "web", "secret");\n'
PG = '$link = pg_connect("DSN");\n'
PDO_PG = '$db = new PDO("PGSQL");\n'
ODD = '''class Text { function __toString() { return "SELECT 'from object'"; } }
function show($what) { $e = error_get_last(); echo is_object($what) ? get_class($what) : gettype($what) . json_encode($what),
    " | ", $e ? "$e[type] $e[message] $e[line]" : "-", "\\n"; }
$odd = array(42, 1.5, null, false, array("SELECT 1"), new Text, new stdClass, "", " ", ";", "SELECT '" . str_repeat("x", 1 << 20) .
    "'", "SELECT 'a\\0b'", "SELECT '\\xff\\xfe'", "SELECT \\"1\\" -- 'x", "-- nothing", "/*/ SELECT 1", "'");
foreach ($odd as $sql) {
    try { %s } catch (Exception $e) { echo get_class($e), $e->getMessage(), $e->getLine(), "\\n"; }
}
'''


@pytest.fixture
def page(site, request):
    """Runs a script with the agent and without; names of servers are filled in, and start them."""
    def run(code, settings=EXPLAINED, **options):
        if re.search("SOCKET|MYSQL", code):
            server = request.getfixturevalue("mariadb")
            code = code.replace("SOCKET", str(server.socket)).replace("MYSQL", server.pdo)
        if re.search("DSN|PGSQL", code):
            server = request.getfixturevalue("postgres")
            code = code.replace("DSN", server.dsn).replace("PGSQL", server.pdo)
        site.daemon.configure(settings)
        return site.cgi(code, ini={"zqs.agent_log_level": "DEBUG", **options.pop("ini", {})}, **options)
    return run


def statements(metric):
    return [record.statement for record in metric.sql]


@pytest.mark.parametrize("code, most", [
    (SQLITE + ODD % "$r = $db->query($sql); show($r ? $r->fetchAll() : $r);", 17),
    (SQLITE + ODD % "show($db->exec($sql));", 17),
    (SQLITE + "$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_WARNING);" + ODD % "show($db->query($sql));", 17),
    (SQLITE + "$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);" +
     ODD % "$r = $db->prepare($sql); show($r ? $r->execute() : $r); show($r ? $r->fetchAll() : $r);", 17),
    ('$db = new SQLite3(":memory:");' + ODD % "show($db->querySingle($sql)); show($db->lastErrorMsg());", 17),
    (MYSQLI + ODD % "$r = $db->query($sql); show($r); show($db->error);", 17),
    (MYSQLI + ODD % "$r = $db->prepare($sql); show($r && $r->execute()); show($db->error);", 17),
    (MYSQL + ODD % "$r = mysql_query($sql, $link); show($r ? mysql_fetch_row($r) : $r); show(mysql_error($link));", 17),
    (PG + ODD % "$r = pg_query($link, $sql); show($r ? pg_fetch_row($r) : $r); show(pg_last_error($link));", 17),
    (PG + ODD % "$r = pg_query_params($link, $sql, array()); show($r ? pg_fetch_row($r) : $r);", 17),
    (PDO_PG + ODD % "$r = $db->query($sql); show($r ? $r->fetchAll() : $r); show($db->errorInfo());", 17),
], ids=["PDO query", "PDO exec", "PDO warnings", "PDO prepare", "SQLite3", "mysqli", "mysqli prepare", "mysql", "pg_query",
        "pg_query_params", "PDO pgsql"])
def test_odd_statements(page, code, most):
    metric = page(code, EVERYTHING).metric
    found = statements(metric)
    assert 4 <= len(found) <= most + 2 and max(map(len, found)) == 16384
    assert {"SELECT 'a", "SELECT \"1\" "} <= set(found) or "prepare" in code
    assert metric.error is None or len(metric.error["stack"]) >= 1


MYSQL_STATE = ('echo json_encode(array($db->affected_rows, $db->insert_id, $db->error, $db->warning_count, $db->info, '
               '$db->query("SELECT FOUND_ROWS()")->fetch_row())), "\\n";')


@pytest.mark.parametrize("code", [
    MYSQLI + '$db->query("CREATE TEMPORARY TABLE n (id INT AUTO_INCREMENT PRIMARY KEY, v INT UNIQUE)"); foreach (array('
             '"INSERT INTO n (v) VALUES (1),(2)", "INSERT INTO n (v) VALUES (2)", "UPDATE n SET v = v + 10", "SELECT * FROM n",'
             '"DELETE FROM n") as $sql) {$db->query($sql);' + MYSQL_STATE + '}',
    MYSQL + 'mysql_query("CREATE TEMPORARY TABLE n (id INT AUTO_INCREMENT PRIMARY KEY, v INT UNIQUE)"); foreach (array('
            '"INSERT INTO n (v) VALUES (1),(2)", "INSERT INTO n (v) VALUES (2)", "UPDATE n SET v = v + 10", "DELETE FROM n") '
            'as $sql) { mysql_query($sql); echo mysql_affected_rows(), " ", mysql_insert_id(), mysql_info(), mysql_error(); }',
    PG + 'pg_query("CREATE TEMP TABLE n (id SERIAL, v INT UNIQUE)"); foreach (array("INSERT INTO n (v) VALUES (1), (2)", '
         '"INSERT INTO n (v) VALUES (2)", "UPDATE n SET v = v + 10", "SELECT lastval()") as $sql) { $r = @pg_query($link, $sql); '
         'echo json_encode(array($r ? array(pg_affected_rows($r), pg_fetch_row($r)) : 0, pg_last_error(), pg_last_notice($link)));}',
    SQLITE + 'foreach (array("INSERT INTO t (v) VALUES (2)", "INSERT INTO t VALUES (1, 2)", "UPDATE t SET v = 3") as $sql) '
             '{ $r = $db->query($sql); echo json_encode(array($r ? $r->rowCount() : 0, $db->lastInsertId(), $db->errorInfo())); }',
], ids=["mysqli", "mysql", "pg", "sqlite"])
def test_counters_and_errors_of_the_connection(page, code):
    """EXPLAIN is on for all; these calls either take no plan (truth values, mysqli) or lose no state to it."""
    assert page(code).metric.error["class"] == "DB_ERROR" or "mysqli" in code


@pytest.mark.parametrize("code, words", [
    (MYSQLI + '@$db->query("KILL CONNECTION_ID()"); usleep(20000); var_dump(@$db->query("SELECT 1"), $db->errno);', "killed|gone"),
    (MYSQL + '@mysql_query("KILL CONNECTION_ID()"); usleep(20000); var_dump(@mysql_query("SELECT 1", $link), '
             'mysql_error($link));', "killed|gone"),
    (PDO_MYSQL + '@$db->query("KILL CONNECTION_ID()"); usleep(20000); var_dump(@$db->query("SELECT 1"), $db->errorInfo());',
     "killed|gone"),
    (PG + '@pg_query("SELECT pg_terminate_backend(pg_backend_pid())"); var_dump(@pg_query($link, "SELECT 1"), pg_last_error());',
     "terminating|closed"),
    (PDO_PG + '@$db->query("SELECT pg_terminate_backend(pg_backend_pid())"); var_dump(@$db->query("SELECT 1"), $db->errorInfo());',
     "terminating|closed"),
], ids=["mysqli", "mysql", "PDO MySQL", "pg", "PDO pgsql"])
def test_connections_that_died(page, code, words):
    metric = page(code).metric
    assert len(metric.sql) == 2 and metric.error["class"] == "DB_ERROR" and re.search(words, metric.error["message"])


@pytest.mark.parametrize("call", [
    'mysql_query("SELECT 1", "no link")', 'mysql_query("SELECT 1", false)', 'mysql_query("SELECT 1", new stdClass)', "mysql_query()",
    'mysqli_query(null, "SELECT 1")', 'mysqli_query(false, "SELECT 1")', 'mysqli_prepare(1, "SELECT 1")',
    'pg_query(false, "SELECT 1")', 'pg_query("SELECT 1")', 'pg_query_params("x", "SELECT 1", array())', 'pg_execute(1, 2, 3)',
    'pg_insert(false, "t", array(1))', "mysqli_stmt_execute(1)",
    "$m = mysqli_init(); $m->query('SELECT 1')", "$m = mysqli_init(); $m->prepare('SELECT 1')",
    "$m = new mysqli_stmt(mysqli_init(), 'SELECT 1'); $m->execute()",
])
def test_links_of_the_wrong_type(page, call):
    metric = page(f'set_error_handler(function ($n, $m) {{ echo "[$n $m]"; }}); var_dump({call.partition("; ")[0]});' +
                  (f'var_dump({call.partition("; ")[2]});' if "; " in call else "") + 'var_dump(error_get_last());').metric
    assert metric.error is None


TRANSACTION = '''$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
class Guard { function __destruct() { echo "guard gone;"; } }
function work($db) {
    $guard = new Guard;
    $db->beginTransaction();
    $db->exec("INSERT INTO t VALUES (2, 'two')");
    $s = $db->prepare("INSERT INTO t VALUES (?, ?)");
    $s->execute(array(1, "secret one"));
    echo "not reached";
}
try { work($db); } catch (PDOException $e) {
    echo get_class($e), $e->getCode(), $e->getMessage(), $e->getLine(), json_encode($e->errorInfo), $e->getTraceAsString();
    var_dump($e->getPrevious(), $db->inTransaction(), $db->rollBack());
} finally { echo "finally;"; }
echo $db->query("SELECT count(*) FROM t")->fetchColumn(); var_dump(error_get_last(), $db->errorInfo());
'''


@pytest.mark.parametrize("prepare", [SQLITE, PDO_MYSQL + '$db->exec("CREATE TEMPORARY TABLE t (id INT PRIMARY KEY, v TEXT)"); '
                                     '$db->exec("INSERT INTO t VALUES (1, 1)");\n',
                                     PDO_PG + '$db->exec("CREATE TEMP TABLE t (id INT PRIMARY KEY, v TEXT)"); '
                                     '$db->exec("INSERT INTO t VALUES (1, 1)");\n'], ids=["SQLite", "MySQL", "PostgreSQL"])
def test_exception_inside_a_transaction(page, prepare):
    result = page(prepare + TRANSACTION)
    assert result.body.count(b"guard gone;") == 1 and b"finally;1" in result.body
    error = result.metric.error
    assert error["message"].endswith(". sql=[INSERT INTO t VALUES (?, ?)]") and error["stack"][0].endswith(f"index.php:{8 + prepare.count(chr(10))})")
    assert result.metric.sql[-1].statement == "SELECT count(*) FROM t"


@pytest.mark.parametrize("code, planned", [
    # the account may read the view, not ask for its plan
    (MYSQL + 'echo json_encode(mysql_fetch_row(mysql_query("SELECT name FROM closed"))), mysql_error();', 0),
    (PDO_MYSQL + 'echo json_encode($db->query("SELECT name FROM closed")->fetchAll()), $db->errorCode();', 0),
    (PDO_MYSQL + 'echo json_encode($db->query("SHOW TABLES")->fetchAll());', 0),
    # a refused EXPLAIN would end the transaction
    (PG + 'pg_query("BEGIN"); pg_query("CREATE TEMP TABLE n AS SELECT 1 AS v"); pg_query("SELECT * INTO TEMP m FROM n"); '
          'pg_query("SET LOCAL work_mem = 1000"); echo pg_fetch_result(pg_query("SELECT v FROM m"), 0), pg_last_error(); '
          'var_dump((bool)pg_query("COMMIT"), pg_fetch_result(pg_query("SELECT count(*) FROM m"), 0), pg_last_error());', 2),
    (PDO_PG + '$db->beginTransaction(); $db->query("CREATE TEMP TABLE n (v INT)"); $db->query("INSERT INTO n VALUES (1)"); '
              '$db->query("LISTEN x"); var_dump($db->query("SELECT v FROM n")->fetchAll(), $db->commit(), $db->errorInfo());', 2),
    # a second statement would run again
    (PG + 'pg_query("CREATE TEMP TABLE n (v INT)"); pg_query("SELECT 1; INSERT INTO n VALUES (1)"); '
          'pg_query("INSERT INTO n VALUES (2); SELECT \'\\\'; -- \'"); echo pg_fetch_result(pg_query("SELECT count(*) FROM n"), 0);', 1),
    (PDO_MYSQL + '$db->exec("CREATE TEMPORARY TABLE n (v INT)"); $r = $db->query("SELECT 1; INSERT INTO n VALUES (1)"); '
                 '$r->nextRowset(); $r = null; echo $db->query("SELECT count(*) FROM n")->fetchColumn();', 1),
    # the vendor is that of another connection, or of none: a driver is asked only if it is known itself
    ('$db = new PDO("sqlite::memory:"); $r = $db->query("SELECT 1; SELECT 2"); echo json_encode($r->fetchAll());', 0),
    (f'file_put_contents("dsn", "sqlite::memory:"); $db = new PDO("uri:file://" . getcwd() . "/dsn"); $db->query("SELECT 1");', 0),
], ids=["view", "PDO view", "SHOW", "pg transaction", "PDO pgsql transaction", "pg two", "PDO MySQL two", "PDO SQLite two",
        "unknown vendor"])
def test_plans_that_cannot_be_had(page, site, code, planned):
    metric = page(code).metric
    assert sum(bool(record.plan) for record in metric.sql) == planned and metric.error is None
    assert ("get pdo explain fail" in site.log()) == ("new PDO" in code)
    assert ("pg query explain fail" in site.log()) == ("pg_query" in code)


@pytest.mark.parametrize("code", [
    # statement objects, connections and error texts of the script's own
    '''class Rows extends PDOStatement { protected function __construct() { echo "made;"; } function __destruct() { echo "gone;"; } }
    class Db extends PDO { function query($s) { echo "query;"; return parent::query($s); } function errorInfo() { echo "info;"; } }
    $db = new Db("sqlite::memory:"); $db->setAttribute(PDO::ATTR_STATEMENT_CLASS, array("Rows"));
    $db->query("SELECT 1"); $db->query("SELEC 2"); $r = $db->query("SELECT 3"); $r = null; echo "end";''',
    # code of the script in the middle of a query
    SQLITE + '$db->sqliteCreateFunction("f", function () { throw new Exception("inner"); }); '
             'try { $db->query("SELECT f()"); } catch (Exception $e) { echo $e->getMessage(), $e->getLine(); } echo "end";',
    SQLITE + '$db->sqliteCreateFunction("f", function () use ($db) { $db->query("SELECT 7")->fetchAll(); return 8; });'
             'echo $db->query("SELECT f()")->fetchColumn(), "end";',
    SQLITE + '$db->sqliteCreateFunction("f", function () { exit("end"); }); $db->query("SELECT f()");',
    SQLITE + 'register_shutdown_function(function () { echo "end"; }); '
             '$db->sqliteCreateFunction("f", function () { undefined(); }); $db->query("SELECT f()");',
], ids=["own classes", "exception", "query in a query", "exit", "fatal error"])
def test_script_code_inside_a_query(page, code):
    result = page(code)
    assert result.body.endswith(b"end") and result.metric.sql


def test_a_plan_is_taken_for_the_last_link_and_beside_a_pending_error_handler(page):
    metric = page(MYSQL + 'set_error_handler(function () { echo "seen"; }); $r = mysql_query("SELECT * FROM users WHERE id = 1"); '
                  'echo json_encode(mysql_fetch_row($r)); echo mysql_result(mysql_query("SELECT 7"), 0);').metric
    assert [record.plan["dialect"] for record in metric.sql] == ["MySQL", "MySQL"]


def test_names_and_statements_of_any_bytes_leave_a_readable_trace(page, site):
    path = site.docroot / 'a "b"\\c\'d\n.php'
    path.write_bytes(b'<?php class \xc3\x89t\xff { static function \x80run($db) { usleep(2000); $db->query("SELECT \'\xff\\0\\x01\\\\\\"\' '
                     b'FROM \\"\xc3\xa9\\\\t\\"", PDO::FETCH_ASSOC); return $db->query("SELECT 1 FROM [a\\"b]"); } } \xc3\x89t\xff::\x80run($db);')
    metric = page(SQLITE + '$db->sqliteCreateFunction("nap", "nap"); function nap() { usleep(3000); return 1; } '
                  '$db->query("SELECT nap() FROM \\"t\\"")->fetchAll(); '
                  f'include {json.dumps(str(path))}; $db->query("SELECT nap(), \'\\xff\', \\"v\\" FROM [t]");').metric
    text = json.dumps(metric.trace)
    assert metric.trace[8] and '"PDO", "query"' in text and len(metric.sql) == 6


@pytest.mark.parametrize("settings, ini, trace, record", [
    ({}, {}, {"sql": "SELECT nap(7), 'x'", "stack": True}, True),
    ({"zqs.action_tracer.record_sql": "obfuscated"}, {}, {"sql": "SELECT nap(?), '?'", "stack": True}, True),
    ({"zqs.action_tracer.record_sql": "off"}, {}, {"partialtrace": True}, False),
    ({}, {"zqs.action_tracer.log_sql": "1"}, {"partialtrace": True}, True),
])
def test_what_each_mode_shows_of_a_statement(page, settings, ini, trace, record):
    metric = page('function nap() { usleep(5000); return 1; } $db = new SQLite3(":memory:"); $db->createFunction("nap", "nap"); '
                  '$db->querySingle("SELECT nap(7), \'x\'");', {**EVERYTHING, **settings}, ini=ini).metric
    node, = [child for child in metric.trace[8] if child[6] == "querySingle"]
    assert node[7].get("sql") == trace.get("sql") and ("stacktrace" in node[7]) == ("stack" in trace)
    assert ("partialtrace" in node[7]) == ("partialtrace" in trace)
    sent, = metric.sql
    assert sent.statement == "SELECT nap(7), 'x'" and bool(sent.stack) == record


def test_a_prepared_statement_is_kept_until_the_next(page):
    metric = page(MYSQLI + '@mysqli_stmt_execute(mysqli_stmt_init($db)); $a = $db->prepare("SELECT 1"); $a->execute(); $a->store_result(); '
                  '$a->execute(); $a->store_result(); $b = mysqli_prepare($db, "SELECT 2"); $a->execute();', {}).metric
    assert statements(metric) == ["SELECT 1", "SELECT 1", "SELECT 2"]


@pytest.mark.parametrize("code, vendors", [
    ('$a = new PDO("sqlite::memory:"); $a->exec("SELECT 1"); try { $b = new PDO("mysql:unix_socket=/none"); } catch (Exception $e) {}'
     '$a->exec("SELECT 2"); try { new PDO("SQLite:x"); } catch (Exception $e) {} $a->query("SELECT 3");', ["SQLite", "MySQL", "MySQL"]),
    ('file_put_contents("dsn", "sqlite::memory:"); $a = new PDO("uri:file://" . getcwd() . "/dsn"); $a->exec("SELECT 1"); '
     '$b = new PDO("sqlite::memory:"); $a->exec("SELECT 2");', ["", "SQLite"]),
])
def test_the_vendor_is_that_of_the_last_known_connection(page, code, vendors):
    assert [record.db for record in page(code).metric.sql] == vendors


@pytest.mark.parametrize("calls, kept", [(95, True), (96, False)])
def test_pruning_starts_with_the_101st_call(page, calls, kept):
    """a .. d and a pause make five; the pause, four levels down, takes less than a hundredth of the page."""
    code = ("function a() { b(); } function b() { c(); } function c() { d(); } function d() { usleep(2000); } a();"
            f"for ($i = 0; $i < {calls}; $i++) usleep(5000);")
    wanted = ["a", "b", "c", "d", "usleep"] if kept else ["a", "b", "c"]
    for attempt in range(8):                  # a busy machine traces further calls, and makes the pause a long one
        trace = node = page(code, {"zqs.action_tracer.action_threshold": "1"}).metric.trace
        path = []
        while node[8]:
            node = node[8][0]
            path.append(node[6])
        if len(trace[8]) == calls + 1 and path == wanted:
            break
    assert len(trace[8]) == calls + 1 and path == wanted


@pytest.mark.parametrize("statement", ['"SELECT 1"', '"SELECT $i"'])
def test_a_worker_that_runs_queries_for_hours_stays_bounded(site, statement):
    runs = 450000
    site.daemon.configure({})
    result = site.cli(f'''$db = new SQLite3(":memory:"); $before = memory_get_usage();
        for ($i = 0; $i < 10000; $i++) $db->querySingle({statement});
        echo (memory_get_usage() - $before) / 10000 <= 200 ? "small;" : "large;";
        for ($i = 10000; $i < {runs}; $i++) $db->querySingle({statement});
        echo memory_get_usage() - $before < 48 << 20 ? "bounded;" : "unbounded;";
        $db->querySingle("SELECT '" . str_repeat("x", 1 << 20) . "'"); usleep(1);''', ini={"zqs.agent_log_level": "DEBUG"})
    found = statements(result.metric)
    assert result.body == b"small;bounded;" and 200000 < len(found) < runs
    assert found[:3] == (["SELECT 1"] * 3 if "1" in statement else ["SELECT 0", "SELECT 1", "SELECT 2"])
    assert site.log().count("statements of this action are full") == 1
