"""Names by rule and URI: what the agent makes of bad rules and hostile addresses, and the dry run `quorbit names`, which must
give what the agent gives."""
import functools
import json
import operator
import re
import subprocess
from collections import Counter

import pytest

from support import engines, wire

QUORBIT = engines.PROJECT / "build/bin/quorbit"


def rule(name, match=4, value="", split=None, params=None, method=0):
    condition = {"method": method, "match": match, "value": value, **({"params": params} if params else {})}
    return {"name": name, "match": condition, "split": split or {}}


def param(kind, name, match, value):
    return [{"type": kind, "name": name, "match": match, "value": value}]


def patterns(*values):
    return json.dumps([rule("R", 5, value) for value in values])


RULES = [
    rule("Login", 2, "/user/login", {"uri": "2", "urlParams": "act", "method": True}, method=2),
    rule("Android", 0, "", {"uri": "-1", "headerParams": "User-Agent"}, param(2, "user-agent", 2, "droid")),
    rule("Form", 0, "", {}, param(3, "id", 5, ".")),
    rule("Item", 5, "^/item/[0-9]+$"),
]
REQUESTS = [     # method, URI, user agent
    ("POST", "/user/login/now?act=in", None), ("GET", "/user/login/now?act=in", None), ("GET", "/item/77", None),
    ("GET", "/item/77", None), ("GET", "/item/x77/4711", None), ("GET", "/", None), ("GET", "/a/b", "Droid \"9\""),
    ("GET", "/list.php?page=3&sort=a%2Fb%22&tag[]=x&page=12&7=y", None), ("HEAD", "/LIST.PHP/7", "Lynx"), ("GET", "/list.php?", None),
]
CAPTURED = "/other.php,x|/list.php,page sort tag none 7,,User-Agent"
SETTINGS = {
    "rules": {"zqs.naming.rules": json.dumps(RULES), "zqs.auto_action_naming": "0"},
    "parameters": {"zqs.auto_action_naming": "0", "zqs.web_action_uri_params_captured": CAPTURED},
    "scripts": {"zqs.auto_action_naming": "TRUE", "zqs.web_action_uri_params_captured": CAPTURED},
    "defaults": {},
}


def log_line(method, uri, agent):
    agent = (agent or "-").replace('"', '\\"')
    return f'10.0.0.7 - - [01/Jan/2024:10:00:00 +0100] "{method} {uri} HTTP/1.1" 200 12 "-" "{agent}"\n'


def dry_run(site, settings, text, *arguments):
    """Exit status, {name: (requests, named by)} and everything printed."""
    body = "[Shop]\n" + "".join(f"{key} = {value}\n" for key, value in settings.items())
    (site.root / "app.conf").write_text(body)
    (site.root / "requests").write_bytes(text if isinstance(text, bytes) else text.encode())
    done = subprocess.run([QUORBIT, "names", site.root / "requests", "--app", "Shop", "--settings", site.root / "app.conf",
                           *map(str, arguments)], capture_output=True, text=True, timeout=30)
    rows = re.findall(r"^ *(\d+) +\d+%  (rule|URI|script) +(.*)$", done.stdout, re.M)
    return done.returncode, {name: (int(count), by) for count, by, name in rows}, done.stdout + done.stderr


class Router(engines.BuiltIn):
    """The server on which the URI of a front controller's request is the path that was asked for."""

    def command(self):
        return [*super().command(), self.site.docroot / "index.php"]


class FrontController(engines.FastCgi):
    """What nginx makes of requests that are no files, for FPM: there the URI is the script's."""

    def request(self, script, uri, method, headers):
        return super().request(script, uri, method, headers=headers, env={"SCRIPT_NAME": "/index.php"})


@pytest.mark.parametrize("server", [Router, FrontController])
@pytest.mark.parametrize("kind", SETTINGS)
def test_the_dry_run_gives_the_names_that_the_agent_gives(site, kind, server):
    settings = SETTINGS[kind]
    site.daemon.configure(settings)
    script = site.script("")
    agent_side = site.serve(server).agent
    for method, uri, agent in REQUESTS:
        agent_side.request(script, uri, method, headers={"User-Agent": agent} if agent else {})
    given = Counter(metric.action for metric in site.daemon.wait_metrics(len(REQUESTS)))
    log = "".join(log_line(*request) for request in REQUESTS)
    if server is FrontController:
        log = re.sub(r' /[^ ?]*([^ ]* HTTP)', r" /index.php\1", log)
    status, names, printed = dry_run(site, settings, log, "--script", site.docroot / "index.php")
    assert {name: count for name, (count, _) in names.items()} == given and status == 0
    assert printed.startswith(f"Requests: {len(REQUESTS)}, names: {len(given)}\n") and "framework" in printed
    by = {"rules": {"rule", "URI"}, "parameters": {"URI"}}.get(kind, {"URI", "script"})
    assert {by for _, by in names.values()} == by - ({"script"} if server is FrontController else set())


@pytest.mark.parametrize("asked", ["0", "1"])
def test_behind_a_front_controller_the_path_names_when_the_configuration_asks(site, asked):
    """Under FPM every page has the script's URI; the dry run says what either server makes of it."""
    settings = {"zqs.uri_from_request": asked, "zqs.auto_action_naming": "0", "zqs.urls_captured": "^/index|^/sh.p"}
    site.daemon.configure(settings)
    paths = ["/shop/cart/12?a=/b", "//shop/./x/../caf%C3%A9/%2F", "/shop/list.php/7"]
    fpm = site.serve(engines.Fpm)
    for path in paths:
        metric = fpm.get("", env={"SCRIPT_NAME": "/index.php", "REQUEST_URI": path}).metric
        _, names, _ = dry_run(site, settings, f"GET {path}", "--fpm")
        assert [metric.action] == list(names) or (asked == "0" and ".php" in path), path
        assert metric.uri.startswith("/shop/" if asked == "1" else "/index.php"), metric.uri
        _, apaches, _ = dry_run(site, settings, f"GET {path}")
        assert ([metric.action] == list(apaches)) == (asked == "1")


def test_paths_do_not_make_names_without_end(site):
    site.daemon.configure({"zqs.uri_from_request": "1", "zqs.auto_action_naming": "0"})
    server = site.serve(engines.FastCgi, env={"PHP_FCGI_MAX_REQUESTS": "0"})
    script = site.script("")

    def name(path):
        site.daemon.forget()
        server.agent.request(script, path)
        return site.daemon.wait_metrics()[0].action

    word = lambda i: "".join("abcdefghij"[int(digit)] for digit in str(i))      # digits would be one name
    names = {name(f"/{word(i)}") for i in range(1, 1004)}
    assert len(names) == 1001 and "WebAction/URI/(more paths)" in names
    assert name("/b") == "WebAction/URI/b" and len(site.logged("names made of paths")) == 1


def test_the_busiest_names_come_first(site):
    lines = [f"GET /shop/{'abcdef'[i % 6]}{i}" for i in range(12, 200)] + ["GET /cart"] * 500 + ["# GET /comment", ""]
    _, names, printed = dry_run(site, {"zqs.auto_action_naming": "0"}, "\n".join(lines), "-n", 3)
    assert list(names.items())[0] == ("WebAction/URI/cart", (500, "URI"))
    assert printed.startswith("Requests: 688, names: 7\n") and len(names) == 3 and "and 4 more\n" in printed


@pytest.mark.parametrize("line, name", [
    ("GET /a", "URI/a"), ("GET   /a  HTTP/1.0", "URI/a"), ("PROPFIND /a\r", "URI/a"), ("GET /a?b=/c", "URI/a"),
    ('h - u [t] "GET /\\x41\\"/%7E HTTP/1.1" 200 5', 'URI/A"%2F~'),
    ('h - u [t] "GET /a', "URI/a"),
    ("GET /\x1b[31m", "URI/\\x1b[*m"), ("GET /a+b", "URI/a+b"), ("GET /%", "URI/%"),
    ("", None), ("GET", None), ("GET a", None), ("get /a", None), ("/a", None), ("OPTIONS *", None), ('h "-" 408', None),
    ('h "\\x16\\x03\\x01" 400', None), ("\\", None), ('"', None), (b"\xff\xfe /a", None),
])
def test_lines_of_requests(site, line, name):
    """Whatever a client sends can stand in a log."""
    line = line if isinstance(line, bytes) else line.encode()
    status, names, printed = dry_run(site, {"zqs.auto_action_naming": "0"}, b"#\n" + line)
    assert status == 0 and list(names) == (["WebAction/" + name] if name else [])
    assert ("Skipped 1 line that is not a request: 2\n" in printed) == (name is None and line != b"")


def test_the_dry_run_says_what_is_wrong(site):
    status, names, printed = dry_run(site, {"zqs.naming.rules": "[1,,2]", "zqs.nonsense": "1"}, "GET /a.php")
    assert status == 1 and names == {"WebAction/URI/a.php": (1, "URI")}
    assert "The naming rules are not valid JSON and were not used. The error begins at: ,2]" in printed
    assert 'agents do not know the setting "zqs.nonsense"' in printed
    for arguments in (["names", site.root], ["names", "/nonexistent"]):
        done = subprocess.run([QUORBIT, *arguments, "--settings", site.root / "app.conf"], capture_output=True, text=True)
        assert done.returncode == 1 and "\nquorbit: " in done.stderr, done


# ---- bad input, in a real request ----

def wrong_types():
    """The rule that would match, with each of its places in turn holding something of another type. Only the parts of
    "split" do not count: one of another type is left out, and the rule holds."""
    good = rule("Bad", 0, "", {"uri": "1"}, param(1, "a", 0, ""))
    others = [None, True, 7, -1e300, "text", [], {}, [[]], {"name": {}}]
    condition = ("match", "params", 0)
    places = [("name",), ("match",), ("split",), *(("match", key) for key in good["match"]), condition,
              *((*condition, key) for key in good["match"]["params"][0])]
    for *path, last in places:
        for other in others:
            changed = json.loads(json.dumps(good))
            target = functools.reduce(operator.getitem, path, changed)
            if type(other) is not type(target[last]):
                target[last] = other
                yield changed


BAD_RULES = {
    "wrong types everywhere": json.dumps(list(wrong_types())),
    "a megabyte of rules": json.dumps([rule(f"R{i}", 1, "/none/" + "x" * 60) for i in range(8000)]),
    "a pattern of a megabyte": patterns("(" * (1 << 20)),
    "patterns that do not compile": patterns("(", "[", "a{2,1}", "*{", "a{99999}", "[[:x:]]", "\\"),
    "patterns too costly to compile": patterns("((((a{200}){200}){200}){200})", "(" * 300 + ")" * 300),
    "patterns too costly to match": patterns(r"^/(a+)(a+)(a+)\1\2\3x", r"^/(.*)(.*)\1\2x$", "^/(a+)+$", "^(/(a|aa)+)+$",
                                             "(.*)(.*)(.*)(.*)(.*)x$", "((a*)*)*b"),
    "invalid UTF-8": b'[{"name":"\xff\xfe","match":{"method":0,"match":1,"value":"\xc3("},"split":{"uri":"\xed\xa0\x80"}}]',
    "numbers out of range": '[{"name":"R","match":{"method":1e400,"match":0,"value":""},"split":{}},'
                            '{"name":"R","match":{"method":0,"match":-99999999999,"value":""},"split":{}}]',
    "another root": '{"name":"R","match":{"method":0,"match":0,"value":""},"split":{}}',
}
LAST = json.dumps(rule("Last", 0, "", {"uri": "1"})).encode()
HOSTILE = "/" + "a" * 2000 + "/%22%27;!"


@pytest.mark.parametrize("kind", BAD_RULES)
def test_bad_rules_name_nothing_and_cost_little(site, kind):
    """No crash, no name; a good rule after them is tried."""
    bad = BAD_RULES[kind] if isinstance(BAD_RULES[kind], bytes) else BAD_RULES[kind].encode()
    expected = [(bad, "WebAction/URI/" + HOSTILE[1:].replace("/", "%2F").replace("22", "*").replace("27", "*"))]
    if bad.startswith(b"["):
        expected.append((bad[:-1] + b"," + LAST + b"]", "WebAction/Last/" + "a" * 2000))
    for rules, name in expected:
        settings = [b"zqs.naming.rules=" + rules, b"zqs.auto_action_naming=0", b"zqs.resource.enabled=0"]
        records = [wire.record(wire.STAMP, b"\1" + bytes(7)), *(wire.record(wire.SETTING, setting) for setting in settings)]
        site.daemon.reply = wire.record(wire.QUERY, b"".join(records))
        result = site.cgi("echo 1;", HOSTILE, ini={"zqs.agent_log_level": "VERBOSE"})
        assert result.metric.action == name and result.metric.duration_ms < 5000
    assert "naming json invalid" not in site.log()


# rules: where the log says that they are wrong
NO_JSON = {
    "[" * 10000 + "]" * 10000: "[", '[{"name":"R"': "", "[1,,2]": ",2]", "%s%n%n": "%s%n%n", '["\x01': "", "x" * (1 << 20): "xxxx",
}


@pytest.mark.parametrize("rules, invalid_at", NO_JSON.items(), ids=lambda text: text[:12].encode("unicode_escape").decode())
def test_rules_that_are_no_json_are_logged_once(site, rules, invalid_at):
    site.daemon.configure({"zqs.naming.rules": rules})
    assert site.cgi("echo 1;", ini={"zqs.agent_log_level": "ERROR"}).metric.action == "WebAction/URI/index.php"
    lines = site.logged("naming json invalid at: ")
    assert len(lines) == 1 and lines[0].startswith(invalid_at)
    site.daemon.configure({"zqs.naming.rules": "[]"}, stamp=2)
    site.cgi("echo 1;")
    assert len(site.logged("naming json invalid at: ")) == 1


def test_patterns_that_do_not_work_are_told_of_once(site):
    """One line for each and each configuration, with the pattern; those that only do not compile are the author's affair."""
    refused, bounded, wrong, long = "a{40}{40}", "(b{1,900})x", "(", "^/(" + "|".join(f"word{i:02}abcd" for i in range(64)) + ")/.*\\.html$"
    rules = json.dumps([rule("R", 5, refused), rule("P", 0, "", {}, param(1, "a", 5, refused + "x")), rule("W", 5, wrong), rule("L", 1, refused)])
    settings = {"zqs.urls_captured": "\n".join([wrong, bounded, long]), "zqs.naming.rules": rules}
    site.daemon.configure(settings)
    server = site.serve(engines.FastCgi)
    uri = "/word63abcd/" + "x" * 4000 + ".html"
    for _ in range(2):
        assert server.get("", "/index.php", env={"SCRIPT_NAME": uri}).monitored
    assert [re.sub(r"\d+ bytes", "N bytes", line) for line in site.logged("WARNING: regular expression ")] == [
        "looks at the first N bytes of a text only: " + bounded, "is not used, because it could take long: " + refused,
        "is not used, because it could take long: " + refused + "x"]
    _, _, printed = dry_run(site, {**settings, "zqs.urls_captured": settings["zqs.urls_captured"].replace("\n", "\n  ")}, "GET /a.php")
    assert re.findall("regular expression .*", printed) == [f"regular expression {line}" for line in site.logged("WARNING: regular expression ")]
