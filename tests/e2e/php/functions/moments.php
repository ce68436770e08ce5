<?php
/* Every function at moments when a script is unlikely to call it, and how many actions come of it on the command line. */
$f = fopen('php://memory', 'r');
$l = array(1, 2, 3);
function any() {
    zqprof_rshutdowncall();
    zqprof_headercall();
    zqprof_curl_header($GLOBALS['f'], 'X-Vantor-Tx-Data: {"id":"1"}    ');
    vantor_notice_error('x');
    vantor_end_webaction();
    vantor_start_webaction('y');
    vantor_notice_error(new Exception('z'));
}

# --- inside functions => 4
function a() { b(); }
function b() { any(); any(); }
a();
a();
echo 'done';

# --- inside a callback => 5
array_map('any', $l);
usort($l, function () { any(); return 0; });
echo 'done';

# --- inside an error handler => 2
set_error_handler('any');
echo $nothing;
@file_get_contents('http://127.0.0.1:1/');
echo 'done';

# --- inside a header callback of curl => 2
$c = curl_init('file:///etc/hostname');
curl_setopt($c, CURLOPT_RETURNTRANSFER, 1);
curl_setopt($c, CURLOPT_WRITEFUNCTION, function ($c, $d) { any(); return strlen($d); });
curl_exec($c);
curl_exec($c);
echo 'done';

# --- inside an output buffer => 2
ob_start(function ($t) { any(); return $t; });
echo 'x';
ob_flush();
ob_end_flush();
echo 'done';

# --- at shutdown => 1
register_shutdown_function('any');
echo 'done';
exit;

# --- in a method that the agent calls => 0
class Zend_Application { function __construct() { } }
class Zend_Http_Client {
    function getUri() {
        $GLOBALS['seen'] = vantor_start_webaction('inner') || vantor_end_webaction() ? 'changed' : 'done';
        any();
        return 'http://h/';
    }
    function request() { }
}
new Zend_Application;
$z = new Zend_Http_Client;
$z->request();
$z->request();
echo $seen;
