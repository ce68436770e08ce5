<?php
function d($n) {
    return $n ? 1 + d($n - 1) : 0;
}
echo d(8000);
