<?php
/* Each client calls a peer that answers, then one that refuses. */
function multi($url) {
    $m = curl_multi_init();
    $c = curl_init($url);
    curl_setopt($c, CURLOPT_RETURNTRANSFER, 1);
    curl_multi_add_handle($m, $c);
    do { curl_multi_exec($m, $run); usleep(1000); } while ($run);
    return curl_multi_getcontent($c);
}
$refused = 'http://127.0.0.1:1/';
function f($u, $refused) { @file_get_contents($u); @file_get_contents($refused); }
f('$URL', $refused);
@file_get_contents('$URL');
@file_get_contents($refused);
multi('$URL');
curl_exec(curl_init($refused));
$s = new SoapClient(null, array('location' => '$URL', 'uri' => 'u'));
try { $s->a(); } catch (Exception $e) { }
$s->__setLocation($refused);
try { $s->a(); } catch (Exception $e) { }
