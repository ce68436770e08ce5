"""Many requests, many processes, many threads: every stream of bytes belongs to one of them and is complete."""
import pytest

from support import wire
from support.cases import program
from support.engines import Apache, BuiltIn, FastCgi, Fpm, at_once

CODE = program("greeting.php")


def meet(site, server, count):
    """So many requests that run side by side."""
    folder = site.docroot / "gate"
    folder.mkdir(exist_ok=True)
    folder.chmod(0o777)
    for file in folder.iterdir():
        file.unlink()
    script = site.script(program("gate.php"), "gate.php")
    pages = at_once(count, lambda i: server.agent.request(script, f"/gate.php?count={count}"))
    assert {page.body for page in pages} == {b"page 1"}


@pytest.mark.parametrize("kind", [FastCgi, BuiltIn])
def test_requests_of_one_process_share_a_connection(site, kind):
    server = site.serve(kind)
    asked = [len(server.get(CODE, f"/shop/{name}.php?n=1").queries) for name in ("a", "b", "c")]
    assert asked == [1, 0, 0]
    assert len([c for c in site.daemon.connections if c.packets]) == 1


def test_one_request_leaves_nothing_to_the_next(site):
    """Names, parameters, components and vendors are those of the request itself, also after an exit or a fatal error."""
    site.daemon.configure({"zqs.capture_params": "1"})
    server = site.serve(FastCgi, {"pdo.dsn.alias": "sqlite::memory:"})     # a name that tells no vendor
    server.get("new PDO('sqlite::memory:'); function one() { usleep(2000); exit; } one();", "/one.php?a=1")
    server.get("function two() { usleep(2000); nope(); } two();", "/two.php?b=1")
    code = "$db = new PDO('alias'); $db->query('SELECT 1'); function three() { usleep(2000); } three();"
    metric = server.get(code, "/three.php").metric
    assert (metric.action, metric.params, metric.sql[0].db) == ("WebAction/URI/three.php", [], "")
    assert {name for name in metric.components if name.count("/") == 2} - {"PHP/NULL/compile", "PHP/NULL/remainder code"} == \
        {"PHP/NULL/three"}


@pytest.mark.parametrize("kind, count, processes", [(Fpm, Fpm.children, Fpm.children), (Apache, 10, 1)])
def test_children_and_threads_have_sockets_of_their_own(site, kind, count, processes):
    server = site.serve(kind)
    server.get(CODE)
    site.daemon.forget()
    for _ in range(3):
        meet(site, server, count)
    site.daemon.wait_metrics(3 * count)
    speakers = [c for c in site.daemon.connections if c.packets]
    pids = {c.pid for c in speakers}
    assert len(pids) == processes and server.agent.process.pid not in pids
    told = [[m.details["threadName"] for m in site.daemon.received(wire.Metric, [c])] for c in speakers]
    assert [set(names) for names in told] == [{f"pid-{c.pid}"} for c in speakers]
    assert len(told) >= count and all(len(names) <= 3 for names in told), "so many at once, three times"
