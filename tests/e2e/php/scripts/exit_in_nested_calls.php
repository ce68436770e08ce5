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
    echo "bye";
    exit(3);
});
