// Opens its files as a daemon does, which relies on the numbers that they get, and reports actions meanwhile.
$files = array();
foreach (array('in', 'out', 'err') as $name) {
    $files[] = fopen(__DIR__ . "/$name.log", 'w');
    if (function_exists('vantor_start_webaction')) {
        vantor_end_webaction();
        vantor_start_webaction($name, '');
    }
}
system('echo of a command; echo complaint >&2');
echo "printed\n";
