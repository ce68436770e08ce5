"""The browser script in the page: exactly once where it belongs, not at all where it does not; without it the response is
byte for byte the one without the agent."""
import re
import zlib

import pytest

from support.cases import cases
from support.engines import Apache, BuiltIn, Fpm

ELEMENT = re.compile(rb"<script>f\(\{qv_rum\.agent=\{id:'34',n:'([^']*)',tid:'[0-9a-f]+',q:\d+,a:\d+\};\}\)</script>")
PAGE = "<html><head><title>t</title></head><body>b</body></html>"
INI = {"memory_limit": "2M", "display_errors": "1", "html_errors": "0"}


def configure(site, script="f({})"):
    site.daemon.configure({"zqs.rum.enabled": "1", "zqs.rum.script": script, "zqs.vantorIdSecret": "12|34"})


def plain(body):
    """The body as the browser reads it."""
    return zlib.decompress(body, 47) if body[:2] == b"\x1f\x8b" else body


def differing(inserted):
    return ["body"] if inserted else []


def check(result, place):
    """The script is at this place, a piece of the page with "^" in it, or nowhere; everything else is the twin's."""
    page, other = plain(result.body), plain(result.bare.body)
    assert ELEMENT.sub(b"", page) == other and b"qv_rum" not in other
    assert len(ELEMENT.findall(page)) == (place is not None)
    assert place is None or place.encode() in ELEMENT.sub(b"^", page)


@pytest.mark.parametrize("code, place", cases("pages.php"))
def test_pages(site, code, place):
    configure(site)
    ini = dict(re.findall("^// ini: (.+) = (.+)$", code, re.M))
    check(site.cgi(code, ini={**INI, **ini}, headers={"Accept-Encoding": "gzip"}, differs=differing(place)), place)


def test_tags_in_two_pieces(site):
    """Cut anywhere: a tag that is cut itself is not found, complete ones are."""
    configure(site)
    server = site.serve(BuiltIn)
    page = "<x><HTML\n a=b><head></head><title></TITLE></html>"
    for at in range(1, len(page)):
        seen, place = False, None
        for piece, prefix in ((page[:at], ""), (page[at:], page[:at])):
            seen = seen or re.search(r"(?i)<html(>|[\t\n\r ][^>]*>)", piece)
            end = re.search(r"(?i)(?=</head>)|(?<=</title>)", piece)
            if seen and end and not place:
                place = prefix + piece[:end.start()] + "^"
        check(server.get(f"echo '{page[:at]}'; flush(); echo '{page[at:]}';", differs=differing(place)), place)


@pytest.mark.parametrize("kind", [Fpm, Apache, BuiltIn])
def test_each_server(site, kind):
    """One process, one request after the other: each has its own script, and a HEAD request has no body."""
    configure(site)
    server = site.serve(kind)
    for code, place in (case.values for case in cases("pages_in_a_row.php")):
        result = server.get(code, twin=False)
        result.bare = server.bare.request(site.docroot / "index.php", "/index.php")
        check(result, place)
        assert result.status == result.bare.status
        lengths = [int(value) for name, value in result.headers if name.lower() == "content-length"]
        assert lengths in ([], [len(result.body)])                    # Apache's own, of what it sends
        assert ELEMENT.findall(result.body) == [result.metric.action.encode()] * (place is not None)
        assert server.get(code, method="HEAD", twin=False).body == b""


LONG = "/*" + "x" * 200_000 + "*/"


@pytest.mark.parametrize("script, head, tail", [
    ("f({})", "f({", "})"), ("}", "", "}"), ("a}b}{c", "a}b", "}{c"), ("x</script>y}</script>", "x</script>y", "}</script>"),
    (LONG + "{}" + LONG, LONG + "{", "}" + LONG), ("", None, None), ("no brace {", None, None),
])
@pytest.mark.parametrize("start", ["", "ob_start();"])
def test_scripts(site, script, head, tail, start):
    """The page's data are assigned in front of the last brace; what has none is no script."""
    configure(site, script)
    page = site.cgi(f"{start} echo '{PAGE}';", differs=differing(head is not None)).body.decode()
    if head is not None:
        before, after = f"<html><head><title>t</title><script>{head}qv_rum.agent=", f"{tail}</script></head><body>b</body></html>"
        assert page.startswith(before) and page.endswith(after)
        assert re.fullmatch(r"\{id:'34',n:'[^']*',tid:'[0-9a-f]+',q:0,a:\d+\};", page[len(before):-len(after)])


def test_a_name_from_the_uri_cannot_end_the_script(site):
    configure(site)
    page = site.cgi(f"echo '{PAGE}';", "/a<script>'\\.php", differs=["body"]).body
    assert rb"n:'WebAction/URI/a\u003cscript\u003e\u0027\u005c.php'," in page and page.count(b"<script>") == 1


@pytest.mark.parametrize("size", [0, 20_000, 400_000])
@pytest.mark.parametrize("start", ["", "ob_start();"])
def test_a_page_that_exhausted_its_memory_goes_out_with_a_script_of_any_size(site, start, size):
    """A request that has grown beyond its limit since would lose its buffered page: the engine discards it."""
    configure(site, "/*" + "x" * size + "*/{}")
    code = f"{start} echo '{PAGE}'; $all = array(); while (true) $all[] = str_repeat('x', 1000);"
    result = site.cgi(code, ini=INI, twin=False)
    page, _, message = re.sub(rb"<script>.*?</script>", b"", result.body).partition(b"\nFatal error: ")
    assert page == PAGE.encode() and message.startswith(b"Allowed memory size of 2097152 bytes") and b"Fatal" not in message
    assert result.body.count(b"qv_rum.agent=") == 1
