<?php
/* One of sixteen pages, chosen by the number in the URI; pages.py knows what each must answer. */
class Shop
{
    private $items = array();

    public function __call($name, $arguments)
    {
        return $name . count($arguments);
    }

    public function add($item)
    {
        $this->items[] = $item;
        return $this;
    }

    public function sum()
    {
        return array_sum(array_map(function ($item) { return $item * 2; }, $this->items));
    }
}

class OutOfStock extends Exception
{
}

function numbers($until)
{
    for ($i = 0; $i < $until; $i++) { yield $i; }
}

function deep($levels)
{
    return $levels ? deep($levels - 1) + 1 : 0;
}

function leave()
{
    exit('left');
}

/* With opcache loaded: all cached code of all processes, or, where threads share the cache, of two files alone. A reset does
 * not wait for the threads of its own process, whose code it takes away: PHP crashes, with and without an agent. */
function forget_code()
{
    if (!function_exists('opcache_reset') || mt_rand(0, 7)) { return; }
    if (PHP_SAPI === 'fpm-fcgi') {
        opcache_reset();
    } else {
        opcache_invalidate(__FILE__, true);
        opcache_invalidate(__DIR__ . '/part.php', true);
    }
}

function page($kind)
{
    switch ($kind) {
        case 1:
            return deep(50);
        case 2:
            try {
                throw new OutOfStock('gone');
            } catch (OutOfStock $e) { return get_class($e) . ' ' . $e->getMessage(); }
        case 3:
            return array_sum(iterator_to_array(numbers(20)));
        case 4:
            ob_start();
            echo 'inner';
            return strtoupper(ob_get_clean());
        case 5:
            return call_user_func(array(new Shop(), 'anything'), 1, 2);
        case 6:
            return include __DIR__ . '/part.php';
        case 7:
            $end = microtime(true) + 0.0015;
            while (microtime(true) < $end) {            // a reload's signal ends one sleep early
                usleep(100);
            }
            return 'slow';
        case 8:
            leave();
        case 9:
            throw new OutOfStock('nobody catches this');
        case 10:
            return undefined_function_of_the_shop();
        case 11:
            return 'not here';
        case 12:
            if (!class_exists('PDO')) { return '3'; }
            $db = new PDO('sqlite::memory:');
            return $db->query('SELECT 1 + 2')->fetchColumn();
        case 13:
            register_shutdown_function(function () { echo ' and later'; });
            return 'now';
        case 14:
            forget_code();
            return 'fresh';
        default:
            $shop = new Shop();
            return $shop->add(3)->add(4)->sum();
    }
}

$number = (int) substr(strrchr($_SERVER['REQUEST_URI'], '/'), 1);
if ($number % 16 == 11) { http_response_code(404); }
echo '<html><head><title>shop</title></head><body>', $number, ': ', page($number % 16);
