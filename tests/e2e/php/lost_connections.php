<?php
# --- mysqli => killed|gone
$db = mysqli_link();
@$db->query("KILL CONNECTION_ID()");
usleep(20000);
var_dump(@$db->query("SELECT 1"), $db->errno);
# --- mysql => killed|gone
$link = mysql_link();
@mysql_query("KILL CONNECTION_ID()");
usleep(20000);
var_dump(@mysql_query("SELECT 1", $link), mysql_error($link));
# --- PDO MySQL => killed|gone
$db = pdo_mysql_link();
@$db->query("KILL CONNECTION_ID()");
usleep(20000);
var_dump(@$db->query("SELECT 1"), $db->errorInfo());
# --- pg => terminating|closed
$link = pg_link();
@pg_query("SELECT pg_terminate_backend(pg_backend_pid())");
var_dump(@pg_query($link, "SELECT 1"), pg_last_error());
# --- PDO pgsql => terminating|closed
$db = pdo_pg_link();
@$db->query("SELECT pg_terminate_backend(pg_backend_pid())");
var_dump(@$db->query("SELECT 1"), $db->errorInfo());
