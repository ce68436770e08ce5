<?php
/* How an application calls another, and the part of it that answers. */
# --- curl => item
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_RETURNTRANSFER, 1);
echo curl_exec($c);
# --- file_get_contents => item
echo file_get_contents('$URL');
# --- fopen => item
echo stream_get_contents(fopen('$URL', 'r'));
# --- SoapClient => service
$s = new SoapClient(null, array('location' => '$URL', 'uri' => 'urn:stock'));
echo $s->count('item');
# --- nusoap => service
require '/usr/share/php/nusoap/nusoap.php';
error_reporting(0);
$s = new nusoap_client('$URL');
echo $s->call('count', array('name' => 'item'), 'urn:stock');
