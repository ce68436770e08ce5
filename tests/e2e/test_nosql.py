"""Caches and document stores: each client's calls as one total per operation, in agreement with all else a packet says."""
import json
import threading

import pytest

from support.cases import cases, program
from support.engines import ENGINE, SCRIPTS

CALLEE = {"zqs.vantorIdSecret": "12|34", "zqs.action_tracer.enabled": "0"}
CALLER = {"X-Vantor-Id": "12|99;c=1;x=abc123"}
PRODUCTS = {"rds": "Redis", "mc": "Memcached", "mon": "MongoDB"}


def check_sums(result):
    """Rows, their sums, components and remainder account for every millisecond, and the answer to a caller says the same. A row adds
    up what is cut off each call's time, and what is compiled within a call counts there as well: where nothing remains, that can be more
    than the page's own milliseconds."""
    metric = result.metric
    sums = {}
    for product, _, _, ms in metric.nosql:
        sums[product] = sums.get(product, 0) + ms
    assert metric.nosql_sums == {product: ms for product, ms in sums.items() if ms}
    own = sum(own for _, own in metric.components.values())
    over = own + sum(sums.values()) - metric.duration_ms
    compiled, _ = metric.components.get("PHP/NULL/compile", (0, 0))
    assert 0 <= over <= len(metric.nosql) + compiled and (not over or "PHP/NULL/remainder code" not in metric.components) and metric.db_ms == 0
    answer, = [json.loads(value) for name, value in result.headers if name.lower() == "x-vantor-tx-data"]
    time = answer["time"]
    assert {PRODUCTS[item]: time[item] for item in PRODUCTS if item in time} == metric.nosql_sums
    assert time["code"] == time["duration"] - sum(metric.nosql_sums.values())


def check_rows(metric, expected):
    """`expected`: "Product: collection/OPERATION=milliseconds, ..." that a row at least has; without any it has next to none."""
    found = {row[:3]: row[3] for row in metric.nosql}
    assert len(found) == len(metric.nosql)
    product, _, rows = (expected or "").partition(": ")
    least = {}
    for row in filter(None, rows.split(", ")):
        name, _, ms = row.partition("=")
        collection, _, operation = name.rpartition("/")
        least[product, collection, operation] = int(ms or 0)
    assert set(found) == set(least)
    for row, ms in least.items():
        assert ms <= found[row] <= metric.duration_ms, row
    return found


def check(site, code, expected, ini, server=None):
    """One request by a monitored caller, whose answer's header is the one thing that the twin does not have."""
    ini = {**ini, "output_buffering": "65536"}               # the answer goes out with the page, at its end
    code = code.replace("$SOCKET", str(server and server.socket)).replace("$FIXTURES", str(SCRIPTS))
    result = site.cgi(code + "\nusleep(20000);", headers=CALLER, ini=ini, differs=["headers"], settings=CALLEE)
    check_rows(result.metric, expected)
    check_sums(result)


@pytest.mark.parametrize("code, expected", cases("nosql/doubled.php"))
def test_operations_are_summed(site, doubles, code, expected):
    check(site, code, expected, doubles)


@pytest.mark.parametrize("code, expected", cases("nosql/redis.php"))
def test_redis(site, redis, phpredis, code, expected):
    check(site, code, expected, phpredis, redis)


@pytest.mark.parametrize("code, expected", cases("nosql/libraries.php"))
def test_libraries(site, redis, code, expected):
    check(site, code, expected, {}, redis)


def test_redis_cluster(site, cluster, phpredis):
    check(site, program("nosql/cluster.php").replace("$PORT", str(cluster.port)), "Redis: SET, GET", phpredis)


def test_time_in_a_store_is_not_the_components_own(site, doubles):
    """And a slow call is in the trace like any other, while the statements' total has nothing of it."""
    site.daemon.configure({"zqs.action_tracer.action_threshold": "1"})
    metric = site.cgi(program("nosql/page.php"), ini=doubles).metric
    total, own = metric.components["PHP/NULL/page"]
    assert 0 <= metric.nosql_sums["Memcached"] - (total - own) <= 2, "each call's whole milliseconds"
    assert total - own >= 60 and own >= 5
    assert json.dumps(metric.trace).count('"Memcached", "get"') == 3


def test_server_that_dies_during_a_call(site, mortal_redis, phpredis):
    """The script meets its exception as without the agent; the time until then counts."""
    script = site.script(program("nosql/dying.php").replace("$SOCKET", str(mortal_redis.socket)), "job.php")

    def kill_when_blocked():
        while "blocked_clients:1" not in mortal_redis.ask("INFO", "clients"):
            threading.Event().wait(0.02)
        threading.Event().wait(0.1)
        mortal_redis.process.kill()

    def request(agent):
        killer = threading.Thread(target=kill_when_blocked)
        killer.start()
        result = site.run([ENGINE / "bin/php", "-c", site.ini_file(agent, phpredis), "-f", script])
        killer.join()
        mortal_redis.process.wait()
        return result

    site.daemon.forget()
    result = request(True)
    metric, = site.daemon.wait_metrics()
    mortal_redis.start()
    result.check_twin(request(False), ())
    found = check_rows(metric, "Redis: CONNECT, BLPOP=90, GET")
    assert result.body == b"read error on connection"


def test_only_the_first_call_of_an_operation_takes_memory(site, doubles):
    """Both runs print the same, so no later call may keep anything; and a worker's many collections end somewhere."""
    site.daemon.configure({"zqs.action_tracer.enabled": "0"})      # a call that the machine delays would enter the trace
    assert len(site.cgi(program("nosql/many.php"), ini=doubles).metric.nosql) == 3
    code = '$m = new MongoDB\\Driver\\Manager; for ($i = 0; $i < 6000; $i++) $m->executeQuery("db.c$i");'
    rows = site.cgi(code, ini=doubles).metric.nosql
    assert len(rows) == 4097 and rows[-1][:3] == ("MongoDB", "", "")
