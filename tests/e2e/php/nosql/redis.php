<?php
/* The extension's ways to speak to a server; waiting for an element of an empty list takes its second. */
class Store extends Redis { function get($k) { return parent::get($k); } }
class Lazy { function __call($n, $a) { return call_user_func_array(array($GLOBALS["r"], $n), $a); } }
$r = new Store;
# --- methods => Redis: CONNECT, SET, GET, HMSET, HGETALL
$r = new Redis;
$r->connect("$SOCKET");
$r->set("k", "v");
echo $r->get("k"), $r->get("none");
$r->hMSet("h", array("a" => 1));
print_r($r->hGetAll("h"));
echo $r->_prefix("x");
# --- blocking => Redis: CONNECT, BLPOP=1000
$r->connect("$SOCKET");
var_dump($r->blPop(array("empty"), 1));
# --- a block => Redis: CONNECT, MULTI, SET, INCR, EXEC
$r->connect("$SOCKET");
print_r($r->multi()->set("k", 1)->incr("k")->exec());
# --- a pipeline => Redis: CONNECT, PIPELINE, SET, EXEC
$r->connect("$SOCKET");
$p = $r->pipeline();
for ($i = 0; $i < 100; $i++) $p->set("k", $i);
echo count($p->exec());
# --- a subclass, other casing => Redis: CONNECT, GET, DEL
$r->connect("$SOCKET");
$r->GET("k");
$r->Del("h");
# --- through __call => Redis: CONNECT, GET, HSET, DEL
$r->connect("$SOCKET");
$l = new Lazy;
$l->get("k");
$l->hSet("h", "f", 1);
$f = function () use ($r) { $r->del("k"); };
$f();
# --- several servers => Redis: SET, GET
$a = new RedisArray(array("$SOCKET"));
$a->set("k", 1);
echo $a->get("k"), $a->_target("k");
# --- an error => Redis: CONNECT, DEL, RPUSH, INCR, GETLASTERROR
$r->connect("$SOCKET");
$r->del("k");
$r->rPush("k", 1);
var_dump($r->incr("k"));
echo $r->getLastError();
$r->del("k");
# --- nothing there => Redis: CONNECT, GET
try { $r->connect("$SOCKET.gone"); } catch (RedisException $e) { }
try { $r->get("k"); } catch (RedisException $e) { echo $e->getMessage(); }
# --- rows shared with Predis => Redis: CONNECT, SET, GET
require "/usr/share/php/Predis/autoload.php";
$c = new Predis\Client(array("scheme" => "unix", "path" => "$SOCKET"));
$r->connect("$SOCKET");
$c->set("k", 1);
$c->get("k");
$r->get("k");
