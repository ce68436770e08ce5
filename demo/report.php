<?php
/* A command-line script, as a cron job would run it: a background action. */
require __DIR__ . '/pages/shop.php';

foreach (shop_database()->query('SELECT product, avg(stars) AS s FROM reviews GROUP BY product LIMIT 3') as $row) {
    printf("product %d: %.1f stars\n", $row['product'], $row['s']);
}
