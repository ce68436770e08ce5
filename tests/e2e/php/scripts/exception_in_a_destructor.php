<?php
class D {
    function __destruct() {
        throw new Exception("d");
    }
}
function f() {
    $d = new D;
}
try {
    f();
} catch (Exception $e) {
    echo $e->getTraceAsString();
}
