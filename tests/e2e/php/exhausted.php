<?php
ob_start();
echo 'page';
function NAME($depth) { $depth ? NAME($depth - 1) : fill(); }
function fill() {
    $all = array();
    for ($i = 0; ; $i++) $all[] = 'x' . $i;
}
$filler = str_repeat('p', getenv("FILLER"));
NAME(30);
