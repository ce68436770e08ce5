<?php
/* Clients written in PHP. */
function work($c) {
    $c->set("k", "v");
    $c->SET("k", "v");
    echo $c->get("k");
    try { $c->_hidden(); } catch (Exception $e) { echo $e->getMessage(); }
    $c->pipeline(function ($p) { for ($i = 0; $i < 10; $i++) $p->incrby("n", 2); });
    $c->transaction(function ($t) { $t->hset("h", "f", 1); $t->hgetall("h"); });
    echo $c->blpop("empty", 1);
    $c->del("n", "h");
}
function commands() {
    $c = new yii\redis\Connection(array("unixSocket" => "$SOCKET"));
    $c->set("k", 1);
    echo $c->get("k"), $c->executeCommand("get", array("k"));
    $c->executeCommand("CONFIG GET", array("port"));
    foreach (array("", "nonsense") as $n) {
        try { $c->executeCommand($n); } catch (Exception $e) { echo "refused"; }
    }
}
# --- Predis by its autoloader => Redis: SET, GET, INCRBY, HSET, HGETALL, DEL, BLPOP=1000
require "/usr/share/php/Predis/Autoloader.php";
Predis\Autoloader::register();
work(new Predis\Client(array("scheme" => "unix", "path" => "$SOCKET")));
# --- Predis by Debian's => Redis: SET, GET, INCRBY, HSET, HGETALL, DEL, BLPOP=1000
require "/usr/share/php/Predis/autoload.php";
work(new Predis\Client(array("scheme" => "unix", "path" => "$SOCKET")));
# --- Yii, commands as they are written => Redis: SET, GET, get, CONFIG GET, nonsense
require "$FIXTURES/nosql/yii.php";
new yii\base\Application;
commands();
# --- Yii's class without the framework is somebody else's => nothing
require "$FIXTURES/nosql/yii.php";
commands();
