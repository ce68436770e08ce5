<?php
/* Time in a database, in a call and in the script itself. */
$d = new PDO('sqlite::memory:');
$d->sqliteCreateFunction('nap', function () { usleep(20000); return 1; });
$d->exec('SELECT nap()');
file_get_contents('$URL');
usleep(10000);
