<?php
function &r(array &$a) {
    return $a[0];
}
$a = array(1);
$x = &r($a);
$x = 9;
echo $a[0];
function n() {}
var_dump(n(), r($a));
list($p, $q) = array_values(array(1, 2));
static $s = 4;
echo $p, $q, $s;
preg_match("/(a)(b)/", "ab", $m);
echo $m[2];
sort($m);
echo end($m), current(array_slice($m, 1));
