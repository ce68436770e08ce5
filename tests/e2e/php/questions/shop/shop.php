<?php
function store()
{
    static $db;
    if (!$db) {
        $db = new PDO('mysql:dbname=store;unix_socket=' . (require __DIR__ . '/../database.php'), 'web', 'secret');
        $db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
    }
    return $db;
}

function ask($sql)
{
    global $asked_us;
    $begin = microtime(true);
    $rows = store()->query($sql)->fetchAll();
    $asked_us += (microtime(true) - $begin) * 1e6;
    return $rows;
}

function told(array $measured)
{
    echo '<!--', json_encode($measured), '-->';
}
