<?php
# --- a missing function, in nested calls => RUNTIME_ERROR | Call to undefined function absent() | {closure} b a
function a($f) { b($f); }
function b($f) { $f(); }
a(function () { absent(); });
# --- a file that does not parse => PARSE_ERROR | syntax error, unexpected end of file | load
file_put_contents('bad.php', '<?php if (');
function load() { include 'bad.php'; }
load();
echo 'on';
# --- between two calls, the object of the last one gone => PARSE_ERROR | syntax error, unexpected 'error' (T_STRING) | load
class Loader { function ready() { } }
function loader() { static $one; return $one ?: $one = new Loader; }
function load() { loader()->ready(); eval('syntax error'); }
load();
echo 'on';
# --- a class declared twice => COMPILE_ERROR | Cannot redeclare class A | unknown eval
class A { }
eval('class A { }');
# --- an error of the application => USER_ERROR | 100% broken | trigger_error f
function f() { trigger_error('100% broken', E_USER_ERROR); }
f();
# --- wrong type => RECOVERABLE_ERROR | Argument 1 passed to f() must be of the type array, integer given | f
function f(array $x) { }
f(1);
# --- behind an @ => RUNTIME_ERROR | Call to undefined function absent() | f
function f() { absent(); }
@f();
# --- while errors are not reported => USER_ERROR | broken | trigger_error
error_reporting(0);
trigger_error('broken', E_USER_ERROR);
echo 'never';
# --- warnings, notices and the like => nothing
class S { function f() { } }
echo $x;
echo 1 / 0;
@file('absent');
trigger_error('w', E_USER_WARNING);
trigger_error('d', E_USER_DEPRECATED);
S::f();
include 'absent.php';
# --- memory => RUNTIME_ERROR | Allowed memory size of 8388608 bytes exhausted | str_repeat {closure} a
function a($f) { $f(); }
a(function () {
    $x = array();
    while (true) $x[] = str_repeat('x', 100000);
});
# --- time, in nested calls => RUNTIME_ERROR | Maximum execution time of 1 second exceeded | {closure} a
function a($f) { $f(); }
set_time_limit(1);
a(function () { while (true); });
# --- an exception in nested calls => LogicException | Uncaught exception 'LogicException' with message 'lost'
function a($f) { $f(); }
a(function () { throw new LogicException('lost', 5); });
# --- an exception of a namespace => Shop\Cart\Full | Uncaught exception 'Shop\Cart\Full' with message 'it's full'
namespace Shop\Cart;
class Full extends \Exception { }
throw new Full("it's full");
# --- its previous one first => RuntimeException | Uncaught exception 'RuntimeException' with message 'inner'
throw new LogicException('outer', 0, new RuntimeException('inner'));
# --- an exception without message, in one that has one => RUNTIME_ERROR | Uncaught exception 'RuntimeException'
throw new LogicException('outer', 0, new RuntimeException);
# --- an exception that words itself => RUNTIME_ERROR | Uncaught oddly
class T extends Exception { function __toString() { return 'oddly'; } }
throw new T('x');
# --- an exception at shutdown => LogicException | Uncaught exception 'LogicException' with message 'late'
register_shutdown_function(function () { throw new LogicException('late'); });
echo 'page';
# --- an exception in a destructor behind an exit => LogicException | Uncaught exception 'LogicException' with message 'd'
class D { function __destruct() { throw new LogicException('d'); } }
function f() { $d = new D; exit('bye'); }
f();
# --- an exception in an output handler => LogicException | Uncaught exception 'LogicException' with message 'o'
ob_start(function ($b) { throw new LogicException('o'); });
echo 'page';
# --- an exception where none may be => RUNTIME_ERROR | Method S::__toString() must not throw an exception | unknown
class S { function __toString() { throw new Exception('s'); } }
echo new S;
# --- exceptions that are handled or caught => nothing
set_exception_handler(function ($e) { echo $e->getMessage(); });
try { throw new Exception('x'); } catch (Exception $e) { echo 'caught'; }
throw new Exception('x');
# --- handled by a function => USER_ERROR | broken | handler trigger_error
function handler($type, $message) { echo "[$message]"; return true; }
set_error_handler('handler');
trigger_error('broken', E_USER_ERROR);
# --- handled by a static method as a string => USER_ERROR | broken | Caller.own trigger_error
class Caller { static function own($type, $message) { } }
set_error_handler('Caller::own');
trigger_error('broken', E_USER_ERROR);
# --- handled by a method of an object => USER_ERROR | broken | Caller.method trigger_error
class Caller { function method($type, $message) { } }
set_error_handler(array(new Caller, 'method'));
trigger_error('broken', E_USER_ERROR);
# --- handled by what has no name => nothing
class I { function __invoke() { return true; } }
set_error_handler(function () { echo 'handled'; return true; });
trigger_error('broken', E_USER_ERROR);
set_error_handler(new I);
trigger_error('broken', E_USER_ERROR);
set_error_handler(create_function('$type, $message', 'return true;'));
call_user_func(create_function('$a, $b', ''), E_ERROR, 'no error');
# --- handler named in other letters => USER_ERROR | broken | handler trigger_error
function handler($type, $message) { echo "[$message]"; return true; }
set_error_handler('HANDLER');
trigger_error('broken', E_USER_ERROR);
# --- handled warnings => nothing
function handler($type, $message) { echo "[$message]"; return true; }
set_error_handler('handler');
echo $x;
trigger_error('w', E_USER_WARNING);
# --- handled wrong type => RECOVERABLE_ERROR | Argument 1 passed to f() must be of the type array, integer given | handler f
function handler($type, $message) { echo "[$message]"; return true; }
function f(array $x) { return 1; }
set_error_handler('handler');
echo f(1);
# --- handler replaced and restored => USER_ERROR | broken | handler trigger_error
function handler($type, $message) { echo "[$message]"; return true; }
class Caller { static function own($type, $message) { } }
set_error_handler('handler');
set_error_handler('Caller::own');
restore_error_handler();
trigger_error('broken', E_USER_ERROR);
# --- handler restored to none => USER_ERROR | broken | trigger_error
function handler($type, $message) { echo "[$message]"; return true; }
set_error_handler('handler');
restore_error_handler();
trigger_error('broken', E_USER_ERROR);
# --- handler that declines: the engine ends the request => USER_ERROR | broken | handler trigger_error
function handler($type, $message) { echo 'seen'; return false; }
set_error_handler('handler');
trigger_error('broken', E_USER_ERROR);
# --- throws => RECOVERABLE_ERROR | Argument 1 passed to f() must be of the type array, integer given | handler f
function handler($type, $message) { throw new ErrorException($message, 0, $type); }
function f(array $x) { }
set_error_handler('handler');
try { f(1); } catch (Exception $e) { echo get_class($e); }
# --- handled, then a fatal error => USER_ERROR | broken | handler trigger_error
function handler($type, $message) { echo "[$message]"; return true; }
set_error_handler('handler');
@trigger_error('broken', E_USER_ERROR);
absent();
# --- status by code => HTTP_ERROR | 404
function f() { http_response_code(404); }
f();
# --- status line => HTTP_ERROR | HTTP/1.1 404 Gone fishing | header f
function f() { header('HTTP/1.1 404 Gone fishing'); }
f();
# --- status by another header => HTTP_ERROR | 500
header('X-A: 1', true, 500);
# --- status taken back => HTTP_ERROR | HTTP/1.1 500 No | header
header('HTTP/1.1 500 No');
header('HTTP/1.1 200 OK');
# --- status of authentication => nothing
header('HTTP/1.1 401 Unauthorized');
header('WWW-Authenticate: Basic');
# --- status line that is ignored => nothing
header('HTTP/1.1 503 Busy');
# --- status that is ignored at the end => nothing
http_response_code(418);
# --- status, then an exception => HTTP_ERROR | HTTP/1.1 404 Not Found | header
header('HTTP/1.1 404 Not Found');
throw new Exception('x');
# --- status behind a noticed exception => Exception | x | Exception
try {
    throw new Exception('x');
} catch (Exception $e) {
    if (function_exists('vantor_notice_error')) vantor_notice_error($e);
}
http_response_code(500);
