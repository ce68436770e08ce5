"""Questions asked of a fleet's store: two hosts send the same day to one ClickHouse and to two shards, and each has to be told there
what its own store tells."""
import json
import socket
from contextlib import contextmanager
from datetime import datetime

import pytest
from selenium.webdriver.support.ui import Select

from support.clickhouse import running
from support.engines import Site
from support.fake_daemon import wait_until
from support.fleet import actions_of, all_arrives, arrived, configure, in_store, run, sums_arrive
from support.local_daemon import Real
from support.web import Web, browser

HERE = socket.gethostname()


class Fleet:
    def __init__(self, server, shards):
        self.server, self.shards, self.reals = server, shards, []
        # Hosts are spread by this hash: another than ours lands on the other shard.
        shard = lambda host: server.ask(f"SELECT cityHash64('{host}') % 2")
        self.hosts = HERE, next(host for host in map("web-{}".format, range(50)) if shard(host) != shard(HERE))

    def fill(self, sample):
        server, cluster = self.server, ["cluster = fleet"] if self.shards > 1 else []
        for host in self.hosts:
            real = Real(Site())
            self.reals.append(real)
            (real.logs / "quorbit.db").write_bytes(sample.read_bytes())
            configure(real, server.url(), *cluster, host=host)
        assert run(self.reals[0], "clickhouse", "setup").returncode == 0
        first, last = in_store(self.reals[0], "SELECT min(received_ms), max(received_ms) FROM action")[0]
        for host, real in zip(self.hosts, self.reals):
            real.php()
            all_arrives(real, server, host=host)
            sums_arrive(real, server, host)
        # What the daemons note of the machine while they run comes after "end".
        moments = {"begin": first - 60000, "noon": first / 2 + last / 2, "late": last - 7200000, "end": last - 120000, "now": last + 3600000}
        self.moments = {name: datetime.fromtimestamp(at // 60000 * 60).isoformat(timespec="minutes") for name, at in moments.items()}
        counted = lambda *more: self.json("top", *self.range("begin", "now"), *more)["all"]["count"]
        for host, real in zip(self.hosts, self.reals):
            wait_until(lambda: counted(*self.of(host)) == actions_of(real)[0], "the sums of the last minute", 60)
            sums_arrive(real, server, host)                         # tables are sent one after the other
            real.stop()

    def range(self, since, until):
        return "--since", self.moments[since], "--until", self.moments[until]

    def of(self, host=None):
        return ["--store", self.server.url(), *(["--host", host] if host else [])]

    def ask(self, *words):
        done = run(self.reals[0], *words)
        assert done.returncode == 0, done
        return done.stdout

    def json(self, *words):
        return json.loads(self.ask(*words, "--json"))

    def close(self):
        for real in self.reals:
            real.stop()
            real.site.close()


@pytest.fixture(scope="module", params=[1, 2], ids=["one server", "two shards"])
def fleet(request, sample_store):
    with contextmanager(running)(request.param) as server:
        found = Fleet(server, request.param)
        try:
            found.fill(sample_store)
            yield found
        finally:
            found.close()


def plain(value):
    """An answer without what is the fleet's own: numbers of actions carry that of their store, keys have other numbers, and the
    example by chance depends on them."""
    if isinstance(value, list):
        return [plain(entry) for entry in value]
    if not isinstance(value, dict):
        return value
    found = {name: plain(entry) for name, entry in value.items() if name not in ("host_name", "chance_id", "related")}
    for name, entry in found.items():
        if name.endswith("_id") and isinstance(entry, int):
            found[name] = entry % 2 ** 36
    if "process" in found:
        found["id"] %= 2 ** 36
    else:
        found.pop("id", None)
    if str(found.get("name")).startswith("PHP/NULL"):                # of the last script, which the other host may run a minute later
        found.pop("last_seen", None)
    return found


KINDS = "action", "path", "query", "error", "external", "cache", "component", "application", "host"
ORDERS = "count", "avg", "p95", "p99", "errors", "statements"
DAY, AFTERNOON, LATE, ALL = ("begin", "end"), ("noon", "end"), ("late", "end"), ("begin", "now")
QUESTIONS = [
    *[(range, "top", "--by", kind) for kind in KINDS if kind != "component" for range in (DAY, LATE)],
    (ALL, "top", "--by", "component"),                              # which the day has none of
    *[(AFTERNOON, "top", "--by", kind, "--sort", order, "-n", "4") for kind, order in zip((*KINDS[:6], "action"), (*ORDERS, "errors"))],
    (DAY, "top", "--app", "Shop", "--name", "*[c-p]*"), (LATE, "queries", "--app", "Stock"), (DAY, "queries", "--sort", "statements"),
    (DAY, "errors"), (LATE, "errors", "--name", "*o*"),
    (DAY, "show", "-n", "5000"), (DAY, "show", "--sort", "duration"), (DAY, "show", "--errors"), (DAY, "show", "--path", "/*[a-m]?t*"),
    (AFTERNOON, "show", "--slower-than", "200ms", "--app", "Shop"), (DAY, "show", "--name", "*art*")]


@pytest.mark.parametrize("question", QUESTIONS, ids=lambda question: " ".join(question[1:] + question[0][:1]))
def test_a_list_is_the_one_that_the_host_itself_gives(fleet, question):
    span, *words = question
    words += fleet.range(*span)
    told = fleet.json(*words)
    assert (told if words[0] == "show" else told["rows"]) and plain(fleet.json(*words, *fleet.of(HERE))) == plain(told)


def test_one_of_each_is_told_in_full_as_the_host_itself_tells_it(fleet):
    day = fleet.range(*ALL)
    for kind in KINDS[:7]:
        rows = [fleet.json("top", "--by", kind, "-n", "1", *day, *of)["rows"][0] for of in ([], fleet.of(HERE))]
        local, there = (fleet.json("show", f"{kind}:{row['id']}", *day, *of) for row, of in zip(rows, ([], fleet.of(HERE))))
        assert plain(there) == plain(local) and local["series"], kind
    local, there = (fleet.json("show", "--sort", "duration", "-n", "1", *day, *of)[0]["id"] for of in ([], fleet.of(HERE)))
    assert plain(fleet.json("show", str(there), *fleet.of())) == plain(fleet.json("show", str(local)))
    releases = [release for release, in in_store(fleet.reals[0], "SELECT name FROM release")]
    before, after = ("..".join(fleet.moments[name] for name in span) for span in (("begin", "noon"), AFTERNOON))
    for words in ["--before", before, "--after", after], *([release] for release in releases):
        told = fleet.json("compare", *words)
        assert plain(fleet.json("compare", *words, *fleet.of(HERE))) == plain(told) and told["compared"], words


def test_hosts_are_told_apart_and_together(fleet):
    day = fleet.range(*ALL)
    counts = {host: actions_of(real)[0] for host, real in zip(fleet.hosts, fleet.reals)}
    by_host = fleet.json("top", "--by", "host", *day, *fleet.of())
    assert {row["name"]: row["count"] for row in by_host["rows"]} == counts
    assert {row["host"] for row in by_host["machine"]} == set(fleet.hosts)
    assert fleet.json("top", *day, *fleet.of())["all"]["count"] == sum(counts.values())
    newest = fleet.json("show", "-n", "2", *fleet.of())
    assert {row["host_name"] for row in newest} == set(fleet.hosts)          # each has run a script at last
    lines = fleet.ask("show", "-n", "2", *fleet.of()).splitlines()
    assert " HOST " in lines[0] and all(any(f" {host} " in line for line in lines[1:]) for host in fleet.hosts)
    # The day is the same on both: each transaction went through both of them.
    stock = (row["id"] for row in fleet.json("show", "-n", "500", *day, *fleet.of(HERE)) if row["application"] == "Stock")
    transaction, related = next((id_, related) for id_ in stock if (related := fleet.json("show", str(id_), *fleet.of())["related"]))
    assert {other["host_name"] for other in related} == set(fleet.hosts)
    assert f", on {fleet.hosts[1]}" in fleet.ask("show", str(transaction), *fleet.of())


def test_the_page_reads_it(fleet):
    pages = []
    span = "&".join(f"{name}={int(datetime.fromisoformat(fleet.moments[moment]).timestamp() * 1000)}" for name, moment in
                    (("from", "begin"), ("until", "end")))
    try:
        pages = [Web(fleet.reals[0].site.root, *of) for of in ([], ["--store", fleet.server.url()])]
        for question in ("top?by=query", "top?by=host", "series?heat=1", "compare?", "releases?", "services?",
                         "requests?n=50&sort=duration"):
            local, there = (page.json(f"{question}&host={HERE}&{span}") for page in pages)
            assert plain(there) == plain(local) and local, question
        status, _, refusal = pages[1].ask("/api/v1/status")
        assert status == 503 and b"does not tell the state of a host" in refusal
    finally:
        for page in pages:
            page.close()


def test_the_page_is_of_all_hosts_or_of_the_one_that_is_chosen(fleet):
    page, driver = Web(fleet.reals[0].site.root, "--store", fleet.server.url()), browser()
    texts = lambda selector: driver.execute_script("return [...document.querySelectorAll(arguments[0])].map(found => found.innerText)", selector)
    hosts = lambda: set(texts("main tbody td:nth-child(3)"))
    try:
        driver.get(page.link)
        wait_until(lambda: texts("header option") == ["All hosts", *sorted(fleet.hosts)], "the hosts")
        assert "Status" not in texts("nav a")                        # of one host alone
        driver.get(page.origin + "/status")
        wait_until(lambda: texts("h1") == ["A host itself has this page"], "what the address leads to")
        driver.get(page.origin + "/requests?n=2")
        wait_until(lambda: hosts() == set(fleet.hosts), "requests of both")
        Select(driver.find_element("css selector", "header select")).select_by_visible_text(HERE)
        wait_until(lambda: hosts() == {HERE}, "requests of one")
        driver.find_element("link text", "Queries").click()
        wait_until(lambda: texts("h1") == ["Queries"], "the next view")
        assert f"host={HERE}" in driver.current_url
    finally:
        driver.quit()
        page.close()


def test_shards_share_the_hosts(fleet):
    counts = [int(shard.ask("SELECT count() FROM quorbit.action" + "_shard" * (fleet.shards > 1))) for shard in fleet.server.shards]
    assert len(counts) == fleet.shards and sum(counts) == arrived(fleet.server)[0] and min(counts) > 0


@pytest.mark.parametrize("words, told", [
    (["status"], "about this host alone"), (["tail"], "about this host alone"), (["profile", "Shop", "5s"], "about this host alone"),
    (["mark", "1.0"], "about this host alone"), (["top", "--host", "db"], 'nothing of a host "db"; it has: '),
    (["show", "--app", "None"], "known: Shop, Stock"), (["show", "7"], "there is no action 7"),
    (["show", "query:7"], "there is no query:7")])
def test_what_a_fleet_cannot_answer_is_said(fleet, words, told):
    done = run(fleet.reals[0], *words, *fleet.of())
    assert (done.returncode, done.stdout) == (1, "") and told in done.stderr, done


TABLES = "action", "sum_minute", "sum_hour", "use_hour", "sum_key", "machine", "release", "application"


def test_what_was_sent_twice_is_told_once(fleet):
    for shard in fleet.server.shards:
        for table in TABLES:
            name = f"quorbit.{table}" + "_shard" * (fleet.shards > 1)
            shard.ask(f"SYSTEM STOP MERGES {name}")
            shard.ask(f"INSERT INTO {name} SELECT * FROM {name}")
    rows, actions = arrived(fleet.server)[:2]
    assert rows > actions
    for words in ["top", "--by", "query"], ["top", "--by", "host"], ["errors"], ["show", "-n", "3000"], ["show", "--sort", "duration"]:
        words += fleet.range(*LATE)
        assert plain(fleet.json(*words, *fleet.of(HERE))) == plain(fleet.json(*words)), words
    for row in fleet.json("show", "--sort", "duration", "-n", "5", *fleet.range(*DAY), *fleet.of()):
        others = [other["id"] for other in fleet.json("show", str(row["id"]), *fleet.of())["related"]]
        assert len(others) == len(set(others))
