<?php
/* Pages of a called application, and how many answers to its caller go out. A header callback of the script's own replaces
 * the agent's; then the shutdown function is the last chance. */
foreach (array('headercall', 'rshutdowncall') as $name) {
    if (!function_exists("zqprof_$name")) eval("function zqprof_$name() { }");
}
# --- plain => 1
echo 'page';
# --- no output => 1
# --- flushes early => 1
echo 'one';
flush();
echo 'two';
# --- flushes its buffers => 1
ob_start();
echo 'one';
ob_end_flush();
flush();
header_remove('X-A');
echo 'two';
# --- headers of its own => 1
header('X-A: 1');
header('X-A: 2', false);
header_remove('X-Powered-By');
echo 'page';
# --- removes all headers => 1
header('X-A: 1');
header_remove();
echo 'page';
# --- a callback of its own => 1
header_register_callback(function () { header('X-A: 1'); });
ob_start();
echo 'page';
# --- a callback of its own, unbuffered => 0
header_register_callback(function () { header('X-A: 1'); });
echo 'page';
# --- exit => 1
header('X-A: 1');
echo 'page';
exit(3);
# --- redirect => 1
header('Location: /elsewhere');
exit;
# --- not found => 1
http_response_code(404);
echo 'gone';
# --- fatal error => 1
ini_set('display_errors', 0);
nothing();
# --- exception => 1
ini_set('display_errors', 0);
throw new Exception('x');
# --- warning => 1
ini_set('display_errors', 1);
ini_set('html_errors', 0);
echo 1 / 0;
# --- big => 1
for ($i = 0; $i < 300; $i++) echo str_repeat('x', 1000);
# --- calls ours itself => 1
zqprof_headercall();
zqprof_rshutdowncall();
zqprof_headercall();
echo 'page';
