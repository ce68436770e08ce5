<?php
function a($f) {
    return b($f);
}
function b($f) {
    return c($f);
}
function c($f) {
    usleep(2000);
    return $f();
}
set_time_limit(1);
a(function () {
    while (true) { md5(1); } // one line: the message names the one where the limit struck
});
