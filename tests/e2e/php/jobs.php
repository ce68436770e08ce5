<?php
/* Reports its jobs one by one; a second start drops the open action, and nothing is left for the end of the run. */
function job()
{
    usleep(3000);
}

function dropped()
{
    usleep(3000);
}

if (function_exists('vantor_start_webaction')) {
    vantor_start_webaction('dropped');
    dropped();
    vantor_start_webaction('orders/list');
    job();
    vantor_end_webaction();
    vantor_start_webaction('sync');
    job();
    vantor_end_webaction();
    vantor_end_webaction();
}
