<?php
/* Answers only when as many requests as `count` says have come in: they thus run side by side. */
function page()
{
    return 'page ' . count($_GET);
}

$folder = __DIR__ . '/gate';
touch("$folder/" . uniqid('', true));
$end = microtime(true) + 10;
while (count(glob("$folder/*")) < $_GET['count'] && microtime(true) < $end) {
    usleep(2000);
    clearstatcache();
}
echo page();
