<?php
class A
{
    static function f()
    {
        return strtoupper('hello');
    }
}

function g()
{
    return A::f();
}

header('X-T: 1');
echo g();
