<?php
/* The status that a transfer is answered with, and the error recorded of it: status/code and message, as a pattern. */
function transfer($c) { curl_setopt($c, CURLOPT_RETURNTRANSFER, true); return curl_exec($c); }
# --- 400 => 400 Bad Request: 400/400
function fetch() { var_dump(transfer(curl_init('$URL'))); }
fetch();
# --- 503 => 503 Service Unavailable: 503/503
function fetch() { var_dump(transfer(curl_init('$URL'))); }
fetch();
# --- 401 is half of an exchange => 401 Unauthorized
function fetch() { var_dump(transfer(curl_init('$URL'))); }
fetch();
# --- 302 => 302 Found
function fetch() { var_dump(transfer(curl_init('$URL'))); }
fetch();
# --- refused => 200 OK: /1000 Failed to connect.*
function fetch() { transfer(curl_init('http://127.0.0.1:1/x?a=1')); }
fetch();
# --- failed on the status => 404 Not Found: /1000 The requested URL returned error: 404
function fetch() {
    $c = curl_init('$URL');
    curl_setopt($c, CURLOPT_FAILONERROR, true);
    var_dump(transfer($c));
}
fetch();
