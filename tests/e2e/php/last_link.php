<?php
set_error_handler(function () { echo "seen"; });
mysql_link();
echo json_encode(mysql_fetch_row(mysql_query("SELECT * FROM users WHERE id = 1")));
echo mysql_result(mysql_query("SELECT 7"), 0);
