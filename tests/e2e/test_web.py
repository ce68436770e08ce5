"""The page in a real browser, and what its server lets in."""
import json
import os
import pwd
import socket
from pathlib import Path

import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from support import web
from support.engines import PROJECT
from support.fake_daemon import wait_until

HOSTILE = b"""<img src=x onerror="window.ran=1"><script>window.ran=1</script>${ran=1}\x1b[31m\xff\xe2\x80\xae'"&amp;"""
SEEN = '<img src=x onerror="window.ran=1"><script>window.ran=1</script>'
TEXT = HOSTILE.decode("utf-8", "surrogateescape")
PLAN = {"dialect": "MySQL", "keys": ["type", "table", "rows"], "values": [["ALL", "reviews", "60000"]]}
AXE = PROJECT / "build/web/node_modules/axe-core/axe.min.js"


def repeated_query():
    """A page that asks 40 times for what one statement could tell."""
    asked = [web.node(4 * i, 4 * i + 3, "Database MySQL/reviews/SELECT", "PDO::query", sql=f"SELECT avg(stars) FROM reviews WHERE product = {i}",
                      explainPlan=PLAN, stacktrace=["PDO.query(/app/shop.php:25)"]) for i in range(40)]
    slowest = (b'["PDO.query(/app/shop.php:25)"]', web.json_bytes(PLAN))
    return web.packet(b"Shop", b"WebAction/shop%2Fproducts", 200, b"/products?page=2", database_ms=120,
                      statements=[(3, b"MySQL", b"SELECT avg(stars) FROM reviews WHERE product = %d" % i, *slowest) for i in range(40)],
                      trace=web.node(0, 200, "", "PHP::execute", [web.node(0, 170, "", "Shop::rows", asked), web.node(180, 200, "", "page")]))


def large_trace():
    """10,000 calls of which no two are the same."""
    parts = [web.node(i * 10, i * 10 + 10, "", f"Part{i}::run", [web.node(i * 10, i * 10 + 5, "", f"Part{i}::step{j}") for j in range(99)])
             for i in range(100)]
    return web.packet(b"Large", b"WebAction/large", 1000, trace=web.node(0, 1000, "", "PHP::execute", parts))


def hostile():
    inner = web.node(0, 9, TEXT, TEXT, url=TEXT, sql=TEXT, stacktrace=[TEXT], partialtrace=[TEXT], explainPlan={"keys": [TEXT], "values": [[TEXT]]})
    return web.packet(HOSTILE, HOSTILE, 700, HOSTILE, statements=[(9, HOSTILE, HOSTILE)], error=(500, HOSTILE, HOSTILE, web.json_bytes([TEXT])),
                      components=[(7, 7, HOSTILE)], parameters=[(HOSTILE, HOSTILE)], details=[(HOSTILE, HOSTILE)],
                      trace=web.node(0, 700, TEXT, TEXT, [inner]))


@pytest.fixture(scope="module")
def store():
    found = web.Store()
    try:
        found.fill(repeated_query(), large_trace(), hostile())
        yield found
    finally:
        found.close()


@pytest.fixture(scope="module")
def server(store):
    found = web.Web(store.root)
    yield found
    found.close()


@pytest.fixture(scope="module")
def sample():
    found = web.Web("/nowhere", "--sample")
    yield found
    found.close()


@pytest.fixture(scope="module")
def page(server):
    driver = web.browser()
    driver.get(server.link)
    wait_until(lambda: texts(driver, "h1") == ["Overview"], "the first view behind the link")
    driver.get_log("browser")                              # of before the link was used
    yield driver
    driver.quit()


@pytest.fixture
def sampled(sample, page):
    """The page, let into the server of the sample."""
    page.get(sample.origin)
    entered = page.execute_async_script("fetch('/api/v1/session', {method: 'POST', headers: {'Content-Type': 'application/json'}, "
                                        "body: JSON.stringify({token: arguments[0]})}).then(answer => arguments[1](answer.status))", sample.token)
    assert entered == 200
    page.get_log("browser")                                # of before it was let in
    return page


def texts(driver, selector):
    return driver.execute_script("return [...document.querySelectorAll(arguments[0])].map(found => found.innerText)", selector)


def opened(page, server, path, selector):
    page.get(server.origin + path)
    wait_until(lambda: texts(page, selector), f"{selector} on {path}")
    return page


def test_numbers_on_the_page_and_of_the_api_are_those_of_the_commands(store, server, page):
    rows = store.command("show", "--json")
    assert server.json("requests") == rows
    opened(page, server, "/requests", "tbody tr")
    assert texts(page, "tbody td:first-child") == [str(row["id"]) for row in rows]
    assert [float(took.split()[0].replace(",", "")) for took in texts(page, "tbody td:nth-child(5)")] == [row["duration_ms"] for row in rows]
    one = store.command("show", "1", "--json")
    assert server.json("requests/1") == one
    assert server.json("requests/1/events") == store.command("show", "1", "--format", "chrome")
    assert server.json("requests/1/statements")[0]["count"] == len(one["statements"]) == 40
    assert f"{rows[-1]['duration_ms']} ms" in texts(opened(page, server, "/requests/1", ".facts"), ".facts")[0]


def test_sums_on_the_page_are_those_of_top(store, server, page):
    def rows(answer):
        return [{name: value for name, value in row.items() if name not in ("trend", "actions")} for row in answer["rows"]]
    for by in "action", "query", "error":
        asked, told = server.json(f"top?by={by}&since=1h"), store.command("top", "--by", by, "--since", "1h", "--json")
        assert (rows(asked), asked["all"]) == (rows(told), told["all"]) and asked["rows"]
    top = server.json("top")
    assert server.json(f"keys/action/{top['rows'][0]['id']}")["count"] == 1
    points = server.json("series?by=application&heat=1")["points"]
    assert [sum(point[name] for point in points) for name in ("count", "total_us")] == [top["all"]["count"], top["all"]["total_us"]]
    assert sum(number for point in points for _, number in point["durations"]) == 3
    opened(page, server, "/overview", "tbody tr")
    assert texts(page, "dd")[0] == str(top["all"]["count"])
    assert len(texts(page, "figure canvas")) == 3


def test_the_overview_leads_to_the_line_that_runs_the_query_in_three_clicks(server, page):
    opened(page, server, "/overview", "tbody tr")
    clicks = [("a", "WebAction/shop/products", ".heat-cells a"), (".columns a", None, ".wf-row"), (".standsout .link", None, ".statement")]
    for selector, text, then in clicks:
        found = lambda: [link for link in page.find_elements(By.CSS_SELECTOR, selector) if text in (None, link.text)]
        wait_until(found, f"{selector} to click")
        found()[0].click()
        wait_until(lambda: texts(page, then), then)
    assert "at /app/shop.php:25" in texts(page, ".statement h2")[0] and "scans the table reviews" in texts(page, ".statement")[0]


def test_a_repeated_query_is_one_bar_with_its_line_its_plan_and_the_finding(server, page):
    opened(page, server, "/requests/1", ".wf-row")
    assert "× 40, 120 ms (60% of the time)" in texts(page, ".standsout")[0] and "scans the table reviews" in texts(page, ".standsout")[0]
    assert texts(page, ".run") == ["× 40"] and len(texts(page, ".wf-row")) == 4
    assert "reviews\t60000" in texts(page, ".chosen")[0] and "WHERE product = ?" in texts(page, ".chosen .sql")[0]
    page.find_element(By.CSS_SELECTOR, ".run").click()
    assert len(texts(page, ".wf-row")) >= 30


def test_the_waterfall_obeys_the_keyboard(server, page):
    opened(page, server, "/requests/1", ".wf-row")
    grid = page.find_element(By.CSS_SELECTOR, "[role=treegrid]")
    chosen = lambda: texts(page, ".chosen h2")[0]
    steps = [(Keys.HOME, "PHP::execute", 4), (Keys.ARROW_DOWN, "Shop::rows", 4), (Keys.ARROW_LEFT, "Shop::rows", 3),
             (Keys.ARROW_RIGHT, "Shop::rows", 4), (Keys.END, "page", 4)]
    for key, label, rows in steps:
        grid.send_keys(key)
        wait_until(lambda: (chosen(), len(texts(page, ".wf-row"))) == (label, rows), f"{label} after {key!r}", 5)
    grid.send_keys("/")
    page.switch_to.active_element.send_keys("reviews")
    wait_until(lambda: "40 of 43 match" in texts(page, ".tools")[0], "what was searched for", 5)


def test_ten_thousand_calls_open_and_scroll_without_a_stall(server, page):
    opened(page, server, "/requests/2", ".wf-row")
    assert "10,001 calls" in texts(page, ".tools")[0] and len(texts(page, ".wf-row")) < 100
    assert page.execute_script("return performance.getEntriesByName('waterfall')[0].startTime") < 1000
    page.execute_cdp_cmd("Performance.enable", {"timeDomain": "threadTicks"})      # what others take of the machine does not count
    spent = []
    for _ in range(30):
        page.execute_async_script("""document.querySelector('.wf-body').scrollTop += 700;
            requestAnimationFrame(() => requestAnimationFrame(arguments[0]))""")
        spent.append({entry["name"]: entry["value"] for entry in page.execute_cdp_cmd("Performance.getMetrics", {})["metrics"]}["TaskDuration"])
    frames = [after - before for before, after in zip(spent, spent[1:])]
    assert max(frames) < 0.05, frames
    assert page.execute_script("return document.querySelector('.wf-body').scrollTop") == 30 * 700 and len(texts(page, ".wf-row")) < 100


def test_texts_of_packets_stay_texts(server, page):
    for tab in "waterfall", "flame", "functions", "statements", "details":
        opened(page, server, f"/requests/3?tab={tab}", "[role=tabpanel]")
        assert page.execute_script("return [window.ran, document.querySelectorAll('#app img, #app script').length]") == [None, 0]
        assert SEEN in texts(page, "h1")[0]
        assert tab in ("flame",) or SEEN in texts(page, "[role=tabpanel]")[0]
    for path in "/requests", "/overview", "/queries", "/errors":
        opened(page, server, path, "tbody tr")
        assert SEEN in texts(page, "tbody")[0]
    assert page.execute_script("return window.ran") is None
    assert not page.get_log("browser")


def test_the_new_views_show_what_the_commands_print(sample, sampled):
    def told(*words):
        return json.loads(web.subprocess.run([web.QUORBIT, *words, "--json", "--root", sample.sample_root], capture_output=True, check=True).stdout)
    asked, printed = sample.json("compare?release=2.4.0"), told("compare", "2.4.0")
    assert {(row["change"], row["by"], row["id"], row["after"]["count"]) for row in asked["changes"]} == \
        {(row["change"], row["by"], row["id"], row["after"]["count"]) for row in printed["changes"]} and asked["compared"] == printed["compared"]
    opened(sampled, sample, "/compare", "tbody tr")
    slower, = [row for row in texts(sampled, "tbody tr") if row.startswith("Slower")]
    assert "WebAction/shop/product\n" in slower.replace("\t", "\n") and len(texts(sampled, "tbody tr")) == len(asked["changes"])
    new = [row for row in told("errors", "--since", "1d")["rows"] if "new_since" in row]
    assert [(row["class"], row["new_since"]) for row in new] == [("InvalidArgumentException", "2.4.0")]
    assert texts(opened(sampled, sample, "/errors", "tbody tr"), ".new") == ["new since 2.4.0"]
    edges = {(edge["from"], edge["to"]): edge for edge in sample.json("services?since=24h")["edges"]}
    queries = [row for row in told("queries", "--since", "1d")["rows"] if row["application"] == "Shop"]
    failed = sum(row["errors"] for row in told("top", "--by", "external", "--since", "1d")["rows"])
    assert edges["Shop", "MySQL"]["count"] == sum(row["count"] for row in queries)
    assert edges["Shop", "stock.internal"]["application"] == "Stock" and edges["Shop", "pay.example"]["errors"] == failed > 0
    assert len(texts(opened(sampled, sample, "/services", ".map"), ".map path")) == len(edges)
    assert sample.json("radar?app=Shop&to=7.4&days=7") == told("radar", "--app", "Shop", "--to", "7.4", "--unused", "7")
    opened(sampled, sample, "/overview", "table.narrow tbody tr")
    assert [row.split()[0] for row in texts(sampled, "table.narrow tbody tr")[1:]] == ["jobs", "shop", "stock"]


def test_the_radar_shows_what_must_change_before_a_version(sample, sampled):
    def headings():
        return sampled.execute_script("return [...document.querySelectorAll('h2')].map(heading => heading.firstChild.data.trim())")
    opened(sampled, sample, "/radar", "tbody tr")
    everything = sample.json("radar")
    versions = ["7.0", "7.2", "8.0", "8.1", "8.2", "8.4"]
    assert headings() == [f"To change before PHP {version}" for version in versions] + ["Compiled, but not called for 30 days"]
    assert len(texts(sampled, "tbody tr")) == len(everything["sites"]) + len(everything["unused_functions"])
    for name, word in ("to", "7"), ("app", "Sh"):          # by the keyboard
        sampled.find_element(By.NAME, name).send_keys(word)
    wait_until(lambda: sampled.current_url.endswith("/radar?to=7.0&app=Shop") and len(texts(sampled, "tbody tr")) == 5, "the chosen ones")
    assert headings() == ["To change before PHP 7.0", "Compiled, but not called for 30 days"]
    assert [row.split("\n")[0] for row in texts(sampled, "tbody td:first-child")] == \
        ["/srv/shop/src/Search.php:33", "/srv/shop/src/Search.php:35", "/srv/shop/src/Template.php:88", "Report::toExcel", "Report::toWord"]
    split, = [row for row in texts(sampled, "tbody tr") if "split()" in row]
    assert "removed" in split and "explode()" in split and "320 ×" in split and "/checkout" in split
    exports = [link.get_attribute("href").partition("/api/v1/")[2] for link in sampled.find_elements(By.CSS_SELECTOR, ".actions a")]
    csv, sarif = (sample.ask("/api/v1/" + path)[2] for path in exports)
    assert csv.count(b"\r\n") == 1 + 3 and len(json.loads(sarif)["runs"][0]["results"]) == 3


def test_a_called_applications_trace_stands_inside_the_call(sample, sampled):
    checkout = sample.json("requests?name=*checkout&n=1")[0]["id"]
    opened(sampled, sample, f"/requests/{checkout}", ".wf-row.inside")
    assert texts(sampled, ".wf-row.inside .wf-label")[0].startswith("Stock: ")
    rows, call = texts(sampled, ".wf-row .wf-label"), "http://stock.internal/reserve.php"
    assert rows[rows.index(call) + 1].startswith("Stock: ")


def test_a_profile_is_ordered_watched_and_seen(store, server, page):
    """This test is the process that is profiled."""
    opened(page, server, "/profiles", "form")
    page.find_element(By.XPATH, "//option[text()='Shop']").click()
    page.execute_script("document.querySelector('input[name=seconds]').value = 2")
    page.find_element(By.CSS_SELECTOR, "form button").click()
    wait_until(lambda: "waits for a process" in texts(page, "main")[0], "the order")
    record, lines = web.record, []
    for at, line in [(1, "enter action Web"), (2, "enter function Cart::total"), (3, "enter function PDO::query"), (43, "leave function PDO::query"),
                     (50, "leave function Cart::total"), (60, "leave action ok")]:
        lines.append(record(0x09, record(0x11, "Shop") + record(0x0E, "empty key") + record(0x2C, f"{at} 7 {line}")))
    with socket.socket(socket.AF_UNIX) as agent:
        agent.connect(str(store.folder / ".quorbit.sock"))
        query = record(0x0A, record(0x11, "Shop") + record(0x0E, "empty key") + record(0x0C, bytes(8)))
        answers = b""
        while b"zqs.profile_end_time" not in answers:      # until the daemon has seen the order
            agent.sendall(query)
            answers = agent.recv(1 << 16)
        agent.sendall(b"".join(lines))
        wait_until(lambda: "is complete" in texts(page, "main")[0], "the end of the profile", 20)
    assert [row.split("\t")[0::3] for row in texts(page, "tbody tr")] == [["PDO::query", "40 ms"], ["action Web", "11 ms"], ["Cart::total", "8 ms"]]
    assert page.find_elements(By.CSS_SELECTOR, ".flame canvas")


@pytest.mark.parametrize("width, dark", [(1280, False), (1280, True), (390, False), (390, True)])
def test_every_view_is_for_everyone(server, sample, sampled, width, dark):
    page, hostile_id = sampled, 3
    web.looks(page, width, dark)
    page.execute_cdp_cmd("Page.setBypassCSP", {"enabled": True})
    products = sample.json("requests?name=*products&n=1")[0]["id"]
    action = sample.json("top?since=24h&name=*products")["rows"][0]["id"]
    profile = sample.json("profiles")[0]["id"]
    views = [(sample, path, selector) for path, selector in [
        ("/overview", "tbody tr"), ("/now", "tbody tr"), ("/now/2101", "tbody tr"), (f"/actions/{action}", ".heat-cells a"),
        ("/queries", "tbody tr"), ("/errors", "tbody tr"), ("/services", ".map"),
        ("/compare", "tbody tr"), ("/radar", "tbody tr"), ("/profiles", "tbody tr"), (f"/profiles/{profile}", ".flame canvas"), ("/status", "h2"), ("/settings", "tbody tr"),
        ("/requests", "tbody tr"), (f"/requests/{products}", ".wf-row"), (f"/requests/{products}?tab=functions", "tbody tr"),
        (f"/requests/{products}?tab=statements", ".sql"), ("/requests?since=15m&app=none", ".state p")]]
    views += [(server, f"/requests/{hostile_id}?tab=details", "[role=tabpanel]"), (server, "/services?app=none", ".state"), (server, "/radar?to=8.3", ".state p")]
    for of, path, selector in views:
        opened(page, of, path, selector)
        assert (texts(page, ".samplechip") == ["Sample data"]) == (of is sample), path
        assert page.execute_script("return document.documentElement.scrollWidth <= innerWidth"), path
        page.execute_script(AXE.read_text())
        found = page.execute_async_script("axe.run({runOnly: ['wcag2a', 'wcag2aa', 'wcag21aa']}).then(arguments[0])")
        assert [(fault["id"], fault["nodes"][0]["html"]) for fault in found["violations"]] == [], path
    page.execute_cdp_cmd("Page.setBypassCSP", {"enabled": False})
    web.looks(page)


def test_what_a_request_must_show(server):
    own = f"127.0.0.1:{server.port}"
    kind = {"Content_Type": "application/json"}
    cases = [
        (200, "GET", "/", {}), (200, "HEAD", "/app.js", {}), (200, "GET", "/requests/1", {}), (404, "GET", "/no.js", {}),
        (421, "GET", "/", {"Host": "evil.test"}), (421, "GET", "/api/v1/requests", {"Host": f"evil.test:{server.port}"}),
        (200, "GET", "/api/v1/requests", {"Host": f"LOCALHOST:{server.port}"}),
        (401, "GET", "/api/v1/requests", {"token": False}), (401, "GET", "/api/v1/requests", {"Authorization": "Bearer "}),
        (403, "GET", "/api/v1/requests", {"Origin": "http://127.0.0.1:1"}), (403, "GET", "/api/v1/requests", {"Sec_Fetch_Site": "same-site"}),
        (200, "GET", "/api/v1/requests", {"Origin": f"http://{own}"}), (404, "GET", "/api/v1/nothing", {}), (404, "GET", "/api/v2/requests", {}), (404, "GET", "/api/v1/requests/9999", {}),
        (400, "GET", "/api/v1/requests?n=0", {}), (400, "GET", "/api/v1/requests?since=1w", {}),
        (200, "GET", "/api/v1/radar?to=8.3&format=csv", {}), (400, "GET", "/api/v1/radar?to=x", {}), (400, "GET", "/api/v1/radar?format=x", {}), (400, "GET", "/api/v1/radar?days=0", {}),
        (405, "PUT", "/api/v1/session", {}), (405, "POST", "/requests", kind), (405, "OPTIONS", "/api/v1/requests", {}),
        (415, "POST", "/api/v1/session", {"Content_Type": "text/plain", "body": "{}"}), (403, "POST", "/api/v1/session/end", kind),
        (403, "POST", "/api/v1/profiles", {**kind, "body": '{"application": "Shop", "seconds": 9}'}), (403, "POST", "/api/v1/releases", {**kind, "body": '{"name": "1"}'}),
        (400, "GET", "/api/v1/compare?release=none", {}), (404, "GET", "/api/v1/profiles/99", {}),
        (413, "POST", "/api/v1/session", {**kind, "body": "x" * 5000}), (414, "GET", "/" + "x" * 9000, {}),
        (200, "GET", "/", {"Range": "bytes=" + ",".join(["0-1"] * 1900)}),
    ]
    for status, method, path, more in cases:
        answer = server.ask(path, method, **more)
        assert answer[0] == status, (method, path, more, answer)
        assert not [name for name in answer[1] if name.startswith("access-control")]
    policy = server.ask("/")[1]["content-security-policy"]
    assert "default-src 'none'" in policy and "frame-ancestors 'none'" in policy and "unsafe" not in policy
    assert server.ask("/requests", Host=own, Cookie="x" * 8000)[0] == 200


def test_what_is_no_request_ends_in_time(server):
    cases = {b"GET / HTTP/1.1\r\n" + b"X: %s\r\n" % (b"a" * 4000) * 20: b"HTTP/1.1 400", b"\x16\x03\x01\0": b"",
             b"GET /api/v1/requests HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n": b"HTTP/1.1 421"}
    for sent, told in cases.items():
        with socket.create_connection(("127.0.0.1", server.port), timeout=15) as client:
            client.sendall(sent)
            assert client.recv(100)[:12] == told


def test_the_link_lets_in_once_and_guessing_has_its_pause(store):
    server = web.Web(store.root)
    try:
        enter = lambda token: server.ask("/api/v1/session", "POST", json.dumps({"token": token}), token=False, Content_Type="application/json")
        link = server.link.partition("#")[2]
        status, headers, body = enter(link)
        assert status == 200 and "HttpOnly; SameSite=Strict" in headers["set-cookie"]
        cookie = headers["set-cookie"].partition(";")[0]
        session = {"token": False, "Cookie": cookie}
        end = lambda **more: server.ask("/api/v1/session/end", "POST", "{}", Content_Type="application/json", **session, **more)[0]
        assert server.ask("/api/v1/requests", **session)[0] == 200
        assert [enter(link)[0] for _ in range(6)] == [401] * 5 + [429]
        assert server.ask("/api/v1/requests")[0] == 429 and enter(server.token)[0] == 429          # whoever guesses right has to wait, too
        assert server.ask("/api/v1/requests", **session)[0] == 200                                 # but who is in stays in
        assert end(X_Quorbit_Token="x") == 403 and end(X_Quorbit_Token=json.loads(body)["token"]) == 200
        assert server.ask("/api/v1/requests", **session)[0] == 401
        assert server.process.poll() is None
        server.errors.seek(0)
        assert server.errors.read() == b""                                                         # no token, right or wrong
    finally:
        server.close()


@pytest.mark.skipif(os.geteuid() != 0, reason="root alone has something to give up")
def test_root_is_given_up(server, sample):
    def told(process, *names):
        lines = dict(line.split(":\t", 1) for line in Path(f"/proc/{process.pid}/status").read_text().splitlines())
        return [lines[name] for name in names]
    assert told(server.process, "CapEff", "CapBnd", "NoNewPrivs") == ["0" * 16, "0" * 16, "1"]     # the folder is root's own
    nobody = pwd.getpwnam("nobody").pw_uid
    assert set(told(sample.process, "Uid")[0].split()) == {str(nobody)}


NGINX = """
user root; daemon off; pid {root}/nginx.pid; error_log {root}/nginx.log;
events {{ }}
http {{
  access_log off; client_body_temp_path {root}/body; proxy_temp_path {root}/proxy; fastcgi_temp_path {root}/f; uwsgi_temp_path {root}/u; scgi_temp_path {root}/s;
  server {{
    listen 127.0.0.1:{port};
    location / {{ proxy_pass http://unix:{root}/web.sock; proxy_set_header Host $host; proxy_set_header X-Forwarded-Proto https; }}
  }}
}}
"""


def test_a_web_server_in_front_passes_requests_to_the_socket(store, tmp_path):
    web_server = web.Web(store.root, "--listen", f"unix:{tmp_path}/web.sock", "--host", "monitor.example", origin="http://monitor.example")
    (tmp_path / "nginx.conf").write_text(NGINX.format(root=tmp_path, port=web_server.port))
    nginx = web.subprocess.Popen(["nginx", "-p", tmp_path, "-c", tmp_path / "nginx.conf"], stderr=web.subprocess.DEVNULL)
    try:
        wait_until(lambda: not socket.socket().connect_ex(("127.0.0.1", web_server.port)), "nginx")
        assert os.stat(tmp_path / "web.sock").st_mode & 0o777 == 0o660
        assert [web_server.ask("/api/v1/requests", Host=host)[0] for host in ("monitor.example", "evil.test")] == [200, 421]
        status, headers, _ = web_server.ask("/api/v1/session", "POST", json.dumps({"token": web_server.link.partition("#")[2]}), token=False,
                                            Host="monitor.example", Origin="https://monitor.example", Content_Type="application/json")
        assert status == 200 and headers["set-cookie"].endswith("; Secure")
    finally:
        nginx.terminate()
        nginx.wait(10)
        web_server.close()


@pytest.mark.parametrize("options, told", [(["--listen", "0.0.0.0:0"], "--listen needs"), (["--listen", "0.0.0.0:7180"], "needs --password-file"),
                                           (["--password-file", "/etc/passwd"], "is open to others")])
def test_what_is_not_safe_does_not_start(store, options, told):
    done = web.subprocess.run([web.QUORBIT, "web", "--root", store.root, *options], capture_output=True, text=True, timeout=10)
    assert done.returncode == 1 and told in done.stderr
