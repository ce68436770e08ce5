<?php
/* Actions of a worker, and what it does between them. */
function work($n) { usleep($n); @file_get_contents('http://127.0.0.1:1/'); }
vantor_end_webaction();
work(1000);
vantor_start_webaction('orders/list');
work(3000);
vantor_notice_error('first');
vantor_end_webaction();
work(1000);
vantor_notice_error('between');
vantor_start_webaction('sync');
work(4000);
work(1000);
vantor_end_webaction();
vantor_start_webaction('lost');
work(1000);
vantor_notice_error('lost');
vantor_start_webaction('a/b?c');
vantor_end_webaction();
vantor_start_webaction('open');
work(2000);
