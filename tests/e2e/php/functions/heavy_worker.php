<?php
/* A worker whose action takes more memory to report than its limit leaves. */
ini_set('memory_limit', '64M'); /* a quarter of it holds the statements */
$db = new PDO('sqlite::memory:');
vantor_start_webaction('heavy');
for ($i = 0; $i < 1000; $i++) {
    $db->query("SELECT $i, '" . str_repeat('x', 16000) . "'");
}
ini_set('memory_limit', '30M');
vantor_end_webaction();
echo 'over the limit: ';
str_repeat('x', 30 << 20);
