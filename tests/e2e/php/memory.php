<html><head><title>memory</title></head><body><?php
/* Every way in and out that leaves something to free: run under valgrind. */
class Caller
{
    public function __call($name, $arguments)
    {
        return count($arguments);
    }

    public static function __callStatic($name, $arguments)
    {
        return $name;
    }

    public function numbers()
    {
        yield strlen("x");
        yield 2;
    }
}

function deep($n)
{
    usleep(2000);
    if ($n) {
        return deep($n - 1);
    }
    throw new LogicException('deep');
}

set_error_handler(function ($number, $text) {
    return true;
});
echo $undefined;
$caller = new Caller;
$caller->foo(1, 2);
Caller::bar();
foreach ($caller->numbers() as $number) {
    echo $number;
}
try {
    deep(3);
} catch (LogicException $e) {
    echo get_class($e);
}
$closure = function ($x) {
    usleep(2000);
    return $x;
};
echo array_sum(array_map($closure, array(1, 2)));
eval('function evaluated() { return 7; } echo evaluated();');
$db = new PDO('sqlite::memory:');
foreach ($db->query('SELECT 1 AS one') as $row) {
    echo $row['one'];
}
$db->query('SELECT broken FROM nothing');
@file_get_contents('http://127.0.0.1:1/');
restore_error_handler();
register_shutdown_function(function () {
    deep(0);
});
ob_start();
echo 'buffered';
exit(3);
