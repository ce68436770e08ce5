<?php
/* Works for a quarter second, sleeps for a tenth, and tells its process's seconds in the system and in itself. */
function seconds($who)
{
    $usage = getrusage();
    return $usage["ru_{$who}time.tv_sec"] + $usage["ru_{$who}time.tv_usec"] / 1000000;
}

$start = seconds('u');
while (seconds('u') - $start < 0.25) {
    for ($i = 0; $i < 10000; $i++);
}
usleep(100000);
echo seconds('s'), ' ', seconds('u');
