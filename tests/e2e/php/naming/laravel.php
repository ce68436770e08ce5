<?php
/* The controller's method that the dispatcher announces names the action, with its first argument. */
namespace Illuminate\Foundation;
class Application { function __construct() { } }

namespace Illuminate\Routing;
class ControllerDispatcher {
    function dispatch($route, $request, $class, $method) {
        return call_user_func_array(array(is_object($class) ? $class : new $class, $method), $route);
    }
}

namespace Shop;
class Base { function shared($id) { } }
class User_7 extends Base {
    function show($id = 0) { }
    static function any($id) { }
}
new \Illuminate\Foundation\Application;
$d = new \Illuminate\Routing\ControllerDispatcher;
# --- a method => Shop.User_7::show/a%2F*
$d->dispatch(array('a/12'), 0, 'Shop\User_7', 'show');
# --- a static method => Shop.User_7::any/9
$d->dispatch(array('9'), 0, 'Shop\User_7', 'any');
# --- a number => URI/index.php
$d->dispatch(array(9), 0, 'Shop\User_7', 'show');
# --- no argument => URI/index.php
$d->dispatch(array(), 0, 'Shop\User_7', 'show');
# --- an object => URI/index.php
$d->dispatch(array('9'), 0, new User_7, 'show');
# --- an inherited method runs under the name of the class that declares it => URI/index.php
$d->dispatch(array('9'), 0, 'Shop\User_7', 'shared');
# --- the first with a name => Shop.User_7::any/b
$d->dispatch(array(9), 0, 'Shop\User_7', 'show');
$d->dispatch(array('b'), 0, 'Shop\User_7', 'any');
