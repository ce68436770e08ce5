<?php
function over() {
    if (getenv('LIMIT') === 'time') posix_kill(getmypid(), 27);    // SIGPROF, as the engine's timer would
    str_repeat('x', 1 << 30);
}
register_shutdown_function(function () { echo 'shut down'; });
echo "page\n";
# --- inside a user function => nothing
function f($depth) { $depth ? f($depth - 1) : over(); }
f(5);
# --- inside magic, closures and internal functions => nothing
class M { function __call($name, $all) { return array_map($all[0], array(1)); } }
$m = new M;
$m->call(function () { call_user_func('over'); });
# --- inside a query => nothing
$db = new PDO('sqlite::memory:');
$db->sqliteCreateFunction('over', 'over', 0);
$db->query('SELECT over()');
# --- inside a call to another service => nothing
class Wrapper { function stream_open() { over(); } }
stream_wrapper_unregister('http');
stream_wrapper_register('http', 'Wrapper');
file_get_contents('http://shop.test/');
# --- inside a callback of curl => nothing
$curl = curl_init('file://' . __FILE__);
curl_setopt($curl, CURLOPT_WRITEFUNCTION, function ($curl, $text) { over(); });
curl_exec($curl);
# --- inside a generator => nothing
function g() { try { yield 1; over(); } finally { echo 'finally'; } }
foreach (g() as $x);
# --- inside an output handler => nothing
ob_start(function ($text) { over(); return $text; });
echo 'buffered';
ob_end_flush();
# --- inside an error handler => nothing
set_error_handler(function () { over(); });
echo $undefined;
# --- inside a destructor => nothing
class D { function __destruct() { over(); } }
function f() { $d = new D; throw new Exception('x'); }
f();
# --- inside included code => nothing
file_put_contents('over.php', '<?php over();');
include 'over.php';
# --- inside a shutdown function => nothing
register_shutdown_function('over');
