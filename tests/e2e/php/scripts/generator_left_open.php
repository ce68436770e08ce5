<?php
function g() {
    try {
        yield f();
    } finally {
        echo "late";
    }
}
function f() {
    return 7;
}
$g = g();
echo $g->current();
exit;
