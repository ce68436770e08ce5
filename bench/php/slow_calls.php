<?php
/* Calls that take some microseconds, all of which a trace without a threshold keeps. Prints nanoseconds of processor time per call. */
function busy($text)
{
    for ($i = 0; $i < 40; $i++) {
        $text = $i;
    }
    return $text;
}

function user_function($n)
{
    for ($i = 0; $i < $n; $i++) {
        busy($i);
    }
}

function internal_function($n)
{
    $text = str_repeat('some text ', 100);
    for ($i = 0; $i < $n; $i++) {
        md5($text);
    }
}

function spent_us()
{
    $usage = getrusage();
    return ($usage['ru_utime.tv_sec'] + $usage['ru_stime.tv_sec']) * 1e6 + $usage['ru_utime.tv_usec'] + $usage['ru_stime.tv_usec'];
}

$kind = getenv('CALLS');
$count = (int) getenv('COUNT');
$start = spent_us();
$kind($count);
printf("%.3f", (spent_us() - $start) * 1e3 / $count);
