<?php
namespace Old {
    class Cart implements \Serializable { //= Serializable
        function Cart() { return strlen('an ordinary method here'); }
        function serialize() { return hebrevc('x'); } //= hebrevc
        function unserialize($text) { return strlen($text); }
    }
    function each($list) { return strlen(implode(',', $list)); }
    function count_all($list) { return each($list) + \each($list); } //= each
    class Resource { function get() { return strlen(restore_include_path()); } } //= restore_include_path
}
namespace {
    function cart_price($amount) { return is_real($amount) ? $amount : round($amount, 2); } //= is_real
    function cart_never($amount) { return money_format('%i', $amount); } //= money_format
    $price = function ($amount) { return strlen($amount); };
    abstract class Shape { abstract function area(); function twice() { return strlen($this->area()); } }
    class Square extends Shape { function area() { return str_repeat('x', 4); } }
    $square = new Square;
    $square->twice();
}
