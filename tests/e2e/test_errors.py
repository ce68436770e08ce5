"""The error that an action reports: each way in which a request can fail, and what does not count as a failure. The page, the
status and the server's log are the same as without the agent, in every case."""
import json
import re

import pytest

import engines
import wire

SHOWN = {"memory_limit": "8M", "display_errors": "1", "html_errors": "0", "log_errors": "1", "error_log": ""}
COLLECTING = {"zqs.error_collector.enabled": "1", "zqs.error_collector.ignored_status_codes": "418,503"}
NESTED = "function a($f) { b($f); } function b($f) { $f(); }\n"
HANDLER = "function handler($type, $message) { echo \"[$message]\"; return true; }\n"
SERIOUS = "trigger_error('broken', E_USER_ERROR);"
CALLER = "class Caller { static function own($type, $message) { } function method($type, $message) { } }\n"


def stack(error):
    """The functions of the stack, innermost first; the engine gives the innermost one twice, where it is and where it was
    called."""
    names = [frame.partition("(")[0] for frame in error["stack"]]
    return " ".join(name for at, name in enumerate(names) if at == 0 or name != names[at - 1])


def summary(error):
    """class | first line of the message, without its place | stack"""
    if not error:
        return None
    kind, message = (json.loads(f'"{text}"') for text in (error["class"], error["message"]))
    return " | ".join([kind, re.sub(r" in /.*", "", message.split("\n")[0]), stack(error)])


def check(result, expected):
    assert summary(result.metric.error) == expected


ENGINE = {
    "a missing function, in nested calls": (
        NESTED + "a(function () { absent(); });",
        "RUNTIME_ERROR | Call to undefined function absent() | {closure} b a"),
    "a file that does not parse": (
        "file_put_contents('bad.php', '<?php if ('); function load() { include 'bad.php'; } load(); echo 'on';",
        "PARSE_ERROR | syntax error, unexpected end of file | load"),
    "a class declared twice": (
        "class A { } eval('class A { }');", "COMPILE_ERROR | Cannot redeclare class A | unknown eval"),
    "an error of the application": (
        "function f() { trigger_error('100% broken', E_USER_ERROR); } f();", "USER_ERROR | 100% broken | trigger_error f"),
    "an argument of the wrong type": (
        "function f(array $x) { } f(1);",
        "RECOVERABLE_ERROR | Argument 1 passed to f() must be of the type array, integer given, called | f"),
    "behind an @": ("function f() { absent(); } @f();", "RUNTIME_ERROR | Call to undefined function absent() | f"),
    "while errors are not reported": (
        "error_reporting(0); " + SERIOUS + " echo 'never';", "USER_ERROR | broken | trigger_error"),
    "warnings, notices and the like": (
        "echo $x; echo 1 / 0; @file('absent'); trigger_error('w', E_USER_WARNING); trigger_error('d', E_USER_DEPRECATED);"
        "class S { function f() { } } S::f(); include 'absent.php';", None),
    "memory, in nested calls": (
        NESTED + "a(function () { $x = array(); while (true) $x[] = str_repeat('x', 100000); });",
        "RUNTIME_ERROR | Allowed memory size of 8388608 bytes exhausted (tried to allocate 100001 bytes) | str_repeat {closure} b a"),
    "memory, in a shutdown function": (
        "register_shutdown_function(function () { str_repeat('x', 64 << 20); });",
        "RUNTIME_ERROR | Allowed memory size of 8388608 bytes exhausted (tried to allocate 67108865 bytes) | str_repeat {closure}"),
    "time, in nested calls": (
        NESTED + "set_time_limit(1); a(function () { while (true); });",
        "RUNTIME_ERROR | Maximum execution time of 1 second exceeded | {closure} b a"),
    "two in one request": (
        "register_shutdown_function(function () { absent(); });" + SERIOUS, "USER_ERROR | broken | trigger_error"),
}

UNCAUGHT = {
    "in nested calls": (
        NESTED + "a(function () { throw new LogicException('lost', 5); });",
        "LogicException | Uncaught exception 'LogicException' with message 'lost' | "),
    "of a class in a namespace": (
        "namespace Shop\\Cart; class Full extends \\Exception { } throw new Full(\"it's full\");",
        "Shop\\Cart\\Full | Uncaught exception 'Shop\\Cart\\Full' with message 'it's full' | "),
    "with a previous one, which the engine names first": (
        "throw new LogicException('outer', 0, new RuntimeException('inner'));",
        "RuntimeException | Uncaught exception 'RuntimeException' with message 'inner' | "),
    "without a message": ("throw new LogicException;", "RUNTIME_ERROR | Uncaught exception 'LogicException' | "),
    "without a message, in one that has one": (
        "throw new LogicException('outer', 0, new RuntimeException);", "RUNTIME_ERROR | Uncaught exception 'RuntimeException' | "),
    "that words itself": (
        "class T extends Exception { function __toString() { return 'oddly'; } } throw new T('x');",
        "RUNTIME_ERROR | Uncaught oddly | "),
    "caught and thrown again": (
        "try { throw new LogicException('first'); } catch (Exception $e) { throw $e; } finally { echo 'finally'; }",
        "LogicException | Uncaught exception 'LogicException' with message 'first' | "),
    "from a generator": (
        "function g() { yield 1; throw new LogicException('g'); } foreach (g() as $x);",
        "LogicException | Uncaught exception 'LogicException' with message 'g' | "),
    "in a shutdown function": (
        "register_shutdown_function(function () { throw new LogicException('late'); }); echo 'page';",
        "LogicException | Uncaught exception 'LogicException' with message 'late' | "),
    "in a destructor at the end": (
        "class D { function __destruct() { throw new LogicException('d'); } } $d = new D; echo 'page';",
        "LogicException | Uncaught exception 'LogicException' with message 'd' | "),
    "in a destructor behind an exit": (
        "class D { function __destruct() { throw new LogicException('d'); } } function f() { $d = new D; exit('bye'); } f();",
        "LogicException | Uncaught exception 'LogicException' with message 'd' | "),
    "in an output handler": (
        "ob_start(function ($b) { throw new LogicException('o'); }); echo 'page';",
        "LogicException | Uncaught exception 'LogicException' with message 'o' | "),
    "where none may be": (
        "class S { function __toString() { throw new Exception('s'); } } echo new S;",
        "RUNTIME_ERROR | Method S::__toString() must not throw an exception | unknown"),
    "in the handler of exceptions": (
        "set_exception_handler(function ($e) { throw new LogicException('again'); }); throw new Exception('x');",
        "LogicException | Uncaught exception 'LogicException' with message 'again' | "),
    "but handled": ("set_exception_handler(function ($e) { echo $e->getMessage(); }); throw new Exception('x');", None),
    "and caught": ("try { throw new Exception('x'); } catch (Exception $e) { echo 'caught'; }", None),
}

HANDLED = {
    "function": (HANDLER + "set_error_handler('handler');" + SERIOUS, "USER_ERROR | broken | handler trigger_error"),
    "function in a namespace": (
        "namespace N; function h() { return true; } set_error_handler('N\\h');" + SERIOUS,
        "USER_ERROR | broken | N\\h trigger_error"),
    "static method as a string": (
        CALLER + "set_error_handler('Caller::own');" + SERIOUS, "USER_ERROR | broken | Caller.own trigger_error"),
    "static method as an array": (
        CALLER + "set_error_handler(array('Caller', 'own'));" + SERIOUS, "USER_ERROR | broken | Caller.own trigger_error"),
    "method of an object": (
        CALLER + "set_error_handler(array(new Caller, 'method'));" + SERIOUS,
        "USER_ERROR | broken | Caller.method trigger_error"),
    "given by call_user_func": (
        HANDLER + "call_user_func('set_error_handler', 'handler');" + SERIOUS, "USER_ERROR | broken | handler trigger_error"),
    "closure: it has no name": ("set_error_handler(function () { echo 'handled'; return true; });" + SERIOUS, None),
    "object: it has no name": (
        "class I { function __invoke() { return true; } } set_error_handler(new I);" + SERIOUS, None),
    "name in other letters": (HANDLER + "set_error_handler('HANDLER');" + SERIOUS, None),
    "warning": (HANDLER + "set_error_handler('handler'); echo $x; trigger_error('w', E_USER_WARNING);", None),
    "an argument of the wrong type": (
        HANDLER + "function f(array $x) { return 1; } set_error_handler('handler'); echo f(1);",
        "RECOVERABLE_ERROR | Argument 1 passed to f() must be of the type array, integer given, called | handler f"),
    "replaced twice": (
        HANDLER + CALLER + "set_error_handler('handler'); set_error_handler('Caller::own'); set_error_handler('handler');" + SERIOUS,
        "USER_ERROR | broken | handler trigger_error"),
    "restored": (
        HANDLER + CALLER + "set_error_handler('handler'); set_error_handler('Caller::own'); restore_error_handler();" + SERIOUS,
        "USER_ERROR | broken | handler trigger_error"),
    "restored to none": (
        HANDLER + "set_error_handler('handler'); restore_error_handler();" + SERIOUS, "USER_ERROR | broken | trigger_error"),
    "for other types": (
        HANDLER + "set_error_handler('handler', E_WARNING);" + SERIOUS, "USER_ERROR | broken | trigger_error"),
    "declines: the engine ends the request": (
        "function handler($t, $m) { echo 'seen'; return false; } set_error_handler('handler');" + SERIOUS,
        "USER_ERROR | broken | handler trigger_error"),
    "behind an @": (HANDLER + "set_error_handler('handler'); @" + SERIOUS, "USER_ERROR | broken | handler trigger_error"),
    "throws": (
        "function handler($t, $m) { throw new ErrorException($m, 0, $t); } set_error_handler('handler');"
        "function f(array $x) { } try { f(1); } catch (Exception $e) { echo get_class($e); }",
        "RECOVERABLE_ERROR | Argument 1 passed to f() must be of the type array, integer given, called | handler f"),
    "then a fatal error": (HANDLER + "set_error_handler('handler');" + SERIOUS + "absent();",
                           "USER_ERROR | broken | handler trigger_error"),
}

STATUS = {
    "by code": ("function f() { http_response_code(404); } f();", "HTTP_ERROR | 404 | "),
    "by status line": (
        "function f() { header('HTTP/1.1 404 Gone fishing'); } f();", "HTTP_ERROR | HTTP/1.1 404 Gone fishing | header f"),
    "by another header": ("header('X-A: 1', true, 500);", "HTTP_ERROR | 500 | "),
    "taken back": ("header('HTTP/1.1 500 No'); header('HTTP/1.1 200 OK');", "HTTP_ERROR | HTTP/1.1 500 No | header"),
    "authentication": ("header('HTTP/1.1 401 Unauthorized'); header('WWW-Authenticate: Basic');", None),
    "redirect": ("header('Location: /x');", None),
    "not modified": ("header('HTTP/1.1 304 Not Modified');", None),
    "ignored": ("header('HTTP/1.1 503 Busy');", None),
    "ignored at the end": ("http_response_code(418);", None),
    "then an exception": (
        "header('HTTP/1.1 404 Not Found'); throw new Exception('x');", "HTTP_ERROR | HTTP/1.1 404 Not Found | header"),
    "behind an exception": (
        "try { throw new Exception('x'); } catch (Exception $e) { vantor($e); } http_response_code(500);"
        "function vantor($e) { if (function_exists('vantor_notice_error')) vantor_notice_error($e); }", "Exception | x | Exception"),
}


@pytest.mark.parametrize("code, expected", ENGINE.values(), ids=ENGINE)
def test_errors_of_the_engine(site, code, expected):
    site.daemon.configure(COLLECTING)
    check(site.cgi(code, ini=SHOWN), expected)


@pytest.mark.parametrize("code, expected", UNCAUGHT.values(), ids=UNCAUGHT)
def test_uncaught_exceptions(site, code, expected):
    site.daemon.configure(COLLECTING)
    check(site.cgi(code, ini=SHOWN), expected)


@pytest.mark.parametrize("code, expected", HANDLED.values(), ids=HANDLED)
def test_handlers_of_the_script(site, code, expected):
    site.daemon.configure(COLLECTING)
    check(site.cgi(code, ini=SHOWN), expected)


@pytest.mark.parametrize("code, expected", STATUS.values(), ids=STATUS)
def test_response_status(site, code, expected):
    site.daemon.configure(COLLECTING)
    result = site.cgi(code, ini=SHOWN)
    check(result, expected)
    assert not expected or result.metric.error["status"] == result.status


@pytest.mark.parametrize("filler", [0, 100_000, 300_000, 700_000])
def test_recording_exhausted_memory_costs_the_page_nothing(site, filler):
    """However near to the limit the last allocation came: the engine discards a buffered page that is beyond it."""
    site.daemon.configure(COLLECTING)
    name = "f" * 2000
    result = site.cgi(f"ob_start(); echo 'page'; function {name}($depth) {{ $depth ? {name}($depth - 1) : fill(); }}"
                      "function fill() { $all = array(); for ($i = 0; ; $i++) $all[] = 'x' . $i; }"
                      f"$filler = str_repeat('p', {filler}); {name}(30);", twin=False,
                      ini={**SHOWN, "memory_limit": "2M"})
    assert result.body.startswith(b"page") and result.body.count(b"Allowed memory size") == 1
    assert len(result.metric.error["stack"]) == 20


def test_a_machine_without_memory(site):
    """No stack then, but the message."""
    site.daemon.configure(COLLECTING)
    script = site.script("ob_start(); echo 'page'; $all = array(); while (true) $all[] = str_repeat('x', 3000);")
    result = site.run(["/bin/sh", "-c", 'ulimit -v 300000; exec "$@"', "sh", engines.ENGINE / "bin/php-cgi", "-c",
                       site.ini_file(True, {**SHOWN, "memory_limit": "-1"})], engines.web_environment(script, "/index.php"), web=True)
    site.daemon.settle()
    metric, = site.daemon.received(wire.Metric)
    assert result.body.startswith(b"page\nFatal error: Out of memory")
    assert (metric.error["class"], metric.error["message"][:14], metric.error["stack"]) == ("RUNTIME_ERROR", "Out of memory ", None)
