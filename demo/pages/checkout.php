<?php
/* A page that asks the shop's other server what is in stock before it answers. */
require __DIR__ . '/shop.php';

$stock = file_get_contents('http://' . getenv('SHOP_STOCK_SERVER') . '/stock.php?product=7');
page('Checkout', "<p>In stock: $stock</p>");
