<?php
$runs = (int)getenv("RUNS");
$varies = getenv("VARIES");
$db = new SQLite3(":memory:");
$before = memory_get_usage();
for ($i = 0; $i < 10000; $i++) $db->querySingle($varies ? "SELECT $i" : "SELECT 1");
echo (memory_get_usage() - $before) / 10000 <= 200 ? "small;" : "large;";
for (; $i < $runs; $i++) $db->querySingle($varies ? "SELECT $i" : "SELECT 1");
echo memory_get_usage() - $before < 48 << 20 ? "bounded;" : "unbounded;";
$db->querySingle("SELECT '" . str_repeat("x", 1 << 20) . "'");
usleep(1);
