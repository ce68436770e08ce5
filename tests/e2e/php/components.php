<?php
namespace App\Shop {
    class Cart
    {
        function total()
        {
            usleep(6000);
            inner();
        }

        static function sum()
        {
            usleep(4000);
        }
    }

    function inner()
    {
        usleep(5000);
    }
}

namespace {
    function outer()
    {
        eval('usleep(4000);');
        \App\Shop\inner();
    }

    function fast()
    {
    }

    outer();
    outer();
    fast();
    $cart = new \App\Shop\Cart;
    $cart->total();
    $cart->sum();
    call_user_func(array($cart, 'sum'));
}
