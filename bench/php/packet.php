<?php
/* Runs COUNT different statements as one action, and prints how many microseconds of processor time its report takes: made, handed over and
 * what it was made of released. */
ini_set('memory_limit', -1);

function spent_us()
{
    $usage = getrusage();
    return ($usage['ru_utime.tv_sec'] + $usage['ru_stime.tv_sec']) * 1e6 + $usage['ru_utime.tv_usec'] + $usage['ru_stime.tv_usec'];
}

$db = new PDO('sqlite::memory:');
$db->exec("CREATE TABLE orders (id, customer, state, total)");
$columns = 'o.id AS order_number, o.customer AS customer_number, o.state AS state_of_order, o.total AS sum';
vantor_start_webaction('packet');
for ($i = (int) getenv('COUNT'); $i > 0; $i--) {
    $db->query("SELECT $columns FROM orders o WHERE o.customer = $i AND o.state <> 'cancelled' AND (o.total > $i.5 OR o.id IN ($i, 2, 3))"
        . " AND o.state <> 'returned \"late\"' AND o.customer IS NOT NULL ORDER BY o.customer, o.id DESC LIMIT 10");
}
$start = spent_us();
vantor_end_webaction();
echo spent_us() - $start;
