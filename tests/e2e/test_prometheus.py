"""/metrics, scraped by a real Prometheus: it says what `quorbit top` says, and the dashboard's and alerts' expressions mean something."""
import json
import re
import subprocess
import tempfile
import urllib.parse
import urllib.request
from pathlib import Path

import pytest

from support import web
from support.clickhouse import free_ports
from support.databases import die_with_parent
from support.engines import PROJECT
from support.fake_daemon import wait_until

ODD = b'Sh"op\\ \xff\n'


class Prometheus:
    """One that scrapes every second."""

    def __init__(self, jobs, rules):
        self.folder = tempfile.TemporaryDirectory(prefix="zqp", dir="/tmp")
        root = Path(self.folder.name)
        self.port, = free_ports(1)
        (root / "prometheus.yml").write_text(json.dumps({
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": [str(rules)], "scrape_configs": jobs}))
        with open(root / "log", "wb") as log:
            self.process = subprocess.Popen(
                ["prometheus", f"--config.file={root}/prometheus.yml", f"--storage.tsdb.path={root}/data",
                 f"--web.listen-address=127.0.0.1:{self.port}"], stdout=log, stderr=log, preexec_fn=die_with_parent)

    def ask(self, path, **parameters):
        url = f"http://127.0.0.1:{self.port}/api/v1/{path}?{urllib.parse.urlencode(parameters)}"
        with urllib.request.urlopen(url, timeout=30) as answer:
            return json.load(answer)["data"]

    def values(self, query, *labels):
        found = self.ask("query", query=query)["result"]
        return {tuple(row["metric"].get(label, "") for label in labels): float(row["value"][1]) for row in found}

    def is_up(self):
        try:
            targets = self.ask("targets")["activeTargets"]
        except OSError:
            return False
        return targets and all(target["health"] == "up" for target in targets)

    def close(self):
        self.process.terminate()
        self.process.wait(60)
        self.folder.cleanup()


@pytest.fixture(scope="module")
def store():
    found = web.Store()
    yield found
    found.close()


@pytest.fixture(scope="module")
def page(store):
    wait_until((store.folder / "quorbit.db").exists, "the store")
    found = web.Web(store.root)
    yield found
    found.close()


@pytest.fixture(scope="module")
def prometheus(store, page):
    port, = free_ports(1)
    (store.folder / "applications.conf").write_text(f"metrics_listen = 127.0.0.1:{port}\n")
    jobs = [{"job_name": "daemon", "static_configs": [{"targets": [f"127.0.0.1:{port}"]}]},
            {"job_name": "web", "static_configs": [{"targets": [f"127.0.0.1:{page.port}"]}], "authorization": {"credentials": page.token}}]
    found = Prometheus(jobs, PROJECT / "packaging/prometheus/alerts.yml")
    try:
        wait_until(found.is_up, "both to be scraped", 60)
        store.fill(*[web.packet(b"Shop", b"WebAction/a", 30 + i, database_ms=10) for i in range(8)],
                   web.packet(b"Shop", b"WebAction/b", 700, error=(500, b"E", b"m", b"[]")), web.packet(ODD, ODD, 5))
        count = lambda: found.values("sum by (job) (quorbit_requests_total)", "job")
        wait_until(lambda: count() == {("daemon",): 10, ("web",): 10}, "ten requests in both", 60)
        yield found
    finally:
        found.close()


def test_a_prometheus_says_what_top_says(store, prometheus):
    top = store.command("top", "--json", "--since", "1h")["rows"]
    assert len(top) == 3
    for job in "daemon", "web":
        of_action = lambda query: {labels: value for labels, value in prometheus.values(
            query.replace("JOB", f'job="{job}"'), "application", "action").items()}
        expected = {(row["application"], row["name"]): row for row in top}
        counts = of_action("quorbit_action_duration_seconds_count{JOB}")
        assert sorted(counts.values()) == sorted(row["count"] for row in top)
        for labels in ("Shop", "WebAction/a"), ("Shop", "WebAction/b"):
            row = expected[labels]
            assert counts[labels] == row["count"]
            assert of_action("quorbit_action_errors_total{JOB}")[labels] == row["errors"]
            assert of_action("quorbit_action_duration_seconds_sum{JOB}")[labels] == pytest.approx(row["total_us"] / 1e6)
            assert of_action('quorbit_action_layer_seconds_total{layer="database", JOB}')[labels] == pytest.approx(row["database_us"] / 1e6)
        below = prometheus.values(f'quorbit_action_duration_seconds_bucket{{job="{job}", action="WebAction/a"}}', "le")
        assert (below[("0.025",)], below[("0.05",)], below[("+Inf",)]) == (0, 8, 8)
    assert prometheus.values("quorbit_daemon_up", "job") == {("daemon",): 1, ("web",): 1}
    assert prometheus.values("quorbit_packets_total", "job") == {("daemon",): 10, ("web",): 10}
    assert set(prometheus.values("quorbit_backlog_packets", "job")) == {("daemon",)}


def test_promtool_finds_nothing_to_say(prometheus, page):
    status, headers, text = page.ask("/metrics")
    assert (status, headers["content-type"]) == (200, "text/plain; version=0.0.4; charset=utf-8")
    done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, timeout=60)
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
    done = subprocess.run(["promtool", "check", "rules", PROJECT / "packaging/prometheus/alerts.yml"], capture_output=True, timeout=60)
    assert done.returncode == 0, done.stdout
    _, headers, text = page.ask("/metrics", Accept="application/openmetrics-text;version=1.0.0,text/plain;q=0.5")
    assert headers["content-type"].startswith("application/openmetrics-text") and text.endswith(b"\n# EOF\n")


def test_every_expression_of_the_dashboard_and_the_alerts_can_be_evaluated(prometheus):
    dashboard = json.loads((PROJECT / "packaging/prometheus/dashboard.json").read_text())
    queries = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
    assert len(queries) > 15
    known = prometheus.ask("label/__name__/values")
    for query in queries:
        query = query.replace("$__rate_interval", "1m").replace("$instance", ".*").replace("$application", ".*")
        prometheus.ask("query", query=query)
        assert set(re.findall(r"quorbit_\w+", query)) - set(known) <= {"quorbit_packets_dropped_total", "quorbit_export_behind_seconds"}, query
    evaluated = lambda: [rule["health"] for group in prometheus.ask("rules")["groups"] for rule in group["rules"]]
    wait_until(lambda: evaluated() == ["ok"] * 5, "the rules to be evaluated", 60)


def test_only_who_may_is_told(page, prometheus, store):
    assert page.ask("/metrics", token=False)[0] == 401
    port = re.search(r":(\d+)", (store.folder / "applications.conf").read_text())[1]
    for path, host, status in ("/metrics", "127.0.0.1", 200), ("/", "127.0.0.1", 404), ("/metrics", "elsewhere.example", 421):
        request = urllib.request.Request(f"http://127.0.0.1:{port}{path}", headers={"Host": f"{host}:{port}"})
        try:
            assert urllib.request.urlopen(request, timeout=30).status == status
        except urllib.error.HTTPError as error:
            assert error.code == status
