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
class T extends Exception {}
try {
    a(function () {
        throw new T("x");
    });
} catch (T $e) {
    echo get_class($e), $e->getLine(), $e->getTraceAsString();
} finally {
    echo "finally";
}
