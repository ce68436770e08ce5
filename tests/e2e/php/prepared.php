<?php
$db = mysqli_link();
@mysqli_stmt_execute(mysqli_stmt_init($db));
$a = $db->prepare("SELECT 1");
$a->execute();
$a->store_result();
$a->execute();
$a->store_result();
$b = mysqli_prepare($db, "SELECT 2");
$a->execute();
