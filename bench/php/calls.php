<?php
/* One kind of call, many times: CALLS says which, COUNT how often, SETTLE_US how long to wait before. Prints nanoseconds of
 * processor time per call. */
function plain($a)
{
    return $a;
}

class Shape
{
    public function method($a)
    {
        return $a;
    }

    public static function fixed($a)
    {
        return $a;
    }
}

function user_function($n)
{
    for ($i = 0; $i < $n; $i++) {
        plain($i);
    }
}

function user_method($n)
{
    $shape = new Shape;
    for ($i = 0; $i < $n; $i++) {
        $shape->method($i);
    }
}

function internal_function($n)
{
    for ($i = 0; $i < $n; $i++) {
        max($i, 1);
    }
}

function quick_function($n) /* which cannot be slow, and is not timed */
{
    for ($i = 0; $i < $n; $i++) {
        abs($i);
    }
}

function long_function($n) /* takes microseconds, so that its duration is never 0 */
{
    $text = str_repeat('text', 500);
    for ($i = 0; $i < $n; $i++) {
        md5($text);
    }
}

function busy($text)
{
    for ($i = 0; $i < 40; $i++) {
        $text = $i;
    }
    return $text;
}

function long_user_function($n)
{
    for ($i = 0; $i < $n; $i++) {
        busy($i);
    }
}

function internal_method($n)
{
    $object = new ArrayObject(array(1));
    for ($i = 0; $i < $n; $i++) {
        $object->count();
    }
}

function spent_us()
{
    $usage = getrusage();
    return ($usage['ru_utime.tv_sec'] + $usage['ru_stime.tv_sec']) * 1e6 + $usage['ru_utime.tv_usec'] + $usage['ru_stime.tv_usec'];
}

$kind = getenv('CALLS');
$count = (int) getenv('COUNT');
usleep((int) getenv('SETTLE_US'));
$start = spent_us();
if ($kind === 'outermost_function') { /* called by the script itself, and so a component */
    for ($i = 0; $i < $count; $i++) {
        plain($i);
    }
} else {
    $kind($count);
}
printf("%.3f", (spent_us() - $start) * 1e3 / $count);
