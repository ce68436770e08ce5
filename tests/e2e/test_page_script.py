"""The browser script in the page: exactly once where it belongs, not at all where it does not; without it the response is byte for
byte the one without the agent."""
import re
import zlib

import pytest

from engines import Apache, BuiltIn, Fpm

SCRIPT = "f({})"
ELEMENT = re.compile(rb"<script>f\(\{qv_rum\.agent=\{id:'34',n:'([^']*)',tid:'[0-9a-f]+',q:\d+,a:\d+\};\}\)</script>")
PAGE = "<html><head><title>t</title></head><body>b</body></html>"
HEAD, REST = PAGE[:PAGE.index("</head>")].replace("<title>t</title>", ""), PAGE[PAGE.index("</head>"):]
ACCEPTS = {"Accept-Encoding": "gzip"}


def configure(site, script=SCRIPT):
    site.daemon.configure({"zqs.rum.enabled": "1", "zqs.rum.script": script, "zqs.vantorIdSecret": "12|34"})


def plain(body):
    """The body as the browser reads it."""
    return zlib.decompress(body, 47) if body[:2] == b"\x1f\x8b" else body


def places(result):
    """Where the script is in the page; checks that everything else is the twin's."""
    page, other = plain(result.body), plain(result.bare.body)
    found = [match.start() for match in ELEMENT.finditer(page)]
    assert ELEMENT.sub(b"", page) == other
    assert b"qv_rum" not in other
    return found


def request(site, code, inserted, **options):
    return site.cgi(code, differs=["body"] if inserted else [], **options)


def echo(*chunks):
    return "flush(); ".join(f"echo '{chunk}';" for chunk in chunks)


# what the page does, and what stands in front of the script; None: there is none
PAGES = {
    "as one piece": (echo(PAGE), "<title>t</title>"),
    "in pieces": (echo("<html>", "<head>", "</head>", "</html>"), "<head>"),
    "letters and blanks": (echo("<HTML\tLANG=en><hEAD></Head>"), "<hEAD>"),
    "without html tag": (echo("<head></head>"), None),
    "only an image's title": (echo("<svg><title>x</title></svg>"), None),
    "broken tags": (echo("<html <head <title></titl></ head></headx><<</html>"), None),
    "broken tags around whole ones": (echo("<<html></</title></head>"), "</</title>"),
    "twice": (echo(PAGE, PAGE), "<title>t</title>"),
    "in a buffer": ("ob_start();" + echo(PAGE), "<title>t</title>"),
    "in nested buffers": ("ob_start(); echo '<html>'; ob_start(); ob_start(); echo '<head></head>';", "<head>"),
    "in a buffer that is flushed": (
        "ob_start(); echo '<html>'; ob_flush(); echo '<head>'; ob_flush(); echo '</head>'; ob_end_flush();", "<head>"),
    "in a buffer that is read": ("ob_start();" + echo(PAGE) + "$p = ob_get_contents(); ob_end_clean(); echo $p;", "<title>t</title>"),
    "in a buffer that is taken": ("ob_start();" + echo(PAGE) + "$p = ob_get_clean(); echo $p;", "<title>t</title>"),
    "in a buffer thrown away": ("ob_start();" + echo(PAGE) + "ob_end_clean(); echo 'no page';", None),
    "in a buffer of small chunks": ("ob_start(null, 5); foreach (str_split('" + PAGE + "', 3) as $p) echo $p;", None),
    "in a buffer that grows while one is read": (
        "ob_start(); echo '<html><head>'; ob_get_contents(); ob_get_contents(); echo '</head>';", "<head>"),
    "in a buffer that allows nothing": ("ob_start(null, 0, 0);" + echo(PAGE) + "@ob_flush(); @ob_end_clean();", "<title>t</title>"),
    "implicit flush": ("ob_implicit_flush(); ob_start();" + echo(PAGE), "<title>t</title>"),
    "a callback changes it": (
        "ob_start(function ($b) { return str_replace('</title>', '</title><meta>', $b); });" + echo(PAGE), "</title><meta>"),
    "a callback removes the head": ("ob_start(function ($b) { return 'gone'; });" + echo(PAGE), None),
    "a callback writes the head": ("ob_start(function ($b) { return '" + PAGE + "'; }); echo 'x';", "<title>t</title>"),
    "a callback that fails": ("ob_start(function ($b) { return false; });" + echo(PAGE), "<title>t</title>"),
    "exit": (echo(HEAD) + "exit('" + REST + "');", HEAD),
    "exit in a function, buffered": ("function f() { ob_start();" + echo(PAGE) + "exit; } f();", "<title>t</title>"),
    "a fatal error": ("ob_start();" + echo(PAGE) + "absent();", "<title>t</title>"),
    "memory exhausted": (
        "ob_start();" + echo(PAGE) + "str_repeat('x', 64 << 20);", "<title>t</title>"),
    "written at shutdown": (
        "register_shutdown_function(function () {" + echo(PAGE) + "});", "<title>t</title>"),
    "written by a destructor": (
        "class D { function __destruct() {" + echo(PAGE) + "} } $d = new D;", "<title>t</title>"),
    "written when the session ends, behind the report": (
        "session_set_save_handler('yes', 'yes', 'none', 'write', 'yes', 'yes'); session_id('one'); session_start(); function yes() { return true; }"
        "function none() { return ''; } function write() { " + echo(PAGE) + " return true; }", None),
    "from a file": ("file_put_contents('p.html', '" + PAGE + "'); readfile('p.html');", "<title>t</title>"),
    "from phpinfo": ("phpinfo(INFO_LICENSE);", "</title>"),
}


@pytest.mark.parametrize("code, before", PAGES.values(), ids=PAGES)
def test_pages(site, code, before):
    configure(site)
    result = request(site, code, before is not None, ini={"memory_limit": "2M", "display_errors": "1", "html_errors": "0"})
    found = places(result)
    assert len(found) == (before is not None)
    assert not found or result.body[:found[0]].endswith(before.encode())


def test_tags_in_two_pieces(site):
    """Cut anywhere: a tag that is cut itself is not found, whole ones are."""
    configure(site)
    server = site.serve(BuiltIn)
    page = "<x><HTML\n a=b><head></head><title></TITLE></html>"
    for at in range(1, len(page)):
        chunks = page[:at], page[at:]
        expected, seen, offset = [], False, 0
        for chunk in chunks:
            seen = seen or re.search(r"(?i)<html(>|[\t\n\r ][^>]*>)", chunk)
            end = re.search(r"(?i)(?=</head>)|(?<=</title>)", chunk)
            if seen and end and not expected:
                expected = [offset + end.start()]
            offset += len(chunk)
        result = server.get(echo(*chunks), differs=["body"] if expected else [])
        assert places(result) == expected, chunks


def test_long_pages(site):
    """The first 65,536 bytes of a response are searched; what a buffer held counts as well."""
    configure(site)
    server = site.serve(BuiltIn, ini={"memory_limit": "16M"})
    for code, inserted in [
        ("echo str_pad('<html>', 65535), '</head>';", True),
        ("echo str_pad('<html>', 65536), '</head>';", False),
        ("echo str_pad('<html>', 65529) . '</head>';", True),
        ("echo str_pad('<html>', 65530) . '</head>';", False),
        ("ob_start(); echo str_pad('<html>', 65529), '</head>';", True),
        ("ob_start(); echo str_pad('<html>', 65530), '</head>';", False),
        ("ob_start(); echo str_pad('<html>', 40000); ob_get_contents(); ob_end_flush(); echo '</head>';", False),
        ("echo '<html>'; for ($i = 0; $i < 65000; $i++) echo 'x'; echo '</title>'; for ($i = 0; $i < 65000; $i++) echo 'x';", True),
        ("foreach (str_split('<html><head></head>' . str_repeat('</title>', 9000)) as $byte) echo $byte;", False),
        ("echo '<html>'; for ($i = 0; $i < 100; $i++) echo str_repeat('</', 1 << 19); echo '</head>';", False),
    ]:
        assert len(places(server.get(code, differs=["body"] if inserted else []))) == inserted, code


# (script of the page, settings, what the client accepts, is the script in it)
OTHER_RESPONSES = {
    "gzip handler": ("ob_start('ob_gzhandler');" + echo(PAGE), {}, ACCEPTS, True),
    "gzip handler, client without": ("ob_start('ob_gzhandler');" + echo(PAGE), {}, {}, True),
    "gzip handler, flushed": ("ob_start('ob_gzhandler'); echo '<html><head>'; ob_flush(); echo '</head>';", {}, ACCEPTS, True),
    "gzip handler below a buffer": (
        "ob_start('ob_gzhandler'); ob_start(); echo '<html>'; ob_end_flush(); echo '</head>';", {}, ACCEPTS, True),
    "compressed by setting": (echo(PAGE), {"zlib.output_compression": "1"}, ACCEPTS, True),
    "compressed by setting, in steps": (
        echo(HEAD) + "echo str_repeat('x', 9000), '</head>';", {"zlib.output_compression": "4096"}, ACCEPTS, False),
    "stored by setting": (
        echo(PAGE) + "echo str_repeat('x', 9000);",
        {"zlib.output_compression": "4096", "zlib.output_compression_level": "0"}, ACCEPTS, False),
    "compressed by a callback": (
        "ob_start(function ($b) { header('Content-Encoding: gzip'); return gzencode($b); });" + echo(PAGE), {}, ACCEPTS, True),
    "stored by a callback": (
        "ob_start(function ($b) { header('Content-Encoding: gzip'); return gzencode($b, 0); });" + echo(PAGE) + "ob_start();",
        {}, ACCEPTS, False),
    "stored by the script": (
        "header('Content-Encoding: gzip'); echo gzencode('" + PAGE + "', 0);", {}, ACCEPTS, False),
    "stored by the script, buffered": (
        "ob_start(); header('Content-Encoding: gzip'); echo gzencode('" + PAGE + "', 0);", {}, ACCEPTS, False),
    "another type by setting": (echo(PAGE), {"default_mimetype": "application/json"}, {}, False),
    "another type by setting, buffered": ("ob_start();" + echo(PAGE), {"default_mimetype": "text/plain"}, {}, False),
    "another type by setting, HTML by header": (
        "header('Content-Type: text/html');" + echo(PAGE), {"default_mimetype": "text/plain"}, {}, True),
    "no type": (echo(PAGE), {"default_mimetype": ""}, {}, False),
    "type in other letters": ("header('CONTENT-TYPE: Text/HTML');" + echo(PAGE), {}, {}, True),
    "XHTML": ("header('Content-Type: application/xhtml+xml');" + echo(PAGE), {}, {}, False),
    "JSON": ("header('Content-Type: application/json');" + echo(PAGE), {}, {}, False),
    "image": ("header('Content-Type: image/svg+xml'); echo '<html><title>x</title>';", {}, {}, False),
    "type by a header callback": (
        "header_register_callback(function () { header('Content-Type: text/plain'); });" + echo(PAGE), {}, {}, False),
    "download": (
        "header('Content-Type: application/octet-stream'); header('Content-Disposition: attachment');" + echo(PAGE), {}, {}, False),
    "length of its own": (f"header('Content-Length: {len(PAGE)}');" + echo(PAGE), {}, {}, False),
    "length of its own, buffered": (
        "ob_start();" + echo(PAGE) + "header('Content-Length: ' . ob_get_length()); ob_end_flush();", {}, {}, False),
    "length of its own, errors not collected": (
        f"header('Content-Length: {len(PAGE)}');" + echo(PAGE), {"zqs.error_collector.enabled": "0"}, {}, False),
    "own framing": (
        "header('Transfer-Encoding: chunked'); printf('%x%s', strlen('" + PAGE + "'), '" + PAGE + "');", {}, {}, False),
    "redirect": ("header('Location: /x');" + echo(PAGE), {}, {}, True),
    "redirect by status line": ("header('HTTP/1.1 302 Found'); header('Location: /x');" + echo(PAGE), {}, {}, False),
    "page not found": ("http_response_code(404);" + echo(PAGE), {}, {}, True),
    "not modified": ("header('HTTP/1.1 304 Not Modified');" + echo(PAGE), {}, {}, False),
    "a header like a page": ("header('X-Note: " + PAGE + "'); echo 'text';", {}, {}, False),
    "UTF-16": ("echo mb_convert_encoding('" + PAGE + "', 'UTF-16');", {}, {}, False),
}


@pytest.mark.parametrize("code, ini, headers, inserted", OTHER_RESPONSES.values(), ids=OTHER_RESPONSES)
def test_encodings_types_and_headers(site, code, ini, headers, inserted):
    configure(site)
    result = request(site, code, inserted, ini=ini, headers=headers)
    assert len(places(result)) == inserted
    assert plain(result.body) != result.body or "gzip" not in str(result.headers)


@pytest.mark.parametrize("kind", [Fpm, Apache, BuiltIn])
def test_each_server(site, kind):
    """One process, one request after the other: each has its own script, and a HEAD request has no body."""
    configure(site)
    server = site.serve(kind)
    for code, inserted in [(echo(PAGE), 1), ("header('Content-Type: text/plain');" + echo(PAGE), 0), ("echo '</head>';", 0),
                           ("ob_start();" + echo(PAGE), 1), (echo("<html>") + "absent();", 0), (echo(PAGE), 1)]:
        result = server.get(code, twin=False)
        result.bare = server.bare.request(site.docroot / "index.php", "/index.php")
        assert len(places(result)) == inserted, code
        assert result.status == result.bare.status
        lengths = [int(value) for name, value in result.headers if name.lower() == "content-length"]
        assert lengths in ([], [len(result.body)])                    # Apache's own, of what it sends
        names = [match[1] for match in ELEMENT.finditer(result.body)]
        assert names == [result.metric.action.encode()] * inserted
    assert server.get(echo(PAGE), method="HEAD").body == b""
    assert server.get("ob_start();" + echo(PAGE), method="HEAD").body == b""


LONG = "/*" + "x" * 200_000 + "*/"


@pytest.mark.parametrize("script, head, tail", [
    ("f({})", "f({", "})"), ("}", "", "}"), ("a}b{c", "a", "}b{c"), ("x</script>y}</script>", "x</script>y", "}</script>"),
    (LONG + "{}" + LONG, LONG + "{", "}" + LONG), ("", None, None), ("no brace", None, None), (LONG, None, None), ("{", None, None),
])
def test_scripts(site, script, head, tail):
    configure(site, script)
    for code in (echo(PAGE), "ob_start();" + echo(PAGE)):
        result = request(site, code, head is not None)
        if head is not None:
            before, after = (f"<html><head><title>t</title><script>{head}qv_rum.agent=", f"{tail}</script></head><body>b</body></html>")
            page = result.body.decode()
            assert page.startswith(before) and page.endswith(after)
            assert re.fullmatch(r"\{id:'34',n:'[^']*',tid:'[0-9a-f]+',q:0,a:\d+\};", page[len(before):-len(after)])


@pytest.mark.parametrize("size", [0, 20_000, 400_000])
@pytest.mark.parametrize("start", ["", "ob_start();"])
def test_a_page_that_exhausted_its_memory_goes_out_with_a_script_of_any_size(site, start, size):
    """A request that has grown beyond its limit since would lose its buffered page: the engine discards it."""
    configure(site, "/*" + "x" * size + "*/{}")
    code = start + echo(PAGE) + "$all = array(); while (true) $all[] = str_repeat('x', 1000);"
    result = site.cgi(code, ini={"memory_limit": "2M", "display_errors": "1", "html_errors": "0"}, twin=False)
    page, _, message = re.sub(rb"<script>.*?</script>", b"", result.body).partition(b"\nFatal error: ")
    assert page == PAGE.encode() and message.startswith(b"Allowed memory size of 2097152 bytes") and b"Fatal" not in message
    assert result.body.count(b"qv_rum.agent=") == 1
