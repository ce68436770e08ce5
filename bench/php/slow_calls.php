<?php
/* Calls that take some microseconds, all of which a trace without a threshold keeps. Prints nanoseconds per call. */
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

$kind = getenv('CALLS');
$count = (int) getenv('COUNT');
$start = microtime(true);
$kind($count);
printf("%.3f", (microtime(true) - $start) * 1e9 / $count);
