<?php
/* The called application, as a service. */
class Stock {
    function count($name) { usleep(4000); return strlen($name); }
}
$server = new SoapServer(null, array('uri' => 'urn:stock'));
$server->setClass('Stock');
$server->handle();
