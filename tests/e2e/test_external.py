"""Outgoing calls: what is recorded of each client library's, what goes out with it, and what comes back.

Each script runs with the agent and, as its twin, without: it prints whatever it can see of its own values, and both must
print the same."""
import json
import re

import pytest

from support import wire
from support.cases import cases, program
from support.engines import SCRIPTS
from support.peers import ANSWER_LINE, CALLEE, Peer, ThriftPeer, WebSocketPeer, http_answer

SECRET = "12|34"
TRACING = {"zqs.vantorIdSecret": SECRET, "zqs.transaction_tracer.enabled": "1", "zqs.action_tracer.enabled": "1",
           "zqs.action_tracer.action_threshold": "1"}
NO_IDENTITY = {**TRACING, "zqs.vantorIdSecret": ""}
NOT_TRACED = {**TRACING, "zqs.transaction_tracer.enabled": "0"}
NUSOAP_PREFIX = re.compile(rb"ns\d+")      # made up per call
IDENTITY = re.compile(rb"X-Vantor-Id: 12\|34;c=1;x=([0-9a-f]{2,16})\r\n")
CLIENTS = cases("external/clients.php")
CODE = {client.id: client.values[0] for client in CLIENTS}
SOAP_ANSWER = http_answer("""<?xml version="1.0"?><e:Envelope xmlns:e="http://schemas.xmlsoap.org/soap/envelope/"><e:Body>
<r xmlns="urn:stock"><n xmlns:i="http://www.w3.org/2001/XMLSchema-instance" xmlns:x="http://www.w3.org/2001/XMLSchema"
i:type="x:int">5</n></r></e:Body></e:Envelope>""", kind="text/xml")


@pytest.fixture
def call(site):
    """Runs a script that calls a peer; gives the result and the requests of the run with the agent and of its twin."""
    started = []

    def run(code, answer=None, delay_ms=3, settings=TRACING, kind=Peer, **options):
        peer = kind(answer=answer, delay_ms=delay_ms)
        started.append(peer)
        for word, value in (("$URL", peer.url()), ("$PORT", peer.port), ("$FIXTURES", SCRIPTS)):
            code = code.replace(word, str(value))
        result = site.cgi(code, settings=settings, **options)
        requests = peer.take()
        half = len(requests) // 2
        result.peer = peer
        return result, requests[:half], requests[half:]

    yield run
    for peer in started:
        peer.close()


@pytest.fixture
def call_client(call):
    """The same, all bytes of a run as one; what a client makes up for each call left out."""
    def run(code, expected, **options):
        callee, *facts = expected.split(", ")
        result, *requests = call(code, SOAP_ANSWER if "soap" in callee.lower() else None, **options)
        return result, callee, facts, *(NUSOAP_PREFIX.sub(b"ns", b"".join(sent)) for sent in requests)
    return run


def recorded(result):
    """(who called, id of the callee) of each call"""
    return [(c.name.rpartition("/")[2], c.callee_id) for c in result.metric.calls]


def traced_call(metric):
    one, = [node for node in wire.nodes(metric.trace) if node[2]]
    return one


def metric_name(peer, path, callee):
    return f"http:%2F%2F127.0.0.1:{peer.port}{path.replace('/', '%2F')}/{callee}"


@pytest.mark.parametrize("code, expected", CLIENTS)
def test_record_identity_and_answer(call_client, code, expected):
    result, callee, facts, sent, twin = call_client("usleep(5000);\n" + code, expected)
    metric, answered = result.metric, "answered" in facts
    one, = metric.calls
    assert one.name == metric_name(result.peer, "/api/b2/items/*", callee)
    assert 3 <= one.ms <= metric.calls_ms == one.ms and metric.call_errors == []
    assert (one.callee_id, one.callee_action) == (("77|8", "WebAction/stock") if answered else (None, None))
    assert [tx.decode() for tx in IDENTITY.findall(sent)] == [metric.transaction_id] * ("identified" in facts)
    assert IDENTITY.sub(b"", sent) == twin

    node = traced_call(metric)
    assert node[2] == "External/" + one.name
    assert node[3] == result.peer.url("/api/b2/items/123" + "?x=1" * (callee != "soap_transport_http"))
    assert node[0] >= 5 and one.ms <= node[1] - node[0] + 1 and callee in (node[5], node[6])
    assert node[7].get("txId") == (metric.transaction_id if answered else None)
    assert node[7].get("txData") == (json.loads(CALLEE) if answered else None)


@pytest.mark.parametrize("settings", [NOT_TRACED, NO_IDENTITY], ids=["tracing off", "no identity"])
@pytest.mark.parametrize("code, expected", [client for client in CLIENTS if "," not in client.id])
def test_not_one_byte_differs_without_an_identity(call_client, code, expected, settings):
    result, callee, _, sent, twin = call_client(code, expected, settings=settings)
    assert sent == twin != b""
    (name, callee_id), = recorded(result)
    assert name == callee
    assert callee_id is None or settings is NO_IDENTITY or callee == "soap_transport_http"


def test_a_client_looks_the_same_when_nothing_is_traced(call):
    code = "print_r(new SoapClient(null, array('location' => '$URL', 'uri' => 'u')));"
    assert b"SoapClient Object" in call(code, settings=NOT_TRACED)[0].body


@pytest.mark.parametrize("code, expected", cases("external/transfers.php"))
def test_failed_transfer_is_reported_with_its_stack(call, code, expected):
    answer, _, error = expected.partition(": ")
    metric = call(code, http_answer(status=answer))[0].metric
    found = "".join(f"{e['status']}/{e['code']} {e['message']}".rstrip() for e in metric.call_errors)
    assert re.fullmatch(error, found)
    for error in metric.call_errors:
        assert [frame.partition("(")[0] for frame in error["stack"]] == ["curl_exec", "transfer", "fetch"]
        assert error["name"] == metric.calls[0].name and error["query"] in ("", "?x=1")


@pytest.mark.parametrize("asked", [{}, {"zqs.details": "1", "zqs.traceparent": "1"}], ids=["identity", "trace context"])
@pytest.mark.parametrize("code, own", cases("external/copies.php"))
def test_headers_of_a_copied_handle_are_not_freed_under_the_other(call, code, own, asked):
    _, sent, twin = call(code, settings={**TRACING, **asked})
    assert len(sent) == len(twin) == 2
    clean = lambda request: re.sub(rb"traceparent: \S+\r\n", b"", IDENTITY.sub(b"", request))
    assert [clean(request) for request in sent] == twin
    assert sum(request.count(b"A: 1\r\n") for request in sent) == (own is not None)


def test_failed_transfer_without_a_text_is_a_failure(call):
    error, = call("curl_exec(curl_init('http://127.0.0.1:1/'));", ini={"disable_functions": "curl_error"})[0].metric.call_errors
    assert (error["code"], error["status"], error["message"]) == (1000, "", "")


@pytest.mark.parametrize("code, expected", cases("external/named.php"))
def test_which_calls_count_and_under_which_name(call, code, expected):
    result, mine, _ = call(code, delay_ms=0)
    found = [c.name.replace(str(result.peer.port), "$PORT") for c in result.metric.calls]
    assert set(found) == {expected} - {None} and (len(found) <= 1 or "multi" in expected)
    assert all(IDENTITY.search(request) for request in mine)


def test_time_outside_belongs_to_no_component(call):
    metric = call(program("external/outside.php"), delay_ms=60)[0].metric
    total, own = metric.components["PHP/NULL/page"]
    assert total >= 140 and 20 <= own <= total - 120 and metric.calls_ms >= 120


@pytest.mark.parametrize("threshold, traced", [("1", True), ("3000000", False)])
def test_only_slow_calls_enter_the_trace(call, threshold, traced):
    """The callee has a trace, so the caller sends its own whatever its duration."""
    answer = http_answer(lines=(ANSWER_LINE.replace('"trId"', '"tr":1,"trId"'),))
    metric = call("file_get_contents('$URL'); usleep(3000);", answer,
                  settings={**TRACING, "zqs.action_tracer.action_threshold": threshold})[0].metric
    assert metric.trace and ("External/" in json.dumps(metric.trace)) == traced
    assert [c.callee_id for c in metric.calls] == ["77|8"]


def test_stale_answers_are_not_taken_for_new_ones(call):
    """Neither a refused call after an answered one, nor an answer that reached another handle, lends its data."""
    result = call(program("external/answered_then_refused.php"), SOAP_ANSWER)[0]
    assert [one for one in recorded(result) if "multi" not in one[0]] == [
        ("file_get_contents", "77|8"), ("file_get_contents", None)] * 2 + [
        ("curl_exec", None), ("SoapClient", "77|8"), ("SoapClient", None)]


@pytest.mark.parametrize("code, expected", cases("external/during.php"))
def test_scripts_that_act_during_a_call(call, code, expected):
    result, mine, _ = call(code)
    identified = len(IDENTITY.findall(b"".join(mine)))
    calls = [f"{name} {callee_id or ''}".rstrip() for name, callee_id in recorded(result)]
    calls = [name for i, name in enumerate(calls) if "multi" not in name or calls.index(name) == i]
    assert f"{identified} identified: {', '.join(calls)}".rstrip() == expected


# case: (header lines, id of the callee, the data enters the trace)
HOSTILE = {
    "long": (['X-Vantor-Tx-Data: {"id":"77|8","action":"' + "a" * 60000 + '"}'], "77|8", True),
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
def test_hostile_answer_headers(call, case, client):
    """Packet and trace stay well-formed, which the fake daemon checks; the answer comes at once and in pieces."""
    lines, callee_id, traced = HOSTILE[case]
    if client == "file_get_contents" and case in ("long", "nothing in it"):
        callee_id, traced = None, False     # PHP drops lines of more than 1 KiB; without its line end the other is too short
    whole = http_answer(lines=lines)
    for answer in (whole, [whole[:25], whole[25:60], whole[60:]]):
        metric = call(CODE[client], answer)[0].metric
        assert metric.calls[0].callee_id == callee_id
        assert ("txData" in traced_call(metric)[7]) == traced


@pytest.mark.parametrize("client", ["curl", "file_get_contents", "SoapClient", "nusoap"])
def test_an_id_from_outside_starts_no_header(call, client):
    _, (request,), _ = call(CODE[client], SOAP_ANSWER, env={"HTTP_X_VANTOR_ID": "12|9;c=1;x=a\r\nX-Evil: 1"}, differs=("headers",))
    assert b"\r\nX-Vantor-Id: 12|34;c=1;x=a  X-Evil: 1\r\n" in request


def test_a_url_with_quotes_stays_inside_its_strings(call):
    result, _, _ = call(CODE["curl"].replace("'$URL'", r"""'http://127.0.0.1:$PORT/a"b\\c/?q="\\d'"""))
    assert 'a"b\\c' in traced_call(result.metric)[3]
    assert result.metric.calls[0].name == metric_name(result.peer, '/a"b\\c/', "curl_exec")


def test_recorded_text_is_bounded(call, site):
    """Beyond 32 MiB only the total grows; the run ends normally under an ordinary memory limit."""
    settings = {"zqs.action_tracer.enabled": "0"}
    result, _, _ = call(program("external/bounded.php"), settings=settings, ini={"memory_limit": "128M"})
    assert result.body == b"1" and result.metrics == [] and "metric data too large: " in site.log()


@pytest.mark.parametrize("code, expected", cases("external/requests.php"))
def test_http_request_class(call, doubles, code, expected):
    assert recorded(call(code, ini=doubles)[0]) == [(expected, None)] * (expected is not None)


@pytest.mark.parametrize("settings", [TRACING, NO_IDENTITY], ids=["identity", "no identity"])
def test_websocket(call, settings):
    identified = settings is TRACING
    result, mine, bare = call("usleep(5000);" + program("external/websocket.php"), kind=WebSocketPeer, settings=settings)
    name = f"ws:%2F%2F127.0.0.1:{result.peer.port}%2Fchat%2F*/WebsocketClient"
    assert [(c.name, c.callee_id) for c in result.metric.calls] == [(name, "77|8" if identified else None), (name, None)]
    assert all(node[0] >= 5 for node in wire.nodes(result.metric.trace) if node[2])
    assert mine[1:] == bare[1:] == [b"one", b"two"] and IDENTITY.sub(b"", mine[0]) == bare[0]
    found = re.findall(IDENTITY.pattern + rb"(?=Sec-WebSocket-Key: )", mine[0])
    assert [tx.decode() for tx in found] == [result.metric.transaction_id] * identified


SERVICE = "thrift:%2F%2F127.0.0.1%2FShop.Calc.CalcClient.add/Shop\\\\Calc\\\\CalcClient"


@pytest.mark.parametrize("settings", [TRACING, NO_IDENTITY], ids=["identity", "no identity"])
def test_thrift(call, settings):
    result, mine, bare = call("usleep(5000);" + program("external/thrift.php"), kind=ThriftPeer, settings=settings)
    metric, peer = result.metric, result.peer
    assert result.body == b"int(23)\n" and mine == bare == [("add", {1: 20, 2: 3})]
    one, = metric.calls
    assert one.name == SERVICE and one.ms >= 3 and one.callee_id == "77|8"
    expected = (65535, json.dumps({"VantorID": f"{SECRET};c=1;x={metric.transaction_id}"}, separators=(",", ":")))
    assert peer.unknown == [expected] * (settings is TRACING)
    node = traced_call(metric)
    assert node[0] >= 5 and node[7]["txData"] == json.loads(peer.extra) and node[5:7] == ["Shop\\Calc\\CalcClient", "add"]


def test_thrift_failure_keeps_the_exceptions_text(call):
    class Silent(ThriftPeer):
        def serve(self, sock):
            sock.recv(4096)

    error, = call(program("external/thrift.php"), kind=Silent)[0].metric.call_errors
    assert (error["name"], error["code"], error["message"]) == (SERVICE, 1000, "TSocket: Could not read 4 bytes")
    assert error["stack"][0].startswith("Shop\\Calc\\CalcClient.add(")


@pytest.mark.parametrize("disabled, calls", [("zqprof_curl_header", [("curl_exec", None)]), ("curl_getinfo", [])])
def test_disabled_functions_only_lose_their_feature(call, disabled, calls):
    """curl would abort every transfer whose header callback fails."""
    result, mine, _ = call(CODE["curl"], ini={"disable_functions": disabled})
    assert b'"ok"' in result.body and IDENTITY.search(mine[0]) and recorded(result) == calls
