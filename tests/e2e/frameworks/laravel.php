<?php
/* Laravel 5.1: container, router behind a facade, controller dispatcher, controller methods with the route's parameters. */
namespace Illuminate\Foundation {
	class Application {
		public $instances = [];
		public function __construct($basePath = null) {
			$this->instances['router'] = new \Illuminate\Routing\Router;
		}
	}
}
namespace Illuminate\Support\Facades {
	abstract class Facade {
		public static $app;
		public static function __callStatic($method, $args) {
			return call_user_func_array([static::$app->instances[static::getFacadeAccessor()], $method], $args);
		}
	}
	class Route extends Facade {
		protected static function getFacadeAccessor() { return 'router'; }
	}
}
namespace Illuminate\Http {
	class Request {
	}
}
namespace Illuminate\Routing {
	class Router {
		private $routes = [];
		public function get($uri, $action) {
			$this->routes['#^' . preg_replace('/\{\w+\}/', '([^/]+)', $uri) . '$#'] = new Route($action);
		}
		public function dispatch(\Illuminate\Http\Request $request) {
			$path = strtok($_SERVER['REQUEST_URI'], '?');
			foreach ($this->routes as $pattern => $route) {
				if (preg_match($pattern, $path, $match)) {
					$route->parameters = array_slice($match, 1);
					return $route->run($request);
				}
			}
		}
	}
	class Route {
		public $parameters = [], $action;
		public function __construct($action) { $this->action = 'App\Http\Controllers\\' . $action; }
		public function run(\Illuminate\Http\Request $request) {
			list($class, $method) = explode('@', $this->action);
			return (new ControllerDispatcher)->dispatch($this, $request, $class, $method);
		}
	}
	class ControllerDispatcher {
		public function dispatch(Route $route, \Illuminate\Http\Request $request, $controller, $method) {
			$instance = new $controller;
			return call_user_func(function () use ($instance, $route, $method) {
				return $this->call($instance, $route, $method);
			});
		}
		protected function call($instance, $route, $method) {
			return $instance->callAction($method, $route->parameters);
		}
	}
	abstract class Controller {
		public function callAction($method, $parameters) {
			return call_user_func_array([$this, $method], $parameters);
		}
	}
}
namespace App\Http\Controllers {
	class UserController extends \Illuminate\Routing\Controller {
		public function index() { return 'all'; }
		public function show($id) {
			usleep(1500);
			return "user $id";
		}
	}
}
namespace {
	use Illuminate\Support\Facades\Route;

	Route::$app = new Illuminate\Foundation\Application(__DIR__);
	Route::get('/users', 'UserController@index');
	Route::get('/users/{id}', 'UserController@show');
	echo Route::dispatch(new Illuminate\Http\Request);
}
# --- /users/123 => App.Http.Controllers.UserController::show/*
# --- /users => URI/users
