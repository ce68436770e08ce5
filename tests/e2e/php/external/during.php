<?php
/* Scripts that act while a call runs, and after it: calls recorded, with the callee's id, and requests that carry the identity. */
function notified($url) {
    $GLOBALS['x'] = $x = stream_context_create();
    stream_context_set_params($x, array('notification' => 'n'));
    var_dump(file_get_contents($url, false, $x));
    print_r(stream_context_get_options($x));
}
# --- header callback throws => 1 identified: curl_exec
function seen($c, $l) { throw new Exception($l); }
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_HEADERFUNCTION, 'seen');
try { curl_exec($c); } catch (Exception $e) { echo $e; }

# --- one of several transfers throws => 2 identified: curl_multi_exec
$m = curl_multi_init();
foreach (array(0, 1) as $i) {
    $c[$i] = curl_init('$URL');
    curl_multi_add_handle($m, $c[$i]);
}
curl_setopt_array($c[0], array(CURLOPT_WRITEFUNCTION => function () { throw new Exception('thrown'); }));
curl_setopt($c[1], CURLOPT_RETURNTRANSFER, 1);
do {
    try { curl_multi_exec($m, $run); } catch (Exception $e) { echo $e->getMessage(); }
    usleep(30000);      // both answers wait
} while ($run);
var_dump(curl_multi_getcontent($c[1]), curl_error($c[1]));

# --- header callbacks in a set of transfers stay => 2 identified: curl_multi_exec
$m = curl_multi_init();
function seen($c, $line) { static $n = 0; echo ++$n; return strlen($line); }
foreach (array(0, 1) as $i) {
    $c[$i] = curl_init('$URL');
    $i ? curl_setopt($c[$i], (string)CURLOPT_HEADERFUNCTION, 'seen') : curl_setopt_array($c[$i], array(CURLOPT_HEADERFUNCTION => 'seen'));
    curl_setopt($c[$i], CURLOPT_RETURNTRANSFER, 1);
    curl_multi_add_handle($m, $c[$i]);
}
do { curl_multi_exec($m, $run); curl_multi_select($m, 0.001); } while ($run);

# --- script ends inside, goes on at shutdown => 2 identified: file_get_contents 77|8
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_WRITEFUNCTION, function () { exit('bye'); });
register_shutdown_function(function () { echo file_get_contents('$URL'); });
curl_exec($c);

# --- a call inside a call => 2 identified: file_get_contents 77|8, file_get_contents 77|8
function n($code) { static $in = 0; if (!$in++) echo file_get_contents('$URL', false, $GLOBALS['x']); }
notified('$URL');

# --- headers set meanwhile => 0 identified: file_get_contents 77|8
function n($code) { stream_context_set_option($GLOBALS['x'], 'http', 'header', 'A: 1'); }
notified('$URL');

# --- resources behind a SOAP client keep their numbers => 0 identified:
$client = array(new SoapClient(null, array('location' => '$URL', 'uri' => 'x')), new SoapClient(null, array('location' => '$URL', 'uri' => 'x')));
echo fopen('php://memory', 'r'), stream_context_create();

# --- script ends inside a stream => 0 identified:
function n($code) { exit('bye'); }
notified('$URL');

# --- inside a generator => 1 identified: file_get_contents 77|8
function g($u) { yield file_get_contents($u); yield $http_response_header; }
foreach (g('$URL') as $v) var_dump($v);

# --- into a reference => 1 identified: file_get_contents 77|8
$r = array('X: 1');
$http_response_header = &$r;
echo file_get_contents('$URL');
var_dump($r);
# --- a library that throws => 1 identified: drupal_http_request, file_get_contents 77|8
function drupal_bootstrap() { }
function drupal_http_request($u) { file_get_contents($u); throw new Exception; }
drupal_bootstrap();
try { drupal_http_request('$URL'); } catch (Exception $e) { }
file_get_contents('$URL');

# --- an exit inside a library, and a shutdown function that calls => 1 identified: file_get_contents 77|8
ini_set('display_errors', '0');
function drupal_bootstrap() { }
function drupal_http_request($u) { exit; }
register_shutdown_function(function () { file_get_contents('$URL'); });
drupal_bootstrap();
drupal_http_request('$URL');

# --- an error inside a library, and a shutdown function that calls => 1 identified: file_get_contents 77|8
ini_set('display_errors', '0');
function drupal_bootstrap() { }
function drupal_http_request($u) { missing(); }
register_shutdown_function(function () { file_get_contents('$URL'); });
drupal_bootstrap();
drupal_http_request('$URL');

# --- Thrift over HTTP is one record, and the next call counts again => 1 identified: Shop\\Calc\\CalcClient, file_get_contents 77|8
require '$FIXTURES/thrift.php';
$t = new Thrift\Transport\THttpClient('127.0.0.1', $PORT, '/rpc');
$c = new Shop\Calc\CalcClient(new Thrift\Protocol\TBinaryProtocol($t));
try { $c->add(1, 2); } catch (Exception $e) { }
file_get_contents('$URL');

# --- a Thrift server's answer begins no call => 1 identified: file_get_contents 77|8
require '$FIXTURES/thrift.php';
$p = new Thrift\Protocol\TBinaryProtocol(new Thrift\Transport\THttpClient('127.0.0.1'));
$p->writeMessageBegin('add', 2, 0);
file_get_contents('$URL');
