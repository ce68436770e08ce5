<?php
usleep(30000);
?><!DOCTYPE html>
<html><head><script>window.alert = function () { window.attacked = true; };</script>
<title>shop</title></head><body>demo</body></html>
