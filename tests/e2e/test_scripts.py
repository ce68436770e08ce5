"""Scripts that leave by every door and call in every way: what they show is the same with the agent, and it reports them."""
import pytest

DEEP = "function a($f) { return b($f); } function b($f) { return c($f); } function c($f) { usleep(2000); return $f(); }\n"
SCRIPTS = {
    "exit in nested calls": DEEP + 'a(function () { echo "bye"; exit(3); });',
    "exit below an internal function": 'array_map(function ($x) { echo $x; if ($x == 2) exit("stop"); }, array(1, 2, 3));',
    "fatal error in nested calls": DEEP + "a(function () { no_such_function(); });",
    "memory limit in nested calls": DEEP + 'a(function () { return str_repeat("x", 64 << 20); });',
    "time limit in nested calls": DEEP + "set_time_limit(1); a(function () { while (true) { md5(1); } });",
    "uncaught exception in nested calls": DEEP + 'a(function () { throw new LogicException("lost", 5); });',
    "exception through many frames": DEEP + 'class T extends Exception { } try { a(function () { throw new T("x"); }); }'
        'catch (T $e) { echo get_class($e), $e->getLine(), $e->getTraceAsString(); } finally { echo "finally"; }',
    "exception in a destructor": 'class D { function __destruct() { throw new Exception("d"); } }'
        'function f() { $d = new D; } try { f(); } catch (Exception $e) { echo $e->getTraceAsString(); }',
    "work after exit": 'class D { function __destruct() { echo "destructed"; strlen("x"); } } $d = new D;'
        'register_shutdown_function(function () { echo "down"; array_map("trim", array(" x ")); }); function f() { exit; } f();',
    "exit within shutdown": 'register_shutdown_function(function () { echo "one"; exit(4); });'
        'register_shutdown_function(function () { echo "two"; });',
    "generators": 'function g($n) { try { for ($i = 0; $i < $n; $i++) { $got = (yield $i => strtoupper("k$i")); echo $got; } }'
        'finally { echo "closed"; } } foreach (g(3) as $k => $v) echo $k, $v; $g = g(9); $g->current(); $g->send("sent");'
        'unset($g); $h = g(1); foreach ($h as $x) { } echo $h->valid() ? 1 : 0;'
        'function t() { yield 1; throw new Exception("g"); } try { foreach (t() as $x) echo $x; } catch (Exception $e) { echo "c"; }',
    "generator left open": 'function g() { try { yield f(); } finally { echo "late"; } } function f() { return 7; } $g = g(); '
        'echo $g->current(); exit;',
    "closures": 'class C { private $p = 5; function bound() { return function ($x) { return $this->p + $x; }; } }'
        '$c = new C; $f = $c->bound(); echo $f(1), call_user_func($f, 2), $f->__invoke(3);'
        '$s = static function () { return func_get_args(); }; echo json_encode($s(1, "a"));'
        'class Box implements ArrayAccess { function offsetExists($k) { } function offsetSet($k, $v) { } function offsetUnset($k) { }'
        'function offsetGet($k) { return function () { return debug_backtrace(); }; } } $b = new Box; $r = $b["x"];'
        'echo count($r()); $n = $b["y"]; unset($n); echo count(call_user_func($b["z"]));',
    "magic calls": 'class M { function __call($n, $a) { return $n . implode(",", $a); } static function __callStatic($n, $a) '
        '{ return "s" . $n; } function __get($n) { return "g$n"; } function __invoke($x) { return "i$x"; }'
        'function __toString() { return "str"; } } $m = new M; echo $m->foo(1, 2), M::bar(), $m->x, $m(4), $m, '
        'call_user_func(array($m, "cuf"), 9), call_user_func("M::st"), implode(array_map($m, array(1)));'
        'class N extends M { function __call($n, $a) { throw new Exception($n); } } try { call_user_func(array(new N, "t")); }'
        'catch (Exception $e) { echo $e->getTraceAsString(); }',
    "call_user_func": 'function f(&$x, $y = 2) { $x .= $y; return func_num_args(); } $v = "v"; echo call_user_func_array("f", '
        'array(&$v, 3)), $v, call_user_func("f", $v), call_user_func("nope"), call_user_func(array("Nope", "x"));',
    "functions without a name": '$f = create_function(\'$x\', \'return $x + 1;\'); echo $f(1), implode(array_map($f, array(1, 2)));'
        'echo preg_replace_callback("/a/", create_function("", "return 5;"), "bab"), array_sum(array_map("intval", array("1", "x")));',
    "include and eval": 'file_put_contents("inc.php", "<?php function inc() { return __FILE__ . __LINE__; } return inc();");'
        'echo include "inc.php"; echo include_once "inc.php"; echo @include "missing.php"; eval(\'function e() { return 8; } echo e();\');'
        'echo eval("return 5;"); eval("broken(");',
    "required file is missing": 'function f() { require "missing.php"; } f();',
    "sorting and output callbacks": 'ob_start(function ($b) { return strtoupper($b); }); echo "low"; ob_end_flush();'
        '$a = array(3, 1, 2); usort($a, function ($x, $y) { return $x - $y; }); echo implode($a);'
        'set_error_handler(function ($n, $m) { echo "[$m]"; return true; }); echo $undef; trigger_error("mine", E_USER_ERROR);'
        'print_r(error_get_last());',
    "references and returns": 'function &r(array &$a) { return $a[0]; } $a = array(1); $x = &r($a); $x = 9; echo $a[0];'
        'function n() { } var_dump(n(), r($a)); list($p, $q) = array_values(array(1, 2)); static $s = 4; echo $p, $q, $s;'
        'preg_match("/(a)(b)/", "ab", $m); echo $m[2]; sort($m); echo end($m), current(array_slice($m, 1));',
    "deep recursion": "function d($n) { return $n ? 1 + d($n - 1) : 0; } echo d(8000);",
    "frames and backtraces": 'class F { function m() { return array_map(function ($f) { return isset($f["line"]) ? $f["line"] : "-"; },'
        'debug_backtrace()); } } function o() { $f = new F; return $f->m(); } echo json_encode(o()), json_encode(get_included_files());',
    "headers": 'header("X-A: 1"); header("X-A: 2", false); header("HTTP/1.1 404 Gone away"); setcookie("c", "v"); echo http_response_code();'
        'header_register_callback(function () { header("X-Late: yes"); });',
    "user wrappers and filters": 'class W { function stream_open($p, $m, $o, &$x) { return true; } function stream_read($n) { return ""; }'
        'function stream_eof() { return true; } function stream_stat() { return array(); } }'
        'stream_wrapper_register("w", "W"); var_dump(file_get_contents("w://x")); var_dump(@fopen("nope://", "r"));',
    "broken constructors": 'try { new DateTime("never"); } catch (Exception $e) { echo get_class($e); }'
        'try { new PDO("mysql:host=127.0.0.1;port=1"); } catch (Exception $e) { echo get_class($e); }'
        'class S { function __construct() { throw new Exception("s"); } } try { new S; } catch (Exception $e) { echo $e->getMessage(); }',
    "settings changed on the way": 'foreach (array("abc", "5", "", "true") as $v) { ini_set("zqs.action_tracer.action_threshold", $v); '
        'ini_set("zqs.app_name", $v); } ini_restore("zqs.app_name"); ini_restore("zqs.action_tracer.enabled"); echo "set";',
    "agent functions called by anybody": 'foreach (array("zqprof_headercall", "zqprof_rshutdowncall", "zqprof_curl_header", '
        '"vantor_end_webaction", "vantor_start_webaction", "vantor_notice_error") as $f) if (function_exists($f)) @$f(null); echo "ok";',
}


@pytest.mark.parametrize("name", SCRIPTS)
def test_scripts_run_as_without_the_agent(site, name):
    ini = {"memory_limit": "32M", "display_errors": "1", "html_errors": "0", "log_errors": "1", "error_log": "/dev/stderr"}
    traced = {"zqs.action_tracer.action_threshold": "1", "zqs.error_collector.enabled": "1", "zqs.transaction_tracer.enabled": "1"}
    site.daemon.configure(traced)
    assert site.cgi(SCRIPTS[name], ini=ini).metric.action == "WebAction/URI/index.php"
    assert site.cli(SCRIPTS[name], ini=ini).metrics


NAP = "usleep(2000);"
TIMED = [
    # what runs, its components, and the calls in its trace
    ("class M { function __call($n, $a) { NAP } static function __callStatic($n, $a) { NAP } } $m = new M; $m->foo(); M::bar();"
     'call_user_func(array($m, "cuf"));', "M/__call M/__callStatic",
     "M::foo M::__call M::bar M::__callStatic M::cuf ::call_user_func"),
    ("$c = function () { NAP }; $c(); $c->__invoke(); class I { function __invoke() { NAP } } $i = new I; $i();",
     "NULL/{closure} I/__invoke", "::{closure} Closure::__invoke I::__invoke"),
    # a generator's time is its consumer's
    ("function g() { NAP yield 1; NAP } function f() { foreach (g() as $x) { NAP } } f(); foreach (g() as $x);", "NULL/f", "::f"),
    (DEEP + 'try { a(function () { throw new Exception; }); } catch (Exception $e) { }', "NULL/a", "::a ::b ::c"),
    # behind an exit everything begins anew; what it left is not counted
    ('register_shutdown_function("down"); function down() { NAP } ob_start("out"); function out($b) { NAP return $b; }' + DEEP +
     "a(function () { exit; });", "NULL/down NULL/out", "::down ::out"),
]


@pytest.mark.parametrize("code, components, traced", TIMED)
def test_calls_are_timed_under_their_names(site, code, components, traced):
    def names(node):
        return {f"{node[5]}::{node[6]}"}.union(*map(names, node[8]))

    site.daemon.configure({"zqs.action_tracer.action_threshold": "1"})
    metric = site.cgi(code.replace("NAP", NAP)).metric
    assert set(metric.components) - {"PHP/NULL/compile", "PHP/NULL/remainder code"} == {"PHP/" + c for c in components.split()}
    assert names(metric.trace) - {"PHP::compile"} == {"PHP::execute", "::usleep", *traced.split()}


def test_an_action_threshold_of_zero_is_the_default(site):
    site.daemon.configure({"zqs.action_tracer.action_threshold": "0"})
    assert site.cgi(NAP).metric.trace is None
