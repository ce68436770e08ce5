"""Many requests, many processes, many threads: every stream of bytes belongs to one of them and is whole."""
import subprocess
from collections import Counter

import pytest

import wire
from engines import ENGINE, Apache, BuiltIn, FastCgi, Fpm, at_once, php

FOLDER = subprocess.run([ENGINE / "bin/php-config", "--extension-dir"], capture_output=True, text=True).stdout.strip()
OPCACHE = {"zend_extension": f"{FOLDER}/opcache.so", "opcache.enable": "1", "opcache.memory_consumption": "16"}
CODE = php("greeting")


def meet(site, server, count):
    """So many requests that run side by side."""
    folder = site.docroot / "gate"
    folder.mkdir(exist_ok=True)
    folder.chmod(0o777)
    for file in folder.iterdir():
        file.unlink()
    script = site.script(php("gate"), "gate.php")
    pages = at_once(count, lambda i: server.agent.request(script, f"/gate.php?count={count}"))
    assert {page.body for page in pages} == {b"page 1"}


@pytest.mark.parametrize("kind", [FastCgi, BuiltIn])
def test_requests_of_one_process_share_a_connection(site, kind):
    server = site.serve(kind)
    asked = [len(server.get(CODE, f"/shop/{name}.php?n=1").queries) for name in ("a", "b", "c")]
    assert asked == [1, 0, 0]
    assert len([c for c in site.daemon.connections if c.packets]) == 1


def test_one_request_leaves_nothing_to_the_next(site):
    """Names, parameters and components are those of the request itself, also behind an exit or a fatal error."""
    site.daemon.configure({"zqs.capture_params": "1"})
    server = site.serve(FastCgi)
    server.get("function one() { usleep(2000); exit; } one();", "/one.php?a=1")
    server.get("function two() { usleep(2000); nope(); } two();", "/two.php?b=1")
    metric = server.get("function three() { usleep(2000); } three();", "/three.php").metric
    assert metric.action == "WebAction/URI/three.php" and metric.params == []
    assert {name for name in metric.components if name.count("/") == 2} - {"PHP/NULL/compile", "PHP/NULL/remainder code"} == \
        {"PHP/NULL/three"}


@pytest.mark.parametrize("ini", [{}, OPCACHE], ids=["plain", "opcache"])
def test_fpm_children_have_sockets_of_their_own(site, ini):
    server = site.serve(Fpm, ini)
    result = server.get(CODE)
    assert result.metric.details["httpStatus"] == "200"
    site.daemon.forget()
    for _ in range(3):
        meet(site, server, Fpm.children)
    found = site.daemon.wait_metrics(3 * Fpm.children)
    speakers = {c.pid: c for c in site.daemon.connections if c.packets}
    assert len(speakers) == Fpm.children and server.agent.process.pid not in speakers
    assert Counter(metric.details["threadName"] for metric in found) == Counter({f"pid-{pid}": 3 for pid in speakers})
    for pid, connection in speakers.items():
        assert {m.details["threadName"] for m in connection.packets if isinstance(m, wire.Metric)} == {f"pid-{pid}"}


@pytest.mark.parametrize("ini", [{}, OPCACHE], ids=["plain", "opcache"])
def test_apache_threads_have_sockets_of_their_own(site, ini):
    server, count = site.serve(Apache, ini), 10
    assert server.get(CODE, "/shop.php?a=1").metric.uri == "/shop.php"
    server.get('http_response_code(404); echo "gone";')
    site.daemon.forget()
    for _ in range(3):
        meet(site, server, count)
    site.daemon.wait_metrics(3 * count)
    speakers = [c for c in site.daemon.connections if c.packets]
    assert len({c.pid for c in speakers}) == 1 and sum(c.open for c in speakers) >= 8
    assert server.agent.process.pid not in {c.pid for c in speakers}


def test_forked_script_reports_twice(site):
    """Parent and children speak over connections of their own, and each tells of its run."""
    result = site.cli(php("fork"))
    assert len(result.metrics) == 4
    speakers = [c for c in site.daemon.connections if c.packets]
    assert len({c.pid for c in speakers}) == 4
    assert sorted(len(c.packets) for c in speakers) == [1, 1, 1, 2]      # the parent's has the query as well
