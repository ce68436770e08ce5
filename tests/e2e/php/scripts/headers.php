<?php
header("X-A: 1");
header("X-A: 2", false);
header("HTTP/1.1 404 Gone away");
setcookie("c", "v");
echo http_response_code();
header_register_callback(function () {
    header("X-Late: yes");
});
