<?php
usleep(file_exists(__DIR__ . '/next') ? 30000 : 3000); /* the next release */
if (isset($_GET['gift'])) {
    throw new OutOfRangeException("no gift for '{$_GET['gift']}' of order 4711");
}
