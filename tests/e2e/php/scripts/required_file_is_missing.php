<?php
function f() {
    require "missing.php";
}
f();
