#!/usr/bin/python3
"""What the agent adds to a request, and to a call that it records: the record, its line of the packet and its release. In
instructions counted by callgrind.

A PHP loop makes calls of one kind under php-cgi with two counts of iterations, with the agent and without; the difference of
the differences, divided by that of the counts, is the price of one call. That of a request is the same with an empty page.
Once for a daemon that asks for nothing, once for one that asks for details, and once for one that has made a board as well.
Needs a finished build; Redis and a web server, the engine's own, are started privately."""
import subprocess

from instructions import count
from measure import PROJECT, engines

from support.board import make_board
from support.stores import Redis

SQLITE = """$db = new PDO('sqlite::memory:');
$db->exec('CREATE TABLE product (id INTEGER PRIMARY KEY, name TEXT, cents INTEGER, section INTEGER)');
$sql = 'SELECT name, cents FROM product WHERE section = ? AND name LIKE "a%" ORDER BY cents LIMIT 5';"""
# name: what comes before the loop, what is in it, by how many iterations the longer run is longer; and how many runs the least
# of is taken, where a call that took a millisecond, which callgrind's slowness makes of some, costs more than the others
CALLS = {
    "query, no two the same": (SQLITE, "$db->query(str_replace('?', $i, $sql));", 2000),
    "query, one statement": (SQLITE, "$db->query('SELECT 1');", 2000, 5),
    "prepare and execute": (SQLITE, "$db->prepare(str_replace('?', $i % 3, $sql))->execute();", 2000),
    "Redis get": ("$redis = new Redis; $redis->connect('{redis}'); $redis->set('key', 'value');", "$redis->get('key');", 2000),
    "curl_exec": ("$curl = curl_init('file://{file}'); curl_setopt($curl, CURLOPT_RETURNTRANSFER, true);", "curl_exec($curl);", 2000),
    "file_get_contents": ("", "file_get_contents('{url}?page=1');", 200),
}
FEW = 100
QUICK = {"zqs.action_tracer.action_threshold": "60000"}     # callgrind makes everything slow, and slow calls enter the trace


def added(more, instructions):
    """What the agent adds to one of `more` iterations beyond a few, by instructions(agent, iterations)."""
    few, many = ({agent: instructions(agent, iterations) for agent in (False, True)} for iterations in (FEW, FEW + more))
    return (many[True] - few[True] - many[False] + few[False]) / more


def added_to_call(site, servers, before, call, more, runs=1):
    for name, place in servers.items():
        before, call = (code.replace(f"{{{name}}}", place) for code in (before, call))
    script = site.script(f"function loop($n) {{ {before} for ($i = 0; $i < $n; $i++) {{ {call} }} }} loop((int) getenv('COUNT'));")
    load = {"extension": PROJECT / "build/extensions/redis.so", **QUICK}
    return added(more, lambda agent, calls: min(count(site.ini_file(agent, load), script, {"COUNT": str(calls)}) for _ in range(runs)))


def added_to_request(site, script):
    return added(200, lambda agent, requests: count(site.ini_file(agent), script, {}, "-T", str(requests)))


def measure(site, redis, empty):
    """(name, figure) of the request and of every kind of call."""
    server = engines.BuiltIn(site, site.ini_file(False), False)
    site.servers.append(server)
    server.start()
    servers = {"redis": str(redis.socket), "url": f"http://127.0.0.1:{server.port}/{empty.name}", "file": str(empty)}
    yield "empty request", added_to_request(site, empty)
    for name, kind in CALLS.items():
        yield name, added_to_call(site, servers, *kind)


def main():
    subprocess.run([PROJECT / "engine/extensions", "redis"], check=True)
    site, redis = engines.Site(), Redis()
    try:
        redis.prepare()
        redis.start()
        columns = []
        for asked, board in (("0", False), ("1", False), ("1", True)):
            site.daemon.configure({"zqs.details": asked})
            if board:
                make_board(site.logs)
            columns.append(list(measure(site, redis, site.script("", "empty.php"))))
        print("instructions added to" + " " * 11 + "alone with details   with board")
        for (name, alone), (_, detailed), (_, shown) in zip(*columns):
            print(f"{name:24}{alone:12.0f}{detailed:13.0f}  {(detailed / alone - 1) * 100:+.1f} %{shown:11.0f} {shown - detailed:+8.0f}", flush=True)
    finally:
        redis.stop()
        site.close()


if __name__ == "__main__":
    main()
