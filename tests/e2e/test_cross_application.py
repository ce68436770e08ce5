"""One transaction across applications: the answer of a called application in every server, and two that call each other."""
import json

import pytest

from engines import ENGINE, Apache, BuiltIn, FastCgi, Fpm, Site, web_environment
from fake_daemon import wait_until
from peer import Peer, http_answer
from test_daemon import real  # noqa: F401 (a fixture)

CALLEE = {"zqs.vantorIdSecret": "12|34", "zqs.action_tracer.enabled": "1", "zqs.error_collector.enabled": "1"}
CALLER = {"X-Vantor-Id": "12|99;c=1;x=abc123"}
NAME = "x-vantor-tx-data"


def answers_in(result):
    return [json.loads(value) for name, value in result.headers if name.lower() == NAME]


def others(result):
    return sorted((name.lower(), value) for name, value in result.headers if name.lower() not in (NAME, "date", "host"))


# page: (script, an answer goes out); an own header callback replaces ours, then the shutdown function is the last chance
PAGES = {
    "plain": ("echo 'page';", True),
    "no output": ("", True),
    "flushes early": ("echo 'one'; flush(); echo 'two';", True),
    "flushes its buffers": ("ob_start(); echo 'one'; ob_end_flush(); flush(); header_remove('X-A'); echo 'two';", True),
    "headers of its own": ("header('X-A: 1'); header('X-A: 2', false); header_remove('X-Powered-By'); echo 'page';", True),
    "removes all headers": ("header('X-A: 1'); header_remove(); echo 'page';", True),
    "a callback of its own": ("header_register_callback(function () { header('X-A: 1'); }); ob_start(); echo 'page';", True),
    "a callback of its own, unbuffered": ("header_register_callback(function () { header('X-A: 1'); }); echo 'page';", False),
    "exit": ("header('X-A: 1'); echo 'page'; exit(3);", True),
    "redirect": ("header('Location: /elsewhere'); exit;", True),
    "not found": ("http_response_code(404); echo 'gone';", True),
    "fatal error": ("ini_set('display_errors', 0); nothing();", True),
    "exception": ("ini_set('display_errors', 0); throw new Exception('x');", True),
    "warning": ("ini_set('display_errors', 1); ini_set('html_errors', 0); echo 1 / 0;", True),
    "big": ("for ($i = 0; $i < 300; $i++) echo str_repeat('x', 1000);", True),
    "calls ours itself": ("zqprof_headercall(); zqprof_rshutdowncall(); zqprof_headercall(); echo 'page';", True),
}


@pytest.fixture(scope="module")
def stock():
    """The called application, in each server as it is asked for; the servers stay up for all pages."""
    site, pairs = Site(**{"zqs.app_name": "Stock"}), {}
    site.daemon.configure(CALLEE)

    def serve(kind):
        if kind not in pairs:
            pairs[kind] = site.serve(kind, {"output_buffering": "0"})
        return pairs[kind]

    yield serve
    site.close()


@pytest.mark.parametrize("kind", [FastCgi, Fpm, BuiltIn, Apache], ids=lambda kind: kind.__name__)
@pytest.mark.parametrize("page", PAGES)
def test_answer_of_a_called_application(stock, kind, page):
    code, answered = PAGES[page]
    twin_code = "foreach (array('headercall', 'rshutdowncall') as $f) if (!function_exists(\"zqprof_$f\")) { eval(\"function zqprof_$f() { }\"); }"
    pair = stock(kind)
    result = pair.get((twin_code if "zqprof" in code else "") + code, headers=CALLER, twin=False)
    bare = pair.bare.request(pair.site.docroot / "index.php", "/index.php", headers=CALLER)
    assert (result.status, result.body, others(result)) == (bare.status, bare.body, others(bare))
    found = answers_in(result)
    assert len(found) == answered
    for answer in found:
        assert list(answer) == ["id", "action", "trId", "time"]
        assert (answer["id"], answer["action"]) == ("34", result.metric.action)
        assert list(answer["time"]) == ["duration", "qu", "db", "code"]
        assert answer["time"]["duration"] == answer["time"]["code"] <= result.metric.duration_ms
        assert answer["time"]["qu"] == answer["time"]["db"] == 0


def raw_values(result):
    return [value for name, value in result.headers if name.lower() == NAME]


# identity: (header, accepted, transaction id, "r"); null id: one is made up
IDENTITIES = {
    "of the account": ("12|99;c=1;x=abc", "abc", None),
    "with a request id": ("12|99;c=1;x=abc;r=7", "abc", 7),
    "order does not matter": ("12|99;r=8;c=1;x=abc", "abc", 8),
    "without an id": ("12|99;c=1", "", None),
    "with an empty id": ("12|99;c=1;x=;r=", "", None),
    "only the account": ("12", "", None),
    "of another account": ("13|99;c=1;x=abc", None, None),
    "of a shorter account": ("1|2;c=1;x=abc", None, None),
    "empty": ("", None, None),
    "forged": (";c=1;x=12|34", None, None),
    "long": ("12|99;c=1;x=" + "a" * 60000, "a" * 60000, None),
    "bytes": ("12|99;c=1;x=\x80\xff\x7f'\"\\%s%n", "\x80\xff\x7f'\"\\%s%n", None),
}


@pytest.mark.parametrize("case", IDENTITIES)
def test_incoming_identity(site, case):
    identity, transaction, request_id = IDENTITIES[case]
    site.daemon.configure({**CALLEE, "zqs.action_tracer.action_threshold": "1"})
    accepted = transaction is not None
    result = site.cgi("usleep(3000); echo 'page';", env={"HTTP_X_VANTOR_ID": identity}, differs=("headers",) if accepted else ())
    found = answers_in(result)
    assert len(found) == accepted
    if accepted:
        made_up = result.metric.transaction_id
        assert made_up == transaction.encode("utf-8").decode("utf-8", "surrogateescape") if transaction else len(made_up) >= 2
        assert found[0].get("r") == request_id and found[0]["trId"] == result.metric.tracer_id and found[0]["tr"] == 1


@pytest.mark.parametrize("env, uri", [
    ({"HTTP_X_VANTOR_ID": "12|9;c=1;x=a;r=1\r\nX-Evil: 1"}, "/index.php"),
    ({"HTTP_X_VANTOR_ID": "12|9;c=1;x=a"}, "/a\r\nX-Evil: 1/b\n\nbody"),
    ({"HTTP_X_VANTOR_ID": "12|9;c=1;x=a\r\nX-Evil: 1"}, "/\x01\x1f"),
])
def test_nothing_a_visitor_sends_can_split_the_answer(site, env, uri):
    site.daemon.configure(CALLEE)
    result = site.cgi("echo 'page';", uri, env=env, twin=False)
    assert result.body == b"page" and len(raw_values(result)) == 1
    assert {name.lower() for name, _ in result.headers} == {NAME, "x-powered-by", "content-type"}
    assert not [ch for ch in raw_values(result)[0] if ch < " "]


def test_answer_says_where_the_time_went(site):
    peer = Peer(http_answer(lines=()), delay_ms=30)
    site.daemon.configure(CALLEE)
    result = site.cgi(f"$d = new PDO('sqlite::memory:'); $d->sqliteCreateFunction('nap', function () {{ usleep(20000); return 1; }});"
                      f"$d->exec('SELECT nap()'); file_get_contents('{peer.url()}'); usleep(10000);", headers=CALLER, twin=False)
    peer.close()
    time = answers_in(result)[0]["time"]
    assert list(time) == ["duration", "qu", "db", "ex", "code"]
    assert time["ex"] == result.metric.calls_ms >= 30 and time["db"] == result.metric.db_ms >= 20
    assert time["code"] == time["duration"] - time["ex"] - time["db"] >= 10


# ---- two applications ----

TRACED = {"zqs.vantorIdSecret": "12|34", "zqs.transaction_tracer.enabled": "1", "zqs.action_tracer.enabled": "1",
          "zqs.action_tracer.action_threshold": "1"}
ITEM = "usleep(4000); echo 'item';"
SOAP_SERVICE = """class Stock { function count($name) { usleep(4000); return strlen($name); } }
$server = new SoapServer(null, array('uri' => 'urn:stock')); $server->setClass('Stock'); $server->handle();"""
JOINTS = {
    "curl": ("$c = curl_init('$URL'); curl_setopt($c, CURLOPT_RETURNTRANSFER, 1); echo curl_exec($c);", ITEM),
    "file_get_contents": ("echo file_get_contents('$URL');", ITEM),
    "fopen": ("echo stream_get_contents(fopen('$URL', 'r'));", ITEM),
    "SoapClient": ("$s = new SoapClient(null, array('location' => '$URL', 'uri' => 'urn:stock')); echo $s->count('item');",
                   SOAP_SERVICE),
    "nusoap": ("require '/usr/share/php/nusoap/nusoap.php'; error_reporting(0); $s = new nusoap_client('$URL');"
               "echo $s->call('count', array('name' => 'item'), 'urn:stock');", SOAP_SERVICE),
}


@pytest.fixture
def callee():
    site = Site(**{"zqs.app_name": "Stock"})
    site.daemon.configure({**TRACED, "zqs.vantorIdSecret": "12|56"})
    server = BuiltIn(site, site.ini_file(True), True)
    site.servers.append(server)
    server.start()
    yield site, server
    site.close()


def trace_nodes(node):
    yield node
    for child in node[8]:
        yield from trace_nodes(child)


@pytest.mark.parametrize("joint", JOINTS)
def test_two_applications_share_one_transaction(site, callee, joint):
    """The call, its answer and both traces carry one id; each side knows the other's trace."""
    call, service = JOINTS[joint]
    stock, server = callee
    stock.script(service, "item.php")
    site.daemon.configure(TRACED)
    result = site.cgi(call.replace("$URL", f"http://127.0.0.1:{server.port}/item.php"), twin=False)
    assert result.body in (b"item", b"4")
    mine, (theirs,) = result.metric, stock.daemon.wait_metrics()
    assert mine.transaction_id == theirs.transaction_id and mine.tracer_id != theirs.tracer_id
    one, = mine.calls
    assert (one.callee_id, one.callee_action) == ("56", theirs.action) == ("56", "WebAction/URI/item.php")
    node, = [n for n in trace_nodes(mine.trace) if n[2].startswith("External/")]
    assert node[7]["txId"] == mine.transaction_id
    data = node[7]["txData"]
    assert (data["tr"], data["trId"], data["action"]) == (1, theirs.tracer_id, theirs.action)
    assert 4 <= data["time"]["duration"] <= min(theirs.duration_ms, one.ms) and one.ms <= mine.duration_ms


def test_a_slow_callee_makes_a_fast_caller_send_its_trace(site, callee):
    stock, server = callee
    stock.script(ITEM, "item.php")
    site.daemon.configure({**TRACED, "zqs.action_tracer.action_threshold": "100000"})
    metric = site.cgi(f"echo file_get_contents('http://127.0.0.1:{server.port}/item.php');", twin=False).metric
    assert metric.trace and metric.transaction_id == stock.daemon.wait_metrics()[0].transaction_id


def test_the_daemon_joins_both_halves(real):
    """`show` of either action prints the other's trace as well."""
    site = real.site
    (real.logs / "applications.conf").write_text("[*]\n" + "".join(f"{key} = {value}\n" for key, value in TRACED.items()))
    real.php()                                    # starts the daemon
    wait_until(lambda: real.pids(), "the daemon")
    server = BuiltIn(site, site.ini_file(True), True)
    site.servers.append(server)
    server.start()
    site.script(ITEM, "item.php")
    page = site.script(f"echo file_get_contents('http://127.0.0.1:{server.port}/item.php');", "page.php")
    result = site.run([ENGINE / "bin/php-cgi", "-c", site.ini_file(True)], env=web_environment(page, "/page.php"), web=True)
    assert result.body == b"item"

    def of(name):
        return [action for action in json.loads(real.command("show", "--json") or "[]") if action["action"].endswith(name)]

    wait_until(lambda: of("page.php") and of("item.php"), "both actions")
    (caller,), (called,) = of("page.php"), of("item.php")
    for action, half, other in ((caller, "Callee", called), (called, "Caller", caller)):
        text = real.command("show", str(action["id"]))
        assert f"{half}: trace of action {other['id']}" in text and f"{other['action']}, " in text, text
