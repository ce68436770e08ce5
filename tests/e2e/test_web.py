"""The page in a real browser."""
import json
import socket

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
    assert texts(page, "figure b")[:3] == ["How many", "How long", "Where, on average"]
    assert len(texts(page, "figure canvas")) == len(texts(page, "figure"))


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
    assert sorted(texts(sampled, ".chart figcaption b")[3:]) == ["Pool jobs", "Pool shop", "Pool stock"]
    pools = [pool for row in sample.json("series?pools=1&since=24h")["machine"] for pool in row["pools"]]
    assert max(pool["most_waiting"] for pool in pools) == 6 and {pool["name"] for pool in pools if pool["waiting"]} == {"shop"}


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
