"""One transaction across applications: the answer of a called application in every server, and two that call each other."""
import json

import pytest

from support import wire
from support.cases import cases, program
from support.engines import ENGINE, Apache, BuiltIn, FastCgi, Fpm, Site, web_environment
from support.fake_daemon import PLAIN, wait_until

CALLEE = {"zqs.vantorIdSecret": "12|34", "zqs.action_tracer.enabled": "1", "zqs.error_collector.enabled": "1",
          "zqs.action_tracer.action_threshold": "1"}
CALLER = {"X-Vantor-Id": "12|99;c=1;x=abc123"}
TRACED = {**CALLEE, "zqs.transaction_tracer.enabled": "1"}
ITEM = program("applications/item.php")
NAME = "x-vantor-tx-data"


def raw_answers(result):
    return [value for name, value in result.headers if name.lower() == NAME]


def answers_in(result):
    return [json.loads(value) for value in raw_answers(result)]


def others(result):
    return sorted((name.lower(), value) for name, value in result.headers if name.lower() not in (NAME, "date", "host"))


def start_server(site, script="item.php"):
    site.servers.append(BuiltIn(site, site.ini_file(True), True))
    site.servers[-1].start()
    return f"http://127.0.0.1:{site.servers[-1].port}/{script}"


@pytest.fixture(scope="module")
def stock():
    """The called application, in each server as it is asked for; the servers stay up for all pages."""
    site, pairs = Site(**{"zqs.app_name": "Stock"}), {}
    site.daemon.configure({**CALLEE, "zqs.action_tracer.action_threshold": "60000"})

    def serve(kind):
        if kind not in pairs:
            pairs[kind] = site.serve(kind, {"output_buffering": "0"})
        return pairs[kind]

    yield serve
    site.close()


@pytest.mark.parametrize("kind", [FastCgi, Fpm, BuiltIn, Apache], ids=lambda kind: kind.__name__)
@pytest.mark.parametrize("code, answers", cases("applications/pages.php"))
def test_answer_of_a_called_application(stock, kind, code, answers):
    result = stock(kind).get(code, headers=CALLER, differs=["headers"] * int(answers))
    found = answers_in(result)
    assert len(found) == int(answers) and others(result) == others(result.bare)
    for answer in found:
        assert list(answer) == ["id", "action", "trId", "time"]
        assert (answer["id"], answer["action"]) == ("34", result.metric.action)
        assert list(answer["time"]) == ["duration", "qu", "db", "code"]
        assert answer["time"]["duration"] == answer["time"]["code"] <= result.metric.duration_ms
        assert answer["time"]["qu"] == answer["time"]["db"] == 0


# identity: (transaction id, or None when it is not accepted; request id); one that is empty is made up
IDENTITIES = {
    "12|99;c=1;x=abc": ("abc", None),
    "12|99;r=8;c=1;x=abc": ("abc", 8),
    "12|99;c=1;x=;r=": ("", None),
    "12": ("", None),
    "13|99;c=1;x=abc": (None, None),
    "1|2;c=1;x=abc": (None, None),
    ";c=1;x=12|34": (None, None),
    "12|99;c=1;x=" + "a" * 60000: ("a" * 60000, None),
    "12|99;c=1;x=\x80\xff\x7f'\"\\%s%n": ("\x80\xff\x7f'\"\\%s%n", None),
}


@pytest.mark.parametrize("identity", IDENTITIES, ids=lambda identity: identity[:20].encode("unicode_escape").decode())
def test_incoming_identity(site, identity):
    transaction, request_id = IDENTITIES[identity]
    accepted = transaction is not None
    result = site.cgi(ITEM, env={"HTTP_X_VANTOR_ID": identity}, differs=("headers",) * accepted, settings=CALLEE)
    found = answers_in(result)
    assert len(found) == accepted
    for answer in found:
        given = result.metric.transaction_id
        assert given == transaction if transaction else len(given) >= 2
        assert (answer.get("r"), answer["trId"], answer["tr"]) == (request_id, result.metric.tracer_id, 1)


@pytest.mark.parametrize("disabled, answers", [
    ("zqprof_rshutdowncall,zqprof_headercall", 0), ("zqprof_headercall", 1), ("header_register_callback", 1),
    ("register_shutdown_function,header_register_callback", 0),
])
def test_disabled_functions_only_lose_the_answer(site, disabled, answers):
    """Nothing is printed about them: the script has not called them."""
    site.daemon.configure(CALLEE)
    result = site.cgi("", headers=CALLER, ini={"disable_functions": disabled}, differs=("headers",) * answers)
    assert len(answers_in(result)) == answers and result.monitored


@pytest.mark.parametrize("identity, uri", [
    ("12|9;c=1;x=a;r=1\r\nX-Evil: 1", "/index.php"),
    ("12|9;c=1;x=a", "/a\r\nX-Evil: 1/b\n\nbody"),
    ("12|9;c=1;x=a\r\nX-Evil: 1", "/\x01\x1f"),
])
def test_nothing_a_visitor_sends_can_split_the_answer(site, identity, uri):
    result = site.cgi("echo 'page';", uri, env={"HTTP_X_VANTOR_ID": identity}, twin=False, settings=CALLEE)
    answer, = raw_answers(result)
    assert result.body == b"page" and not [ch for ch in answer if ch < " "]
    assert {name.lower() for name, _ in result.headers} == {NAME, "x-powered-by", "content-type"}



@pytest.fixture
def callee():
    site = Site(**{"zqs.app_name": "Stock"})
    site.daemon.configure({**TRACED, "zqs.vantorIdSecret": "12|56"})
    yield site
    site.close()


@pytest.mark.parametrize("code, service", cases("applications/callers.php"))
def test_two_applications_share_one_transaction(site, callee, code, service):
    """The call, its answer and both traces carry one id; each side knows the other's trace."""
    name = "it's\"\\u0041.php"                        # the name of a file, whatever it looks like
    callee.script(program(f"applications/{service}.php"), name)
    url = start_server(callee, name).replace("\\", "\\\\").replace("'", "\\'")
    result = site.cgi(code.replace("$URL", url), twin=False, settings=TRACED)
    assert result.body in (b"item", b"4")
    mine, (theirs,) = result.metric, callee.daemon.wait_metrics()
    assert mine.transaction_id == theirs.transaction_id and mine.tracer_id != theirs.tracer_id
    one, = mine.calls
    assert (one.callee_id, one.callee_action) == ("56", theirs.action) == ("56", "WebAction/URI/" + name.replace("0041", "*"))
    node, = [node for node in wire.nodes(mine.trace) if node[2].startswith("External/")]
    data = node[7]["txData"]
    assert (node[7]["txId"], data["tr"]) == (mine.transaction_id, 1)
    assert (data["trId"], data["action"]) == (theirs.tracer_id, theirs.action)
    assert 4 <= data["time"]["duration"] <= min(theirs.duration_ms, one.ms) and one.ms <= mine.duration_ms


def test_the_daemon_joins_both_halves(real):
    """`show` of either action prints the other's trace as well."""
    site = real.site
    (real.logs / "applications.conf").write_text("[*]\n" + "".join(f"{key} = {value}\n" for key, value in {**PLAIN, **TRACED}.items()))
    real.php()                                    # starts the daemon
    wait_until(lambda: real.pids(), "the daemon")
    site.script(ITEM, "item.php")
    page = site.script(f"echo file_get_contents('{start_server(site)}');", "page.php")
    site.run([ENGINE / "bin/php-cgi", "-c", site.ini_file(True)], env=web_environment(page, "/page.php"), web=True)

    def of(name):
        return [action for action in json.loads(real.command("show", "--json") or "[]") if action["action"].endswith(name)]

    wait_until(lambda: of("page.php") and of("item.php"), "both actions")
    (caller,), (called,) = of("page.php"), of("item.php")
    for action, half, other in ((caller, "Callee", called), (called, "Caller", caller)):
        text = real.command("show", str(action["id"]))
        assert f"{half}: trace of action {other['id']}" in text and f"{other['action']}, " in text, text
    assert TRACED["zqs.vantorIdSecret"] not in real.command("status")
