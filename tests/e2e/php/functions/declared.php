<?php
/* What the engine says of the functions. */
# --- all of them => [["zqprof_rshutdowncall","zqprof_headercall","zqprof_curl_header","vantor_start_webaction","vantor_end_webaction","vantor_notice_error"],[0,0,0,0,0,0]]
$names = get_extension_funcs('quorbit');
$counts = array();
foreach ($names as $name) {
    $r = new ReflectionFunction($name);
    $counts[] = $r->getNumberOfParameters();
}
echo json_encode(array($names, $counts));

# --- wrong arguments => "zqprof_curl_header() expects parameter 1 to be resource, integer given"
vantor_start_webaction();
zqprof_curl_header(1, 2);
$e = error_get_last();
echo json_encode($e['message']);
