<?php
array_map(function ($x) {
    echo $x;
    if ($x == 2) exit("stop");
}, array(1, 2, 3));
