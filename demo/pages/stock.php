<?php
/* What checkout.php asks: slow, since it counts by hand. */
function count_shelves()
{
    $pieces = 0;
    for ($shelf = 0; $shelf < 12; $shelf++) {
        usleep(10000);
        $pieces += $shelf % 3;
    }
    return $pieces;
}

echo count_shelves();
