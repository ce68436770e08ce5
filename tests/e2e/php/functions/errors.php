<?php
/* What a script may report as an error. */
function make() { return new Exception('far'); }
class Magic {
    function __get($n) { exit('asked'); }
    function __call($n, $a) { exit('called'); }
}
function object($message) { $o = new stdClass; $o->message = $message; return $o; }
# --- text => Exception: broken \"x\" (vantor_notice_error, page)
function page() { vantor_notice_error('broken "x"'); }
page();
# --- exception => LogicException: bad (Exception, page)
function page() { vantor_notice_error(new LogicException('bad')); }
page();
# --- made elsewhere => Exception: far (Exception, make, page)
function page() { vantor_notice_error(make()); }
page();
# --- empty text of an exception => Exception: next (vantor_notice_error, page)
function page() { vantor_notice_error(new Exception('')); vantor_notice_error('next'); }
page();
# --- an object with a message => stdClass: plain (Exception)
vantor_notice_error(object('plain'));
# --- an object that makes it up => Exception: next (vantor_notice_error)
vantor_notice_error(new Magic);
vantor_notice_error('next');
# --- an object whose own class alone sees its message => Kept: kept (Exception)
class Kept extends Magic { protected $message = 'kept'; }
vantor_notice_error(new Kept);
# --- an object whose class does not see the message => nothing
class Owner { private $message = 'private'; }
class Heir extends Owner { static $other; }
vantor_notice_error(new Heir);
# --- an exception that makes it up => Exception: next (vantor_notice_error)
class Hollow extends Exception {
    function __construct() { unset($this->message); }
    function __get($n) { exit('asked'); }
}
vantor_notice_error(new Hollow);
vantor_notice_error('next');
# --- an object that changes when its properties are listed => nothing
$d = new DateTime;
vantor_notice_error($d);
vantor_notice_error('changed', isset($d->date));
# --- an object of a disabled class => Exception: next (vantor_notice_error)
vantor_notice_error(new LengthException('x'));
vantor_notice_error('next');
# --- a message that is no text => nothing
vantor_notice_error(object(array()));
# --- array => nothing
vantor_notice_error(array('x'));
# --- not to be recorded => nothing
vantor_notice_error('x', false);
# --- the first wins => Exception: one (vantor_notice_error)
vantor_notice_error('one');
vantor_notice_error('two');
trigger_error('three', E_USER_ERROR);
# --- an object whose trace leaves when it is released => nothing
class Leaving { function __destruct() { exit(0); } }
class Bearer { public $message = 'borne'; function getTrace() { return new Leaving; } }
vantor_notice_error(new Bearer);
