<?php
/* A page of a shop as a template: its list has 300 rows, with modifiers in each. */
require getenv('SMARTY') . '/Smarty.class.php';
$page = new Smarty;
$page->setTemplateDir(__DIR__);
$page->setCompileDir(__DIR__ . '/compiled');
$rows = array();
for ($i = 0; $i < 300; $i++) {
    $rows[] = array('name' => "Product <$i>", 'price' => $i * 1.5, 'stock' => $i % 9);
}
$page->assign('title', 'All & everything');
$page->assign('rows', $rows);
$page->display('list.tpl');
