"""The details record: what the packet's other records round off, cut or leave out, for a daemon that asks."""
import os
import time

import pytest

from support import engines, wire

ASKED = {"zqs.details": "1"}
MANY = """function find($db, $i) {
    return $db->query("SELECT $i");
}
$db = new PDO('sqlite::memory:');
$begin = microtime(true);
for ($i = 0; $i < 800; $i++) find($db, $i);
header('X-Took: ' . (int) ((microtime(true) - $begin) * 1e6));
$db->exec('SELECT 1');"""


def test_quick_statements_are_added_up_before_they_are_cut(site):
    site.daemon.configure(ASKED)
    result = site.cgi(MANY, "/index.php?q=1", differs={"headers"}, headers={"Host": "shop.test"})
    metric, more, took = result.metric, result.metric.more, int(dict(result.headers)["X-Took"])
    assert more["statements"] == len(metric.sql) == 801
    assert 0 < more["db_us"] < took + 1000 and more["duration_us"] // 1000 == metric.duration_ms
    assert more["db_us"] - metric.db_ms * 1000 >= 0
    file = str(site.docroot / "index.php")
    assert more["places"] == [("SQLite", file, 2), ("SQLite", file, 8)]
    assert more["runs"] == [(800, 0), (1, 1)]
    assert (more["path"], more["method"], more["host"]) == (b"/index.php", b"GET", b"shop.test")
    assert more["script"] == file.encode() and more["output"] == len(result.body) and more["peak_memory"] >= 262144
    assert "exit_status" not in more


def test_every_line_of_many_has_its_place(site):
    site.daemon.configure(ASKED)
    more = site.cgi("$db = new PDO('sqlite::memory:');" + "\n$db->query('SELECT 1');" * 300).metric.more
    assert [line for _, _, line in more["places"]] == list(range(2, 302)) and more["runs"] == [(1, i) for i in range(300)]


def test_nobody_gets_details_who_does_not_ask(site):
    """The packet is the same with them but for the last record; a configuration that is new has to ask again."""
    kinds = []
    for settings, stamp in (({}, 1), (ASKED, 2), ({"zqs.details": "0"}, 3)):
        site.daemon.configure(settings, stamp)
        found = site.cgi(MANY, differs={"headers"}).metric.kinds
        kinds.append([kind for kind in found if kind != 0x2B])       # components that took no millisecond are not sent
    assert kinds[1] == kinds[0] + [0x60] and kinds[2] == kinds[0]


def test_a_workers_statements_have_the_vendor_of_their_own_connection(site):
    site.daemon.configure(ASKED)
    worker = """$db = new PDO('sqlite::memory:'); $s = $db->prepare('SELECT 1');
for ($i = 0; $i < 2; $i++) { vantor_start_webaction('job'); $s->execute(); $db->query('SELECT 2'); vantor_end_webaction(); } exit(3);"""
    result = site.cli(worker, twin=False)
    jobs = [metric for metric in result.metrics if metric.action == "WebAction/API/job"]
    assert len(jobs) == 2 and result.code == 3
    for metric in jobs:
        assert [place[0] for place in metric.more["ran_at"]] == ["SQLite"] * 2 and metric.more["statements"] == 2
    assert site.cli("exit(3);", twin=False).metric.more["exit_status"] == 3


CUT = """class Kunde\xfc {
    static function laden\xfc($db) {
        $db->query("SELECT slow(), 'M\xfcller'");
        foreach (array('none', "m\xfcller") as $name) { $c = curl_init('http://127.0.0.1/'); curl_setopt($c, CURLOPT_INTERFACE, $name); curl_exec($c); }
        vantor_notice_error(new Exception("Kunde M\xfcller"));
    }
    static function geht\xfc() { usleep(2000); exit; }
}
$db = new PDO('sqlite::memory:');
$db->sqliteCreateFunction('slow', function () { usleep(30000); return 1; });
register_shutdown_function(array("Kunde\xfc", "geht\xfc"));
Kunde\xfc::laden\xfc($db);"""


@pytest.mark.parametrize("mode", ["raw", "obfuscated"])
def test_texts_in_latin_1_arrive_whole(site, mode):
    site.daemon.configure({**ASKED, "zqs.action_tracer.action_threshold": "1", "zqs.action_tracer.slow_sql_threshold": "1",
                           "zqs.action_tracer.stack_trace_threshold": "1", "zqs.action_tracer.record_sql": mode})
    script = site.docroot / os.fsdecode(b"index\xfc.php")
    script.write_bytes(b"<?php " + CUT.encode("latin-1"))
    variables = engines.web_environment(script, "/index.php")
    metric = site.both("php-cgi", [], env=variables, web=True, twin=False).metric
    more, file = metric.more, os.fsencode(script)
    assert b"Kunde M\xfcller" in more["error_message"] and "M\xfcller" not in metric.error["message"]
    assert {b"PHP/Kunde\xfc/laden\xfc", b"PHP/Kunde\xfc/geht\xfc"} <= set(more["components"].values())
    assert list(more["call_messages"]) == [1] and b"m\xfcller" in more["call_messages"][1], metric.call_errors
    called = b"Kunde\xfc.laden\xfc(%s:12)" % file
    inner = [b"PDO.query(%s:3)", b"Exception(%s:5)", b"curl_exec(%s:4)", b"curl_exec(%s:4)"]
    assert more["frames"] == {(stack, frame): [inner[stack] % file, called][frame] for stack in range(4) for frame in range(2)}
    nodes = list(wire.nodes(metric.trace))
    whole = {(nodes[number][6], field): value for (number, field), value in more["trace_texts"].items()}
    assert whole[("laden", 1)] == b"Kunde\xfc" and whole[("laden", 2)] == b"laden\xfc"
    assert whole.get(("query", 3)) == (b"SELECT slow(), 'M\xfcller'" if mode == "raw" else None)      # masked, it is ASCII
    assert (whole[("query", 4)], whole[("query", 5)]) == (inner[0] % file, called)
    assert whole[("laden", 4)] == called and ("laden", 5) not in whole


def test_texts_of_a_record_are_bounded(site):
    site.daemon.configure({**ASKED, "zqs.action_tracer.action_threshold": "1", "zqs.action_tracer.record_sql": "raw"})
    kept = site.cgi("""$db = new PDO('sqlite::memory:'); $db->sqliteCreateFunction('slow', function () { usleep(2000); return 1; });
eval('function f' . ($long = str_repeat("\\xfc", 20000)) . '() { usleep(2000); }'); $call = "f$long"; $call();
for ($i = 0; $i < 20; $i++) $db->query("SELECT slow(), '\\xfc" . str_repeat('x', 9000) . "'");""", twin=False).metric.more["trace_texts"]
    lengths = [len(text) for text in kept.values()]
    assert max(lengths) == 16384 and 100000 < sum(lengths) <= 131072


@pytest.mark.parametrize("back_us, form", [(250000, "t=%.6f"), (250000, "t=%d")])
def test_the_time_in_front_of_php_is_taken_from_the_wall_clock(site, back_us, form):
    site.daemon.configure(ASKED)
    stamp = form % (time.time() - back_us / 1e6 if "f" in form else time.time() * 1e6 - back_us)
    assert back_us <= site.cgi("", headers={"X-Queue-Start": stamp}).metric.more["waited_us"] < 60e6
    assert "waited_us" not in site.cgi("", headers={"X-Queue-Start": "t=12345"}).metric.more


def test_each_statement_has_the_place_and_vendor_of_its_own_call(site, mariadb):
    """Also when one call of the script runs for two connections."""
    site.daemon.configure(ASKED)
    script = f"""function ask($db) {{ return $db->query('SELECT 1'); }}
function run($db) {{ $s = $db->prepare('SELECT 1'); return $s->execute(); }}
$db = new PDO('sqlite::memory:'); $other = new PDO('mysql:unix_socket={mariadb.socket}', 'root');
foreach (array($db, $other, $db) as $each) {{ ask($each); run($each); }}
ask($db); ask($db); array_map('ask', array($other));
$long = str_repeat('$a = 1;', 70);      // the engine uses the memory of such code again
foreach (array("  \\n", " \\n\\n", "\\n\\n\\n") as $lines) eval($lines . '$db->query("SELECT 1");' . $long);"""
    ran_at = [(vendor, line) for vendor, _, line in site.cgi(script, twin=False).metric.more["ran_at"]]
    called = [("SQLite", 1), ("SQLite", 2), ("MySQL", 1), ("MySQL", 2), ("SQLite", 1), ("SQLite", 2)]
    assert ran_at == called + [("SQLite", 1), ("SQLite", 1), ("MySQL", 1), ("SQLite", 2), ("SQLite", 3), ("SQLite", 4)]


LAYER = """<?php
class Db { function __construct($pdo) { $this->pdo = $pdo; }
  function query($sql) { return $this->pdo->query($sql); }
  function row($sql) { return $this->query($sql)->fetch(); } }
function ask($sql) { global $db; return $db->pdo->query($sql); }
function one($sql) { return ask($sql); }
function deep($levels) { return $levels ? deep($levels - 1) : ask('SELECT 1'); }"""


def test_each_statement_names_who_called_the_code_that_runs_it(site):
    """The first of another class or, without classes, of another file; a database layer runs all of them on one line."""
    site.daemon.configure(ASKED)
    (site.docroot / "layer.php").write_text(LAYER)
    (site.docroot / "page.php").write_text("<?php\n$db->row('SELECT 1');\n$db->pdo->query('SELECT 1');")
    script = """require 'layer.php'; class Model {
  static function find($db) { return $db->row('SELECT 1'); } }
function title() { return one('SELECT 1'); }
$db = new Db(new PDO('sqlite::memory:'));
for ($i = 0; $i < 3; $i++) { $db->query('SELECT 1');
  $db->row('SELECT 1'); }
Model::find($db);
title(); array_map('one', array('SELECT 1'));
deep(12); deep(20);
include 'page.php'; $db->row('SELECT 1');"""
    more = site.cgi(script, twin=False).metric.more
    layer, index, page = (str(site.docroot / name) for name in ("layer.php", "index.php", "page.php"))
    assert [(file, line) for _, file, line in more["ran_at"]] == [(layer, 3)] * 7 + [(layer, 5)] * 4 + [(layer, 3), (page, 3), (layer, 3)]
    assert more["called_from"] == [(index, 5), (index, 6)] * 3 + [(index, 2), (index, 3), (index, 8), (index, 9), None, (page, 2), None,
                                                                   (index, 10)]
