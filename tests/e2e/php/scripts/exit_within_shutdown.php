<?php
register_shutdown_function(function () {
    echo "one";
    exit(4);
});
register_shutdown_function(function () {
    echo "two";
});
