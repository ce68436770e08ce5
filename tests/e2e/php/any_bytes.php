<?php
$path = "a \"b\"\\c'd\n.php";
file_put_contents($path, "<?php class \xc3\x89t\xff { static function \x80run(\$db) {
    usleep(2000);
    \$db->query('SELECT \"\xff\\0\x01\\\\\" FROM \"\xc3\xa9\\\\t\"', PDO::FETCH_ASSOC);
    return \$db->query('SELECT 1 FROM [a\"b]');
} } \xc3\x89t\xff::\x80run(\$db);");
$db = pdo_sqlite_link();
$db->query('SELECT nap() FROM "users"')->fetchAll();
include $path;
$db->query("SELECT nap(), '\xff', \"name\" FROM [users]");
