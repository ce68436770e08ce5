<?php
/* One call to '$URL' by each client, in each way in which scripts use it. Whatever a script can see of its own values is
 * printed: it must not change. */
function transfer($c) { curl_setopt($c, CURLOPT_RETURNTRANSFER, true); var_dump(curl_exec($c)); }
function seen($c, $line) { echo $line; return strlen($line); }
class Base {
    function seen($c, $line) { return seen($c, $line); }
    static function seen_by_class($c, $line) { return seen($c, $line); }
}
function options($stream) { print_r(stream_context_get_options($stream)); }
function soap($client) {
    try { var_dump($client->count('a', 2)); } catch (SoapFault $fault) { echo $fault->getMessage(); }
}
$soap = array('location' => '$URL', 'uri' => 'urn:stock');

# --- curl => curl_exec, identified, answered
transfer(curl_init('$URL'));

# --- curl, headers of its own => curl_exec, identified, answered
$h = array('A: 1', 'n' => 'B: 2', 3);
$same = $h;
$c = curl_init('$URL');
next($h);
var_dump(curl_setopt($c, CURLOPT_HTTPHEADER, $h), current($h), $h, $same);
transfer($c);

# --- curl, headers twice => curl_exec, identified, answered
$c = curl_init('$URL');
foreach (array('A: 1', 'B: 2') as $h) curl_setopt($c, CURLOPT_HTTPHEADER, array($h));
transfer($c);

# --- curl, headers that are none => curl_exec, identified, answered
$c = curl_init('$URL');
var_dump(@curl_setopt($c, CURLOPT_HTTPHEADER, 'A: 1'), error_get_last());
transfer($c);

# --- curl, header callback => curl_exec, identified, answered
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_HEADERFUNCTION, 'SEEN');
transfer($c);

# --- curl, inherited header callback => curl_exec, identified, answered
class Client extends Base {
    function run() {
        $c = curl_init('$URL');
        curl_setopt($c, CURLOPT_HEADERFUNCTION, array($this, 'seen'));
        transfer($c);
    }
}
$client = new Client;
$client->run();

# --- curl, static header callback => curl_exec, identified, answered
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_HEADERFUNCTION, 'base::seen_BY_class');
transfer($c);

# --- curl, closure as header callback => curl_exec, identified
$c = curl_init('$URL');
curl_setopt($c, CURLOPT_HEADERFUNCTION, function ($c, $line) { echo $line; return strlen($line); });
transfer($c);

# --- curl, a copied handle => curl_exec, identified, answered
$original = curl_init('$URL');
$c = curl_copy_handle($original);
curl_close($original);
transfer($c);

# --- curl, a reset handle => curl_exec, identified, answered
$c = curl_init();
curl_reset($c);
curl_setopt($c, CURLOPT_URL, '$URL');
transfer($c);

# --- curl, all options at once => curl_exec, answered
$c = curl_init();
curl_setopt_array($c, array(CURLOPT_URL => '$URL', CURLOPT_HTTPHEADER => array('A: 1')));
transfer($c);

# --- file_get_contents => file_get_contents, identified, answered
var_dump(file_get_contents('$URL'), $http_response_header);
options(stream_context_get_default());

# --- file_get_contents, null context => file_get_contents, identified, answered
var_dump(file_get_contents('$URL', false, null, 0, 1));

# --- file_get_contents through a callback => file_get_contents, identified, answered
function f($u) { return array_map('file_get_contents', array($u)); }
var_dump(f('$URL'));

# --- file_get_contents, a context => file_get_contents, identified, answered
$x = stream_context_create(array('http' => array('user_agent' => 'me')));
$before = stream_context_get_options($x);
var_dump(file_get_contents('$URL', false, $x), $before);
options($x);

# --- file_get_contents, an empty context => file_get_contents, identified, answered
$x = stream_context_create(array('http' => array()));
var_dump(file_get_contents('$URL', false, $x));
options($x);

# --- file_get_contents, a context with headers => file_get_contents, answered
$x = stream_context_create(array('http' => array('header' => 'A: 1')));
var_dump(file_get_contents('$URL', false, $x));
options($x);

# --- file_get_contents, a context that forwards an id => file_get_contents, answered
$x = stream_context_create(array('http' => array('header' => "X-Vantor-Id: 9\r\nA: 1")));
var_dump(file_get_contents('$URL', false, $x));
options($x);

# --- fopen => fopen, identified, answered
function f($u) {
    $f = fopen($u, 'r');
    $data = stream_get_meta_data($f);
    unset($data['wrapper_data']);
    var_dump(stream_get_contents($f), $data);
    options($f);
}
f('$URL');

# --- fopen, a context => fopen, identified, answered
$x = stream_context_create();
stream_context_set_option($x, 'http', 'method', 'POST');
var_dump(stream_get_contents(fopen('$URL', 'r', false, $x)));
options($x);

# --- fopen, a context with headers => fopen, answered
$x = stream_context_create(array('http' => array('header' => array('A: 1'))));
var_dump(stream_get_contents(fopen('$URL', 'r', false, $x)));
options($x);

# --- SoapClient => SoapClient, identified, answered
soap(new SoapClient(null, $soap));

# --- SoapClient, a context => SoapClient, identified, answered
$x = $soap['stream_context'] = stream_context_create(array('http' => array('user_agent' => 'me')));
$before = stream_context_get_options($x);
soap(new SoapClient(null, $soap));
print_r($before);

# --- SoapClient, a context with headers => SoapClient, answered
$soap['stream_context'] = stream_context_create(array('http' => array('header' => 'A: 1')));
soap(new SoapClient(null, $soap));

# --- SoapClient, overridden => SoapClient, identified, answered
class Client extends SoapClient {
    function __doRequest($r, $l, $a, $v, $o = 0) { return parent::__doRequest($r, $l, $a, $v, $o); }
}
soap(new Client(null, $soap));

# --- SoapClient with a __set => SoapClient, identified
class Client extends SoapClient {
    function __set($n, $v) { echo $n; $this->$n = $v; }
}
soap(new Client(null, $soap));

# --- nusoap => soap_transport_http, identified, answered
require '/usr/share/php/nusoap/nusoap.php';
error_reporting(0);
$client = new nusoap_client('$URL');
var_dump($client->call('count', array('a' => 2), 'urn:stock'));

# --- nusoap over curl => soap_transport_http, identified, answered
require '/usr/share/php/nusoap/nusoap.php';
error_reporting(0);
$client = new nusoap_client('$URL');
$client->setUseCURL(true);
var_dump($client->call('count', array('a' => 2), 'urn:stock'));

# --- Snoopy => Snoopy
require '/usr/share/php/libphp-snoopy/Snoopy.class.php';
$client = new Snoopy;
var_dump($client->fetch('$URL'), $client->results, $client->status);

# --- Drupal => drupal_http_request
function drupal_bootstrap() { }
function drupal_http_request($u) { return file_get_contents($u); }
drupal_bootstrap();
var_dump(drupal_http_request('$URL'));

# --- WordPress => WP_Http
function wp_initial_constants() { }
class WP_Http { function request($u) { transfer(curl_init($u)); } }
wp_initial_constants();
$w = new WP_Http;
$w->request('$URL');

# --- Zend => Zend_Http_Client
class Zend_Application { function __construct() { } }
class Zend_Http_Client {
    function __construct($u) { $this->uri = $u; }
    function getUri($text = false) { return $text ? $this->uri : null; }
    function request() { return stream_get_contents(fopen($this->uri, 'r')); }
}
new Zend_Application;
$z = new Zend_Http_Client('$URL');
var_dump($z->request());
