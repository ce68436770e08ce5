<?php
/* A worker whose actions take more memory to report than its limit leaves, and each as much as an action may keep. */
$db = new PDO('sqlite::memory:');
for ($action = 0; $action < 2; $action++) {
    ini_set('memory_limit', '64M'); /* a quarter of it holds the statements */
    vantor_start_webaction('heavy');
    for ($i = 0; $i < 1000; $i++) {
        $db->query("SELECT $i, '" . str_repeat('x', 16000) . "'");
    }
    ini_set('memory_limit', '30M');
    vantor_end_webaction();
}
echo 'over the limit: ';
str_repeat('x', 30 << 20);
