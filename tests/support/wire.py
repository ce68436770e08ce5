"""The daemon protocol, read and written from docs/protocol.md alone.

Strict on purpose: a record or packet that overruns, leaves bytes over, comes out of order or lacks a field is a WireError,
so that any test which lets a packet arrive also checks its form.
"""
import json
import os
import re
import struct
from collections import namedtuple
from types import SimpleNamespace

QUERY, METRIC, PROFILE = 0x0A, 0x0B, 0x09
STAMP, SETTING, KEY, APP_ID, APP, ENVIRONMENT = 0x0C, 0x0D, 0x0E, 0x10, 0x11, 0x1C

# Keys of our own: a daemon that does not ask for anything new leaves them out (tests/wire_compare.py).
LEFT_OUT = {"zqs.details", "zqs.uri_from_request", "zqs.radar", "zqs.traceparent", "zqs.traceparent_deny"} if os.environ.get("QUORBIT_PACKETS") else set()

# What may follow what in a metric packet; 0x29 is told apart by its first line.
METRIC_ORDER = re.compile(
    "11 0e (12 )?(21 )?1a 1b 14 15 16 (27 )*(Memcached )*(17 )?(MongoDB )*(17 )?(Redis )*(17 )?(http )*(18 )?"
    "(2b )*(2a )?(2d )*(25 (20 )?26 )?(24 )*(23 )*(60 )?(61 )?")
NUMBERS = {0x1A: "cpu_ticks", 0x1B: "system_ticks", 0x14: "block_ms", 0x15: "duration_ms", 0x16: "db_ms", 0x18: "calls_ms"}
TEXTS = {APP: "app", KEY: "license", 0x12: "action", 0x21: "uri", 0x20: "transaction_id", 0x26: "tracer_id"}


# The details record's items: name and form of the body.
DETAILS = {0x01: ("duration_us", "Q"), 0x02: ("db_us", "Q"), 0x03: ("nosql_us", "Q"), 0x04: ("calls_us", "Q"), 0x05: ("waited_us", "Q"),
           0x06: ("statements", "Q"), 0x07: ("operations", "Q"), 0x08: ("calls", "Q"), 0x09: ("user_us", "Q"), 0x0A: ("system_us", "Q"),
           0x0B: ("peak_memory", "Q"), 0x0C: ("output", "Q"), 0x0D: ("exit_status", "Q"), 0x10: ("path", ""), 0x11: ("method", ""),
           0x12: ("host", ""), 0x13: ("script", ""), 0x20: ("places", "place"), 0x21: ("runs", "runs"), 0x22: ("callers", "caller"),
           0x30: ("error_class", ""), 0x31: ("error_message", ""), 0x32: ("components", "I"), 0x33: ("trace_texts", "IB"),
           0x34: ("call_messages", "I"), 0x35: ("frames", "IB"), 0x40: ("trace_context", "context"), 0x41: ("call_spans", "span")}
SOME_HAVE = {"waited_us", "exit_status"}                            # of the figures; every action has the others


class WireError(Exception):
    pass


def record(kind, body):
    body = body.encode() if isinstance(body, str) else body
    return struct.pack(">I", kind << 24 | len(body)) + body


def split(data):
    """The records that fill `data` exactly, as (type, body)."""
    found, at = [], 0
    while at < len(data):
        if len(data) - at < 4:
            raise WireError(f"{len(data) - at} bytes left over")
        word, = struct.unpack_from(">I", data, at)
        kind, length = word >> 24, word & 0xFFFFFF
        if at + 4 + length > len(data):
            raise WireError(f"record {kind:#x} of {length} bytes overruns")
        found.append((kind, data[at + 4:at + 4 + length]))
        at += 4 + length
    return found


def answer(settings=None, stamp=1, app_id=None):
    """A configuration answer; a stamp of None is left out."""
    body = b"" if stamp is None else record(STAMP, struct.pack("<Q", stamp))
    body += b"" if app_id is None else record(APP_ID, app_id)
    body += b"".join(record(SETTING, f"{key}={value}") for key, value in (settings or {}).items() if key not in LEFT_OUT)
    return record(QUERY, body)


def text(body):
    return body.decode("utf-8", "surrogateescape")


def number(body):
    if len(body) != 4:
        raise WireError(f"number of {len(body)} bytes")
    return struct.unpack("<i", body)[0]


def assignment(body):
    name, equals, value = text(body).partition("=")
    if not equals:
        raise WireError(f"no '=' in {body!r}")
    return name, value


def items(body):
    """The length-prefixed items of an SQL record."""
    found = []
    while body:
        size, colon, rest = body.partition(b":")
        if not colon or not re.fullmatch(rb"0|[1-9][0-9]*", size) or int(size) > len(rest):
            raise WireError(f"bad item at {body[:20]!r}")
        found.append(text(rest[:int(size)]))
        body = rest[int(size):]
    return found


def lines(body, least, most):
    found = text(body).split("\n")
    if not least <= len(found) <= most:
        raise WireError(f"{len(found)} lines in {body!r}")
    return found


Query = namedtuple("Query", "app license stamp enabled environment raw")
Event = namedtuple("Event", "app license ms tid event name")
Sql = namedtuple("Sql", "ms db statement stack plan", defaults=(None, None))
CallSpan = namedtuple("CallSpan", "span call node start_us took_us")
Call = namedtuple("Call", "name ms callee_id callee_action", defaults=(None, None))


class Metric(SimpleNamespace):
    """One finished action; what the packet does not have is None or empty."""

    def __init__(self):
        super().__init__(kinds=[], **dict.fromkeys([*NUMBERS.values(), *TEXTS.values(), "error", "trace", "more", "radar"]), sql=[], calls=[],
                         nosql=[],            # (product, collection, operation, ms)
                         nosql_sums={}, components={},    # name: (ms, own ms)
                         call_errors=[], details={}, params=[])


def decode_query(body, raw):
    found = split(body)
    if [kind for kind, _ in found[:4]] != [APP, KEY, STAMP, SETTING] or {kind for kind, _ in found[4:]} != {ENVIRONMENT}:
        raise WireError("query out of order")
    if len(found[2][1]) != 8:
        raise WireError("stamp is not of 8 bytes")
    setting, enabled = assignment(found[3][1])
    pairs = [assignment(part) for _, part in found[4:]]
    order = ["quorbit", "PHP Version", "Thread Safety", "module", "Server API", "Apache Version", "Apache MPM", "Plugin List"]
    if setting != "zqs.agent_enabled" or [n for n, _ in pairs] != [n for n in order if n in dict(pairs)]:
        raise WireError("query names out of order")
    return Query(text(found[0][1]), text(found[1][1]), struct.unpack("<Q", found[2][1])[0], enabled, dict(pairs), raw)


def decode_event(body):
    found = split(body)
    if [kind for kind, _ in found] != [APP, KEY, 0x2C]:
        raise WireError("event out of order")
    line = re.fullmatch(r"(\d+) (\d+) ((?:enter|leave) (?:action|function)) (.*)", text(found[2][1]))
    if not line or len(found[2][1]) > 255:
        raise WireError(f"bad event {found[2][1]!r}")
    return Event(text(found[0][1]), text(found[1][1]), int(line[1]), int(line[2]), line[3], line[4])


def sql_record(body):
    parts = items(body)
    if not 3 <= len(parts) <= 5:
        raise WireError(f"{len(parts)} items in an SQL record")
    extras = [json.loads(extra) for extra in parts[3:]]
    if [type(extra) for extra in extras] not in ([], [list], [dict], [list, dict]):
        raise WireError(f"neither stack nor plan in {body!r}")
    named = {"stack" if isinstance(extra, list) else "plan": extra for extra in extras}
    return Sql(int(parts[0]), parts[1], parts[2], **named)


def total_record(metric, body):
    """A 0x29 record; returns the word that places it in the packet."""
    product = text(body).split("\n", 1)[0]
    if product == "http":
        found = lines(body, 4, 6)
        if found[2] != "" or len(found) == 5:
            raise WireError(f"bad outgoing call {body!r}")
        metric.calls.append(Call(found[1], int(found[3]), *found[4:]))
    elif product == "MongoDB":
        found = lines(body, 4, 4)
        metric.nosql.append((product, found[1], found[2], int(found[3])))
    elif product in ("Memcached", "Redis"):
        found = lines(body, 4, 4)
        if found[1] != "":
            raise WireError(f"collection in {body!r}")
        metric.nosql.append((product, "", found[2], int(found[3])))
    else:
        raise WireError(f"unknown product in {body!r}")
    return product


def component_record(metric, body):
    total, own, name = lines(body, 3, 3)
    if name in metric.components:
        raise WireError(f"component {name} twice")
    if name == "PHP/NULL/remainder code" and (total != own or int(own) <= 0):
        raise WireError(f"remainder of {total}, {own} ms")
    metric.components[name] = (int(total), int(own))


def error_record(body):
    found = text(body).split("\n", 4)
    if found[0] != "1" or len(found) < 4:
        raise WireError(f"bad error {body!r}")
    stack = json.loads(found[4]) if len(found) > 4 else None
    return {"status": int(found[1]), "class": found[2], "message": found[3], "stack": stack}


def call_error_record(body):
    found = text(body).split("\n", 5)
    if len(found) != 6 or not found[0].startswith("External/"):
        raise WireError(f"bad error of a call {body!r}")
    return {"name": found[0][9:], "code": int(found[1]), "status": found[2], "message": found[3], "query": found[4],
            "stack": json.loads(found[5])}


def nodes(node):
    """A node of a trace and all below it."""
    yield node
    for child in node[8]:
        yield from nodes(child)


def check_node(node):
    """A trace node has nine elements of fixed types."""
    if len(node) != 9 or [type(x) for x in node] != [int, int, str, str, int, str, str, dict, list] or node[4] != 1:
        raise WireError(f"bad trace node {node!r}")
    if set(node[7]) - {"sql", "stacktrace", "explainPlan", "partialtrace", "txId", "txData"}:
        raise WireError(f"unknown trace parameter in {node[7]!r}")
    for child in node[8]:
        check_node(child)


def details_record(body):
    """The items by name; texts are bytes. "ran_at" has the place (vendor, file, line) of each statement, "called_from" the file and
    line that called it."""
    found = {"places": [], "runs": [], "callers": {}, "components": {}, "trace_texts": {}, "call_messages": {}, "frames": {},
             "trace_context": None, "call_spans": []}
    for kind, part in split(body):
        name, form = DETAILS[kind]
        if form == "":
            found[name] = part
        elif form == "Q":
            found[name], = struct.unpack("<Q", part)
        elif form == "place":
            line, size = struct.unpack_from("<IB", part)
            found[name].append((text(part[5:5 + size]), text(part[5 + size:]), line))
        elif form == "caller":
            if not found["places"] or len(found["places"]) - 1 in found[name]:
                raise WireError("a caller of no place")
            found[name][len(found["places"]) - 1] = (text(part[4:]), *struct.unpack_from("<I", part))
        elif form == "context":
            found[name] = tuple(part.hex() for part in struct.unpack("<16s8s8s", part))
        elif form == "span":
            span, *figures = struct.unpack("<8sIIQQ", part)
            found[name].append(CallSpan(span.hex(), *figures))
        elif form == "runs":
            found[name] = list(struct.iter_unpack("<HH", part))
        else:
            size = struct.calcsize("<" + form)
            key = struct.unpack_from("<" + form, part)
            found[name][key if len(key) > 1 else key[0]] = part[size:]
    if len(body) > 256 << 10 or any(place >= len(found["places"]) and place != 0xFFFF for _, place in found["runs"]):
        raise WireError(f"details of {len(body)} bytes, {found['runs']} of {len(found['places'])} places")
    missing = {name for name, form in DETAILS.values() if form == "Q"} - SOME_HAVE - found.keys()
    if missing:
        raise WireError(f"details without {missing}")
    found["called_from"] = [found["callers"].get(place) for count, place in found["runs"] for _ in range(count)]
    found["ran_at"] = [found["places"][place] if place != 0xFFFF else None for count, place in found["runs"] for _ in range(count)]
    return found


def radar_record(body):
    """Sites (file, line, sign, name, function, evidence) and functions (file, line, name, called)."""
    found, file = SimpleNamespace(sites=[], functions=[]), None
    for kind, part in split(body):
        if kind == 0x01:
            file = text(part)
        elif file is None:
            raise WireError("a site before its file")
        elif kind == 0x02:
            line, sign, evidence, size = struct.unpack_from("<IBBB", part)
            found.sites.append((file, line, sign, text(part[7:7 + size]), text(part[7 + size:]), evidence))
        elif kind == 0x03:
            found.functions.append((file, *struct.unpack_from("<I", part), text(part[5:]), part[4]))
        else:
            raise WireError(f"unknown item {kind:#x} of the radar")
    if not 0 < len(body) <= 256 << 10:
        raise WireError(f"radar of {len(body)} bytes")
    return found


def decode_metric(body):
    metric, order = Metric(), []
    for kind, part in split(body):
        word = f"{kind:02x}"
        metric.kinds.append(kind)
        if kind in NUMBERS:
            setattr(metric, NUMBERS[kind], number(part))
        elif kind in TEXTS:
            setattr(metric, TEXTS[kind], text(part))
        elif kind == 0x27:
            metric.sql.append(sql_record(part))
        elif kind == 0x29:
            word = total_record(metric, part)
        elif kind == 0x17:
            ms, product = lines(part, 2, 2)
            metric.nosql_sums[product] = int(ms)
        elif kind == 0x2B:
            component_record(metric, part)
        elif kind == 0x60:
            metric.more = details_record(part)
        elif kind == 0x61:
            metric.radar = radar_record(part)
        elif kind == 0x2A:
            metric.error = error_record(part)
        elif kind == 0x2D:
            metric.call_errors.append(call_error_record(part))
        elif kind == 0x25:
            metric.trace = json.loads(text(part), strict=False)
            check_node(metric.trace)
        elif kind in (0x23, 0x24):
            name, colon, value = text(part).partition(": ")
            if not colon:
                raise WireError(f"no ': ' in {part!r}")
            metric.params.append((name, value)) if kind == 0x23 else metric.details.update({name: value})
        else:
            raise WireError(f"unknown record {kind:#x}")
        order.append(word)
    if not METRIC_ORDER.fullmatch(" ".join(order) + " "):
        raise WireError("metric packet out of order: " + " ".join(order))
    return metric


def decode(packet):
    """One packet of the extension: a Query, Metric or Event."""
    found = split(packet)
    if len(found) != 1:
        raise WireError(f"{len(found)} packets in one")
    kind, body = found[0]
    if kind == QUERY:
        return decode_query(body, packet)
    if kind == METRIC:
        return decode_metric(body)
    if kind == PROFILE:
        return decode_event(body)
    raise WireError(f"unknown packet {kind:#x}")
