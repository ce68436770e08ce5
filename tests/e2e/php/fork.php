<?php
/* Three children, each with an end of its own, before the parent's. */
function work($who)
{
    usleep(2000);
    return $who;
}

work('before');
for ($i = 0; $i < 3; $i++) {
    $pid = pcntl_fork();
    if (!$pid) {
        work('child');
        exit(7);
    }
    pcntl_waitpid($pid, $status);
}
echo work('parent'), pcntl_wexitstatus($status);
