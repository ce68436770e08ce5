<?php
/* A page that calls all the time: a list of products through small objects, accessors and templates, as frameworks make
 * them. About 13,000 calls, none of them of interest to the agent, and 10 ms. */
class Product
{
    private $id;
    private $name;
    private $cents;

    public function __construct($id, $name, $cents)
    {
        $this->id = $id;
        $this->name = $name;
        $this->cents = $cents;
    }

    public function id()
    {
        return $this->id;
    }

    public function name()
    {
        return $this->name;
    }

    public function cents()
    {
        return $this->cents;
    }
}

class Catalogue
{
    private static $words = array('Red', 'wide', '<old>', 'light', 'round', 'long', 'blue', 'plain', 'odd', 'new', 'soft', 'tall');

    private function name($id)
    {
        $name = 'Item';
        for ($i = 0; $i < 16; $i++) {
            $name .= ' ' . self::$words[($id + $i * $id) % 12];
        }
        return $name;
    }

    public function products($count)
    {
        $products = array();
        for ($id = 1; $id <= $count; $id++) {
            $products[] = new Product($id, $this->name($id), $id * 4711 % 99999);
        }
        return $products;
    }
}

class View
{
    private $rank = array();

    private function escape($text)
    {
        return htmlspecialchars($text, ENT_QUOTES);
    }

    private function price($cents)
    {
        return number_format($cents / 100, 2);
    }

    private function link(Product $product)
    {
        return '/shop/' . $product->id() . '/' . strtolower(strtr(trim($product->name()), ' <>', '---'));
    }

    private function stars($id)
    {
        $sum = 0;
        for ($i = 0; $i < 330; $i++) {
            $sum = ($sum * 31 + $id * $i) % 1009;
        }
        return str_repeat('*', 1 + $sum % 5);
    }

    public function row(Product $product)
    {
        $this->rank[] = $product->cents();
        return '<tr><td>' . $this->escape($product->name()) . '</td><td>' . $this->price($product->cents()) . '</td><td>'
            . $this->escape($this->link($product)) . '</td><td>' . $this->stars($product->id()) . "</td></tr>\n";
    }

    public function total()
    {
        return $this->price(array_sum($this->rank));
    }
}

function render()
{
    $catalogue = new Catalogue;
    $view = new View;
    $page = '<html><head><title>Shop</title></head><body><table>';
    foreach ($catalogue->products(620) as $product) {
        $page .= $view->row($product);
    }
    return $page . '</table>' . $view->total() . '</body></html>';
}

echo render();
