"""Outgoing calls: what is recorded of each client library's, what goes out with it, and what comes back.

Each script runs with the agent and, as its twin, without: it prints whatever it can see of its own values, and both must
print the same."""
import json
import re
from pathlib import Path

import pytest

from peer import ANSWER_LINE, CALLEE, Peer, ThriftPeer, WebSocketPeer, http_answer

SECRET = "12|34"
TRACING = {"zqs.vantorIdSecret": SECRET, "zqs.transaction_tracer.enabled": "1", "zqs.action_tracer.enabled": "1",
           "zqs.action_tracer.action_threshold": "1"}
NUSOAP_PREFIX = re.compile(rb"ns\d+")      # made up per call
IDENTITY = re.compile(rb"X-Vantor-Id: 12\|34;c=1;x=([0-9a-f]{2,16})\r\n")

CURL = "curl_setopt($c, CURLOPT_RETURNTRANSFER, true); var_dump(curl_exec($c));"
OPTIONS = "print_r(stream_context_get_options(%s));"
SOAP = """
$options = array('location' => '$URL', 'uri' => 'urn:stock'); %s
$client = new SoapClient(null, $options);
try { var_dump($client->count('a', 2)); } catch (SoapFault $fault) { echo $fault->getMessage(); }
"""
NUSOAP = """
require '/usr/share/php/nusoap/nusoap.php'; error_reporting(0);
$client = new nusoap_client('$URL'); %s var_dump($client->call('count', array('a' => 2), 'urn:stock'));
"""
SNOOPY = """
require '/usr/share/php/libphp-snoopy/Snoopy.class.php';
$client = new Snoopy; var_dump($client->fetch('$URL'), $client->results, $client->status);
"""
SOAP_BODY = """<?xml version="1.0"?><e:Envelope xmlns:e="http://schemas.xmlsoap.org/soap/envelope/"><e:Body>
<r xmlns="urn:stock"><n xmlns:i="http://www.w3.org/2001/XMLSchema-instance" xmlns:x="http://www.w3.org/2001/XMLSchema"
i:type="x:int">5</n></r></e:Body></e:Envelope>"""
SOAP_ANSWER = http_answer(SOAP_BODY, kind="text/xml")

# client: (script, class or function in the name, the identity goes out, the callee's data is kept)
HTTP_CLIENTS = {
    "curl": (f"$c = curl_init('$URL'); {CURL}", "curl_exec", True, True),
    "curl, URL as an option": (f"$c = curl_init(); curl_setopt($c, CURLOPT_URL, '$URL'); {CURL}", "curl_exec", True, True),
    "curl, headers of its own": (
        "$h = array('A: 1', 'n' => 'B: 2', 3); $same = $h; $c = curl_init('$URL'); next($h);"
        "var_dump(curl_setopt($c, CURLOPT_HTTPHEADER, $h), current($h), $h, $same);" + CURL, "curl_exec", True, True),
    "curl, headers twice": (
        "$c = curl_init('$URL'); foreach (array('A: 1', 'B: 2') as $h) curl_setopt($c, CURLOPT_HTTPHEADER, array($h));" + CURL,
        "curl_exec", True, True),
    "curl, no headers of its own": (
        f"$c = curl_init('$URL'); curl_setopt($c, CURLOPT_HTTPHEADER, array()); {CURL}", "curl_exec", True, True),
    "curl, headers that are none": (
        f"$c = curl_init('$URL'); var_dump(@curl_setopt($c, CURLOPT_HTTPHEADER, 'A: 1'), error_get_last()); {CURL}",
        "curl_exec", True, True),
    "curl, header callback": (
        "function seen($c, $line) { echo $line; return strlen($line); } $c = curl_init('$URL');"
        "curl_setopt($c, CURLOPT_HEADERFUNCTION, 'SEEN');" + CURL, "curl_exec", True, True),
    "curl, inherited header callback": (
        "class Base { function seen($c, $line) { echo $line; return strlen($line); } } class Client extends Base {"
        "function run() { $c = curl_init('$URL'); curl_setopt($c, CURLOPT_HEADERFUNCTION, array($this, 'seen'));" + CURL +
        "} } $client = new Client; $client->run();", "curl_exec", True, True),
    "curl, static header callback": (
        "class Base { static function seen($c, $line) { echo $line; return strlen($line); } } $c = curl_init('$URL');"
        "curl_setopt($c, CURLOPT_HEADERFUNCTION, 'base::seen');" + CURL, "curl_exec", True, True),
    "curl, closure as header callback": (
        "$c = curl_init('$URL'); curl_setopt($c, CURLOPT_HEADERFUNCTION, function ($c, $l) { echo $l; return strlen($l); });" +
        CURL, "curl_exec", True, False),
    "curl, headers in the output": (f"$c = curl_init('$URL'); curl_setopt($c, CURLOPT_HEADER, true); {CURL}",
                                    "curl_exec", True, True),
    "curl, a copied handle": (f"$a = curl_init('$URL'); $c = curl_copy_handle($a); curl_close($a); {CURL}",
                              "curl_exec", True, True),
    "curl, a reset handle": (f"$c = curl_init(); curl_reset($c); curl_setopt($c, CURLOPT_URL, '$URL'); {CURL}",
                             "curl_exec", True, True),
    "curl, all options at once": (
        "$c = curl_init(); curl_setopt_array($c, array(CURLOPT_URL => '$URL', CURLOPT_HTTPHEADER => array('A: 1')));" + CURL,
        "curl_exec", False, True),
    "file_get_contents": ("var_dump(file_get_contents('$URL'), $http_response_header);" +
                          OPTIONS % "stream_context_get_default()", "file_get_contents", True, True),
    "file_get_contents, null context": ("var_dump(file_get_contents('$URL', false, null, 0, 1));", "file_get_contents", True, True),
    "file_get_contents through a callback": ("function f($u) { return array_map('file_get_contents', array($u)); }"
                                             "var_dump(f('$URL'));", "file_get_contents", True, True),
    "file_get_contents, a context": (
        "$x = stream_context_create(array('http' => array('user_agent' => 'me'))); $o = stream_context_get_options($x);"
        "var_dump(file_get_contents('$URL', false, $x), $o);" + OPTIONS % "$x", "file_get_contents", True, True),
    "file_get_contents, an empty context": (
        "$x = stream_context_create(array('http' => array())); var_dump(file_get_contents('$URL', false, $x));" + OPTIONS % "$x",
        "file_get_contents", True, True),
    "file_get_contents, a context with headers": (
        "$x = stream_context_create(array('http' => array('header' => 'A: 1'))); var_dump(file_get_contents('$URL', false, $x));"
        + OPTIONS % "$x", "file_get_contents", False, True),
    "fopen": ("function f($u) { $f = fopen($u, 'r'); $d = stream_get_meta_data($f); unset($d['wrapper_data']);"
              "var_dump(stream_get_contents($f), $d);" + OPTIONS % "$f" + "} f('$URL');", "fopen", True, True),
    "fopen, a context": (
        "$x = stream_context_create(); stream_context_set_option($x, 'http', 'method', 'POST');"
        "var_dump(stream_get_contents(fopen('$URL', 'r', false, $x)));" + OPTIONS % "$x", "fopen", True, True),
    "fopen, a context with headers": (
        "$x = stream_context_create(array('http' => array('header' => array('A: 1'))));"
        "var_dump(stream_get_contents(fopen('$URL', 'r', false, $x)));" + OPTIONS % "$x", "fopen", False, True),
    "SoapClient": (SOAP % "", "SoapClient", True, True),
    "SoapClient, a context": (
        SOAP % "$x = $options['stream_context'] = stream_context_create(array('http' => array('user_agent' => 'me')));"
        "$o = stream_context_get_options($x);" + "print_r($o);", "SoapClient", True, True),
    "SoapClient, a context with headers": (
        SOAP % "$options['stream_context'] = stream_context_create(array('http' => array('header' => 'A: 1')));",
        "SoapClient", False, True),
    "SoapClient, overridden": (
        "class Client extends SoapClient { function __doRequest($r, $l, $a, $v, $o = 0) {"
        "return parent::__doRequest($r, $l, $a, $v, $o); } }" + (SOAP % "").replace("new SoapClient", "new Client"),
        "SoapClient", True, True),
    "SoapClient with a __set": (
        "class Client extends SoapClient { function __set($n, $v) { echo $n; $this->$n = $v; } }" +
        (SOAP % "").replace("new SoapClient", "new Client"), "SoapClient", True, False),
    "nusoap": (NUSOAP % "", "soap_transport_http", True, True),
    "nusoap over curl": (NUSOAP % "$client->setUseCURL(true);", "soap_transport_http", True, True),
    "Snoopy": (SNOOPY, "Snoopy", False, False),
    "Drupal": ("function drupal_bootstrap() { } function drupal_http_request($u) { return file_get_contents($u); }"
               "drupal_bootstrap(); var_dump(drupal_http_request('$URL'));", "drupal_http_request", False, False),
    "WordPress": ("function wp_initial_constants() { } class WP_Http { function request($u) { $c = curl_init($u);" + CURL +
                  "} } wp_initial_constants(); $w = new WP_Http; $w->request('$URL');", "WP_Http", False, False),
    "Zend": ("class Zend_Application { function __construct() { } } class Zend_Http_Client { function __construct($u) {"
             "$this->uri = $u; } function getUri($text = false) { return $text ? $this->uri : null; }"
             "function request() { return stream_get_contents(fopen($this->uri, 'r')); } }"
             "new Zend_Application; $z = new Zend_Http_Client('$URL'); var_dump($z->request());", "Zend_Http_Client", False, False),
}


@pytest.fixture
def peers():
    started = []

    def start(kind=Peer, **options):
        started.append(kind(**options))
        return started[-1]

    yield start
    for peer in started:
        peer.close()


@pytest.fixture
def call(site, peers):
    """Runs a script that calls a peer; gives the result and the requests of the run with the agent and of its twin."""
    def run(code, answer=None, delay_ms=3, settings=None, peer=None, fixture=None, path="/api/b2/items/123?x=1", **options):
        site.daemon.configure(TRACING if settings is None else settings)
        peer = peer or peers(answer=answer, delay_ms=delay_ms)
        code = code.replace("$URL", peer.url(path)).replace("$PORT", str(peer.port))
        if fixture:
            code = f'require "{fixture}";' + code
        result = site.cgi(code, **options)
        requests = peer.take()
        half = len(requests) // 2
        result.peer = peer
        return result, requests[:half], requests[half:]
    return run


def nodes(node):
    yield node
    for child in node[8]:
        yield from nodes(child)


def metric_name(peer, path, callee):
    return f"http:%2F%2F127.0.0.1:{peer.port}{path.replace('/', '%2F')}/{callee}"


def is_soap(client):
    return "soap" in client.lower()


@pytest.mark.parametrize("client", HTTP_CLIENTS)
def test_record_identity_and_answer(call, client):
    code, callee, identified, answered = HTTP_CLIENTS[client]
    result, mine, bare = call(code, SOAP_ANSWER if is_soap(client) else None)
    metric = result.metric
    one, = metric.calls
    assert one.name == metric_name(result.peer, "/api/b2/items/*", callee)
    assert 3 <= one.ms <= metric.calls_ms == one.ms and metric.call_errors == []
    assert (one.callee_id, one.callee_action) == (("77|8", "WebAction/stock") if answered else (None, None))

    sent, twin = (NUSOAP_PREFIX.sub(b"ns", b"".join(requests)) for requests in (mine, bare))
    assert [tx.decode() for tx in IDENTITY.findall(sent)] == [metric.transaction_id] * identified
    assert IDENTITY.sub(b"", sent) == twin

    node, = [n for n in nodes(metric.trace) if n[2]]
    assert node[2] == "External/" + one.name
    assert node[3] == (result.peer.url("/api/b2/items/123") if client.startswith("nusoap") else result.peer.url())
    assert node[1] - node[0] >= 3 and callee in (node[5], node[6])
    assert (node[7].get("txId"), node[7].get("txData")) == ((metric.transaction_id, json.loads(CALLEE)) if answered else (None, None))


@pytest.mark.parametrize("settings", [
    {"zqs.transaction_tracer.enabled": "0"}, {"zqs.vantorIdSecret": ""}], ids=["tracing off", "no identity"])
@pytest.mark.parametrize("client", [c for c in HTTP_CLIENTS if "," not in c])
def test_not_one_byte_differs_without_an_identity(call, client, settings):
    code, callee, _, _ = HTTP_CLIENTS[client]
    result, mine, bare = call(code, SOAP_ANSWER if is_soap(client) else None, settings={**TRACING, **settings})
    assert [NUSOAP_PREFIX.sub(b"ns", r) for r in mine] == [NUSOAP_PREFIX.sub(b"ns", r) for r in bare] and len(mine) == 1
    one, = result.metric.calls
    assert one.name.endswith("/" + callee)
    if settings.get("zqs.transaction_tracer.enabled") and not client.startswith("nusoap"):
        assert one.callee_id is None


def test_a_client_without_trace_option_looks_the_same_when_nothing_is_traced(call):
    call("$c = new SoapClient(null, array('location' => '$URL', 'uri' => 'u')); print_r($c);",
         settings={**TRACING, "zqs.transaction_tracer.enabled": "0"})


# ---- outcomes ----

FAILURES = {
    "refused": (f"$c = curl_init('http://127.0.0.1:1/x?a=1'); {CURL}", None, ("", 1000, r"Failed to connect.*")),
    "404": (f"$c = curl_init('$URL'); {CURL}", "404 Not Found", ("404", 404, "")),
    "400": (f"$c = curl_init('$URL'); {CURL}", "400 Bad Request", ("400", 400, "")),
    "503": (f"$c = curl_init('$URL'); {CURL}", "503 Service Unavailable", ("503", 503, "")),
    "failed on the error": (f"$c = curl_init('$URL'); curl_setopt($c, CURLOPT_FAILONERROR, true); {CURL}", "404 Not Found",
                            ("", 1000, "The requested URL returned error: 404")),
    "401": (f"$c = curl_init('$URL'); {CURL}", "401 Unauthorized", None),
    "302": (f"$c = curl_init('$URL'); {CURL}", "302 Found", None),
}


@pytest.mark.parametrize("case", FAILURES)
def test_failed_transfer_is_reported_with_its_stack(call, case):
    code, status, expected = FAILURES[case]
    result, _, _ = call("function fetch() { " + code + " }\nfetch();", status and http_answer(status=status))
    metric = result.metric
    if not expected:
        assert metric.call_errors == []
        return
    error, = metric.call_errors
    assert (error["status"], error["code"]) == expected[:2] and re.fullmatch(expected[2], error["message"])
    assert [frame.partition("(")[0] for frame in error["stack"]] == ["curl_exec", "fetch"]
    assert error["name"] == metric.calls[0].name and error["query"] in ("", "?x=1")


@pytest.mark.parametrize("code, names", [
    ("file_get_contents('/etc/hostname'); fclose(fopen('php://memory', 'r')); @file_get_contents('ftp://127.0.0.1:1/x');", []),
    ("$c = curl_init('127.0.0.1:$PORT/a12?b'); curl_exec($c);", ["http:%2F%2F127.0.0.1:$PORT%2Fa*/curl_exec"]),
    ("$c = curl_init('HTTP://127.0.0.1:$PORT/A?q=1'); curl_exec($c);", ["http:%2F%2F127.0.0.1:$PORT%2FA/curl_exec"]),
    ("curl_exec(curl_init()); @curl_exec('x'); @curl_init(); @curl_setopt(); @curl_exec(); @file_get_contents(); @fopen('http://');",
     ["http:%2F%2F/fopen"]),
    ("$m = curl_multi_init(); $c = curl_init('$URL'); curl_setopt($c, CURLOPT_RETURNTRANSFER, 1); curl_multi_add_handle($m, $c);"
     "do { curl_multi_exec($m, $run); usleep(20000); } while ($run); echo curl_multi_getcontent($c);", "http:%2F%2Funknown-host/curl_multi_exec"),
])
def test_which_calls_count_and_under_which_name(call, code, names):
    result, mine, _ = call(code, delay_ms=0)
    found = [c.name for c in result.metric.calls]
    if isinstance(names, str):
        assert set(found) == {names} and IDENTITY.search(b"".join(mine))
    else:
        assert found == [name.replace("$PORT", str(result.peer.port)) for name in names]


def test_time_outside_belongs_to_no_component(call):
    """Also when the call is no record: a slow local stream."""
    result, _, _ = call("function page() { file_get_contents('$URL'); $c = curl_init('$URL'); " + CURL + "usleep(20000); } page();",
                        delay_ms=60)
    total, own = result.metric.components["PHP/NULL/page"]
    assert total >= 140 and 20 <= own <= total - 120
    assert result.metric.calls_ms >= 120


def test_only_slow_calls_enter_the_trace_with_their_url(call):
    code = "file_get_contents('$URL'); usleep(3000);"
    for threshold, traced in (("1", True), ("3000000", False)):
        settings = {**TRACING, "zqs.action_tracer.action_threshold": threshold}
        answer = http_answer(lines=(ANSWER_LINE.replace('"trId"', '"tr":1,"trId"'),))
        metric = call(code, answer, settings=settings)[0].metric
        # the callee has a trace, so the caller sends its own whatever its duration
        assert metric.trace and len([n for n in nodes(metric.trace) if n[2]]) == traced
        assert len(metric.calls) == 1 and metric.calls[0].callee_id == "77|8"


def test_stale_answers_are_not_taken_for_new_ones(call):
    """Neither a refused call after an answered one, nor an answer that reached another handle, lends its data."""
    refused = "http://127.0.0.1:1/"
    code = (f"function f($u) {{ @file_get_contents($u); @file_get_contents('{refused}'); }} f('$URL');"
            f"@file_get_contents('$URL'); @file_get_contents('{refused}');"
            "$m = curl_multi_init(); $c = curl_init('$URL'); curl_setopt($c, CURLOPT_RETURNTRANSFER, 1);"
            "curl_multi_add_handle($m, $c); do { curl_multi_exec($m, $run); usleep(1000); } while ($run);"
            f"$c = curl_init('{refused}'); curl_exec($c);"
            "$s = new SoapClient(null, array('location' => '$URL', 'uri' => 'u')); try { $s->a(); } catch (Exception $e) { }"
            f"$s->__setLocation('{refused}'); try {{ $s->a(); }} catch (Exception $e) {{ }}")
    calls = call(code, SOAP_ANSWER)[0].metric.calls
    found = [(c.name.rpartition("/")[2], c.callee_id) for c in calls if "multi" not in c.name]
    assert found == [("file_get_contents", "77|8"), ("file_get_contents", None)] * 2 + [
        ("curl_exec", None), ("SoapClient", "77|8"), ("SoapClient", None)]


NOTIFIED = ("$x = stream_context_create(); stream_context_set_params($x, array('notification' => 'n'));"
            "var_dump(file_get_contents('$URL', false, $x)); print_r(stream_context_get_options($x));")
# script: (what is recorded, with the callee's id; requests that carry the identity)
CALLBACKS = {
    "header callback throws": (
        "function seen($c, $l) { throw new Exception($l); } $c = curl_init('$URL'); curl_setopt($c, CURLOPT_HEADERFUNCTION, 'seen');"
        "try { curl_exec($c); } catch (Exception $e) { echo $e; }", [("curl_exec", None)], 1),
    "script ends inside, goes on at shutdown": (
        "$c = curl_init('$URL'); curl_setopt($c, CURLOPT_WRITEFUNCTION, function () { exit('bye'); });"
        "register_shutdown_function(function () { echo file_get_contents('$URL'); }); curl_exec($c);",
        [("file_get_contents", "77|8")], 2),
    "a call inside a call": (
        "function n($code) { static $in = 0; if (!$in++) echo file_get_contents('$URL', false, $GLOBALS['x']); }" + NOTIFIED,
        [("file_get_contents", "77|8")] * 2, 2),
    "headers set meanwhile": (
        "function n($code) { stream_context_set_option($GLOBALS['x'], 'http', 'header', 'A: 1'); }" + NOTIFIED,
        [("file_get_contents", "77|8")], 0),
    "script ends inside a stream": ("function n($code) { exit('bye'); }" + NOTIFIED, [], 0),
    "inside a generator": ("function g($u) { yield file_get_contents($u); yield $http_response_header; }"
                           "foreach (g('$URL') as $v) var_dump($v);", [("file_get_contents", "77|8")], 1),
    "into a reference": ("$r = array('X: 1'); $http_response_header = &$r; echo file_get_contents('$URL'); var_dump($r);",
                         [("file_get_contents", "77|8")], 1),
}


@pytest.mark.parametrize("case", CALLBACKS)
def test_scripts_that_act_during_a_call(call, case):
    code, recorded, identified = CALLBACKS[case]
    result, mine, _ = call(code)
    assert [(c.name.rpartition("/")[2], c.callee_id) for c in result.metric.calls] == recorded
    assert len(IDENTITY.findall(b"".join(mine))) == identified


# ---- hostile answers ----

LONG = "X-Vantor-Tx-Data: " + '{"id":"77|8","action":"' + "a" * 60000 + '"}'
HOSTILE = {
    "long": ([LONG], "77|8", True),
    "not JSON": (['X-Vantor-Tx-Data: {not JSON"id":"x"'], "x", False),
    "single quotes": (["X-Vantor-Tx-Data: {'id':'5','action':'it'}"], "5", True),
    "control bytes": (['X-Vantor-Tx-Data: {"id":"a\tb\x01c","action":"c"}'], "a b c", True),
    "breaks the trace": (['X-Vantor-Tx-Data: {"id":"1","action":"2"}},[[0,0,"","",1,"","",{},[]]]'], "1", False),
    "an array": (['X-Vantor-Tx-Data: [{"id":"1","action":"2"}]'], "1", False),
    "nothing in it": (["X-Vantor-Tx-Data: {}"], "", True),
    "empty": (["X-Vantor-Tx-Data: "], None, False),
    "another case": (["x-vantor-tx-data: " + CALLEE], None, False),
    "twice": (['X-Vantor-Tx-Data: {"id":"first","action":"a"}', 'X-Vantor-Tx-Data: {"id":"last","action":"b"}'], "last", True),
}


@pytest.mark.parametrize("client", ["curl", "file_get_contents"])
@pytest.mark.parametrize("case", HOSTILE)
@pytest.mark.parametrize("split", [False, True], ids=["whole", "in pieces"])
def test_hostile_answer_headers(call, case, client, split):
    """The packet and the trace stay well-formed, which the fake daemon checks; only one JSON object enters the trace."""
    lines, callee_id, traced = HOSTILE[case]
    whole = http_answer(lines=lines)
    answer = [whole[:25], whole[25:60], whole[60:]] if split else whole
    metric = call(HTTP_CLIENTS[client][0], answer)[0].metric
    node, = [n for n in nodes(metric.trace) if n[2]]
    if client == "file_get_contents" and case in ("long", "nothing in it"):
        callee_id, traced = None, False     # PHP drops lines of more than 1 KiB; without its line end the other is too short
    assert metric.calls[0].callee_id == callee_id
    assert ("txData" in node[7]) == traced


def test_a_url_with_quotes_stays_inside_its_strings(call):
    result, _, _ = call("$c = curl_init('$URL'); " + CURL, path='/a"b\\c/?q="\\d')
    node, = [n for n in nodes(result.metric.trace) if n[2]]
    assert 'a"b\\c' in node[3] and result.metric.calls[0].name == metric_name(result.peer, '/a"b\\c/', "curl_exec")


def test_recorded_text_is_bounded(call):
    """Beyond 32 MiB only the total grows; the run ends normally under an ordinary memory limit."""
    code = ("for ($i = 0; $i < 1100; $i++) { $u = 'http://127.0.0.1:1/' . $i . str_repeat('x', 40000); @file_get_contents($u); }"
            "echo memory_get_peak_usage() < 96 << 20;")
    metric = call(code, ini={"memory_limit": "128M"}, settings={"zqs.action_tracer.enabled": "0"})[0]
    assert metric.body == b"1" and metric.metrics == [], "too large to be sent"


@pytest.mark.parametrize("client, recorded", [
    ("new HttpRequest('$URL')", True), ("new Mine('$URL')", True), ("new HttpRequest('localhost/x')", False),
    ("new HttpRequest", False)])
def test_http_request_class(call, doubles, client, recorded):
    code = f"class Mine extends HttpRequest {{ function __get($n) {{ echo $n; }} }} $r = {client}; var_dump($r->send('slow:5'));"
    result, _, _ = call(code, ini=doubles)
    found = [c.name for c in result.metric.calls]
    assert found == [metric_name(result.peer, "/api/b2/items/*", "HttpRequest")] * recorded


def test_a_client_library_that_throws_does_not_silence_the_next_call(call):
    code = ("function drupal_bootstrap() { } function drupal_http_request($u) { file_get_contents($u); throw new Exception; }"
            "drupal_bootstrap(); try { drupal_http_request('$URL'); } catch (Exception $e) { } file_get_contents('$URL');")
    names = [c.name.rpartition("/")[2] for c in call(code)[0].metric.calls]
    assert names == ["drupal_http_request", "file_get_contents"]


# ---- WebSocket and Thrift ----

SOCKET = ("$w = new WebsocketClient; var_dump($w->connect('127.0.0.1', $PORT, '/chat/42'), $w->written, $w->answer);"
          "var_dump($w->sendData('one'), $w->sendData('two'));")


def fixture(name):
    return str(Path(__file__).parent / "php" / name)


@pytest.mark.parametrize("settings, identified", [(TRACING, True), ({**TRACING, "zqs.vantorIdSecret": ""}, False)])
def test_websocket(call, peers, settings, identified):
    peer = peers(WebSocketPeer, delay_ms=3)
    result, mine, bare = call(SOCKET, peer=peer, fixture=fixture("websocket.php"), settings=settings)
    name = f"ws:%2F%2F127.0.0.1:{peer.port}%2Fchat%2F*/WebsocketClient"
    assert [(c.name, c.callee_id) for c in result.metric.calls] == [(name, "77|8" if identified else None), (name, None)]
    assert mine[1:] == bare[1:] == [b"one", b"two"] and IDENTITY.sub(b"", mine[0]) == bare[0]
    assert [tx.decode() for tx in IDENTITY.findall(mine[0])] == ([result.metric.transaction_id] if identified else [])
    if identified:
        assert re.search(IDENTITY.pattern + rb"Sec-WebSocket-Key: ", mine[0])


THRIFT = ("$t = new Thrift\\Transport\\TSocket('127.0.0.1', $PORT); $t->open();"
          "$c = new Shop\\Calc\\CalcClient(new Thrift\\Protocol\\TBinaryProtocol($t));"
          "try { var_dump($c->add(20, 3)); } catch (Exception $e) { echo $e->getMessage(); }")
SERVICE = "thrift:%2F%2F127.0.0.1%2FShop.Calc.CalcClient.add/Shop\\\\Calc\\\\CalcClient"


@pytest.mark.parametrize("settings, identified", [(TRACING, True), ({**TRACING, "zqs.vantorIdSecret": ""}, False)])
def test_thrift(call, peers, settings, identified):
    peer = peers(ThriftPeer, delay_ms=3)
    result, mine, bare = call(THRIFT, peer=peer, fixture=fixture("thrift.php"), settings=settings)
    metric = result.metric
    assert result.body == b"int(23)\n" and mine == bare == [("add", {1: 20, 2: 3})]
    one, = metric.calls
    assert one.name == SERVICE and one.ms >= 3 and one.callee_id == "77|8"
    expected = [(65535, json.dumps({"VantorID": f"{SECRET};c=1;x={metric.transaction_id}"}, separators=(",", ":")))]
    assert peer.unknown == expected * identified
    node, = [n for n in nodes(metric.trace) if n[2]]
    assert node[7]["txData"] == json.loads(peer.extra) and node[5:7] == ["Shop\\Calc\\CalcClient", "add"]


def test_thrift_failure_keeps_the_exceptions_text(call, peers):
    class Silent(ThriftPeer):
        def serve(self, sock):
            sock.recv(4096)

    result, _, _ = call(THRIFT, peer=peers(Silent), fixture=fixture("thrift.php"))
    error, = result.metric.call_errors
    assert (error["name"], error["code"], error["message"]) == (SERVICE, 1000, "TSocket: Could not read 4 bytes")
    assert error["stack"][0].startswith("Shop\\Calc\\CalcClient.add(")


def test_thrift_over_http_is_one_record_and_the_next_call_counts_again(call):
    code = ("$p = new Thrift\\Protocol\\TBinaryProtocol(new Thrift\\Transport\\THttpClient('127.0.0.1', $PORT, '/rpc'));"
            "$c = new Shop\\Calc\\CalcClient($p); try { $c->add(1, 2); } catch (Exception $e) { } file_get_contents('$URL');")
    result, _, _ = call(code, fixture=fixture("thrift.php"))
    assert [c.name for c in result.metric.calls] == [SERVICE, metric_name(result.peer, "/api/b2/items/*", "file_get_contents")]


# ---- what an operator may have done ----

def test_disabled_functions_only_lose_their_feature(call):
    """curl would abort every transfer whose header callback fails."""
    code = HTTP_CLIENTS["curl"][0]
    for disabled, identified, answered in (("zqprof_curl_header", True, None), ("curl_getinfo", True, None)):
        result, mine, _ = call(code, ini={"disable_functions": disabled})
        assert b'"ok"' in result.body and bool(IDENTITY.search(mine[0])) == identified
        assert [c.callee_id for c in result.metric.calls] == ([answered] if disabled != "curl_getinfo" else [])
