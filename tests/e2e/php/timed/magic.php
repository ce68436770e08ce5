<?php
class M {
    function __call($n, $a) {
        usleep(2000);
    }
    static function __callStatic($n, $a) {
        usleep(2000);
    }
}
$m = new M;
$m->foo();
M::bar();
call_user_func(array($m, "cuf"));
