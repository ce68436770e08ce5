"""Questions that span actions: what real requests add up to, by each command that asks."""
import json
import signal
import subprocess

import pytest

from support.fake_daemon import wait_until
from support.local_daemon import QUORBIT

CODE = """$db = new PDO('sqlite::memory:'); $db->exec('CREATE TABLE t (a)');
for ($i = 0; $i < 5; $i++) { $db->query("SELECT a FROM t WHERE a = $i"); }
@$db->query('SELEC 1');"""


def rows(real, *words):
    return json.loads(real.command(*words, "--json"))["rows"]


def run(real, *words):
    return subprocess.run([QUORBIT, *words, "--root", real.site.root], capture_output=True, text=True, timeout=60)


def test_statements_errors_and_their_actions_are_summed_up(real):
    for _ in range(2):
        real.php(CODE)
    real.reports(2)
    action, = rows(real, "top")
    newest = real.shown()[0]
    assert (action["count"], action["errors"], action["newest_id"]) == (2, 2, newest["id"])
    query = next(row for row in rows(real, "queries", "--sort", "count") if row["table"] == "t" and row["verb"] == "SELECT")
    assert (query["name"], query["count"]) == ("SELECT a FROM t WHERE a = ?", 10)
    assert query["place"].endswith("job.php:2") and (query["actions"][0]["count"], query["actions"][0]["statements"]) == (2, 10)
    error, = rows(real, "errors")
    assert error["count"] == 2 and error["class"] == "DB_ERROR"
    assert "5 x in " in real.command("queries") and error["name"] in real.command("errors")
    for kind, row in ("query", query), ("error", error), ("action", action):
        told = json.loads(real.command("show", f"{kind}:{row['id']}", "--json"))
        assert told["count"] == row["count"] == sum(point["count"] for point in told["series"])
        assert f"quorbit show {newest['id']}" in real.command("show", f"{kind}:{row['id']}")
    assert real.command("top", "--by", "component", "--csv").startswith("id,application,name,count")
    assert len(real.command("show", "--errors", "--name", "*job*", "--slower-than", "0ms").splitlines()) == 3
    assert len(real.command("show", "--path", "/no").splitlines()) == 1


FLOOD = """function step() {} function page() { for ($i = 0; $i < 20; $i++) step(); }
for ($i = 0; $i < 3000; $i++) {
    vantor_start_webaction(strtr(base_convert($i, 10, 8), '01234567', 'abcdefgh')); page(); vantor_end_webaction();
}"""


def test_neither_a_profile_nor_a_flood_of_names_costs_an_action(real):
    real.php()
    real.reports(1)
    command = [QUORBIT, "profile", "Shop", "60s", "--format", "raw", "--root", real.site.root]
    with open(real.site.root / "profile", "w+") as output, subprocess.Popen(command, stdout=output) as profile:
        wait_until(lambda: "waits" in real.command("status"), "the order")
        wait_until(lambda: real.php() == b"" and "was started" in real.command("status"), "the profile to start")
        real.php(FLOOD, "flood.php")
        stored = lambda: json.loads(real.command("show", "--json", "-n", "10000"))
        wait_until(lambda: sum("/API/" in row["action"] for row in stored()) == 3000, "the flood")
        profile.send_signal(signal.SIGINT)
    assert (real.site.root / "profile").read_text().count("> step") == 60000
    ids = [row["id"] for row in stored()]
    assert ids == list(range(len(ids), 0, -1))
    wait_until(lambda: sum(row["count"] for row in rows(real, "top", "-n", "10000")) == len(ids), "the sums, names beyond the bound included")


@pytest.mark.parametrize("words, status, told", [
    (["top", "--by", "colour"], 2, "--help lists"), (["top", "--since", "2026-13-01"], 2, "a time such as"),
    (["show", "--slower-than", "5"], 2, "a duration such as"), (["show", "query:99"], 1, "there is no query:99"),
    (["compare", "9.9"], 1, 'no release "9.9" was marked; known: 1.0'), (["compare", "1.0"], 1, "less than a minute"),
    (["compare"], 1, "--before A..B"), (["compare", "--before", "1h..2h"], 2, "two times such as")])
def test_what_cannot_be_answered_is_said(real, words, status, told):
    real.php()
    real.reports(1)
    assert run(real, "mark", "1.0").returncode == 0
    done = run(real, *words)
    assert done.returncode == status and told in done.stderr and not done.stdout
