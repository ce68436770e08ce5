<?php
function g() {
    usleep(2000);
    yield 1;
    usleep(2000);
}
function f() {
    foreach (g() as $x) {
        usleep(2000);
    }
}
f();
foreach (g() as $x);
