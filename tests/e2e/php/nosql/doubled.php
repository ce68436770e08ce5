<?php
/* Clients that doubles stand in for: the operations, each with the milliseconds that its calls take at least. */
class Cache extends Memcache { function get() { return parent::get("slow:2") && parent::set("x"); } }
class Magic {
    function __construct($to) { $this->to = $to; }
    function __call($name, $all) { return call_user_func_array(array($this->to, $name), $all); }
}
class Orders extends MongoCollection { function __toString() { echo "never"; return "other"; } }
class Broken extends MongoCollection { function __construct() { } }
# --- caches => Memcached: GET=49, SET=3, GETMULTI, DELETEMULTIBYKEY=20
$c = new Memcached;
$c->get("slow:12");
$c->get("slow:15");
$c->GETMULTI("a");
$c->getStats("slow:5");
$c->_get("slow:5");
$c = new Cache;
$c->get();
$c = new MemcachePool;
$c->deleteMultiByKey("slow:20");
@$c->set("slow:3 fail");
$m = new Magic($c);
$m->get("slow:10");
try { array_map(array($c, "get"), array("slow:4 throw")); } catch (Exception $e) { echo $e->getMessage(); }
function job($c) { return $c->get("slow:6"); }
job($c);
# --- collections => MongoDB: shop.orders/FIND=17, shop.orders/INSERT, shop.own/FIND=7, shop.gone/INSERT=4, /FIND
$o = new MongoCollection("shop.orders");
$o->find("slow:12");
$o->find("slow:5");
$o->FIND();
$o->insert(array());
$o->getName("slow:9");
$o = new Orders("shop.own");
$o->find("slow:7");
foreach (array("throw", "fail") as $name) {
    $o = new MongoCollection($name);
    $o->find("slow:5");
}
try { $o = new MongoCollection("shop.gone"); $o->insert("slow:4 throw"); } catch (Exception $e) { echo $e->getCode(); }
$o = new Broken;
$o->find();
# --- databases => MongoDB: shop/SCRIPT=11, shop.orders/executeQuery=8, shop.orders/executeBulkWrite, shop/executeCommand
$d = new MongoDB("shop");
$d->execute("slow:11");
$d->command("slow:3");
$m = new MongoDB\Driver\Manager;
$m->executeQuery("shop.orders", "slow:8");
$m->ExecuteBulkWrite("shop.orders");
$m->executeCommand("shop");
$m->executeQuery(17);
$m->executeCommand();
$m->executeQuery(null, "slow:4");
$m->getServers("slow:3");
