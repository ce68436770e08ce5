<?php
function attempt($call) {
    var_dump($call());
    $e = error_get_last();
    echo $e["type"], $e["message"], $e["line"], "\n";
}
set_error_handler(function ($type, $message) { echo "[$type $message]"; });
attempt(function () { return mysql_query("SELECT 1", "no link"); });
attempt(function () { return mysql_query("SELECT 1", false); });
attempt(function () { return mysql_query("SELECT 1", new stdClass); });
attempt(function () { return mysql_query(); });
attempt(function () { return mysqli_query(null, "SELECT 1"); });
attempt(function () { return mysqli_query(false, "SELECT 1"); });
attempt(function () { return mysqli_prepare(1, "SELECT 1"); });
attempt(function () { return mysqli_stmt_execute(1); });
attempt(function () { $db = mysqli_init(); return $db->query("SELECT 1"); });
attempt(function () { $db = mysqli_init(); return $db->prepare("SELECT 1"); });
attempt(function () { $s = new mysqli_stmt(mysqli_init(), "SELECT 1"); return $s->execute(); });
attempt(function () { return pg_query(false, "SELECT 1"); });
attempt(function () { return pg_query("SELECT 1"); });
attempt(function () { return pg_query_params("x", "SELECT 1", array()); });
attempt(function () { return pg_execute(1, 2, 3); });
attempt(function () { return pg_insert(false, "t", array(1)); });
