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
a(function () {
    return str_repeat("x", 64 << 20);
});
