"""The fake daemon's side of the protocol: what it writes, byte for byte, and what it refuses to read."""
import pytest

from support import wire
from support.wire import WireError, decode, record

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
