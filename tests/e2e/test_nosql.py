"""Caches and document stores: each client's calls as one total per operation, in agreement with all else a packet says."""
import json
import threading

import pytest

from engines import ENGINE, PROJECT
from stores import cluster, mortal_redis, phpredis, redis  # noqa: F401 (fixtures)

PREDIS = "/usr/share/php/Predis"
YII = PROJECT / "tests/e2e/php/yii_redis.php"
CALLEE = {"zqs.vantorIdSecret": "12|34", "zqs.action_tracer.enabled": "0"}
CALLER = {"X-Vantor-Id": "12|99;c=1;x=abc123"}
PRODUCTS = {"rds": "Redis", "mc": "Memcached", "mon": "MongoDB"}


def check_sums(result):
    """Rows, their sums, components and remainder account for every millisecond, and the answer to a caller says the same."""
    metric = result.metric
    sums = {}
    for product, _, _, ms in metric.nosql:
        sums[product] = sums.get(product, 0) + ms
    assert metric.nosql_sums == {product: ms for product, ms in sums.items() if ms}
    own = sum(own for _, own in metric.components.values())
    assert own + sum(sums.values()) == metric.duration_ms and metric.db_ms == 0
    answers = [json.loads(value) for name, value in result.headers if name.lower() == "x-vantor-tx-data"]
    assert len(answers) == 1
    time = answers[0]["time"]
    assert {PRODUCTS[item]: time[item] for item in PRODUCTS if item in time} == metric.nosql_sums
    assert time["code"] == time["duration"] - sum(metric.nosql_sums.values())


def rows(metric):
    """{(product, collection, operation): ms}, each once."""
    found = {row[:3]: row[3] for row in metric.nosql}
    assert len(found) == len(metric.nosql)
    return found


def check_rows(result, expected):
    """`expected`: milliseconds that each row at least has; a row without any must have next to none."""
    found = rows(result.metric)
    assert set(found) == set(expected)
    for row, least in expected.items():
        assert least <= found[row] < least + 300, row


def call(site, code, extension):
    """One request by a monitored caller, whose answer's header is the one thing that the twin does not have."""
    site.daemon.configure(CALLEE)
    ini = {**extension, "output_buffering": "65536"}               # the answer goes out with the page, at its end
    return site.cgi(code + " usleep(20000);", headers=CALLER, ini=ini, differs=["headers"])


MEMCACHED = r"""
class Cache extends Memcache { function get() { return parent::get("slow:2") && parent::set("x"); } }
class Magic { function __construct($to) { $this->to = $to; }
              function __call($name, $all) { return call_user_func_array(array($this->to, $name), $all); } }
$c = new Memcached; $c->get("slow:12"); $c->get("slow:15"); $c->GETMULTI("a"); $c->getStats("slow:5"); $c->_get("slow:5");
$c = new Cache; $c->get();
$c = new MemcachePool; $c->deleteMultiByKey("slow:20"); @$c->set("slow:3 fail");
$m = new Magic($c); $m->get("slow:10");
try { array_map(array($c, "get"), array("slow:4 throw")); } catch (Exception $e) { echo $e->getMessage(); }
function job($c) { return $c->get("slow:6"); } job($c);
"""
MONGO = r"""
class Orders extends MongoCollection { function __toString() { echo "never"; return "other"; } }
class Broken extends MongoCollection { function __construct() { } }
$o = new MongoCollection("shop.orders"); $o->find("slow:12"); $o->find("slow:5"); $o->FIND(); $o->insert(array());
$o->getName("slow:9");
$o = new Orders("shop.own"); $o->find("slow:7");
foreach (array("throw", "fail") as $name) { $o = new MongoCollection($name); $o->find("slow:5"); }
try { $o = new MongoCollection("shop.gone"); $o->insert("slow:4 throw"); } catch (Exception $e) { echo $e->getCode(); }
$o = new Broken; $o->find();
$d = new MongoDB("shop"); $d->execute("slow:11"); $d->command("slow:3");
$m = new MongoDB\Driver\Manager;
$m->executeQuery("shop.orders", "slow:8"); $m->ExecuteBulkWrite("shop.orders"); $m->executeCommand("shop");
$m->executeQuery(17); $m->executeCommand(); $m->executeQuery(null, "slow:4"); $m->getServers("slow:3");
"""
DOUBLED = {
    "Memcached": (MEMCACHED, {"GET": 49, "SET": 3, "GETMULTI": 0, "DELETEMULTIBYKEY": 20}),
    "MongoDB": (MONGO, {"shop.orders\nFIND": 17, "shop.orders\nINSERT": 0, "shop.own\nFIND": 7, "shop.gone\nINSERT": 4,
                        "\nFIND": 0, "shop\nSCRIPT": 11, "shop.orders\nexecuteQuery": 8, "shop.orders\nexecuteBulkWrite": 0,
                        "shop\nexecuteCommand": 0}),
}


@pytest.mark.parametrize("product", DOUBLED)
def test_operations_are_summed(site, doubles, product):
    code, expected = DOUBLED[product]
    result = call(site, code, doubles)
    check_rows(result, {(product, *("\n" + key).split("\n")[-2:]): ms for key, ms in expected.items()})
    check_sums(result)


def test_time_in_a_store_is_not_the_components_own(site, doubles):
    """And a slow call is in the trace like any other, while the statements' total has nothing of it."""
    site.daemon.configure({"zqs.action_tracer.action_threshold": "1"})
    code = 'function page() { usleep(5000); $c = new Memcached; for ($i = 0; $i < 3; $i++) $c->get("slow:20"); } page();'
    metric = site.cgi(code, ini=doubles).metric
    total, own = metric.components["PHP/NULL/page"]
    assert 0 <= metric.nosql_sums["Memcached"] - (total - own) <= 2, "each call's whole milliseconds"
    assert total - own >= 60 and own >= 5
    assert json.dumps(metric.trace).count('"Memcached", "get"') == 3


CONNECT = '$r = new Redis; $r->connect("SOCKET"); '
PREDIS_CLIENT = 'new Predis\\Client(array("scheme" => "unix", "path" => "SOCKET"))'
# what: (script, rows besides CONNECT); BLPOP of an empty list waits its second
REDIS = {
    "methods": (CONNECT + '$r->set("k", "v"); echo $r->get("k"), $r->get("none"); $r->hMSet("h", array("a" => 1)); '
                'print_r($r->hGetAll("h")); echo $r->_prefix("x");', "CONNECT SET GET HMSET HGETALL"),
    "blocking": (CONNECT + 'var_dump($r->blPop(array("empty"), 1));', {"CONNECT": 0, "BLPOP": 1000}),
    "a block": (CONNECT + 'print_r($r->multi()->set("k", 1)->incr("k")->exec());', "CONNECT MULTI SET INCR EXEC"),
    "a pipeline": (CONNECT + '$p = $r->pipeline(); for ($i = 0; $i < 100; $i++) $p->set("k", $i); echo count($p->exec());',
                   "CONNECT PIPELINE SET EXEC"),
    "a subclass": ('class Store extends Redis { function get($k) { return parent::get($k); } } '
                   '$r = new Store; $r->connect("SOCKET"); $r->get("k");', "CONNECT GET"),
    "through __call": (CONNECT + 'class Lazy { function __call($n, $a) { return call_user_func_array(array($GLOBALS["r"], $n), $a); } } '
                       '$l = new Lazy; $l->get("k"); $l->hSet("h", "f", 1); $f = function () use ($r) { $r->del("k"); }; $f();',
                       "CONNECT GET HSET DEL"),
    "several servers": ('$a = new RedisArray(array("SOCKET")); $a->set("k", 1); echo $a->get("k"), $a->_target("k");',
                        "SET GET"),
    "other casing": (CONNECT + '$r->GET("k"); $r->Del("h");', "CONNECT GET DEL"),
    "an error": (CONNECT + '$r->del("k"); $r->rPush("k", 1); var_dump($r->incr("k")); echo $r->getLastError(); $r->del("k");',
                 "CONNECT DEL RPUSH INCR GETLASTERROR"),
    "nothing there": ('$r = new Redis; try { $r->connect("SOCKET.gone"); } catch (RedisException $e) { } '
                      'try { $r->get("k"); } catch (RedisException $e) { echo $e->getMessage(); }', "CONNECT GET"),
}


@pytest.mark.parametrize("what", REDIS)
def test_redis(site, redis, phpredis, what):
    code, expected = REDIS[what]
    expected = dict.fromkeys(expected.split(), 0) if isinstance(expected, str) else expected
    result = call(site, code.replace("SOCKET", str(redis.socket)), phpredis)
    check_rows(result, {("Redis", "", operation): least for operation, least in expected.items()})
    check_sums(result)


def test_redis_cluster(site, cluster, phpredis):
    code = (f'$c = new RedisCluster(null, array("127.0.0.1:{cluster.port}")); '
            '$c->set("k", "v"); echo $c->get("k"), $c->_prefix("");')
    check_rows(call(site, code, phpredis), {("Redis", "", "SET"): 0, ("Redis", "", "GET"): 0})


PREDIS_CALLS = r"""
$c = CLIENT; $c->set("k", "v"); $c->SET("k", "v"); echo $c->get("k");
try { $c->_hidden(); } catch (Exception $e) { echo $e->getMessage(); }
$c->pipeline(function ($p) { for ($i = 0; $i < 10; $i++) $p->incrby("n", 2); });
$c->transaction(function ($t) { $t->hset("h", "f", 1); $t->hgetall("h"); });
echo $c->blpop("empty", 1); $c->del("n", "h");
"""


@pytest.mark.parametrize("load", [f'require "{PREDIS}/Autoloader.php"; Predis\\Autoloader::register();',
                                  f'require "{PREDIS}/autoload.php";'], ids=["autoloader", "client"])
def test_predis(site, redis, load):
    code = load + PREDIS_CALLS.replace("CLIENT", PREDIS_CLIENT).replace("SOCKET", str(redis.socket))
    result = call(site, code, {})
    expected = dict.fromkeys("SET GET INCRBY HSET HGETALL DEL".split(), 0)
    check_rows(result, {("Redis", "", operation): least for operation, least in {**expected, "BLPOP": 1000}.items()})
    check_sums(result)


def test_predis_shares_its_rows_with_the_extension(site, redis, phpredis):
    code = (f'require "{PREDIS}/autoload.php"; $c = {PREDIS_CLIENT}; {CONNECT} $c->set("k", 1); $c->get("k"); $r->get("k");')
    result = call(site, code.replace("SOCKET", str(redis.socket)), phpredis)
    check_rows(result, {("Redis", "", operation): 0 for operation in "CONNECT SET GET".split()})


def test_yii_commands_are_kept_as_they_are_written(site, redis):
    commands = (f'require "{YII}"; $c = new yii\\redis\\Connection(array("unixSocket" => "{redis.socket}")); $c->set("k", 1); '
                'echo $c->get("k"), $c->executeCommand("get", array("k")); $c->executeCommand("CONFIG GET", array("port")); '
                'foreach (array("", "nonsense") as $n) try { $c->executeCommand($n); } catch (Exception $e) { echo "refused"; } ')
    used = commands.replace("$c =", "new yii\\base\\Application; $c =")
    result = call(site, used, {})
    check_rows(result, {("Redis", "", name): 0 for name in ("SET", "GET", "get", "CONFIG GET", "nonsense")})
    check_sums(result)
    assert call(site, commands, {}).metric.nosql == [], "without the framework it is somebody else's class"


def test_server_that_dies_during_a_call(site, mortal_redis, phpredis):
    """The script meets its exception as without the agent; the time until then counts."""
    code = CONNECT + 'try { $r->blPop(array("empty"), 20); } catch (RedisException $e) { echo $e->getMessage(); } ' \
        '$r->get("k");'
    code = code.replace("SOCKET", str(mortal_redis.socket))

    def request(agent):
        def kill_when_blocked():
            while "blocked_clients:1" not in mortal_redis.ask("INFO", "clients"):
                threading.Event().wait(0.02)
            threading.Event().wait(0.1)
            mortal_redis.process.kill()
        killer = threading.Thread(target=kill_when_blocked)
        killer.start()
        result = site.run([ENGINE / "bin/php", "-c", site.ini_file(agent, phpredis), "-f", site.script(code, "job.php")])
        killer.join()
        mortal_redis.process.wait()
        return result

    site.daemon.forget()
    result = request(True)
    site.daemon.settle()
    result.metrics = site.daemon.wait_metrics()
    mortal_redis.start()
    result.check_twin(request(False), ())
    found = rows(result.metric)
    assert set(found) == {("Redis", "", name) for name in ("CONNECT", "BLPOP", "GET")}
    assert 90 <= found["Redis", "", "BLPOP"] <= result.metric.duration_ms
    assert result.body == b"read error on connection"


def test_only_the_first_call_of_an_operation_takes_memory(site, doubles):
    """Both runs print the same, so none of 20,000 calls may keep anything; and a worker's many collections end somewhere."""
    site.daemon.configure({"zqs.action_tracer.enabled": "0"})      # a call that the machine delays would enter the trace
    code = ('$c = new Memcached; $m = new MongoCollection("a.b"); $c->get("k"); $c->set("k"); $m->find(); $i = 0; '
            '$before = memory_get_usage(); for (; $i < 20000; $i++) { $c->get("k"); $c->set("k"); $m->find(); } '
            'echo memory_get_usage() - $before;')
    metric = site.cgi(code, ini=doubles).metric
    assert len(metric.nosql) == 3
    code = '$m = new MongoDB\\Driver\\Manager; for ($i = 0; $i < 6000; $i++) $m->executeQuery("db.c$i");'
    metric = site.cgi(code, ini=doubles).metric
    assert len(metric.nosql) == 4097 and metric.nosql[-1][:3] == ("MongoDB", "", "")
