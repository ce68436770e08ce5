<?php
$db = sqlite3_link();
$db->querySingle("SELECT nap(7), 'x'");
