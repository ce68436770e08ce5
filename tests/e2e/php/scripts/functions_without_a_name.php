<?php
$f = create_function('$x', 'return $x + 1;');
echo $f(1), implode(array_map($f, array(1, 2)));
echo preg_replace_callback("/a/", create_function("", "return 5;"), "bab"), array_sum(array_map("intval", array("1", "x")));
