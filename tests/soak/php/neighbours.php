<?php
/* What a debugger and an opcode cache look at while the agent looks at it too. Paths, times and addresses are left out. */
interface Greets
{
    public function greet($whom);
}

abstract class Polite implements Greets
{
    public static function __callStatic($name, $arguments)
    {
        return strtoupper($name) . implode(',', $arguments);
    }

    public function __get($name)
    {
        return function () use ($name) { return "got $name"; };
    }
}

class Hello extends Polite
{
    public function greet($whom)
    {
        if ($whom === '') { throw new InvalidArgumentException('nobody'); }
        return "hello $whom";
    }
}

function letters($until)
{
    try {
        foreach (range('a', $until) as $letter) { yield $letter => ord($letter); }
    } finally {
        echo "letters end\n";
    }
}

function depth()
{
    return function_exists('xdebug_get_stack_depth') ? xdebug_get_stack_depth() : count(debug_backtrace()) + 1;
}

function frames()
{
    $names = array();
    foreach (debug_backtrace() as $frame) {
        $names[] = (isset($frame['class']) ? "$frame[class]::" : '') . $frame['function'] . ':' .
            (isset($frame['line']) ? $frame['line'] : '-');
    }
    return implode(' < ', $names);
}

function nested($levels)
{
    return $levels ? call_user_func('nested', $levels - 1) : depth() . ' ' . frames();
}

set_error_handler(function ($type, $message, $file, $line) {
    echo "handler: $type $message ", basename($file), ":$line\n";
    return true;
});

$hello = new Hello();
echo $hello->greet('you'), Hello::anything(1, 2), call_user_func($hello->thing), "\n";
foreach (letters('d') as $letter => $code) {
    echo "$letter$code ";
    if ($code > 98) { break; }
}
try {
    array_map(array($hello, 'greet'), array('a', '', 'c'));
} catch (InvalidArgumentException $e) {
    echo get_class($e), ' ', $e->getMessage(), ' ', $e->getLine(), ' ', substr_count($e->getTraceAsString(), "\n"), "\n";
}
echo nested(5), "\n", $undefined, eval('return depth();'), "\n";
usort($list = array('b' => 3, 'a' => 1), function ($a, $b) { return $a - $b; });
if (function_exists('xdebug_start_code_coverage')) {
    xdebug_start_code_coverage(XDEBUG_CC_UNUSED | XDEBUG_CC_DEAD_CODE);
    $hello->greet('covered');
    nested(2);
    foreach (xdebug_get_code_coverage() as $file => $lines) {
        echo basename($file), ' ', md5(serialize($lines)), "\n";
    }
    echo xdebug_call_function() ?: 'top', ' ', count(xdebug_get_function_stack()), "\n";
    $trace = xdebug_start_trace("$argv[1]/trace" . getmypid(), 2);
    $hello->greet('traced');
    letters('b')->current();
    if (class_exists('PDO')) {          // the agent asks for the error, and nobody may see that it does
        $db = new PDO('sqlite::memory:');
        $db->query('SELECT nothing FROM nowhere');
    }
    xdebug_stop_trace();
    foreach (file($trace) as $line) {
        $fields = explode("\t", $line);
        if (count($fields) > 5) { echo "$fields[0] $fields[2] $fields[5]\n"; }
    }
    unlink($trace);
}
if (function_exists('opcache_is_script_cached') && opcache_is_script_cached(__FILE__)) {
    echo "from the cache\n";
}
ob_start(function ($text) { return strrev($text); });
echo 'backwards';
ob_end_flush();
register_shutdown_function(function () { echo "\nshutdown ", depth(), "\n"; });
if (isset($argv[2])) {
    nested((int) $argv[2]);             // deeper than Xdebug allows
}
undefined_function_of_neighbours();
