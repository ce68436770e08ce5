<?php
/* A program on the command line that parses and calls much: HTML Purifier over a page. */
require getenv('PURIFIER') . '/HTMLPurifier.auto.php';
$config = HTMLPurifier_Config::createDefault();
$config->set('Cache.DefinitionImpl', null);
$purifier = new HTMLPurifier($config);
echo strlen($purifier->purify(file_get_contents(getenv('PAGE')))), "\n";
