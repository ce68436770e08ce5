<?php
/* A tree of processes, each forked while its parent's action is open: `tree.php DEPTH BREADTH`. Every process prints its id and
 * how it ends, which depends on its place. */
class Unwound extends Exception
{
}

function work()
{
    usleep(mt_rand(0, 2000));
    return md5(str_repeat('x', 1000));
}

function finish($fate)
{
    fwrite(STDOUT, getmypid() . " $fate\n");
    work();
    switch ($fate) {
        case 'exits':
            exit(3);
        case 'fails':
            return undefined_function_of_the_tree();
        case 'throws':
            throw new Unwound('nobody catches this');
        case 'is killed':
            posix_kill(getmypid(), SIGKILL);
            sleep(10);
        case 'becomes another':
            pcntl_exec('/bin/true');
        case 'ends twice':
            vantor_end_webaction();
            vantor_start_webaction('second', 'second');
            work();
            break;
        case 'ends in a generator':
            foreach (unwinding() as $never) {}
    }
}

function unwinding()
{
    work();
    exit(4);
    yield 1;
}

function node($path, $depth, $breadth)
{
    $fates = array('exits', 'fails', 'throws', 'is killed', 'becomes another', 'ends twice', 'ends in a generator', 'returns');
    $children = array();
    for ($i = 0; $depth && $i < $breadth; $i++) {
        $child = pcntl_fork();
        if (!$child) {
            mt_srand(crc32($path . $i) + getmypid());
            return node($path . $i, $depth - 1, $breadth);
        }
        $children[] = $child;
    }
    work();
    foreach ($children as $child) { pcntl_waitpid($child, $status); }
    finish($path ? $fates[abs(crc32($path)) % count($fates)] : 'returns');
}

node('', (int) $argv[1], (int) $argv[2]);
