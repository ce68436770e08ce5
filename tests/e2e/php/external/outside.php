<?php
/* Time outside. */
function transfer($c) { curl_setopt($c, CURLOPT_RETURNTRANSFER, true); return curl_exec($c); }
function page() {
    file_get_contents('$URL');
    transfer(curl_init('$URL'));
    usleep(20000);
}
page();
