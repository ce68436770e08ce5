<?php
class Cart
{
    function total()
    {
        return self::sum(1);
    }

    static function sum($x)
    {
        return $x;
    }
}

function main()
{
    $cart = new Cart;
    $cart->total();
    include 'part.php';
    strlen('x');
}

main();
eval('last();');
function last()
{
    exit;
}
