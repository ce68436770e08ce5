<?php
/* Which calls count, and under which name. */
function multi($url) {
    $m = curl_multi_init();
    $c = curl_init($url);
    curl_setopt($c, CURLOPT_RETURNTRANSFER, 1);
    curl_multi_add_handle($m, $c);
    do { curl_multi_exec($m, $run); usleep(1000); } while ($run);
    return curl_multi_getcontent($c);
}
# --- streams without HTTP => nothing
file_get_contents('/etc/hostname');
fclose(fopen('php://memory', 'r'));
@file_get_contents('ftp://127.0.0.1:1/x');

# --- a URL without scheme => http:%2F%2F127.0.0.1:$PORT%2Fa*/curl_exec
curl_exec(curl_init('127.0.0.1:$PORT/a12?b'));

# --- a URL in capitals => http:%2F%2F127.0.0.1:$PORT%2FA/curl_exec
curl_exec(curl_init('HTTP://127.0.0.1:$PORT/A?q=1'));

# --- calls without sense => http:%2F%2F/fopen
curl_exec(curl_init());
@curl_exec('x');
@curl_init();
@curl_setopt();
@curl_exec();
@file_get_contents();
@fopen('http://');

# --- several at once => http:%2F%2Funknown-host/curl_multi_exec
echo multi('$URL');
