<?php
$functions = array(
    "zqprof_headercall", "zqprof_rshutdowncall", "zqprof_curl_header",
    "vantor_end_webaction", "vantor_start_webaction", "vantor_notice_error",
);
foreach ($functions as $function) {
    if (function_exists($function)) {
        @$function(null);
    }
}
echo "ok";
