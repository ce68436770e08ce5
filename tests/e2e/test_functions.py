"""The functions offered to PHP code: actions of a long-running worker, reported errors, and the agent's own callbacks."""
import json

import pytest

from support.cases import cases, program

COLLECTING = {"zqs.error_collector.enabled": "1"}
CONNECTED = {**COLLECTING, "zqs.vantorIdSecret": "12|34", "zqs.transaction_tracer.enabled": "1", "zqs.action_tracer.enabled": "1",
             "zqs.action_tracer.action_threshold": "1"}

# calls by their result: True or the number of bytes; void everywhere; true on the command line and void in a web request
RESULTS = {
    True: ["zqprof_rshutdowncall()", "zqprof_headercall('x')", "vantor_notice_error(5)", "vantor_notice_error('first')"],
    6: ["zqprof_curl_header($stream, 'X-A: 1')"],
    0: ["zqprof_curl_header($stream, '')"],
    None: ["@zqprof_curl_header('x', 'y')", "@zqprof_curl_header($stream)", "@vantor_start_webaction()",
           "@vantor_start_webaction(array())", "@vantor_start_webaction('a', array())", "vantor_notice_error(null)",
           "vantor_notice_error('x', false)", "@vantor_notice_error()", "@vantor_notice_error('x', array())",
           "vantor_notice_error('second')"],
    "command line": ["vantor_start_webaction('a', 'b')", "vantor_start_webaction('a', null)", "vantor_start_webaction(12)",
                     "vantor_end_webaction('x')"],
    "command line, once": ["vantor_end_webaction()"],
}


@pytest.mark.parametrize("web", [False, True], ids=["command line", "web"])
def test_results(site, web):
    expected = [(call, result) for result, calls in RESULTS.items() for call in calls]
    code = f"$stream = fopen('php://memory', 'r'); echo json_encode(array({','.join(call for call, _ in expected)}));"
    found = json.loads((site.cgi if web else site.cli)(code, twin=False, settings=COLLECTING).body)
    meaning = {"command line": None if web else True, "command line, once": None}
    assert list(zip([call for call, _ in expected], found)) == [(call, meaning.get(result, result)) for call, result in expected]


@pytest.mark.parametrize("code, printed", cases("functions/declared.php"))
def test_declared_and_warning_as_the_engine_does(site, code, printed):
    assert json.loads(site.cli(code, twin=False, ini={"display_errors": "0"}).body) == json.loads(printed)


def test_actions_of_a_worker(site):
    """Each has its own name, errors, calls and ids; what lies between two is nobody's; the last one is still open."""
    first, *found = site.cli(program("functions/worker.php"), twin=False, settings=CONNECTED).metrics
    assert first.action.startswith("BackgroundAction/")
    assert [(m.action, len(m.calls), m.error and m.error["message"]) for m in found] == [
        ("WebAction/orders/list", 1, "first"), ("WebAction/API/sync", 2, None), ("WebAction/a/b?c", 0, None),
        ("WebAction/API/open", 1, None)]
    assert all(m.components["PHP/NULL/work"][0] < m.duration_ms + 1 for m in found[:2])
    assert 3 <= found[0].duration_ms and 5 <= found[1].duration_ms
    traced = [m for m in found if m.trace]
    assert len(traced) >= 3
    assert len(traced) == len({m.transaction_id for m in traced}) == len({m.tracer_id for m in traced})


def test_a_framework_does_not_rename_an_action_of_the_application(site):
    """In a web request the start is void, and the framework's name shows that it would have."""
    code = program("functions/framework_inside.php")
    assert "node" in site.cgi(code, twin=False).metric.action
    assert site.cli(code, twin=False).metrics[-1].action == "WebAction/API/mine"


def test_ten_thousand_actions_keep_memory_flat(site):
    """Every tenth is started twice; calls, errors and components happen in each. One packet per action."""
    result = site.cli(program("functions/long_worker.php"), twin=False, settings=CONNECTED)
    assert abs(int(result.body)) < 1024
    found = result.metrics[1:]
    assert len(found) == 10000
    assert {(len(m.calls), m.error["message"], m.action) for m in found} == {
        (1, f"trouble {i}", "WebAction/job/" + ("again" if i % 10 == 0 else str(i % 3))) for i in range(10000)}


def test_reporting_does_not_count_against_the_memory_limit(site):
    """A packet of 16 MB beside its records is more than the worker's limit. The worker's own excess still ends it. What one action
    has kept takes no room from the next."""
    result = site.cli(program("functions/heavy_worker.php"), twin=False)
    assert [(m.action, len(m.sql)) for m in result.metrics] == [("WebAction/API/heavy", 1000)] * 2
    assert b"over the limit: " in result.body and b"memory size of 31457280 bytes exhausted" in result.body


@pytest.mark.parametrize("code, expected", cases("functions/errors.php"))
@pytest.mark.parametrize("collect", [True, False])
def test_reported_error(site, code, expected, collect):
    site.daemon.configure({"zqs.error_collector.enabled": str(int(collect))})
    error = site.cgi(code, twin=False, ini={"display_errors": "0", "disable_classes": "LengthException"}).metric.error
    stack = ", ".join(frame.partition("(")[0] for frame in error["stack"]) if error else ""
    assert (error and f"{error['class']}: {error['message']} ({stack})") == (expected if collect else None)


@pytest.mark.parametrize("code, actions", cases("functions/moments.php"))
@pytest.mark.parametrize("web", [False, True], ids=["command line", "web"])
def test_harmless_at_any_moment(site, code, actions, web):
    site.daemon.configure({**CONNECTED, "zqs.rum.enabled": "1", "zqs.rum.script": "<script>var a = {};</script>"})
    result = (site.cgi if web else site.cli)(code, twin=False, ini={"display_errors": "stderr"})
    assert result.code == 0 and result.body.endswith(b"done")
    assert [m.error["message"] for m in result.metrics] == ["x"] + ["z"] * (0 if web else int(actions))
