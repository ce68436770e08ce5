"""The functions offered to PHP code: actions of a long-running worker, reported errors, and the agent's own callbacks."""
import json

import pytest

NAMES = ["zqprof_rshutdowncall", "zqprof_headercall", "zqprof_curl_header",
         "vantor_start_webaction", "vantor_end_webaction", "vantor_notice_error"]
COLLECTING = {"zqs.error_collector.enabled": "1"}
CONNECTED = {**COLLECTING, "zqs.vantorIdSecret": "12|34", "zqs.transaction_tracer.enabled": "1", "zqs.action_tracer.enabled": "1",
             "zqs.action_tracer.action_threshold": "1"}
REFUSED = "@file_get_contents('http://127.0.0.1:1/');"


def printed(result):
    return json.loads(result.body)


def test_functions_in_their_order(site):
    code = ("$f = get_extension_funcs('quorbit'); $n = array(); foreach ($f as $name) { $r = new ReflectionFunction($name);"
            "$n[] = $r->getNumberOfParameters(); } echo json_encode(array($f, $n));")
    assert printed(site.cli(code, twin=False)) == [NAMES, [0] * 6]


# call: (expression, in a command-line run, in a web request); None is null
RESULTS = [
    ("zqprof_rshutdowncall()", True, True),
    ("zqprof_headercall('x')", True, True),
    ("zqprof_curl_header(STREAM, 'X-A: 1')", 6, 6),
    ("zqprof_curl_header(STREAM, '')", 0, 0),
    ("@zqprof_curl_header('x', 'y')", None, None),
    ("@zqprof_curl_header(STREAM)", None, None),
    ("vantor_start_webaction('a', 'b')", True, None),
    ("vantor_start_webaction('a', null)", True, None),
    ("vantor_start_webaction(12)", True, None),
    ("@vantor_start_webaction()", None, None),
    ("@vantor_start_webaction(array())", None, None),
    ("@vantor_start_webaction('a', array())", None, None),
    ("vantor_end_webaction('x')", True, None),
    ("vantor_end_webaction()", None, None),
    ("vantor_notice_error(null)", None, None),
    ("vantor_notice_error('x', false)", None, None),
    ("@vantor_notice_error()", None, None),
    ("@vantor_notice_error('x', array())", None, None),
    ("vantor_notice_error(5)", True, True),
    ("vantor_notice_error('first')", True, True),
    ("vantor_notice_error('second')", None, None),
]


def test_results(site):
    site.daemon.configure(COLLECTING)
    calls = ",".join(call.replace("STREAM", "$stream") for call, _, _ in RESULTS)
    code = f"$stream = fopen('php://memory', 'r'); echo json_encode(array({calls}));"
    for run, column in ((site.cli, 1), (site.cgi, 2)):
        found = printed(run(code, twin=False))
        assert [(row[0], value) for row, value in zip(RESULTS, found)] == [(row[0], row[column]) for row in RESULTS]


def test_wrong_arguments_warn_as_the_engine_does(site):
    code = "vantor_start_webaction(); zqprof_curl_header(1, 2); $e = error_get_last(); echo json_encode($e['message']);"
    assert printed(site.cli(code, twin=False, ini={"display_errors": "0"})) == (
        "zqprof_curl_header() expects parameter 1 to be resource, integer given")


def test_actions_of_a_worker(site):
    """Each has its own name, errors, calls and ids; what lies between two is nobody's; the last one is still open."""
    site.daemon.configure(CONNECTED)
    code = f"""
    function work($n) {{ usleep($n); {REFUSED} }}
    vantor_end_webaction();
    work(1000);
    vantor_start_webaction('orders/list'); work(3000); vantor_notice_error('first'); vantor_end_webaction();
    work(1000); vantor_notice_error('between');
    vantor_start_webaction('sync'); work(4000); work(1000); vantor_end_webaction();
    vantor_start_webaction('lost'); work(1000); vantor_notice_error('lost');
    vantor_start_webaction('a/b?c'); vantor_end_webaction();
    vantor_start_webaction('open'); work(2000);
    """
    found = site.cli(code, twin=False).metrics
    assert found[0].action.startswith("BackgroundAction/")
    assert [(m.action, len(m.calls), m.error and m.error["message"]) for m in found[1:]] == [
        ("WebAction/orders/list", 1, "first"), ("WebAction/API/sync", 2, None), ("WebAction/a/b?c", 0, None),
        ("WebAction/API/open", 1, None)]
    assert all(m.components["PHP/NULL/work"][0] < m.duration_ms + 1 for m in found[1:3])
    assert 3 <= found[1].duration_ms and 5 <= found[2].duration_ms
    ids = [m.transaction_id for m in found[1:] if m.trace]
    assert len(ids) >= 3 and len(set(ids)) == len(ids)
    tracers = [m.tracer_id for m in found[1:] if m.trace]
    assert len(set(tracers)) == len(tracers)


def test_a_framework_does_not_rename_an_action_of_the_application(site):
    """In a web request the start is void, and the framework's name shows that it would have."""
    code = ("function drupal_bootstrap() { } function drupal_get_normal_path($path) { } vantor_start_webaction('mine');"
            "drupal_bootstrap(); drupal_get_normal_path('node/7');")
    assert "node" in site.cgi(code, twin=False).metric.action
    assert site.cli(code, twin=False).metrics[-1].action == "WebAction/API/mine"


def test_ten_thousand_actions_keep_memory_flat(site):
    """Every tenth is started twice; calls, errors and components happen in each. One packet per action."""
    site.daemon.configure(CONNECTED)
    code = f"""
    class Service {{ function step($i) {{ {REFUSED} $c = curl_init(); curl_setopt($c, CURLOPT_HTTPHEADER, array('A: 1')); }} }}
    $s = new Service; $seen = array(0, 0, 0); $before = 0;
    vantor_end_webaction();
    for ($i = 0; $i < 10000; $i++) {{
        vantor_start_webaction('job/' . $i % 3);
        if ($i % 10 == 0) {{ $s->step($i); vantor_start_webaction('job/again'); }}
        $s->step($i);
        vantor_notice_error('trouble ' . $i);
        vantor_end_webaction();
        if ($i == 500) $before = memory_get_usage();
    }}
    echo memory_get_usage() - $before;
    """
    result = site.cli(code, twin=False)
    assert abs(int(result.body)) < 1024
    found = result.metrics[1:]
    assert len(found) == 10000
    assert {(len(m.calls), m.error["message"], m.action) for m in found} == {
        (1, f"trouble {i}", "WebAction/job/" + ("again" if i % 10 == 0 else str(i % 3))) for i in range(10000)}


ERRORS = {
    "text": ("vantor_notice_error('broken \"x\"')", ("Exception", 'broken \\"x\\"'), ["vantor_notice_error", "page"]),
    "exception": ("vantor_notice_error(new LogicException('bad'))", ("LogicException", "bad"), ["Exception", "page"]),
    "made elsewhere": ("function make() { return new Exception('far'); } vantor_notice_error(make())", ("Exception", "far"),
                       ["Exception", "make", "page"]),
    "empty text of an exception": ("vantor_notice_error(new Exception('')); vantor_notice_error('next')", ("Exception", "next"),
                                   ["vantor_notice_error", "page"]),
    "an object with a message": ("$o = new stdClass; $o->message = 'plain'; vantor_notice_error($o)", ("stdClass", "plain"), None),
    "an object that makes it up": (
        "class Magic { function __get($n) { exit('asked'); } function __call($n, $a) { exit('called'); } }"
        "vantor_notice_error(new Magic); vantor_notice_error('next')", ("Exception", "next"), None),
    "a message that is no text": ("$o = new stdClass; $o->message = array(); vantor_notice_error($o)", None, None),
    "array": ("vantor_notice_error(array('x'))", None, None),
    "not to be recorded": ("vantor_notice_error('x', false)", None, None),
    "the first wins": ("vantor_notice_error('one'); vantor_notice_error('two'); trigger_error('three', E_USER_ERROR)",
                       ("Exception", "one"), None),
}


@pytest.mark.parametrize("case", ERRORS)
@pytest.mark.parametrize("collect", [True, False])
def test_reported_error(site, case, collect):
    code, expected, stack = ERRORS[case]
    site.daemon.configure({"zqs.error_collector.enabled": str(int(collect))})
    result = site.cgi(f"function page() {{ {code}; }}\npage();", twin=False, ini={"display_errors": "0"})
    error = result.metric.error
    if not (expected and collect):
        assert error is None
        return
    assert (error["class"], error["message"]) == expected
    if stack:
        assert [frame.partition("(")[0] for frame in error["stack"]] == stack


ANY = ("zqprof_rshutdowncall(); zqprof_headercall(); zqprof_curl_header($GLOBALS['f'], 'X-Vantor-Tx-Data: {\"id\":\"1\"}    ');"
       "vantor_notice_error('x'); vantor_end_webaction(); vantor_start_webaction('y'); vantor_notice_error(new Exception('z'));")
MOMENTS = {
    "twice in a row": ANY + ANY,
    "inside functions": "function a() { b(); } function b() { ANY } a(); a();",
    "inside a callback": "array_map(function () { ANY }, array(1, 2)); usort($l, function () { ANY return 0; });",
    "inside an error handler": "set_error_handler(function () { ANY }); echo $nothing; @file_get_contents('http://127.0.0.1:1/');",
    "inside a header callback of curl": (
        "$c = curl_init('file:///etc/hostname'); curl_setopt($c, CURLOPT_RETURNTRANSFER, 1);"
        "curl_setopt($c, CURLOPT_WRITEFUNCTION, function ($c, $d) { ANY return strlen($d); }); curl_exec($c); curl_exec($c);"),
    "inside an output buffer": "ob_start(function ($t) { ANY return $t; }); echo 'x'; ob_flush(); ob_end_flush();",
    "in a destructor": "class D { function __destruct() { ANY } } $d = new D; $d = null; $GLOBALS['last'] = new D;",
    "at shutdown": "register_shutdown_function(function () { ANY }); exit;",
    "in a method that the agent calls": (
        "class Zend_Application { function __construct() { } } class Zend_Http_Client { function getUri() { ANY return 'http://h/'; }"
        "function request() { } } new Zend_Application; $z = new Zend_Http_Client; $z->request(); $z->request();"),
}


@pytest.mark.parametrize("moment", MOMENTS)
@pytest.mark.parametrize("web", [False, True], ids=["command line", "web"])
def test_harmless_at_any_moment(site, moment, web):
    site.daemon.configure({**CONNECTED, "zqs.rum.enabled": "1", "zqs.rum.script": "<script>var a = {};</script>"})
    code = "$f = fopen('php://memory', 'r'); $l = array(1, 2, 3); " + MOMENTS[moment].replace("ANY", ANY) + "echo 'done';"
    result = (site.cgi if web else site.cli)(code, twin=False, ini={"display_errors": "stderr"})
    assert result.code == 0 and (result.body.endswith(b"done") or "exit" in code), result.body
    assert not web or len(result.metrics) == 1
    assert all(m.error is None or m.error["message"] in ("x", "z", "Undefined variable: nothing") for m in result.metrics)
