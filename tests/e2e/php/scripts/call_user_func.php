<?php
function f(&$x, $y = 2) {
    $x .= $y;
    return func_num_args();
}
$v = "v";
echo call_user_func_array("f", array(&$v, 3)), $v, call_user_func("f", $v);
echo call_user_func("nope"), call_user_func(array("Nope", "x"));
