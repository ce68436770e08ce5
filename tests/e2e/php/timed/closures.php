<?php
$c = function () {
    usleep(2000);
};
$c();
$c->__invoke();
class I {
    function __invoke() {
        usleep(2000);
    }
}
$i = new I;
$i();
