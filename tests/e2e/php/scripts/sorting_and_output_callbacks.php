<?php
ob_start(function ($b) {
    return strtoupper($b);
});
echo "low";
ob_end_flush();
$a = array(3, 1, 2);
usort($a, function ($x, $y) {
    return $x - $y;
});
echo implode($a);
set_error_handler(function ($n, $m) {
    echo "[$m]";
    return true;
});
echo $undef;
trigger_error("mine", E_USER_ERROR);
print_r(error_get_last());
