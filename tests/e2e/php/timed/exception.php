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
try {
    a(function () {
        throw new Exception;
    });
} catch (Exception $e) {}
