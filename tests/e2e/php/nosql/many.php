<?php
/* Prints what 60,000 calls keep. */
$c = new Memcached;
$m = new MongoCollection("a.b");
$i = $before = 0;
for (; $i < 20000; $i++) {
    $c->get("k");
    $c->set("k");
    $m->find();
    if (!$before) $before = memory_get_usage();
}
echo memory_get_usage() - $before;
