<?php
# --- mysqli => DB_ERROR
$db = mysqli_link();
$db->query("SELECT 1");     # a connection's first FOUND_ROWS() may be that of another one, before it
$db->query("CREATE TEMPORARY TABLE n (id INT AUTO_INCREMENT PRIMARY KEY, v INT UNIQUE)");
foreach (array("INSERT INTO n (v) VALUES (1),(2)", "INSERT INTO n (v) VALUES (2)", "UPDATE n SET v = v + 10", "SELECT * FROM n",
               "DELETE FROM n") as $sql) {
    $db->query($sql);
    echo json_encode(array($db->affected_rows, $db->insert_id, $db->error, $db->warning_count, $db->info,
                           $db->query("SELECT FOUND_ROWS()")->fetch_row())), "\n";
}
# --- mysql => DB_ERROR
$link = mysql_link();
mysql_query("CREATE TEMPORARY TABLE n (id INT AUTO_INCREMENT PRIMARY KEY, v INT UNIQUE)");
foreach (array("INSERT INTO n (v) VALUES (1),(2)", "INSERT INTO n (v) VALUES (2)", "UPDATE n SET v = v + 10",
               "DELETE FROM n") as $sql) {
    mysql_query($sql);
    echo mysql_affected_rows(), " ", mysql_insert_id(), mysql_info(), mysql_error();
}
# --- pdo_mysql => DB_ERROR
$db = pdo_mysql_link();
$db->exec("CREATE TEMPORARY TABLE n (id INT AUTO_INCREMENT PRIMARY KEY, v INT UNIQUE)");
foreach (array("INSERT INTO n (v) VALUES (1),(2)", "INSERT INTO n (v) VALUES (2)", "REPLACE INTO n (v) VALUES (2)",
               "UPDATE n SET v = LAST_INSERT_ID(v + 10)", "SELECT * FROM n", "DELETE FROM n") as $sql) {
    $r = $db->query($sql);
    echo json_encode(array($r ? $r->rowCount() : 0, $db->lastInsertId(), $db->errorInfo()));
}
# --- pg => DB_ERROR
$link = pg_link();
pg_query("CREATE TEMP TABLE n (id SERIAL, v INT UNIQUE)");
foreach (array("INSERT INTO n (v) VALUES (1), (2)", "INSERT INTO n (v) VALUES (2)", "UPDATE n SET v = v + 10",
               "SELECT lastval()") as $sql) {
    $r = @pg_query($link, $sql);
    echo json_encode(array($r ? array(pg_affected_rows($r), pg_fetch_row($r)) : 0, pg_last_error(), pg_last_notice($link)));
}
# --- sqlite => DB_ERROR
$db = pdo_sqlite_link();
foreach (array("INSERT INTO users (name) VALUES (2)", "INSERT INTO users VALUES (1, 2)", "UPDATE users SET name = 3") as $sql) {
    $r = $db->query($sql);
    echo json_encode(array($r ? $r->rowCount() : 0, $db->lastInsertId(), $db->errorInfo()));
}
