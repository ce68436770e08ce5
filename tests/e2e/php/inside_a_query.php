<?php
# --- own classes for statements and connections => made;gone;
class Rows extends PDOStatement {
    protected function __construct() { echo "made;"; }
    function __destruct() { echo "gone;"; }
}
class Db extends PDO {
    function query($s) { echo "query;"; return parent::query($s); }
    function errorInfo() { echo "info;"; }
}
$db = new Db("sqlite::memory:");
$db->setAttribute(PDO::ATTR_STATEMENT_CLASS, array("Rows"));
$db->query("SELECT 1");
$db->query("SELEC 2");
$r = $db->query("SELECT 3");
$r = null;
echo "end";
# --- an exception => inner
$db = pdo_sqlite_link();
$db->sqliteCreateFunction("f", function () { throw new Exception("inner"); });
try { $db->query("SELECT f()"); } catch (Exception $e) { echo $e->getMessage(), $e->getLine(); }
echo "end";
# --- another query => 8
$db = pdo_sqlite_link();
$db->sqliteCreateFunction("f", function () use ($db) { $db->query("SELECT 7")->fetchAll(); return 8; });
echo $db->query("SELECT f()")->fetchColumn(), "end";
# --- a generator that is thrown away inside another, and a trace made there => thrown away
function last($db) { try { yield 1; } finally { $db->query("SELECT 1"); echo new Exception("thrown away"); } }
function all($db) { yield call_user_func('last', $db)->current(); }
foreach (all(pdo_sqlite_link()) as $one) { }
echo "end";
# --- a fatal error => undefined
register_shutdown_function(function () { echo "end"; });
$db = pdo_sqlite_link();
$db->sqliteCreateFunction("f", function () { undefined(); });
$db->query("SELECT f()");
# --- a statement that has lost its text => kept 0
class Lost extends PDOStatement {
    public $names = array();
    function __get($name) { $this->names[] = $name; }
}
$db = pdo_sqlite_link();
$db->setAttribute(PDO::ATTR_STATEMENT_CLASS, array("Lost"));
$s = $db->prepare("SELECT 1");
$s->execute();
$all = new ArrayObject($s);
unset($all["queryString"]);
$s->execute();
echo "kept ", count($s->names), "end";
