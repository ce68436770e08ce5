<?php
class D {
    function __destruct() {
        echo "destructed";
        strlen("x");
    }
}
$d = new D;
register_shutdown_function(function () {
    echo "down";
    array_map("trim", array(" x "));
});
function f() {
    exit;
}
f();
