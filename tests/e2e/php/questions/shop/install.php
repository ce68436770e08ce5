<?php
require __DIR__ . '/shop.php';
$db = new PDO('mysql:unix_socket=' . (require __DIR__ . '/../database.php'), 'root');
$db->exec("CREATE DATABASE store; CREATE DATABASE blog; GRANT ALL ON store.* TO web@localhost; GRANT ALL ON blog.* TO web@localhost");
$db = store();
$db->exec('CREATE TABLE products (id INT PRIMARY KEY, name VARCHAR(40)); CREATE TABLE reviews (product INT, stars INT, text CHAR(60))');
$products = $reviews = array();
for ($id = 1; $id <= 8; $id++) {
    $products[] = "($id, 'Product $id')";
}
for ($n = 0; $n < 20000; $n++) {
    $reviews[] = '(' . ($n % 8 + 1) . ", 3, 'x')";
}
$db->exec('INSERT INTO products VALUES ' . implode(',', $products));
$db->exec('INSERT INTO reviews VALUES ' . implode(',', $reviews)); /* no index on product */
