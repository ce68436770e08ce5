"""What an operator wants to know, on a host with a shop and a WordPress: each answer with two commands at most, and held against
what the pages have measured of themselves or what was planted in them. docs/questions.md shows these answers."""
import json
import re
import sqlite3
import subprocess

import pytest

from support.engines import Site
from support.fake_daemon import wait_until
from support.host import Host
from support.local_daemon import QUORBIT, Real

HOUR_MS = 3600000
LOADS = 25                     # of each page whose durations are compared


def hour_back(host):
    """What has come so far came an hour ago: the store's clocks are turned while no daemon has it open."""
    host.real.stop()
    with sqlite3.connect(host.real.logs / "quorbit.db") as store:
        for table, column, by in (("action", "received_ms", HOUR_MS), ("sum_minute", "minute", 60), ("sum_hour", "hour", 1),
                                  ("use_hour", "hour", 1), ("sum_key", "first_ms", HOUR_MS), ("sum_key", "last_ms", HOUR_MS)):
            store.execute(f"UPDATE {table} SET {column} = {column} - {by}")
    store.close()
    subprocess.run([QUORBIT, "-f", host.real.logs / ".quorbit.cfg"], check=True)


@pytest.fixture(scope="module")
def host(mariadb):
    site = Site()
    found = Host(Real(site), mariadb)
    try:
        for _ in range(LOADS):
            found.get("/shop/cart.php")
        found.get("/shop/cart.php?gift=Ada")
        wait_until(lambda: len(json.loads(found.ask("show", "--json", "-n", "100")[1])) == LOADS + 1, "the actions")
        hour_back(found)
        assert found.ask("mark", "1.4.2", "--at", "40m")[0] == 0
        (site.docroot / "shop/next").touch()
        for _ in range(LOADS):
            found.get("/shop/cart.php")
        for name in ("Bob", "Eve", "Mallory"):
            found.get(f"/shop/cart.php?gift={name}")
            found.get("/old/report.php")
        found.blog = [found.get("/blog/") for _ in range(2)]
        found.products = [found.get("/shop/products.php") for _ in range(3)]
        found.checkout = found.get("/shop/checkout.php")
        wait_until(lambda: "checkout.php" in found.ask("show")[1], "the last action")
        yield found
    finally:
        found.real.stop()
        site.close()


def rows(host, *words):
    return json.loads(host.ask(*words, "--json")[1])["rows"]


def test_which_action_is_slowest_and_why(host):
    slowest = rows(host, "top", "--app", "Shop", "--sort", "avg")[0]
    assert slowest["name"].endswith("checkout.php")
    products = next(row for row in rows(host, "top", "--name", "*products*"))
    took, asked = (sum(page[what] for page in host.products) for what in ("took", "asked"))
    assert products["count"] == 3 and 0.9 * took < products["total_us"] / 1000 < 1.3 * took + 30
    assert 0.1 * asked < products["database_us"] / 1000 <= asked and products["statements"] == 3 * 9      # the page waits for plans, too, as long as the machine is busy
    text = host.ask("show", f"action:{products['id']}")[1]
    assert re.search(r"spent in +database \d+%", text) and re.search(r"3 +8\.0 .* SELECT avg\(stars\)", text), text


def test_which_query_repeats_and_where(host):
    text = host.ask("queries", "--app", "Shop", "--since", "10m")[1]
    first = text.split("\n\n")[0]
    assert "24 calls" in first and "8 x in" in first and "products.php" in first
    assert re.search(r"run at +\S+shop/shop.php:16, called from \S+shop/products.php:5\n", first), first
    blog = host.ask("queries", "--app", "Blog", "-n", "50")[1]
    theme = next(part for part in blog.split("\n\n") if "display_name" in part)
    posts = sum(page["posts"] for page in host.blog) + 1                                # and the one that checkout.php asks for
    assert posts > 10 and f"{posts} calls" in theme and "/wp-content/themes/plain/functions.php:6" in theme, theme
    assert re.search(r"run at +\S+/class-wpdb\.php:\d+, called from", theme), theme


def test_its_plan_and_what_to_do(host):
    text = host.ask("queries", "--app", "Shop", "-n", "1")[1]
    assert re.search(r"scans the table reviews \(about \d+ rows\)", text) and "CREATE INDEX reviews_product ON reviews (product)" in text, text


def test_which_errors_where_and_new_since_when(host):
    error, = rows(host, "errors", "--app", "Shop", "--since", "3h")
    assert error["count"] == 4 and error["message"].startswith("no gift for '…' of order #")
    assert error["place"].endswith("shop/cart.php:4")
    text = host.ask("errors", "--app", "Shop", "--since", "3h")[1]
    assert re.search(r"4 +\d+ min ago|4 +1 h ago|4 +6\d min ago", text), text


def test_how_two_applications_are_connected(host):
    checkout = json.loads(host.ask("show", "--name", "*checkout*", "--json")[1])[0]
    told = json.loads(host.ask("show", str(checkout["id"]), "--json")[1])
    callee, = (other for other in told["related"] if other["relation"] == "callee")
    assert callee["application"] == "Blog" and callee["duration_ms"] <= host.checkout["called"]
    assert abs(told["external_ms"] - host.checkout["called"]) < 25


def test_before_and_after_a_release(host):
    text = host.ask("compare", "1.4.2", "--app", "Shop")[1]
    slower = next(line for line in text.splitlines() if "cart.php" in line and line.startswith("slower"))
    before, after = map(int, re.match(r"slower +\S+ \S+ +(\d+) +\S+ ms +(\d+) ", slower).groups())
    assert "<0.0001" in slower and before == LOADS + 1 and LOADS <= after <= LOADS + 3, text     # each process lost one to the restart
    assert "appeared" in text and "products.php" in text, text


def test_one_slow_request_over_time(host):
    products = json.loads(host.ask("show", "--name", "*products*", "--sort", "duration", "--json")[1])[0]
    text = host.ask("show", str(products["id"]))[1]
    assert re.search(r"x 8, slowest .*\n(.*\n){0,4}? +Database MySQL/reviews/SELECT|Database MySQL/reviews/SELECT .* x 8", text), text


def test_what_the_host_was_doing(host):
    wait_until(lambda: "POOL" in host.ask("top", "--by", "host")[1], "a sample of the host", 15)
    text = host.ask("top", "--by", "host")[1]
    assert re.search(r"load \d+\.\d\d, memory \d", text) and all(re.search(rf"^{pool} ", text, re.M) for pool in ("shop", "blog")), text


def test_whether_every_pool_reports(host):
    status, text = host.ask("status")
    assert status == 1 and re.search(r"CHECK +FPM pool old", text) and not re.search(r"CHECK +FPM pool (shop|blog)", text), text


def test_which_pages_no_packet_comes_from(host):
    text = host.ask("names", str(host.real.site.root / "access.log"), "--missing")[1]
    assert re.findall(r"^ *(\d+) .* (/\S+)$", text, re.M) == [("3", "/old/report.php")], text
