<?php
require __DIR__ . '/shop.php';
$begin = microtime(true);
$curl = curl_init("http://{$_SERVER['SERVER_NAME']}:{$_SERVER['SERVER_PORT']}/blog/?p=1");
curl_setopt($curl, CURLOPT_RETURNTRANSFER, true);
curl_exec($curl);
told(array('called' => (microtime(true) - $begin) * 1000));
