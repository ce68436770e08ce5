<?php
/* A bit of everything that the agent hooks, for so many rounds or until memory or time ends. What it keeps grows slowly, so
 * that any of these calls may be the one that goes beyond the limit. "plain" leaves out what enters a library: the engine's
 * timer leaves its allocator in any state, with or without an agent. */
$filler = str_repeat('p', isset($_GET['filler']) ? $_GET['filler'] : 0);
ob_start();
echo "page\n";
header('X-Page: 1');

class Shop {
    function __get($name) { return strlen($name); }
    function __call($name, $arguments) { return call_user_func($arguments[0]); }
    static function __callStatic($name, $arguments) { return $name; }
}
class Gone extends Exception { }
function items($n) { for ($i = 0; $i < $n; $i++) yield $i; }
function fails($db) {
    try {
        if (!$db) throw new LogicException('no database');
        $db->query('SELECT * FROM nothing');
    } catch (Exception $e) {
        throw new Gone('nothing there', 1, $e);
    }
}
function use_libraries($db, $lite, $i) {
    $s = $db->prepare('INSERT INTO users (name) VALUES (?)');
    $s->execute(array("user $i"));
    $lite->querySingle("SELECT $i");
    mysqli_connect('localhost', 'u', 'p', 'd', 0, '/absent');
    file_get_contents('data:,x');
    $curl = curl_init('http://127.0.0.1:1/');
    curl_setopt($curl, CURLOPT_RETURNTRANSFER, true);
    curl_exec($curl);
}
set_error_handler(function ($type, $text) { return true; });
register_shutdown_function(function () { header_remove('X-Page'); });

$db = null;
if (!isset($_GET['plain'])) {
    $db = new PDO('sqlite::memory:');
    $db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
    $db->exec('CREATE TABLE users (id INTEGER PRIMARY KEY, name TEXT)');
    $lite = new SQLite3(':memory:');
}
$kept = array();
$rounds = isset($_GET['rounds']) ? $_GET['rounds'] : 100000;
for ($i = 0; $i < $rounds; $i++) {
    if ($db) use_libraries($db, $lite, $i);
    try {
        fails($db);
    } catch (Gone $e) {
        trigger_error($e->getMessage(), E_USER_WARNING);
    }
    $shop = new Shop;
    $kept[] = $shop->a . Shop::b() . $shop->c(function () { return str_repeat("x", 3000); });
    foreach (items(3) as $item) $kept[] = array_map(function ($x) { return "$x"; }, array($item));
    usort($kept[count($kept) - 1], 'strcmp');
    eval('$kept[] = array(1);');
    if ($i % 50 == 9) ob_flush();
}
echo 'end';
