<?php
/* How calls end without returning, and what is left of them. */
class Late { static function down() { usleep(3000); } }
class App { static function run() { usleep(3000); Ctl::show(); } }
register_shutdown_function('Late::down');
# --- exit => App::run Ctl::show Late::down
class Ctl { static function show() { usleep(3000); exit; } }
App::run();
# --- exit in an output callback => App::run Ctl::show Late::down
class Ctl { static function show() { ob_start(function ($text) { usleep(100); exit; }, 1); usleep(3000); echo 'text'; } }
App::run();
# --- exit below internal functions => App::run Ctl::show ::array_map ::leave Late::down
function leave() { usleep(3000); exit; }
class Ctl { static function show() { array_map('leave', array(1)); } }
App::run();
# --- exit in a generator => App::run Ctl::show Late::down
class Ctl { static function show() { foreach (self::numbers() as $number); } static function numbers() { usleep(3000); exit; yield 1; } }
App::run();
# --- exit in a destructor => App::run Ctl::show Ctl::__destruct Late::down
class Ctl { static function show() { new self; } function __destruct() { usleep(3000); exit; } }
App::run();
# --- fatal error => App::run Ctl::show Late::down
class Ctl { static function show() { usleep(3000); missing(); } }
App::run();
# --- time limit => App::run Ctl::show Late::down
class Ctl { static function show() { set_time_limit(1); while (true); } }
App::run();
# --- memory limit => App::run Ctl::show Late::down
class Ctl { static function show() { usleep(3000); for ($kept = array(); ; ) $kept[] = str_repeat('x', 1000); } }
App::run();
# --- file that cannot be parsed => App::run Ctl::show ::include Late::down
file_put_contents('broken.php', '<?php usleep(3000); include "worse.php";');
file_put_contents('worse.php', '<?php class {');
class Ctl { static function show() { include 'broken.php'; } }
App::run();
# --- fatal error that a SOAP client makes an exception of => App::run Ctl::show Late::down
class Ctl { static function show() { usleep(3000); try { new SoapClient('nowhere.wsdl'); } catch (SoapFault $fault) { usleep(3000); } } }
App::run();
# --- evaluated code that cannot be parsed ends nothing => App::run Ctl::show Late::down
class Ctl { static function show() { usleep(3000); eval('syntax error'); usleep(3000); } }
App::run();
