<?php
/* A page that asks a database: 10 ms, nearly all of it queries of a file with 2,000 products, and fewer than 1,000 calls. The
 * database is made by the first request. */
function connect()
{
    $file = __DIR__ . '/shop.sqlite';
    $fresh = !file_exists($file);
    $db = new PDO("sqlite:$file");
    $db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
    if ($fresh) {
        $db->beginTransaction();
        $db->exec('CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, cents INTEGER, section INTEGER)');
        $insert = $db->prepare('INSERT INTO product (name, cents, section) VALUES (?, ?, ?)');
        for ($i = 0; $i < 2000; $i++) {
            $insert->execute(array("Product number $i", $i * 4711 % 99999, $i % 40));
        }
        $db->commit();
    }
    return $db;
}

function section(PDO $db, $number)
{
    $query = $db->prepare('SELECT name, cents FROM product WHERE section = ? AND name LIKE ? ORDER BY cents LIMIT 5');
    $query->execute(array($number, '%number%'));
    $text = "<h2>Section $number</h2>";
    foreach ($query->fetchAll(PDO::FETCH_ASSOC) as $row) {
        $text .= '<p>' . htmlspecialchars($row['name']) . ' ' . $row['cents'] . '</p>';
    }
    $count = $db->query("SELECT count(*), avg(cents) FROM product WHERE section = $number")->fetch();
    return $text . "<p>{$count[0]}</p>\n";
}

$db = connect();
echo '<html><head><title>Shop</title></head><body>';
for ($number = 0; $number < 50; $number++) {
    echo section($db, $number);
}
echo '</body></html>';
