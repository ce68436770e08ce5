<?php
try {
    new DateTime("never");
} catch (Exception $e) {
    echo get_class($e);
}
try {
    new PDO("mysql:host=127.0.0.1;port=1");
} catch (Exception $e) {
    echo get_class($e);
}
class S {
    function __construct() {
        throw new Exception("s");
    }
}
try {
    new S;
} catch (Exception $e) {
    echo $e->getMessage();
}
