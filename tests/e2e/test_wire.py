"""The fake daemon's side of the protocol: what it refuses to read."""
import pytest

from support import wire
from support.wire import WireError, decode, record

HEAD = record(0x11, "a") + record(0x0E, "k")
FIVE = b"".join(record(kind, b"\1\0\0\0") for kind in (0x1A, 0x1B, 0x14, 0x15, 0x16))


def metric(*parts, numbers=FIVE):
    return record(wire.METRIC, HEAD + numbers + b"".join(parts))


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
