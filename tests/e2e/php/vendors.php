<?php
# --- the last known connection's; a refused one is none => SQLite SQLite SQLite
$a = new PDO("sqlite::memory:");
$a->exec("SELECT 1");
try { new PDO("mysql:unix_socket=/none"); } catch (Exception $e) { echo "refused"; }
$a->exec("SELECT 2");
try { new PDO("SQLite:x"); } catch (Exception $e) { }
$a->query("SELECT 3");
# --- no vendor before the first => - SQLite
file_put_contents("dsn", "sqlite::memory:");
$a = new PDO("uri:file://" . getcwd() . "/dsn");
$a->exec("SELECT 1");
$b = new PDO("sqlite::memory:");
$a->exec("SELECT 2");
