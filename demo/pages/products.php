<?php
/* The slow page: one query for the list, then one more per product, each of which scans a table without an index. */
require __DIR__ . '/shop.php';

class Catalogue
{
    private $db;

    public function __construct(PDO $db)
    {
        $this->db = $db;
    }

    public function rows()
    {
        $html = '';
        foreach ($this->db->query('SELECT id, name, price FROM products ORDER BY name')->fetchAll() as $product) {
            $html .= "<li>{$product['name']}: {$this->stars($product['id'])}</li>\n";
        }
        return $html;
    }

    private function stars($id)
    {
        $average = $this->db->query("SELECT avg(stars) FROM reviews WHERE product = $id")->fetchColumn();
        return round($average, 1) . ' stars';
    }
}

$catalogue = new Catalogue(shop_database());
page('Products', '<ul>' . $catalogue->rows() . '</ul>');
