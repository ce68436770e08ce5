<?php
/* 76 MiB of URLs; says whether less was kept. */
for ($i = 0; $i < 2000; $i++) {
    $u = 'http://127.0.0.1:1/' . $i . str_repeat('x', 40000);
    @file_get_contents($u);
}
echo memory_get_peak_usage() < 64 << 20;
