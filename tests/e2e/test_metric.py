"""The metric packet of a request: which records it has, and what they say."""
import os
import re

import pytest

from support.cases import program
from support.engines import FastCgi

HEADERS = {"Referer": "http://a.test/?q=1", "User-Agent": "probe/1.0"}
NUMBERS = [0x1A, 0x1B, 0x14, 0x15, 0x16]


def test_records_of_a_web_request(site):
    result = site.cgi('http_response_code(203); function work() { usleep(20000); } work();', "/shop/a12.php?x=1&y=2", "POST",
                      b"z=3", HEADERS, ini={"zqs.license_key": "12345"}, settings={"zqs.capture_params": "1"})
    metric = result.metric
    assert metric.kinds == [0x11, 0x0E, 0x12, 0x21, *NUMBERS, *[0x2B] * len(metric.components), *[0x24] * 4, *[0x23] * 3]
    assert (metric.app, metric.license, metric.action) == ("Shop", "12345", "WebAction/URI/shop%2Fa*.php")
    assert metric.uri == "/shop/a12.php"
    pid, = {c.pid for c in site.daemon.connections}
    assert metric.details == {"referer": HEADERS["Referer"], "user-agent": HEADERS["User-Agent"], "threadName": f"pid-{pid}",
                              "httpStatus": "203"}
    assert metric.params == [("x", "1"), ("y", "2"), ("z", "3")]
    assert "PHP/NULL/work" in metric.components


def test_absent_and_empty_headers_are_left_out(site):
    assert list(site.cgi("", headers={"Referer": ""}).metric.details) == ["threadName", "httpStatus"]


def test_records_of_a_command_line_run(site):
    metric = site.cli("", env={"HTTP_REFERER": "a", "QUERY_STRING": "x=1"}, settings={"zqs.capture_params": "1"}).metric
    assert metric.kinds == [0x11, 0x0E, 0x12, *NUMBERS, *[0x2B] * len(metric.components)]
    assert metric.action.startswith("BackgroundAction/Script/")


def test_times_are_those_of_the_request(site):
    """A quarter second of work, then a nap: duration in ms, processor time in clock ticks, of which the page tells the system's
    and the user's share in seconds."""
    server = site.serve(FastCgi)
    result = server.get(program("times.php"), twin=False)
    metric, (system, user) = result.metric, (float(text) * os.sysconf("SC_CLK_TCK") for text in result.body.split())
    assert 350 <= metric.duration_ms <= result.ms
    assert 0.2 * os.sysconf("SC_CLK_TCK") <= metric.cpu_ticks <= system + user + 2
    assert abs(metric.system_ticks - system) <= 2
    second = server.get("$end = microtime(true) + 0.05; while (microtime(true) < $end);", twin=False).metric
    assert second.cpu_ticks < 0.2 * os.sysconf("SC_CLK_TCK"), "the process has used more, but not this request"
    assert (metric.db_ms, metric.block_ms, metric.calls_ms) == (0, 0, None)
    own = sum(own for _, own in metric.components.values())
    assert own == metric.duration_ms, "components and remainder account for every millisecond"


def test_outermost_functions_become_components(site):
    metric = site.cgi(program("components.php")).metric
    found = metric.components
    assert sum(own for _, own in found.values()) == metric.duration_ms, "nothing is counted twice"
    compiled, rest = found.pop("PHP/NULL/compile"), found.pop("PHP/NULL/remainder code", None)
    assert compiled[0] == compiled[1] and (rest is None or rest[0] == rest[1] > 0)
    assert set(found) - {"PHP/NULL/fast"} == {"PHP/NULL/outer", "PHP/App\\\\Shop\\\\Cart/total", "PHP/App\\\\Shop\\\\Cart/sum"}
    for name, least in (("PHP/NULL/outer", 18), ("PHP/App\\\\Shop\\\\Cart/total", 11), ("PHP/App\\\\Shop\\\\Cart/sum", 8)):
        total, own = found[name]
        assert least <= total == own


def test_long_component_names_are_cut_at_127_bytes(site):
    name = "f" * 300
    found = site.cgi(f"function {name}() {{ usleep(15000); }} {name}();").metric.components
    total, own = found[next(n for n in found if "fff" in n)]
    assert next(n for n in found if "fff" in n) == f"{total}\n{own}\nPHP/NULL/{name}"[:127].split("\n")[2]


@pytest.mark.parametrize("uri, body, settings, expected", [
    ("?a=1", b"", {"zqs.capture_params": "0"}, []),        # private unless asked for
    ("?a=1&ab=2", b"", {"zqs.ignored_params": "a,b"}, [("ab", "2")]),
    ("?A=1&b=2", b"", {"zqs.ignored_params": "a,b"}, [("A", "1")]),
    ("?a=1", b"a=2&c=3", {}, [("a", "1"), ("a", "2"), ("c", "3")]),
    ("?x[]=1&x[y]=2&s=", b"", {}, [("s", "")]),
    ("?7=seven&k=a%00b%0A%3A%20c", b"", {}, [("k", "a\0b\n: c")]),
    ("?v=" + "x" * 5000, b"w=" + b"y" * 4096, {}, [("v", "x" * 4096), ("w", "y" * 4096)]),
    ("?u=%C3%BC%FF", b"", {"zqs.ignored_params": ""}, [("u", "ü\udcff")]),
])
def test_parameters(site, uri, body, settings, expected):
    site.daemon.configure({"zqs.capture_params": "1", **settings})
    result = site.cgi("echo count($_GET), count($_POST);", "/index.php" + uri, "POST" if body else "GET", body)
    assert result.metric.params == expected


@pytest.mark.parametrize("auto, uri, action", [
    ("0", "/", "URI/index"),
    ("0", "/order/2017/view", "URI/order%2F*%2Fview"),
    ("0", "/a1b/a12b/7", "URI/a1b%2Fa*b%2F7"),
    ("1", "/index.php/user/7", "URI/index.php"),
    ("1", "/x/INDEX.PHP/user", "URI/x%2FINDEX.PHP"),
    ("1", "/rest/items", "PHP{script}"),
])
def test_action_names(site, auto, uri, action):
    site.daemon.configure({"zqs.auto_action_naming": auto})
    script = re.sub("[0-9]{2,}", "*", str(site.docroot / "index.php")).replace("/", "%2F").replace("%2F", "/", 1)
    assert site.cgi("", uri).metric.action == "WebAction/" + action.format(script=script)
