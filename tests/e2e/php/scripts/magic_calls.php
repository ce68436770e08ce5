<?php
class M {
    function __call($n, $a) {
        return $n . implode(",", $a);
    }
    static function __callStatic($n, $a) {
        return "s" . $n;
    }
    function __get($n) {
        return "g$n";
    }
    function __invoke($x) {
        return "i$x";
    }
    function __toString() {
        return "str";
    }
}
$m = new M;
echo $m->foo(1, 2), M::bar(), $m->x, $m(4), $m, call_user_func(array($m, "cuf"), 9), call_user_func("M::st");
echo implode(array_map($m, array(1)));
class N extends M {
    function __call($n, $a) {
        throw new Exception($n);
    }
}
try {
    call_user_func(array(new N, "t"));
} catch (Exception $e) {
    echo $e->getTraceAsString();
}
