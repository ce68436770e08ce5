<?php
/* What every page of the demo shop shares: its database, built on first use, and the page frame. */

function shop_database()
{
    $path = getenv('SHOP_DATABASE');
    $fresh = !file_exists($path);
    $db = new PDO('sqlite:' . $path);
    $db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
    if ($fresh) {
        fill($db);
    }
    return $db;
}

function fill(PDO $db)
{
    $db->exec('CREATE TABLE products (id INTEGER PRIMARY KEY, name TEXT, price INTEGER)');
    $db->exec('CREATE TABLE reviews (product INTEGER, stars INTEGER, text TEXT)'); /* no index on product */
    $db->beginTransaction();
    $product = $db->prepare('INSERT INTO products (id, name, price) VALUES (?, ?, ?)');
    $review = $db->prepare('INSERT INTO reviews (product, stars, text) VALUES (?, ?, ?)');
    for ($id = 1; $id <= 40; $id++) {
        $product->execute(array($id, "Product $id", 100 + $id * 7 % 90));
        for ($n = 0; $n < 1500; $n++) {
            $review->execute(array($id, $n % 5 + 1, "Review $n of product $id"));
        }
    }
    $db->commit();
}

function page($title, $body)
{
    echo "<!DOCTYPE html>\n<html><head><title>$title</title></head>\n<body><h1>$title</h1>\n$body\n</body></html>\n";
}
