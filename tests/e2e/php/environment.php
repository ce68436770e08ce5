<?php
/* What the engine says of itself, a line each: version, extensions, web server. */
$list = array();
foreach (get_loaded_extensions() as $name) {
    $version = phpversion($name);
    $list[] = $version ? "$name($version)" : $name;
}
$server = function_exists('apache_get_version') ? apache_get_version() : '';
file_put_contents(__DIR__ . '/environment', phpversion() . "\n" . implode(',', $list) . "\n" . $server);
