"""Scripts that leave by every door and call in every way: what they show is the same with the agent, and it reports them."""
import pytest

from soak import scenarios
from support import wire
from support.cases import cases, program
from support.engines import ENGINE, Fpm

INI = {"memory_limit": "32M", "display_errors": "1", "html_errors": "0", "log_errors": "1", "error_log": "/dev/stderr"}
TRACED = {"zqs.action_tracer.action_threshold": "1", "zqs.error_collector.enabled": "1", "zqs.transaction_tracer.enabled": "1"}


@pytest.mark.parametrize("code, _", cases("scripts.php"))
def test_scripts_run_as_without_the_agent(site, code, _):
    assert site.cgi(code, ini=INI, settings=TRACED).metric.action == "WebAction/URI/index.php"
    assert site.cli(code, ini=INI).metrics


@pytest.mark.parametrize("code, names", cases("timed.php"))
def test_calls_are_timed_under_their_names(site, code, names):
    components, traced = names.split(";")
    metric = site.cgi(code, settings=TRACED).metric
    assert set(metric.components) - {"PHP/NULL/compile", "PHP/NULL/remainder code"} == {"PHP/" + c for c in components.split()}
    nodes = {f"{node[5]}::{node[6]}" for node in wire.nodes(metric.trace)}
    assert nodes - {"PHP::compile"} == {"PHP::execute", "::usleep", *traced.split()}


@pytest.mark.parametrize("code, expected", cases("ended.php"))
def test_calls_that_never_return_are_timed_to_their_end(site, code, expected):
    """And those that shutdown functions make behind them as ever."""
    metric = site.cgi(code, settings=TRACED, ini={**INI, "display_errors": "0", "max_execution_time": "1"}, twin=False).metric
    made = ("run", "show", "__destruct", "leave", "array_map", "include", "down")     # others are slow on a busy machine alone
    assert " ".join(f"{node[5]}::{node[6]}" for node in wire.nodes(metric.trace) if node[6] in made) == expected
    assert {f"PHP/{name.replace('::', '/')}" for name in ("App::run", "Late::down")} <= set(metric.components)
    assert metric.components["PHP/App/run"][0] >= 2


@pytest.mark.parametrize("leaves", ["exit;", "missing();", "set_time_limit(1); while (true);"])
def test_a_statement_that_never_returns_is_recorded(site, leaves):
    """What the database was asked when the script ended inside the call: its time is the database's, not the caller's."""
    script = f"""function find($db) {{ $db->query("SELECT leave()"); }}
$db = new PDO('sqlite::memory:');
$db->sqliteCreateFunction('leave', function () {{ usleep(20000); {leaves} }});
find($db);"""
    metric = site.cgi(script, settings={**TRACED, "zqs.details": "1"}, ini={**INI, "display_errors": "0"}, twin=False).metric
    assert [(sql.db, sql.statement) for sql in metric.sql] == [("SQLite", "SELECT leave()")]
    assert metric.db_ms == metric.sql[0].ms >= 20
    assert [place[::2] for place in metric.more["ran_at"]] == [("SQLite", 1)] and metric.more["db_us"] >= 20000
    assert [node[6] for node in wire.nodes(metric.trace) if node[6] in ("find", "query", "{closure}")] == ["find", "query", "{closure}"]
    total, own = metric.components["PHP/NULL/find"]
    assert total >= 20 > own, metric.components


@pytest.mark.parametrize("shows_errors, code, traced", [
    ("0", "exit;", ["run", "show"]),
    ("0", "missing();", ["run", "show"]),
    ("1", "exit;", ["run", "show"]),
    ("1", "missing();", []),                            # Xdebug then has the engine's error callback, and calls nobody else
])
@pytest.mark.parametrize("order", ["agent xdebug", "xdebug agent"])
def test_calls_that_never_return_are_timed_beside_xdebug(site, order, shows_errors, code, traced):
    script = f"function run() {{ usleep(3000); show(); }} function show() {{ usleep(3000); {code} }} run();"
    ini = {**INI, **scenarios.neighbour_settings(order, shows_errors), **scenarios.QUIET}
    result = site.cgi(script, settings=TRACED, ini=ini)
    assert [node[6] for node in wire.nodes(result.metric.trace) if node[6] in ("run", "show")] == traced
    assert ("PHP/NULL/run" in result.metric.components) == bool(traced), result.metric.components


def test_thin_layers_keep_their_order(site):
    """Calls that begin and end within the same microseconds; few enough at once that none is left out."""
    layers = ["Front::run", "Orders::show", "Service::load", "Repository::find", "Table::select", "Link::ask", "::usleep"]
    code = "".join(f"class {cls} {{ static function {func}() {{ {inner}({'2000' * (cls == 'Link')}); }} }}"
                   for (cls, func), inner in zip([layer.split("::") for layer in layers[:-1]], layers[1:-1] + ["usleep"]))
    server, wrong = site.serve(Fpm), []
    site.daemon.configure(TRACED)
    for _ in range(40):
        chains = server.get(code + "for ($i = 0; $i < 10; $i++) Front::run();", twin=False).metric.trace[8]
        chains = [chain for chain in chains if chain[6] != "compile"]
        assert len(chains) == 10
        wrong += [found for found in ([f"{node[5]}::{node[6]}" for node in wire.nodes(chain)] for chain in chains) if found != layers]
    assert wrong == []


def test_an_action_threshold_of_zero_is_the_default(site):
    assert site.cgi("usleep(2000);", settings={"zqs.action_tracer.action_threshold": "0"}).metric.trace is None


@pytest.mark.parametrize("closed", ["<&-", ">&-", "2>&-", "<&- >&- 2>&-", ""])
def test_standard_descriptors_that_are_closed_stay_free_for_the_script(site, closed):
    """Started without them, or closed by a script that becomes a daemon: the next file it opens gets the number."""
    code = "" if closed else "fclose(STDIN); fclose(STDOUT); fclose(STDERR);"
    script = site.script(code + program("daemon.php"), "job.php")
    seen = [(site.run(["sh", "-c", f'"$@" {closed}', "sh", ENGINE / "bin/php", "-c", site.ini_file(agent), script]),
             [path.read_bytes() for path in sorted(site.docroot.glob("*.log"))]) for agent in (False, True)]
    for result, _ in seen:
        result.ms = 0
    assert seen[0] == seen[1]
    site.daemon.settle()
    assert len(site.daemon.received(wire.Metric)) == 4
