<?php
/* Calls of every kind: the components that they become, and the names that they have in the trace. */
# --- magic => M/__call M/__callStatic; M::foo M::__call M::bar M::__callStatic M::cuf ::call_user_func
class M {
    function __call($n, $a) { usleep(2000); }
    static function __callStatic($n, $a) { usleep(2000); }
}
$m = new M;
$m->foo();
M::bar();
call_user_func(array($m, "cuf"));
# --- closures => NULL/{closure} I/__invoke; ::{closure} Closure::__invoke I::__invoke
$c = function () { usleep(2000); };
$c();
$c->__invoke();
class I { function __invoke() { usleep(2000); } }
$i = new I;
$i();
# --- named closures => NULL/Shop\\{closure} Shop\\C/pay; ::Shop\{closure} Shop\C::pay ::call_user_func
namespace Shop;
class C { function pay() { usleep(2000); } }
$c = function () { usleep(2000); };
$c();
$m = new \ReflectionMethod('Shop\C', 'pay');
call_user_func($m->getClosure(new C));
# --- generators, whose time is their consumer's => NULL/f; ::f
function g() { usleep(2000); yield 1; usleep(2000); }
function f() { foreach (g() as $x) usleep(2000); }
f();
foreach (g() as $x);
# --- exception => NULL/a; ::a ::b ::c
function a($f) { return b($f); }
function b($f) { return c($f); }
function c($f) { usleep(2000); return $f(); }
try { a(function () { throw new Exception; }); } catch (Exception $e) {}
# --- after exit, when everything begins again => NULL/a NULL/down NULL/out; ::a ::b ::c ::down ::out
register_shutdown_function("down");
function down() { usleep(2000); }
ob_start("out");
function out($b) { usleep(2000); return $b; }
function a($f) { return b($f); }
function b($f) { return c($f); }
function c($f) { usleep(2000); return $f(); }
a(function () { exit; });
