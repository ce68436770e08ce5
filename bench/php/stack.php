<?php
/* Recursion of one kind, down to DEPTH: NEST says which. Prints the KiB of C stack that the process holds down there. */
function stack_kib()
{
    preg_match('/VmStk:\s+(\d+)/', file_get_contents('/proc/self/status'), $found);
    return $found[1];
}

class Nest
{
    public function method($n)
    {
        return $n ? $this->method($n - 1) : stack_kib();
    }

    public function __call($name, $arguments)
    {
        return $arguments[0] ? $this->undefined($arguments[0] - 1) : stack_kib();
    }
}

function plain($n)
{
    return $n ? plain($n - 1) : stack_kib();
}

function mapped($n)
{
    return $n ? current(array_map('mapped', array($n - 1))) : stack_kib();
}

$closure = function ($n) use (&$closure) {
    return $n ? $closure($n - 1) : stack_kib();
};
$nest = new Nest;
$kinds = array('function' => 'plain', 'method' => array($nest, 'method'), 'closure' => $closure,
    'array_map' => 'mapped', '__call' => array($nest, 'undefined'));
echo call_user_func($kinds[getenv('NEST')], (int) getenv('DEPTH'));
