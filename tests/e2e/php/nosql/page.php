<?php
/* Own time and a store's. */
function page() {
    usleep(5000);
    $c = new Memcached;
    for ($i = 0; $i < 3; $i++) $c->get("slow:20");
}
page();
