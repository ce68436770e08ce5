<?php
/* The fast page: one cheap query. */
require __DIR__ . '/shop.php';

$count = shop_database()->query('SELECT count(*) FROM products')->fetchColumn();
page('Shop', "<p>$count products. <a href=\"/products.php\">See them with their reviews</a></p>");
