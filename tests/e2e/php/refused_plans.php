<?php
// the number of statements that get a plan
# --- the account may read the view, not ask for its plan => 0
$link = mysql_link();
echo json_encode(mysql_fetch_row(mysql_query("SELECT name FROM closed"))), mysql_error();
# --- the same through PDO => 0
$db = pdo_mysql_link();
echo json_encode($db->query("SELECT name FROM closed")->fetchAll()), $db->errorCode();
# --- no plan of what is no query => 0
$db = pdo_mysql_link();
echo json_encode($db->query("SHOW TABLES")->fetchAll());
# --- a refused plan would end the transaction => 2
$link = pg_link();
pg_query("BEGIN");
pg_query("CREATE TEMP TABLE n AS SELECT 1 AS v");
pg_query("SELECT * INTO TEMP m FROM n");
pg_query("SET LOCAL work_mem = 1000");
echo pg_fetch_result(pg_query("SELECT v FROM m"), 0), pg_last_error();
var_dump((bool)pg_query("COMMIT"), pg_fetch_result(pg_query("SELECT count(*) FROM m"), 0), pg_last_error());
# --- the same through PDO, PostgreSQL => 2
$db = pdo_pg_link();
$db->beginTransaction();
$db->query("CREATE TEMP TABLE n (v INT)");
$db->query("INSERT INTO n VALUES (1)");
$db->query("LISTEN x");
var_dump($db->query("SELECT v FROM n")->fetchAll(), $db->commit(), $db->errorInfo());
# --- a second statement would run again => 1
$link = pg_link();
pg_query("CREATE TEMP TABLE n (v INT)");
pg_query("SELECT 1; INSERT INTO n VALUES (1)");
pg_query("INSERT INTO n VALUES (2); SELECT '\'; -- '");
echo pg_fetch_result(pg_query("SELECT count(*) FROM n"), 0);
# --- the same through PDO, MySQL => 1
$db = pdo_mysql_link();
$db->exec("CREATE TEMPORARY TABLE n (v INT)");
$r = $db->query("SELECT 1; INSERT INTO n VALUES (1)");
$r->nextRowset();
$r = null;
echo $db->query("SELECT count(*) FROM n")->fetchColumn();
# --- an unknown vendor: only a driver that is known itself is asked => 0
file_put_contents("dsn", "sqlite::memory:");
$db = new PDO("uri:file://" . getcwd() . "/dsn");
$db->query("SELECT 1");
# --- a driver that is not known, after a connection of a known vendor => 0
$db = pdo_sqlite_link();
double_driver($db);
echo json_encode($db->query("SELECT name FROM users")->fetchAll());
