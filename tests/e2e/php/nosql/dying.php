<?php
/* Waits until the server dies. One that is still dying may accept a connection anew, and one that is gone does not. */
$r = new Redis;
$r->connect("$SOCKET");
try { $r->blPop(array("empty"), 20); } catch (RedisException $e) { echo $e->getMessage(); }
usleep(100000);
$r->get("k");
