<?php
class Text { function __toString() { return "SELECT 'from object'"; } }
function show($what) {
    $e = error_get_last();
    echo is_object($what) ? get_class($what) : gettype($what) . json_encode($what), " | ",
        $e ? "$e[type] $e[message] $e[line]" : "-", "\n";
}
function run_all($run) {
    $odd = array(42, 1.5, null, false, array("SELECT 1"), new Text, new stdClass, "", " ", ";",
        "SELECT '" . str_repeat("x", 1 << 20) . "'", "SELECT 'a\0b'",
        "SELECT '\xff\xfe'", "SELECT \"1\" -- 'x", "-- nothing", "/*/ SELECT 1", "'");
    foreach ($odd as $sql) {
        try { $run($sql); } catch (Exception $e) { echo get_class($e), $e->getMessage(), $e->getLine(), "\n"; }
    }
}
# --- PDO query => PDO.query
$db = pdo_sqlite_link();
run_all(function ($sql) use ($db) { $r = $db->query($sql); show($r ? $r->fetchAll() : $r); });
# --- PDO exec => nothing
$db = pdo_sqlite_link();
run_all(function ($sql) use ($db) { show($db->exec($sql)); });
# --- PDO prepare => PDOStatement.execute
$db = pdo_sqlite_link();
$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
run_all(function ($sql) use ($db) { $r = $db->prepare($sql); show($r ? $r->execute() : $r); show($r ? $r->fetchAll() : $r); });
# --- SQLite3 => nothing
$db = new SQLite3(":memory:");
run_all(function ($sql) use ($db) { show($db->querySingle($sql)); show($db->lastErrorMsg()); });
# --- mysqli => mysqli.query
$db = mysqli_link();
run_all(function ($sql) use ($db) { $r = $db->query($sql); show($r); show($db->error); });
# --- mysql => mysql_query
$link = mysql_link();
run_all(function ($sql) use ($link) {
    $r = mysql_query($sql, $link);
    show($r ? mysql_fetch_row($r) : $r);
    show(mysql_error($link));
});
# --- pg_query => pg_query
$link = pg_link();
run_all(function ($sql) use ($link) {
    $r = pg_query($link, $sql);
    show($r ? pg_fetch_row($r) : $r);
    show(pg_last_error($link));
});
# --- pg_query_params => pg_query_params
$link = pg_link();
run_all(function ($sql) use ($link) { $r = pg_query_params($link, $sql, array()); show($r ? pg_fetch_row($r) : $r); });
