<?php
function g($n) {
    try {
        for ($i = 0; $i < $n; $i++) {
            $got = (yield $i => strtoupper("k$i"));
            echo $got;
        }
    } finally {
        echo "closed";
    }
}
foreach (g(3) as $k => $v) echo $k, $v;
$g = g(9);
$g->current();
$g->send("sent");
unset($g);
$h = g(1);
foreach ($h as $x) {}
echo $h->valid() ? 1 : 0;
function t() {
    yield 1;
    throw new Exception("g");
}
try {
    foreach (t() as $x) echo $x;
} catch (Exception $e) {
    echo "c";
}
