<?php
register_shutdown_function("down");
function down() {
    usleep(2000);
}
ob_start("out");
function out($b) {
    usleep(2000);
    return $b;
}
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
    exit;
});
