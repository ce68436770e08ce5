<?php // What the radar has to find stands at the end of its line; a plus in front: as a call that ran.
require dirname(__FILE__) . '/cart.php';
error_reporting(0);
ini_set('session.hash_function', '1'); //= session.hash_function
define('SHOP_NAME', 'Old', true); //= define
class Basket {
    var $items = array();
    function Basket($items, DateTime $since = null) { //= constructor_named_like_its_class implicitly_nullable_parameter
        $this->items = $items;
    }
    function total() { return count($this->items); }
    function label() { return strlen('Basket'); }
    static function ofNobody($unused, $unused2 = 1, $required) { //= required_after_optional_parameter
        return self::nothing();
    }
    function never() { return strrev(ereg_replace('a', 'b', 'c')); } //= ereg_replace
}
class String { function text() { return strlen('x'); } } //= String
function __autoload($name) { if ($name == 'Missing') eval('class Missing {}'); } //= __autoload
function str_contains($text, $part) { return strpos($text, $part) !== false; } //= str_contains
if (!function_exists('intdiv')) {
    function intdiv($a, $b) { return (int) ($a / $b); }
}
function logged($format) {
    $format = strtoupper($format);
    return vsprintf($format, array_slice(func_get_args(), 1)); //= func_get_args_after_a_change
}
function instance() { static $basket; $basket =& new Basket(array(1, 2)); return $basket; } //= new_by_reference
$parts = split(',', 'a,b'); //= split +split
while (list($key, $value) = each($parts)) $last = $value; //= each +each
$square = create_function('$x', 'return $x * $x;'); //= create_function +create_function
$called = 'ereg';
$called('a', 'abc'); //= +ereg
array_map('hebrevc', array('x')); //= +hebrevc
if (false) { set_magic_quotes_runtime(0); } //= set_magic_quotes_runtime
if (get_magic_quotes_gpc()) { $parts = array_map('stripslashes', $parts); } //= get_magic_quotes_gpc +get_magic_quotes_gpc
$html = preg_replace('/(x)/e', 'strtoupper("$1")', 'xyz'); //= preg_replace +modifier_e
$pattern = '/y/' . 'e';
$html = preg_replace($pattern, '"z"', $html); //= +modifier_e
$body = isset($HTTP_RAW_POST_DATA) ? $HTTP_RAW_POST_DATA : ''; //= HTTP_RAW_POST_DATA
$row = mcrypt_encrypt === null; //= +undefined_constant
if (function_exists('mcrypt_encrypt')) mcrypt_encrypt('a', 'b', 'c', 'd'); //= mcrypt_encrypt
$joined = implode($parts, ', '); //= implode
$at = strpos('shop', 111); //= strpos
assert('strlen("x") == 1'); //= assert
parse_str('a=1'); //= parse_str
setlocale('LC_ALL', 'C'); //= setlocale
$gone = (unset) $at; //= (unset)_cast
$when = strftime('%Y', mktime()) . utf8_encode('ok'); //= strftime mktime utf8_encode +strftime +utf8_encode
$half = 1 / (int) $gone; //= +division_by_zero
Basket::label(); //= +static_call_of_an_instance_method
strlen(array()); //= +wrong_type_of_argument
logged('%s', instance()->total());
echo logged('done'), array_sum(array(cart_price(1), str_contains('abc', 'b')));
