<?php
function mysql_link() {
    $link = @mysql_connect(":" . getenv("MYSQL_SOCKET"), "web", "secret");
    mysql_select_db("shop", $link);
    return $link;
}
function mysqli_link() { return new mysqli("localhost", "web", "secret", "shop", 0, getenv("MYSQL_SOCKET")); }
function pg_link() { return pg_connect(getenv("PG_DSN")); }
function pdo_mysql_link() { return new PDO("mysql:unix_socket=" . getenv("MYSQL_SOCKET") . ";dbname=shop", "web", "secret"); }
function pdo_pg_link() { return new PDO("pgsql:" . strtr(getenv("PG_DSN"), " ", ";")); }
function pdo_sqlite_link() {
    $db = new PDO("sqlite::memory:");
    $db->sqliteCreateFunction("nap", "nap");
    $db->exec("CREATE TABLE users (id INTEGER PRIMARY KEY, name TEXT)");
    $db->exec("INSERT INTO users VALUES (1, 'Ada')");
    return $db;
}
function sqlite3_link() {
    $db = new SQLite3(":memory:");
    $db->createFunction("nap", "nap");
    $db->exec("CREATE TABLE users (id INTEGER PRIMARY KEY, name TEXT); INSERT INTO users VALUES (1, 'Ada')");
    return $db;
}
function nap() { usleep(30000); return 1; }
