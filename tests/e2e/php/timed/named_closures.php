<?php
namespace Shop;

class C {
    function pay() {
        usleep(2000);
    }
}
$c = function () {
    usleep(2000);
};
$c();
$m = new \ReflectionMethod('Shop\C', 'pay');
call_user_func($m->getClosure(new C));
