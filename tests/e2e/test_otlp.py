"""Spans and metrics, as a receiver with OpenTelemetry's own definitions reads them; and receivers that refuse, fail and say nothing."""
import re
import subprocess
import time
import urllib.request
from pathlib import Path

import pytest

from support import web
from support.clickhouse import free_ports
from support.fake_daemon import wait_until
from support.otlp import Receiver, attributes, hexadecimal
from support.wire import record

@pytest.fixture
def store():
    found = web.Store()
    yield found
    found.close()


def configure(store, receiver, *lines):
    (store.folder / "applications.conf").write_text("\n".join(
        [f"otlp_url = http://127.0.0.1:{receiver.port}", "otlp_seconds = 1", "host_name = web-1", *lines, ""]))
    wait_until(lambda: "settings of" in (store.folder / "daemon.log").read_text(), "the settings")


def traced(app, name, tracer, call=None, transaction=b"17"):
    """An action with a trace: a statement in a function, and a call of the action of another tracer id."""
    statement = web.node(10, 30, "Database MySQL/users/SELECT", "PDO::query", sql="SELECT name FROM users WHERE id = 17 AND mail = 'a@b'")
    calls = [web.node(5, 40, "", "Shop::rows", [statement])]
    if call:
        calls.append(web.node(50, 90, "External/stock/curl", "curl_exec", url="http://stock.example:8080/items?key=secret",
                              txId="17", txData={"id": "2", "action": "stock", "trId": call, "tr": 1, "time": {"duration": 30}}))
    packet = web.packet(app, name, 100, statements=[(20, b"MySQL", b"SELECT name FROM users WHERE id = 17")], trace=web.node(0, 100, "", "PHP::execute", calls), error=(500, b"LogicException", b"wrong", b'["f(/a.php:3)"]'))
    return record(0x0B, packet[4:].replace(record(0x26, "t1"), record(0x20, transaction) + record(0x26, tracer)))


@pytest.mark.parametrize("format", ["protobuf", "json"])
def test_two_applications_share_a_trace_in_the_words_of_the_conventions(store, definitions, format):
    receiver = Receiver(definitions)
    try:
        configure(store, receiver, f"otlp_format = {format}", "otlp_headers = x-key=a%2Cb")
        time_before = time.time_ns()
        store.fill(traced(b"Shop", b"WebAction/buy", "caller", call="callee"), traced(b"Stock", b"WebAction/items", "callee"),
                   web.packet(b"Shop", b"WebAction/fast", 3))
        wait_until(lambda: len(receiver.spans()) >= 8 and receiver.bodies("/v1/metrics"), "the spans and metrics", 60)
        headers = receiver.bodies()[0]["headers"]
        assert headers["x-key"] == "a,b" and headers["content-type"] == f"application/{'json' if format == 'json' else 'x-protobuf'}"
        spans = {(resource["service.name"], span["name"]): (resource, span) for resource, span in receiver.spans()}
        assert len(spans) == 8
        resource, buy = spans["Shop", "WebAction/buy"]
        assert resource["host.name"] == "web-1" and resource["telemetry.sdk.language"] == "php"
        _, items = spans["Stock", "WebAction/items"]
        _, call = spans["Shop", "External/stock/curl"]
        _, statement = spans["Shop", "SELECT users"]
        _, function = spans["Shop", "Shop::rows"]
        assert buy["traceId"] == items["traceId"] == call["traceId"] and len(hexadecimal(buy["traceId"], format)) == 32
        assert spans["Shop", "WebAction/fast"][1]["traceId"] != buy["traceId"]
        assert not buy.get("parentSpanId") and call["parentSpanId"] == buy["spanId"]
        assert items["parentSpanId"] == call["spanId"] and statement["parentSpanId"] == function["spanId"]
        kind = lambda span: {1: "SPAN_KIND_INTERNAL", 2: "SPAN_KIND_SERVER", 3: "SPAN_KIND_CLIENT"}.get(span["kind"], span["kind"])
        assert [kind(span).split("_")[-1] for span in (buy, call, statement, function)] == ["SERVER", "CLIENT", "CLIENT", "INTERNAL"]
        assert attributes(statement) == {"db.system.name": "mysql", "db.query.text": "SELECT name FROM users WHERE id = ? AND mail = ?",
                                         "db.operation.name": "SELECT", "db.collection.name": "users"}
        assert attributes(call) == {"url.full": "http://stock.example:8080/items", "server.address": "stock.example", "server.port": "8080"}
        event, = buy["events"]
        assert attributes(event) == {"exception.type": "LogicException", "exception.message": "wrong", "exception.stacktrace": "f(/a.php:3)\n"}
        assert attributes(buy)["error.type"] == "LogicException" and buy["status"]["code"] in (2, "STATUS_CODE_ERROR")
        assert int(buy["endTimeUnixNano"]) - int(buy["startTimeUnixNano"]) == 100_000_000
        assert int(statement["startTimeUnixNano"]) - int(buy["startTimeUnixNano"]) == 10_000_000
        assert -1e6 < int(buy["endTimeUnixNano"]) - time_before < 60e9
        points = {(attributes(part["resource"])["service.name"], metric["name"], *attributes(point).values()): point
                  for part in receiver.bodies("/v1/metrics")[0]["message"]["resourceMetrics"]
                  for metric in part["scopeMetrics"][0]["metrics"] for point in metric["histogram"]["dataPoints"]}
        counted = points["Shop", "http.server.request.duration", "WebAction/buy"]
        assert counted["bucketCounts"] == ["0"] * 5 + ["1"] + ["0"] * 9
        exemplar, = counted["exemplars"]
        assert (exemplar["traceId"], exemplar["spanId"], exemplar["asDouble"]) == (buy["traceId"], buy["spanId"], 0.1)
        statements = points["Shop", "db.client.operation.duration", "mysql", "SELECT", "users"]
        assert statements["bucketCounts"] == ["0"] * 3 + ["1"] + ["0"] * 6 and statements["sum"] == 0.02
    finally:
        receiver.close()


def test_what_may_be_sent_again_is_and_what_is_refused_is_not(store, definitions):
    receiver = Receiver(definitions, 503, 0, 1, 400)
    try:
        configure(store, receiver, "otlp_functions = no", "otlp_send = traced")
        store.fill(traced(b"Shop", b"WebAction/a", "one"), web.packet(b"Shop", b"WebAction/fast", 3))
        wait_until(lambda: any(one["status"] == 400 for one in receiver.received), "the refusal", 90)
        tried = [one for one in receiver.received if one["path"] == "/v1/traces"]
        assert [one["status"] for one in tried] == [503, 0, 1, 400]
        assert tried[1]["at"] - tried[0]["at"] >= 1.9                                # as Retry-After asks
        assert all(one["message"] == tried[0]["message"] for one in tried)
        store.send(traced(b"Shop", b"WebAction/b", "two"))
        wait_until(receiver.spans, "the next", 60)
        assert {span["name"] for _, span in receiver.spans()} == {"WebAction/b", "SELECT users"}
        assert "refuses 1 actions for good" in (store.folder / "daemon.log").read_text()
    finally:
        receiver.close()


def resident_peak(process):
    """Bytes, of the daemon and its parent."""
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()
    statuses = [Path(f"/proc/{pid}/status").read_text() for pid in [process.pid, *map(int, children)]]
    return sum(int(re.search(r"VmHWM:\s+(\d+)", status)[1]) * 1024 for status in statuses)


def test_a_receiver_that_answers_badly_holds_up_nothing_and_gets_all_once(store, definitions):
    """429 with Retry-After, garbage, and one that takes the connection and never answers; meanwhile others are served."""
    receiver = Receiver(definitions, 429, 1, 2)
    metrics_port, = free_ports(1)
    try:
        configure(store, receiver, f"metrics_listen = 127.0.0.1:{metrics_port}")
        first = [traced(b"Shop", b"WebAction/first", "f%d" % i, transaction=b"first%d" % i) for i in range(300)]
        store.fill(*first)
        before = resident_peak(store.process)
        tried = lambda: [one for one in receiver.received if one["path"] == "/v1/traces"]
        wait_until(lambda: len(tried()) == 3, "the receiver to hang", 90)
        assert tried()[1]["at"] - tried()[0]["at"] >= 1.9
        began = time.monotonic()
        store.send(*[web.packet(b"Shop", b"WebAction/later", 5) for _ in range(600)])
        wait_until(lambda: store.stored() == 900, "what comes meanwhile")
        figures = scraped(metrics_port)
        assert time.monotonic() - began < 9 and len(tried()) == 3, "while it hangs"
        assert (figures["failing"], figures["sent_actions_total"], figures["refused_actions_total"]) == (1, 0, 0)
        assert figures["behind_seconds"] > 1
        names = lambda: [span["name"] for _, span in receiver.spans()]
        wait_until(lambda: names().count("WebAction/later") >= 600, "everything to arrive", 120)
        known = {"sent_actions_total": 900, "failing": 0, "evicted_actions_total": 0, "behind_seconds": 0}
        wait_until(lambda: known.items() <= scraped(metrics_port).items(), "the daemon to know")
        ids = [span["spanId"] for _, span in receiver.spans()]
        assert len(ids) == len(set(ids)) == names().count("SELECT users") * 3 + 600 == 1500
        assert resident_peak(store.process) - before < 48 << 20
        text = urllib.request.urlopen(f"http://127.0.0.1:{metrics_port}/metrics", timeout=30).read()
        done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, timeout=60)
        assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
    finally:
        receiver.close()


def scraped(port):
    """The figures of sending spans, by the last words of their names."""
    text = urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=30).read().decode()
    return {name: float(value) for name, value in re.findall(r'^quorbit_export_(\w+)\{target="otlp"\} (\S+)', text, re.M)}
