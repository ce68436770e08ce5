"""Databases that fail, scripts that pass nonsense, plans that cannot be had: the script sees what it would see without the
agent (every run here is compared with one of the bare engine), and the packet stays readable."""
import re

import pytest

from support.cases import cases, line_of, program

EVERYTHING = {"zqs.action_tracer.action_threshold": "1", "zqs.action_tracer.slow_sql_threshold": "0",
              "zqs.action_tracer.stack_trace_threshold": "0"}
EXPLAINED = {**EVERYTHING, "zqs.action_tracer.explain_enabled": "true", "zqs.action_tracer.explain_threshold": "0"}
LINKS = program("database_links.php")


@pytest.fixture
def page(site, request):
    """Runs a program with the agent and without; the servers that it asks for are started."""
    def run(code, settings=EXPLAINED, ini=None, link=""):
        env, used = {"LINK": link}, code + link
        if re.search("(mysqli?|pdo_mysql)(_link|$)", used):
            env["MYSQL_SOCKET"] = str(request.getfixturevalue("mariadb").socket)
        if re.search("(pg|pdo_pg)(_link|$)", used):
            env["PG_DSN"] = request.getfixturevalue("postgres").dsn
        return site.cgi(LINKS + code, ini={"zqs.agent_log_level": "DEBUG", **(ini or {})}, env=env, settings=settings)
    return run


def statements(metric):
    return [record.statement for record in metric.sql]


@pytest.mark.parametrize("code, failing", cases("odd_statements.php"))
def test_odd_statements(page, code, failing):
    """`failing` is the first call whose failure counts as the action's error."""
    metric = page(code, EVERYTHING).metric
    found = statements(metric)
    assert 4 <= len(found) <= 19 and max(map(len, found)) == 16384
    assert {"SELECT 'a", "SELECT \"1\" "} <= set(found) or "->prepare(" in code
    assert (metric.error and metric.error["stack"][0].partition("(")[0]) == failing


@pytest.mark.parametrize("code, error", cases("connection_state.php"))
def test_counters_and_errors_of_the_connection(page, code, error):
    """EXPLAIN is on for all; these calls either take no plan (truth values, mysqli) or lose no state to it."""
    assert page(code).metric.error["class"] == error


@pytest.mark.parametrize("code, words", cases("lost_connections.php"))
def test_connections_that_died(page, code, words):
    metric = page(code).metric
    assert len(metric.sql) == 2 and metric.error["class"] == "DB_ERROR" and re.search(words, metric.error["message"])


def test_links_of_the_wrong_type(page):
    assert page(program("wrong_links.php")).metric.error is None


def test_a_long_statement_that_fails_takes_nothing_of_the_memory_limit(page):
    code = "$sql = str_repeat('x', 6 << 20); $db = new PDO('sqlite::memory:'); $db->query($sql); str_repeat('y', 40 << 20); echo 'end';"
    result = page(code, ini={"memory_limit": "64M"})
    assert result.body == b"end" and len(result.metric.error["message"]) > 2 * (6 << 20)


@pytest.mark.parametrize("link", ["pdo_sqlite", "pdo_mysql", "pdo_pg"])
def test_exception_inside_a_transaction(page, link):
    code = program("transaction.php")
    result = page(code, link=link)
    assert result.body.count(b"guard gone;") == 1 and b"finally;1" in result.body
    error = result.metric.error
    assert error["message"].endswith(". sql=[INSERT INTO t VALUES (?, ?)]")
    assert error["stack"][0].endswith(f"index.php:{line_of(LINKS + code, '$s->execute')})")
    assert statements(result.metric)[-1] == "SELECT count(*) FROM t"


@pytest.mark.parametrize("code, planned", cases("refused_plans.php"))
def test_plans_that_cannot_be_had(page, site, doubles, code, planned):
    metric = page(code, ini=doubles).metric
    assert sum(bool(record.plan) for record in metric.sql) == int(planned) and metric.error is None
    assert ("get pdo explain fail" in site.log()) == ("PDO" in code or "pdo_" in code)
    assert ("pg query explain fail" in site.log()) == ("pg_query" in code)


@pytest.mark.parametrize("code, seen", cases("inside_a_query.php"))
def test_script_code_inside_a_query(page, code, seen):
    result = page(code)
    assert result.body.endswith(b"end") and seen.encode() in result.body and result.metric.sql


def test_a_plan_is_taken_for_the_last_link_and_beside_a_pending_error_handler(page):
    metric = page(program("last_link.php")).metric
    assert [record.plan["dialect"] for record in metric.sql] == ["MySQL", "MySQL"]


def test_names_and_statements_of_any_bytes_leave_a_readable_trace(page):
    metric = page(program("any_bytes.php")).metric
    called = [call[5:7] for call in metric.trace[8]]
    assert ["PDO", "query"] in called and len(metric.sql) == 6


SQL, STACK, CALLER = "SELECT nap(7), 'x'", "stacktrace", "partialtrace"


@pytest.mark.parametrize("settings, ini, traced, details, has_stack", [
    ({}, {}, SQL, {"sql", STACK}, True),
    ({"zqs.action_tracer.record_sql": "obfuscated"}, {}, "SELECT nap(?), '?'", {"sql", STACK}, True),
    ({"zqs.action_tracer.record_sql": "off"}, {}, None, {CALLER}, False),
    ({}, {"zqs.action_tracer.log_sql": "1"}, None, {CALLER}, True),
])
def test_what_each_mode_shows_of_a_statement(page, settings, ini, traced, details, has_stack):
    metric = page(program("slow_statement.php"), {**EVERYTHING, **settings}, ini=ini).metric
    node, = [call for call in metric.trace[8] if call[6] == "querySingle"]
    assert node[7].get("sql") == traced and set(node[7]) == details
    sent = metric.sql[-1]
    assert sent.statement == SQL and bool(sent.stack) == has_stack


def test_a_prepared_statement_is_kept_until_the_next(page):
    assert statements(page(program("prepared.php"), {}).metric) == ["SELECT 1", "SELECT 1", "SELECT 2"]


@pytest.mark.parametrize("code, vendors", cases("vendors.php"))
def test_the_vendor_is_that_of_the_last_known_connection(page, code, vendors):
    assert " ".join(record.db or "-" for record in page(code).metric.sql) == vendors


@pytest.mark.parametrize("calls, kept", [(95, True), (96, False)])
def test_pruning_starts_with_the_101st_call(site, calls, kept):
    """a .. d and a pause make five; the pause, four levels down, takes less than a hundredth of the page."""
    wanted = ["a", "b", "c", "d", "usleep"] if kept else ["a", "b", "c"]
    site.daemon.configure({"zqs.action_tracer.action_threshold": "1"})
    for attempt in range(8):                  # a busy machine traces further calls, and makes the pause a long one
        trace = node = site.cgi(program("pruned.php"), env={"CALLS": str(calls)}).metric.trace
        path = []
        while node[8]:
            node = node[8][0]
            path.append(node[6])
        if len(trace[8]) == calls + 1 and path == wanted:
            break
    assert len(trace[8]) == calls + 1 and path == wanted


@pytest.mark.parametrize("varies, first, limit, least", [
    ("", ["SELECT 1"] * 3, "128M", 200000), ("1", ["SELECT 0", "SELECT 1", "SELECT 2"], "128M", 200000),
    ("1", ["SELECT 0", "SELECT 1", "SELECT 2"], "16M", 25000),
])
def test_a_worker_that_runs_queries_for_hours_stays_bounded(site, varies, first, limit, least):
    runs = 450000
    result = site.cli(program("worker.php"), env={"RUNS": str(runs), "VARIES": varies},
                      ini={"zqs.agent_log_level": "DEBUG", "memory_limit": limit}, settings={})
    found = statements(result.metric)
    assert result.body == b"small;bounded;" and least < len(found) < runs and found[:3] == first
    assert site.log().count("statements of this action are full") == 1
