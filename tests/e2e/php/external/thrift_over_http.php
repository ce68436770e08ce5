<?php
/* A call of a service over HTTP, and one that is none. */
require '$FIXTURES/thrift.php';
$t = new Thrift\Transport\THttpClient('127.0.0.1', $PORT, '/rpc');
$c = new Shop\Calc\CalcClient(new Thrift\Protocol\TBinaryProtocol($t));
try { $c->add(1, 2); } catch (Exception $e) { }
file_get_contents('$URL');
