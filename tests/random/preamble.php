<?php
/* What every random program stands on. Nothing here or in the grammar depends on time, place or the machine, so that two
 * runs of a program print the same. $_SERVER, which the agent asks for early, was taken away before. */
$fuel = 400;

/* Bounds the calls of a program, whatever calls what. */
function spent() { return --$GLOBALS['fuel'] < 0; }

/* Any value as one line; objects by their class. */
function flat($value, $depth = 0) {
    if (is_array($value)) {
        $parts = array();
        foreach (array_slice($value, 0, 12, true) as $key => $part) $parts[] = "$key=" . ($depth < 3 ? flat($part, $depth + 1) : '~');
        return '[' . implode(',', $parts) . ']';
    }
    if (is_object($value)) return $value instanceof Exception ? described($value) : '{' . get_class($value) . '}';
    return is_resource($value) ? get_resource_type($value) : var_export($value, true);
}

function described($e) {
    $text = get_class($e) . ':' . $e->getMessage() . '@' . $e->getLine() . '#' . count($e->getTrace());
    return $e->getPrevious() ? $text . '<' . described($e->getPrevious()) : $text;
}

function say() { echo implode(' ', array_map('flat', func_get_args())), "\n"; }

function seen($e) {
    echo 'caught ', described($e), "\n", $e->getTraceAsString(), "\n";
    return 'seen';
}

/* Where the program is, as the engine sees it. */
function here() {
    $lines = array();
    foreach (debug_backtrace() as $at) {
        $lines[] = (isset($at['class']) ? $at['class'] . $at['type'] : '') . $at['function'] . ':' . (isset($at['line']) ? $at['line'] : '-')
            . '(' . (isset($at['args']) ? count($at['args']) : '') . ')';
    }
    return implode(' < ', $lines);
}

function last_error() {
    $e = error_get_last();
    return $e ? "$e[type] $e[message] at line $e[line]" : 'none';
}

function peer($path) { return getenv('PEER') . $path; }

/* One database in memory, made at the first use. */
function db($mode = PDO::ERRMODE_EXCEPTION) {
    static $db;
    if (!$db) {
        $db = new PDO('sqlite::memory:');
        $db->exec('CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT)');
        $db->exec("INSERT INTO t (name) VALUES ('one'), ('two'), ('three')");
        $db->sqliteCreateFunction('shout', function ($text) { return spent() ? 'spent' : strtoupper($text); }, 1);
        $db->sqliteCreateFunction('fails', function ($text) { throw new Oops("in sql $text"); }, 1);
    }
    $db->setAttribute(PDO::ATTR_ERRMODE, $mode);
    return $db;
}

class Oops extends Exception { }
class Worse extends Oops {
    public $note;
    function __construct($message, $code = 0, $previous = null) {
        $this->note = strrev($message);
        parent::__construct($message, $code, $previous);
    }
    function __toString() { return 'Worse than ' . $this->note; }
}

/* Speaks when it dies. */
class Mortal {
    public $name;
    function __construct($name) { $this->name = $name; }
    function __destruct() { echo "bye $this->name\n"; }
}

/* Throws when it dies. Never to be released by a frame that ends, where the engine then loses its argument stack. */
class Curse {
    public $name;
    function __construct($name) { $this->name = $name; }
    function __destruct() { throw new Oops("curse of $this->name"); }
}

/* Answers to everything. */
class Magic implements ArrayAccess, Countable, IteratorAggregate, Serializable, JsonSerializable {
    private $data = array('k' => 1);
    function __get($name) { if ($name === 'bad') throw new Oops('get'); return isset($this->data[$name]) ? $this->data[$name] : "no $name"; }
    function __set($name, $value) { $this->data[$name] = $value; }
    function __isset($name) { return isset($this->data[$name]); }
    function __unset($name) { unset($this->data[$name]); }
    function __call($name, $args) {
        if ($name === 'fail') throw new Worse("called $name");
        return spent() ? 'spent' : "$name/" . count($args) . (isset($args[0]) && $args[0] instanceof Closure ? $args[0]() : '');
    }
    static function __callStatic($name, $args) { return "static $name/" . flat($args) . get_called_class(); }
    function __invoke($x = 0) { return "invoked $x"; }
    function __toString() { return 'magic'; }
    function __clone() { $this->data['cloned'] = 1; }
    function offsetExists($k) { return isset($this->data[$k]); }
    function offsetGet($k) { return $k === 'f' ? function () { return 'from offset'; } : "at $k"; }
    function offsetSet($k, $v) { $this->data[$k === null ? 'next' : $k] = $v; }
    function offsetUnset($k) { unset($this->data[$k]); }
    function count() { return count($this->data); }
    function getIterator() { return new ArrayIterator($this->data); }
    function serialize() { return serialize($this->data); }
    function unserialize($text) { $this->data = unserialize($text); }
    function jsonSerialize() { return array('magic' => count($this)); }
}

class Held extends Magic { }

/* A stream of what was written to it. */
class Memory {
    static $files = array('a' => 'first line', 'code' => '<?php return spent() ? 0 : flat(isset($a) ? $a : null);');
    private $name, $at = 0;
    public $context;
    function stream_open($path, $mode) {
        $this->name = parse_url($path, PHP_URL_HOST);
        if ($mode[0] === 'w') self::$files[$this->name] = '';
        if ($this->name === 'throws') throw new Oops('open');
        return isset(self::$files[$this->name]);
    }
    function stream_read($count) {
        $part = (string)substr(self::$files[$this->name], $this->at, $count);
        $this->at += strlen($part);
        return $part;
    }
    function stream_write($data) { self::$files[$this->name] .= $data; return strlen($data); }
    function stream_eof() { return $this->at >= strlen(self::$files[$this->name]); }
    function stream_stat() { return array('size' => strlen(self::$files[$this->name])); }
    function stream_close() { echo "closed $this->name\n"; }
    function stream_flush() { return true; }
}
stream_wrapper_register('memory', 'Memory');

class Upper extends php_user_filter {
    function filter($in, $out, &$consumed, $closing) {
        while ($bucket = stream_bucket_make_writeable($in)) {
            $bucket->data = strtoupper($bucket->data);
            $consumed += $bucket->datalen;
            stream_bucket_append($out, $bucket);
        }
        return PSFS_PASS_ON;
    }
}
stream_filter_register('upper', 'Upper');

/* A session that lives as long as the program. */
class Sessions implements SessionHandlerInterface {
    private $kept = '';
    function open($path, $name) { echo "session open\n"; return true; }
    function close() { echo "session close\n"; return true; }
    function read($id) { return $this->kept; }
    function write($id, $data) { echo "session write ", $this->kept = $data, "\n"; return true; }
    function destroy($id) { return true; }
    function gc($age) { return true; }
}

spl_autoload_register(function ($class) {
    echo "autoload $class\n";
    if (strpos($class, 'Made') === 0) eval("class $class { static function make(\$x = 1) { return spent() ? 0 : \"made by $class \$x\"; } }");
    if (strpos($class, 'Cursed') === 0) throw new Oops("no $class");
});

/* What there always is of each kind that programs declare. */
function plain($a = 0, $b = 0) { return spent() ? 'spent' : "$a.$b"; }
function by_reference(&$a, $b = 0) { $a .= $b; return spent() ? 'spent' : strlen($a); }
function series($a = 1, $b = 2) { for ($i = 0; $i < 3; $i++) $a .= (yield $i => "$a$b"); }
class Base {
    public $p = 'p';
    function act($a = 0, $b = 0) { return spent() ? 'spent' : get_class($this) . $a . $b . $this->p; }
    static function st($a = 0, $b = 0) { return spent() ? 'spent' : get_called_class() . $a . $b; }
}

require __DIR__ . '/libraries.php';
