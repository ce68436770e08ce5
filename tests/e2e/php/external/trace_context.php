<?php
/* Calls of '$URL' in the ways in which trace context goes out or stays: "N spans" that go out, each another; "action": that of the
 * action itself; "none"; "own": only what the script sets. */
function transfer($c) { curl_setopt($c, CURLOPT_RETURNTRANSFER, true); return curl_exec($c); }
function with($headers, $url = '$URL') {
    $c = curl_init($url);
    curl_setopt($c, CURLOPT_HTTPHEADER, $headers);
    transfer($c);
}
# --- one handle, many transfers => 3 spans
$c = curl_init('$URL');
transfer($c);
transfer($c);
curl_setopt($c, CURLOPT_HTTPHEADER, array('A: 1'));
transfer($c);
# --- a reference that changes later => 1 spans
$line = 'A: 1';
$headers = array(&$line);
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_HTTPHEADER, $headers);
$line = 'B: 2';
transfer($c);
# --- headers that a library sets => none
function drupal_bootstrap() { }
function drupal_http_request($c) { curl_setopt($c, CURLOPT_HTTPHEADER, array('A: 1')); }
drupal_bootstrap();
$c = curl_init('$URL');
drupal_http_request($c);
transfer($c);
# --- copied after a transfer => 1 spans
$c = curl_init('$URL');
transfer($c);
$d = curl_copy_handle($c);
transfer($c);
transfer($d);
# --- reset after a transfer => 2 spans
$c = curl_init('$URL');
transfer($c);
curl_reset($c);
curl_setopt($c, CURLOPT_URL, '$URL');
transfer($c);
# --- in parallel => action
$m = curl_multi_init();
foreach (array(1, 2) as $i) { $c[$i] = curl_init('$URL'); curl_setopt($c[$i], CURLOPT_RETURNTRANSFER, true); curl_multi_add_handle($m, $c[$i]); }
do { curl_multi_exec($m, $running); curl_multi_select($m, 0.01); } while ($running);
# --- streams, one context => 2 spans
$context = stream_context_create(array('http' => array('method' => 'GET')));
file_get_contents('$URL', false, $context);
fclose(fopen('$URL', 'r', false, $context));
# --- from within a callback of a transfer => 2 spans
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_WRITEFUNCTION, function ($c, $text) { file_get_contents('$URL'); return strlen($text); });
curl_exec($c);
# --- SOAP, one client => 2 spans
$s = new SoapClient(null, array('location' => '$URL', 'uri' => 'urn:stock', 'exceptions' => false));
$s->count('a');
$s->count('b');
# --- AWS, version 4 => none
with(array('Authorization: AWS4-HMAC-SHA256 Credential=a/b, SignedHeaders=host, Signature=c'));
# --- AWS, a date alone => none
with(array('A: 1', 'x-amz-date: 20260101T000000Z'));
# --- HTTP signatures => none
with(array('Signature-Input: sig1=()', 'Signature: sig1=:YQ==:'));
# --- Google => none
with(array('X-Goog-Date: 20260101T000000Z'));
# --- a scheme that nobody knows => none
with(array('authorization: Quorum abc'));
# --- a bearer's token => 1 spans
with(array('Authorization: Bearer abc'));
# --- a URL that is signed => none
file_get_contents('$URL&X-Amz-Signature=abc');
transfer(curl_init('$URL&sig=abc'));
# --- a URL that was signed => 1 spans
$c = curl_init('$URL&X-Amz-Signature=abc');
transfer($c);
curl_setopt($c, CURLOPT_URL, '$URL');
transfer($c);
# --- the script's own => own
with(array('Traceparent: 00-11111111111111111111111111111111-2222222222222222-00'));
