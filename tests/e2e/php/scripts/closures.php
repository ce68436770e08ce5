<?php
class C {
    private $p = 5;
    function bound() {
        return function ($x) {
            return $this->p + $x;
        };
    }
}
$c = new C;
$f = $c->bound();
echo $f(1), call_user_func($f, 2), $f->__invoke(3);
$s = static function () {
    return func_get_args();
};
echo json_encode($s(1, "a"));
class Box implements ArrayAccess {
    function offsetExists($k) {}
    function offsetSet($k, $v) {}
    function offsetUnset($k) {}
    function offsetGet($k) {
        return function () {
            return debug_backtrace();
        };
    }
}
$b = new Box;
$r = $b["x"];
echo count($r());
$n = $b["y"];
unset($n);
echo count(call_user_func($b["z"]));
