<?php
class Guard { function __destruct() { echo "guard gone;"; } }
function work($db) {
    $guard = new Guard;
    $db->beginTransaction();
    $db->exec("INSERT INTO t VALUES (2, 'two')");
    $s = $db->prepare("INSERT INTO t VALUES (?, ?)");
    $s->execute(array(1, "secret one"));
    echo "not reached";
}
$db = call_user_func(getenv("LINK") . "_link");
$db->exec("CREATE TEMPORARY TABLE t (id INT PRIMARY KEY, v TEXT)");
$db->exec("INSERT INTO t VALUES (1, 1)");
$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
try {
    work($db);
} catch (PDOException $e) {
    echo get_class($e), $e->getCode(), $e->getMessage(), $e->getLine(), json_encode($e->errorInfo), $e->getTraceAsString();
    var_dump($e->getPrevious(), $db->inTransaction(), $db->rollBack());
} finally {
    echo "finally;";
}
echo $db->query("SELECT count(*) FROM t")->fetchColumn();
var_dump(error_get_last(), $db->errorInfo());
