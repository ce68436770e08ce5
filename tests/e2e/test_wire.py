"""The byte examples of the protocol, as literals, so that encoder and decoder cannot share a mistake."""
import pytest

import wire
from wire import WireError, decode, record

HEAD = record(0x11, "a") + record(0x0E, "k")
FIVE = b"".join(record(kind, b"\1\0\0\0") for kind in (0x1A, 0x1B, 0x14, 0x15, 0x16))


def metric(*parts, numbers=FIVE):
    return record(wire.METRIC, HEAD + numbers + b"".join(parts))


def test_records_are_written_byte_for_byte():
    for data, expected in [
        (record(0x0D, "zqs.agent_enabled=true"), b"\x0d\x00\x00\x16zqs.agent_enabled=true"),
        (record(0x1C, "A="), b"\x1c\x00\x00\x02A="),
        (record(0x27, b"x" * 0x010203)[:4], b"\x27\x01\x02\x03"),
        (wire.answer(stamp=None), b"\x0a\x00\x00\x00"),
        (wire.answer({"zqs.action_tracer.action_threshold": 5000}, 7, "a1"),
         b"\x0a\x00\x00\x3d\x0c\x00\x00\x08\x07\0\0\0\0\0\0\0\x10\x00\x00\x02a1"
         b"\x0d\x00\x00\x27zqs.action_tracer.action_threshold=5000"),
    ]:
        assert data == expected


def test_query_bytes_are_read():
    query = decode(b"\x0a\x00\x00\x47" b"\x11\x00\x00\x01a" b"\x0e\x00\x00\x01k" b"\x0c\x00\x00\x08\x02\x01\0\0\0\0\0\0"
                   b"\x0d\x00\x00\x16zqs.agent_enabled=true" b"\x1c\x00\x00\x13quorbit=Oct 20 2016")
    assert (query.app, query.license, query.stamp, query.enabled) == ("a", "k", 258, "true")
    assert query.environment == {"quorbit": "Oct 20 2016"}


def test_metric_bytes_are_read():
    found = decode(
        b"\x0b\x00\x00\xd0" b"\x11\x00\x00\x01a" b"\x0e\x00\x00\x01k"
        b"\x1a\x00\x00\x04\x02\0\0\0" b"\x1b\x00\x00\x04\x03\0\0\0" b"\x14\x00\x00\x04\0\0\0\0"
        b"\x15\x00\x00\x04\xcf\x07\x00\x00" b"\x16\x00\x00\x04\x0c\0\0\0"
        b"\x27\x00\x00\x142:124:test8:SELECT 1" b"\x29\x00\x00\x11Memcached\n\nget\n12" b"\x17\x00\x00\x0c12\nMemcached"
        b"\x29\x00\x00\x14MongoDB\nusers\nfind\n3" b"\x29\x00\x00\x0eMongoDB\ndrop\n3"
        b"\x2b\x00\x00\x18120\n20\nPHP/Shop/checkout" b"\x24\x00\x00\x0fhttpStatus: 200" b"\x23\x00\x00\x04q: 1")
    assert (found.duration_ms, found.cpu_ticks, found.system_ticks, found.db_ms) == (1999, 2, 3, 12)
    assert found.sql == [wire.Sql(12, "test", "SELECT 1")]
    assert found.nosql == [("Memcached", "", "get", 12), ("MongoDB", "users", "find", 3), ("MongoDB", "", "drop", 3)]
    assert found.nosql_sums == {"Memcached": 12} and found.components == {"PHP/Shop/checkout": (120, 20)}
    assert found.details == {"httpStatus": "200"} and found.params == [("q", "1")]


def test_event_bytes_are_read():
    assert decode(b"\x09\x00\x00\x3b\x11\x00\x00\x04shop\x0e\x00\x00\x09empty key"
                  b"\x2c\x00\x00\x225007 42 enter function Cart::total") == \
        wire.Event("shop", "empty key", 5007, 42, "enter function", "Cart::total")


def test_trace_is_read():
    found = decode(metric(record(0x25, b'[0,120,"","",1,"PHP","execute",{},[[3,15,"Database mysql/users/SELECT","",1,"PDO",'
                                       b'"query",{"sql":"a\x01b"},[]]]]'), record(0x26, "1f")))
    assert found.trace[8][0][7] == {"sql": "a\x01b"} and found.tracer_id == "1f"


@pytest.mark.parametrize("packet", [
    pytest.param(metric() + b"\0", id="byte behind the packet"),
    pytest.param(metric()[:-1], id="packet cut"),
    pytest.param(record(wire.METRIC, HEAD + FIVE + b"\x24\0\0"), id="header cut"),
    pytest.param(record(wire.METRIC, HEAD + FIVE + b"\x24\0\0\x09a: b"), id="inner record overruns"),
    pytest.param(metric(numbers=FIVE[:-8]), id="number missing"),
    pytest.param(metric(numbers=FIVE[:-8] + record(0x16, b"\0\0")), id="short number"),
    pytest.param(record(wire.METRIC, FIVE + HEAD), id="order"),
    pytest.param(metric(record(0x27, "2:124:test9:SELECT 1")), id="item overruns"),
    pytest.param(metric(record(0x29, "Memcached\nget\n12")), id="Memcached without its empty line"),
    pytest.param(metric(record(0x99, "")), id="unknown record"),
    pytest.param(record(0x42, ""), id="unknown packet"),
])
def test_malformed_packets_are_refused(packet):
    decode(metric())
    with pytest.raises(WireError):
        decode(packet)
