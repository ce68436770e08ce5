<?php
/* One call of a service. */
require '$FIXTURES/thrift.php';
$t = new Thrift\Transport\TSocket('127.0.0.1', $PORT);
$t->open();
$c = new Shop\Calc\CalcClient(new Thrift\Protocol\TBinaryProtocol($t));
try { var_dump($c->add(20, 3)); } catch (Exception $e) { echo $e->getMessage(); }
