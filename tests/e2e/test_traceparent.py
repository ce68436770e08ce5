"""The W3C's trace context: what is taken from callers, what goes out to callees, and what stays here."""
import re

import pytest

from support import wire
from support.cases import cases, program
from support.engines import SCRIPTS, BuiltIn, Fpm
from support.fake_daemon import PLAIN, wait_until
from support.otlp import Receiver, attributes, hexadecimal
from support.peers import Peer, http_answer

TRACING = {"zqs.vantorIdSecret": "12|34", "zqs.transaction_tracer.enabled": "1", "zqs.action_tracer.enabled": "1",
           "zqs.action_tracer.action_threshold": "1"}
ASKED = {**TRACING, "zqs.details": "1", "zqs.traceparent": "1"}
FOREIGN, CALLER = "0af7651916cd43dd8448eb211c80319c", "b7ad6b7169203331"
VALID = f"00-{FOREIGN}-{CALLER}-01"
OURS = re.compile(rb"\r\ntraceparent: 00-([0-9a-f]{32})-([0-9a-f]{16})-(0[01])(?=\r\n)")
IDENTITY = re.compile(rb"X-Vantor-Id: [^\r]*\r\n")
NONE = "0" * 16
IS_IN_NO_TRACE = 0xFFFFFFFF


@pytest.fixture
def run(site):
    peers = []

    def run(code, settings=ASKED, answer=None, **options):
        peer = Peer(answer=answer, delay_ms=2)
        peers.append(peer)
        for word, value in (("$URL", peer.url()), ("$PORT", peer.port), ("$FIXTURES", SCRIPTS)):
            code = code.replace(word, str(value))
        result = site.cgi(code, settings=settings, **options)
        requests = peer.take()
        half = len(requests) // 2
        return result, requests[:half], requests[half:]

    yield run
    for peer in peers:
        peer.close()


# what a caller sends, and whether it is a trace context
HEADERS = {
    VALID: True, f"00-{FOREIGN}-{CALLER}-00": True, f"00-{FOREIGN}-{CALLER}-ff": True, f" {VALID} ": True,
    f"cc-{FOREIGN}-{CALLER}-01": True, f"cc-{FOREIGN}-{CALLER}-01-more": True, f"cc-{FOREIGN}-{CALLER}-01.more": False,
    f"{VALID}-": False, f"{VALID}-more": False, f"ff-{FOREIGN}-{CALLER}-01": False, VALID.upper(): False,
    f"00-{FOREIGN}-{NONE}-01": False, f"00-{'0' * 32}-{CALLER}-01": False, f"00-{FOREIGN}-{CALLER}-0": False,
    f"00-{FOREIGN}-{CALLER}-0g": False, f"00-{FOREIGN[:-1]}-{CALLER}-01": False, f"0-{FOREIGN}-{CALLER}-011": False,
    f"{VALID},{VALID}": False, VALID.replace("-", "_"): False, "": False, "-" * 55: False, "\x80" * 55: False, "a" * 60000: False}


@pytest.mark.parametrize("header", HEADERS, ids=lambda header: header[:70].encode("unicode_escape").decode() or "empty")
def test_a_callers_trace_is_the_requests(run, header):
    result, (sent,), _ = run("file_get_contents('$URL');", headers={"traceparent": header})
    trace, own, parent = result.metric.more["trace_context"]
    if HEADERS[header]:
        assert (trace, parent, result.metric.transaction_id) == (FOREIGN, CALLER, FOREIGN)
    else:
        assert trace != FOREIGN and parent == NONE and len(result.metric.transaction_id) <= 16
    (out_trace, span, flags), = OURS.findall(sent)
    assert out_trace.decode() == trace and flags == (b"00" if header.endswith("-00") else b"01")
    assert [call.span for call in result.metric.more["call_spans"]] == [span.decode()] and span.decode() != own


def test_an_identity_goes_before_a_trace_of_others(run):
    """A monitored caller names the transaction; only a context of that very transaction says which of its spans it was."""
    identity = {"X-Vantor-Id": f"12|99;c=1;x={FOREIGN}"}
    differs = ("headers",)
    for headers, parent in (({**identity, "traceparent": VALID}, CALLER), (identity, NONE),
                            ({**identity, "traceparent": VALID.replace("0af7", "1af7")}, NONE)):
        context = run("", headers=headers, differs=differs)[0].metric.more["trace_context"]
        assert (context[0], context[2]) == (FOREIGN, parent)
    context = run("", headers={"X-Vantor-Id": "13|99;c=1;x=abc", "traceparent": VALID})[0].metric.more["trace_context"]
    assert (context[0], context[2]) == (FOREIGN, CALLER)


@pytest.mark.parametrize("settings", [{}, {"zqs.details": "1"}, {"zqs.traceparent": "1"}, {"zqs.details": "1", "zqs.traceparent": "0"}],
                         ids=lambda settings: ",".join(f"{key}={value}" for key, value in settings.items()) or "nothing")
@pytest.mark.parametrize("code", ["file_get_contents('$URL');", "curl_exec(curl_init('$URL'));"])
def test_nothing_changes_for_who_does_not_ask(run, settings, code):
    result, sent, twin = run(code, settings={**TRACING, **settings}, headers={"traceparent": VALID})
    more = result.metric.more
    assert [IDENTITY.sub(b"", request) for request in sent] == twin and len(twin) == 1
    assert len(result.metric.transaction_id) <= 16 and (more is None or (more["trace_context"], more["call_spans"]) == (None, []))


@pytest.mark.parametrize("code, expected", cases("external/clients.php"))
def test_what_carries_the_identity_carries_trace_context(run, code, expected):
    """Nothing else that a script or a callee can see differs."""
    soap = http_answer("""<e:Envelope xmlns:e="http://schemas.xmlsoap.org/soap/envelope/"><e:Body><r xmlns="urn:stock"><n>5</n></r></e:Body>
</e:Envelope>""", kind="text/xml") if "soap" in expected.lower() else None
    result, (sent,), (twin,) = run(code, answer=soap)
    contexts = OURS.findall(sent)
    more = result.metric.more
    assert len(contexts) == ("identified" in expected and "curl_copy_handle" not in code)
    assert [call.span for call in more["call_spans"]] == [span.decode() for _, span, _ in contexts]
    same = lambda request: re.sub(rb"ns\d+", b"ns", IDENTITY.sub(b"", OURS.sub(b"", request)))
    assert same(sent) == same(twin)
    for call in more["call_spans"]:
        assert call.call == 0 and list(wire.nodes(result.metric.trace))[call.node][2].startswith("External/")
        assert 2000 <= call.took_us <= more["calls_us"] and call.start_us + call.took_us <= more["duration_us"]


@pytest.mark.parametrize("code, expected", cases("external/trace_context.php"))
def test_which_span_goes_where(run, code, expected):
    result, sent, twin = run(code, answer=http_answer("ok"))
    found = [match for request in sent for match in OURS.findall(request)]
    spans, more = [span.decode() for _, span, _ in found], result.metric.more
    assert {trace.decode() for trace, _, _ in found} <= {more["trace_context"][0]} and len(sent) == len(twin)
    if expected == "action":
        assert spans == [more["trace_context"][1]] * 2 and more["call_spans"] == []
    elif expected in ("none", "own"):
        assert spans == [] and more["call_spans"] == []
        assert sum(request.lower().count(b"traceparent") for request in sent) == (expected == "own")
    else:
        assert len(set(spans)) == len(spans) == int(expected.split()[0])
        assert {call.span for call in more["call_spans"]} == set(spans)
    assert sorted(IDENTITY.sub(b"", OURS.sub(b"", request)) for request in sent) == sorted(twin)


@pytest.mark.parametrize("deny, carries", [
    ("127.0.0.1", False), ("example.com, 127.*", False), ("*", False), ("*.0.0.1,", False), (" 127.0.0.1 ", False),
    ("127.0.0", True), ("27.0.0.1", True), ("127.0.0.1:80", True), ("localhost,*.example.com", True), (",,", True)])
def test_hosts_of_the_deny_list_get_none(run, deny, carries):
    code = "foreach (array('$URL', 'http://user:p@127.0.0.1:$PORT/') as $url) { file_get_contents($url); $c = curl_init($url);" \
           "curl_setopt($c, CURLOPT_RETURNTRANSFER, 1); curl_exec($c); }" \
           "$s = new SoapClient(null, array('location' => '$URL', 'uri' => 'u', 'exceptions' => false)); $s->count();"
    result, sent, _ = run(code, settings={**ASKED, "zqs.traceparent_deny": deny})
    assert len(sent) == 5 and all(IDENTITY.search(request) for request in sent)
    assert [len(OURS.findall(request)) for request in sent] == [int(carries)] * 5


def test_calls_of_a_quick_action_are_in_the_record(run):
    """Without a trace, whose nodes they are not."""
    result, sent, _ = run("file_get_contents('$URL'); file_get_contents('$URL');",
                          settings={**ASKED, "zqs.action_tracer.action_threshold": "60000"})
    spans = result.metric.more["call_spans"]
    assert result.metric.trace is None and len(sent) == 2
    assert [(call.call, call.node) for call in spans] == [(0, IS_IN_NO_TRACE), (1, IS_IN_NO_TRACE)]
    assert spans[1].start_us >= spans[0].start_us + spans[0].took_us


def test_a_worker_begins_a_trace_with_each_action(site):
    peer = Peer()
    site.daemon.configure(ASKED)
    code = "for ($i = 0; $i < 2; $i++) { vantor_start_webaction('job'); file_get_contents('%s'); vantor_end_webaction(); }" % peer.url()
    metrics = [metric for metric in site.cli(code, twin=False, env={"HTTP_TRACEPARENT": VALID}).metrics if metric.action.endswith("job")]
    contexts = [metric.more["trace_context"] for metric in metrics]
    sent = [OURS.findall(request)[0] for request in peer.take()]
    peer.close()
    assert [trace for trace, _, _ in contexts] == [trace.decode() for trace, _, _ in sent] and contexts[0][0] != contexts[1][0]
    assert [call.span for metric in metrics for call in metric.more["call_spans"]] == [span.decode() for _, span, _ in sent]


@pytest.mark.parametrize("threshold", ["1", "60000"], ids=["traced", "quick"])
def test_spans_of_others_and_ours_are_one_tree(real, definitions, threshold):
    """A foreign caller's span is the parent of ours, and ours of a foreign callee and of a monitored one."""
    site, receiver, callee = real.site, Receiver(definitions), Peer(delay_ms=3)
    settings = {**PLAIN, **ASKED, "zqs.action_tracer.action_threshold": threshold}
    (real.logs / "applications.conf").write_text(f"otlp_url = http://127.0.0.1:{receiver.port}\notlp_seconds = 1\n[*]\n" + "".join(
        f"{key} = {value}\n" for key, value in settings.items()))
    try:
        real.php()                                    # starts the daemon
        wait_until(lambda: real.pids() and real.shown(), "the daemon")
        shop, stock = Fpm(site, site.ini_file(True), True), BuiltIn(site, site.ini_file(True), True)
        for server in shop, stock:
            site.servers.append(server)
            server.start()
        site.script(program("applications/item.php"), "item.php")
        page = site.script(f"$c = curl_init('{callee.url()}'); curl_setopt($c, CURLOPT_RETURNTRANSFER, 1); curl_exec($c);"
                           f"echo file_get_contents('http://127.0.0.1:{stock.port}/item.php');", "page.php")
        assert shop.request(page, "/page.php", headers={"traceparent": VALID}).body == b"item"
        named = lambda name: [span for _, span in receiver.spans() if span["name"].endswith(name)]
        wait_until(lambda: named("page.php") and named("item.php"), "the spans", 60)
        ids = lambda span, key: hexadecimal(span.get(key) or "", "protobuf")
        (page,), (item,) = named("page.php"), named("item.php")
        calls = [span for _, span in receiver.spans() if span["kind"] in (3, "SPAN_KIND_CLIENT")]
        assert {ids(span, "traceId") for span in (page, item, *calls)} == {FOREIGN}
        assert ids(page, "parentSpanId") == CALLER and len(calls) == 2
        assert {ids(call, "parentSpanId") for call in calls} == {ids(page, "spanId")}
        (trace, span, _), = OURS.findall(callee.take()[0])
        assert trace.decode() == FOREIGN
        assert {span.decode(), ids(item, "parentSpanId")} == {ids(call, "spanId") for call in calls}
        (call,) = [call for call in calls if ids(call, "spanId") == span.decode()]
        assert attributes(call)["server.address"] == "127.0.0.1" and attributes(call)["server.port"] == str(callee.port)
        assert int(call["endTimeUnixNano"]) - int(call["startTimeUnixNano"]) >= 2_000_000
    finally:
        receiver.close()
        callee.close()
