<?php
/* A worker of many actions; prints what memory they took. */
class Service {
    function step() {
        @file_get_contents('http://127.0.0.1:1/');
        $c = curl_init();
        curl_setopt($c, CURLOPT_HTTPHEADER, array('A: 1'));
    }
}
$s = new Service;
$before = 0;
vantor_end_webaction();
for ($i = 0; $i < 10000; $i++) {
    vantor_start_webaction('job/' . $i % 3);
    if ($i % 10 == 0) {
        $s->step();
        vantor_start_webaction('job/again');
    }
    $s->step();
    vantor_notice_error('trouble ' . $i);
    vantor_end_webaction();
    if ($i == 500) $before = memory_get_usage();
}
echo memory_get_usage() - $before;
