<?php
/* Scripts that leave by every door and call in every way. */
function a($f) { return b($f); }
function b($f) { return c($f); }
function c($f) { usleep(2000); return $f(); }
# --- agent_functions_called_by_anybody => nothing
$functions = array("zqprof_headercall", "zqprof_rshutdowncall", "zqprof_curl_header", "vantor_end_webaction", "vantor_start_webaction",
    "vantor_notice_error");
foreach ($functions as $function) if (function_exists($function)) @$function(null);
echo "ok";
# --- broken_constructors => nothing
class S { function __construct() { throw new Exception("s"); } }
try { new DateTime("never"); } catch (Exception $e) { echo get_class($e); }
try { new PDO("mysql:host=127.0.0.1;port=1"); } catch (Exception $e) { echo get_class($e); }
try { new S; } catch (Exception $e) { echo $e->getMessage(); }
# --- call_user_func => nothing
function f(&$x, $y = 2) { $x .= $y; return func_num_args(); }
$v = "v";
echo call_user_func_array("f", array(&$v, 3)), $v, call_user_func("f", $v);
echo call_user_func("nope"), call_user_func(array("Nope", "x"));
# --- closures => nothing
class C { private $p = 5; function bound() { return function ($x) { return $this->p + $x; }; } }
$c = new C;
$f = $c->bound();
echo $f(1), call_user_func($f, 2), $f->__invoke(3);
$s = static function () { return func_get_args(); };
echo json_encode($s(1, "a"));
class Box implements ArrayAccess {
    function offsetExists($k) {}
    function offsetSet($k, $v) {}
    function offsetUnset($k) {}
    function offsetGet($k) { return function () { return debug_backtrace(); }; }
}
$b = new Box;
$r = $b["x"];
echo count($r());
$n = $b["y"];
unset($n);
echo count(call_user_func($b["z"]));
# --- deep_recursion => nothing
function d($n) { return $n ? 1 + d($n - 1) : 0; }
echo d(8000);
# --- exception_in_a_destructor => nothing
class D { function __destruct() { throw new Exception("d"); } }
function f() { $d = new D; }
try { f(); } catch (Exception $e) { echo $e->getTraceAsString(); }
# --- exception_through_many_frames => nothing
class T extends Exception {}
try { a(function () { throw new T("x"); }); }
catch (T $e) { echo get_class($e), $e->getLine(), $e->getTraceAsString(); }
finally { echo "finally"; }
# --- exit_below_an_internal_function => nothing
array_map(function ($x) { echo $x; if ($x == 2) exit("stop"); }, array(1, 2, 3));
# --- exit_in_nested_calls => nothing
a(function () { echo "bye"; exit(3); });
# --- frames_and_backtraces => nothing
class F {
    function m() { return array_map(function ($f) { return isset($f["line"]) ? $f["line"] : "-"; }, debug_backtrace()); }
}
function o() { $f = new F; return $f->m(); }
echo json_encode(o()), json_encode(get_included_files());
# --- functions_without_a_name => nothing
$f = create_function('$x', 'return $x + 1;');
echo $f(1), implode(array_map($f, array(1, 2)));
echo preg_replace_callback("/a/", create_function("", "return 5;"), "bab"), array_sum(array_map("intval", array("1", "x")));
# --- generator_left_open => nothing
function g() { try { yield f(); } finally { echo "late"; } }
function f() { return 7; }
$g = g();
echo $g->current();
exit;
# --- generators => nothing
function g($n) {
    try {
        for ($i = 0; $i < $n; $i++) { $got = (yield $i => strtoupper("k$i")); echo $got; }
    } finally { echo "closed"; }
}
foreach (g(3) as $k => $v) echo $k, $v;
$g = g(9);
$g->current();
$g->send("sent");
unset($g);
$h = g(1);
foreach ($h as $x) {}
echo $h->valid() ? 1 : 0;
function t() { yield 1; throw new Exception("g"); }
try { foreach (t() as $x) echo $x; } catch (Exception $e) { echo "c"; }
# --- headers => nothing
header("X-A: 1");
header("X-A: 2", false);
header("HTTP/1.1 404 Gone away");
setcookie("c", "v");
echo http_response_code();
header_register_callback(function () { header("X-Late: yes"); });
# --- include_and_eval => nothing
file_put_contents("inc.php", "<?php function inc() { return __FILE__ . __LINE__; } return inc();");
echo include "inc.php";
echo include_once "inc.php";
echo @include "missing.php";
eval('function e() { return 8; } echo e();');
echo eval("return 5;");
eval("broken(");
# --- magic_calls => nothing
class M {
    function __call($n, $a) { return $n . implode(",", $a); }
    static function __callStatic($n, $a) { return "s" . $n; }
    function __get($n) { return "g$n"; }
    function __invoke($x) { return "i$x"; }
    function __toString() { return "str"; }
}
class N extends M { function __call($n, $a) { throw new Exception($n); } }
$m = new M;
echo $m->foo(1, 2), M::bar(), $m->x, $m(4), $m, call_user_func(array($m, "cuf"), 9), call_user_func("M::st");
echo implode(array_map($m, array(1)));
try { call_user_func(array(new N, "t")); } catch (Exception $e) { echo $e->getTraceAsString(); }
# --- memory_limit_in_nested_calls => nothing
a(function () { return str_repeat("x", 64 << 20); });
# --- references_and_returns => nothing
function &r(array &$a) { return $a[0]; }
function n() {}
$a = array(1);
$x = &r($a);
$x = 9;
echo $a[0];
var_dump(n(), r($a));
list($p, $q) = array_values(array(1, 2));
static $s = 4;
echo $p, $q, $s;
preg_match("/(a)(b)/", "ab", $m);
echo $m[2];
sort($m);
echo end($m), current(array_slice($m, 1));
# --- settings_changed_on_the_way => nothing
foreach (array("abc", "5", "", "true") as $v) {
    ini_set("zqs.action_tracer.action_threshold", $v);
    ini_set("zqs.app_name", $v);
}
ini_restore("zqs.app_name");
ini_restore("zqs.action_tracer.enabled");
echo "set";
# --- time_limit_in_nested_calls => nothing
set_time_limit(1);
a(function () { while (true) { md5(1); } }); // one line: the message names the one where the limit struck
# --- user_wrappers_and_filters => nothing
class W {
    function stream_open($p, $m, $o, &$x) { return true; }
    function stream_read($n) { return ""; }
    function stream_eof() { return true; }
    function stream_stat() { return array(); }
}
stream_wrapper_register("w", "W");
var_dump(file_get_contents("w://x"));
var_dump(@fopen("nope://", "r"));
