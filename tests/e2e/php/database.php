<?php
function page($link, $sql) {
    switch (getenv("API")) {
    case "mysql_query": return mysql_query($sql, $link);
    case "mysql_query without link": return mysql_query($sql);
    case "mysql_db_query": return @mysql_db_query("shop", $sql, $link);
    case "mysql_unbuffered_query": return mysql_unbuffered_query($sql, $link);
    case "mysqli_query": return mysqli_query($link, $sql);
    case "mysqli_real_query": return mysqli_real_query($link, $sql);
    case "mysqli_multi_query": return mysqli_multi_query($link, $sql);
    case "mysqli_prepare": return ($s = mysqli_prepare($link, $sql)) ? mysqli_stmt_execute($s) : $s;
    case "mysqli_stmt_prepare": return mysqli_stmt_prepare($s = mysqli_stmt_init($link), $sql) && mysqli_stmt_execute($s);
    case "mysqli::query": return $link->query($sql);
    case "mysqli::real_query": return $link->real_query($sql);
    case "mysqli::multi_query": return $link->multi_query($sql);
    case "mysqli::prepare": return ($s = $link->prepare($sql)) ? $s->execute() : $s;
    case "mysqli_stmt::prepare": return ($s = $link->stmt_init()) && $s->prepare($sql) && $s->execute();
    case "mysqli_stmt::execute": return ($s = $link->prepare($sql)) ? $s->execute() : $s;
    case "pg_query": return @pg_query($link, $sql);
    case "pg_query without link": return @pg_query($sql);
    case "pg_query_params": return @pg_query_params($link, $sql, strpos($sql, '$1') ? array(1) : array());
    case "pg_query_params without link": return @pg_query_params($sql, array());
    case "pg_execute": return @pg_prepare($link, "p", $sql) ? pg_execute($link, "p", array()) : false;
    case "pg_insert": return @pg_insert($link, "slow", array("id" => 8, $sql => "it's"));
    case "pg_delete": return @pg_delete($link, "slow", array("id" => 7, "note" => $sql));
    case "sqlite_query": return sqlite_query($link, $sql);
    case "sqlite_exec": return sqlite_exec($link, $sql);
    case "sqlite_unbuffered_query": return sqlite_unbuffered_query($link, $sql);
    case "SQLiteDatabase::query": return $link->query($sql);
    case "SQLiteDatabase::queryExec": return $link->queryExec($sql);
    case "SQLiteDatabase::unbufferedQuery": return $link->unbufferedQuery($sql);
    case "SQLite3::query": return @$link->query($sql);
    case "SQLite3::querySingle": return @$link->querySingle($sql);
    case "SQLite3::exec": return @$link->exec($sql);
    case "oci_execute": return ($s = oci_parse($link, $sql)) ? oci_execute("slow:30") : $s;
    case "PDO::query": return $link->query($sql);
    case "PDO::exec": return $link->exec($sql);
    case "PDOStatement::execute": return ($s = $link->prepare($sql)) ? $s->execute() : $s;
    }
}
function double_link() { return 1; }
function double_class_link() { return new SQLiteDatabase("file"); }
$link = call_user_func(getenv("LINK") . "_link");
$got = page($link, getenv("SQL"));
echo gettype($got), " ", is_bool($got) ? (int)$got : "", "\n";
$e = error_get_last();
echo $e["message"], $e["line"];
