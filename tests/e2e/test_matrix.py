"""Each server that PHP 5.6 runs in, as operators set it up, alone and beside the neighbours that hook the engine as well. The table of
docs/install.md names these pairs."""
import json
from pathlib import Path

import pytest

from soak.scenarios import NEIGHBOURS
from support.engines import AGENT, Apache, ApacheWorker, BuiltIn, FastCgi, Fpm


def variant(kind, **attributes):
    return type(kind.__name__, (kind,), attributes)


SERVERS = {"FPM static": Fpm, "FPM dynamic": variant(Fpm, manager="dynamic"), "FPM ondemand": variant(Fpm, manager="ondemand"),
           "CGI": FastCgi, "built-in": BuiltIn, "prefork": variant(Apache, mpm="prefork"), "worker": ApacheWorker, "event": Apache,
           "event, 256 KiB": variant(Apache, stack_kib=256), "event, 8 MiB": variant(Apache, stack_kib=8192)}
# Code that nests, calls back and leaves by an exception.
PAGE = """function deep($n) { return $n ? deep($n - 1) : strlen(implode(array_map('strtoupper', str_split('bottom')))); }
function fails() { usleep(15000); throw new DomainException('none'); }
try { call_user_func('fails'); } catch (DomainException $e) { echo get_class($e); }
echo deep(80), ' ', memory_get_usage() > 0;"""


@pytest.mark.parametrize("crowded", [False, True], ids=["alone", "opcache, Xdebug, jemalloc"])
@pytest.mark.parametrize("server", SERVERS)
def test_pages_are_reported_and_unchanged(site, server, crowded):
    site.daemon.configure({"zqs.action_tracer.action_threshold": "10"})
    ini, options = {}, {}
    if crowded:
        ini = {**NEIGHBOURS, "load": ["zend_extension=opcache.so", AGENT, "zend_extension=xdebug.so"]}
        options = {"env": {"LD_PRELOAD": next(Path("/usr/lib").glob("*/libjemalloc.so.2"))}}
    pair = site.serve(SERVERS[server], ini, **options)
    for _ in range(3):
        result = pair.get(PAGE)
        assert (result.status, result.body) == (200, b"DomainException6 1")
        assert all(name in json.dumps(result.metric.trace) for name in ("fails", "usleep"))
