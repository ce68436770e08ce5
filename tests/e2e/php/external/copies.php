<?php
/* Handles and their copies, whose list of headers PHP frees for all of them when one gets another. */
function ready($c) { curl_setopt($c, CURLOPT_RETURNTRANSFER, 1); return $c; }
function others() {
    static $kept = array();
    for ($i = 0; $i < 50; $i++) {
        $kept[] = $c = curl_init('http://127.0.0.1:1/');
        curl_setopt($c, CURLOPT_HTTPHEADER, array('Other: ' . str_repeat('x', 20)));
    }
}
$c = ready(curl_init('$URL'));
$d = curl_copy_handle($c);
# --- the copy gets headers => A: 1
curl_setopt($d, CURLOPT_HTTPHEADER, array('A: 1'));
others();
echo curl_exec($c), curl_exec($d);
# --- the original gets headers => A: 1
curl_setopt($c, CURLOPT_HTTPHEADER, array('A: 1'));
others();
echo curl_exec($d), curl_exec($c);
# --- the copy gets options => A: 1
curl_setopt_array($d, array(CURLOPT_HTTPHEADER => array('A: 1')));
others();
echo curl_exec($c), curl_exec($d);
# --- the copy is reset => nothing
curl_reset($d);
curl_setopt(ready($d), CURLOPT_URL, '$URL');
others();
echo curl_exec($c), curl_exec($d);
# --- a reset copy beside headers => A: 1
$o = ready(curl_init('$URL'));
curl_setopt($o, CURLOPT_HTTPHEADER, array('A: 1'));
curl_reset($p = curl_copy_handle($o));
curl_setopt(ready($p), CURLOPT_URL, '$URL');
others();
echo curl_exec($o), curl_exec($p);
# --- a copy of the copy, the first ones gone => A: 1
$e = curl_copy_handle($d);
$f = curl_copy_handle($e);
curl_close($c);
curl_setopt($f, CURLOPT_HTTPHEADER, array('A: 1'));
others();
echo curl_exec($d), curl_exec($f);
