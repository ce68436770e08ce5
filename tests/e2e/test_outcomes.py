"""Which requests are monitored, and what decides it."""
import time

import pytest

from support import wire
from support.engines import FastCgi

SLOW = 'usleep(3000); echo "done";'
TRACED = {"zqs.action_tracer.action_threshold": "1"}


def meminfo(shim, total=1000, **figures):
    text = "".join(f"{key}: {value} kB\n" for key, value in {"MemTotal": total, **figures}.items())
    with open(shim["SHIM_MEMINFO"], "w") as file:
        file.write(text)
    return shim


@pytest.mark.parametrize("line, options", [
    ("agent disabled by ini", {"ini": {"zqs.agent_enabled": "0"}}),
    ("agent disabled by server", {"settings": {"zqs.agent_enabled": "false"}}),
    ("[/index.php] not in urls_captured, agent disabled", {"settings": {"zqs.urls_captured": "^/admin\n(\nindex\\.html$"}}),
    (None, {"settings": {"zqs.urls_captured": "(\n^/INDEX\n"}}),
    (None, {"ini": {"zqs.agent_enabled": "2"}}),
])
def test_web_requests(site, line, options):
    ini = {"zqs.agent_log_level": "VERBOSE", **options.pop("ini", {})}
    result = site.cgi('echo "done";', ini=ini, **options)
    assert result.monitored == (line is None)
    assert not line or line in site.log()
    assert len(result.queries) == (line != "agent disabled by ini")


@pytest.mark.parametrize("program, arguments, ini, action, line", [
    ("php", ["-f", "job.php"], {}, "BackgroundAction/Script/job.php", None),
    ("php", ["-f", "./a12/b3.php"], {}, "BackgroundAction/Script/.%2Fa*%2Fb3.php", None),
    ("php", ["-f", "job.php"], {"variables_order": "GPC"}, None, None),
    ("php", ["-r", "echo 1;"], {}, None, "agent disabled due to CLI and NO script"),
    ("php-cgi", ["-f", "job.php"], {}, None, "agent disabled due to NO uri"),
])
def test_runs_without_a_request(site, program, arguments, ini, action, line):
    site.script(SLOW, "job.php")
    site.script(SLOW, "a12/b3.php")
    site.daemon.configure({**TRACED, "zqs.transaction_tracer.enabled": "1"})
    result = site.both(program, arguments, ini={"zqs.agent_log_level": "VERBOSE", **ini})
    if line:
        assert line in site.log()
        assert (result.queries, result.metrics) == ([], [])
        return
    metric = result.metric
    assert metric.action == action
    assert (metric.uri, metric.details, metric.params, metric.tracer_id) == (None, {}, [], None)


@pytest.mark.parametrize("ini, drop, app", [
    ({"zqs.auto_app_naming": "0"}, (), "Shop"),
    ({"zqs.auto_app_naming": "1"}, (), "shop.test:81"),
    ({"zqs.auto_app_naming": "1"}, ("SERVER_PORT",), "shop.test"),
    ({"zqs.auto_app_naming": "1"}, ("SERVER_NAME",), "Shop"),
    ({"zqs.auto_app_naming": "2"}, (), "Shop:81"),
    ({"zqs.auto_app_naming": "2"}, ("SERVER_PORT",), "Shop"),
])
def test_application_names(site, ini, drop, app):
    result = site.cgi("", ini=ini, drop=drop)
    assert (result.metric.app, result.queries[0].app) == (app, app)


@pytest.mark.parametrize("stamp, expected", [
    ("t={early}", 250), ("s={early_s}", 250), ("t={late}", 0), ("x=5", "all"),
])
def test_queue_time(site, stamp, expected):
    """The queue's stamp is compared as it comes with the monotonic clock, in 32 bits."""
    now = int(time.monotonic() * 1000)
    early = now - 250
    value = stamp.format(early=early, early_s=f"{early // 1000}.{early % 1000:03}", late=now + 60000)
    block = site.cgi("", headers={"X-Queue-Start": value}).metric.block_ms
    later = int(time.monotonic() * 1000)
    if expected == "all":
        assert now <= block <= later if now < 2**31 else block >= 0
    elif expected:
        assert expected <= block <= expected + later - now
    else:
        assert block == 0


@pytest.mark.parametrize("figures, settings, monitored, traced", [
    ({"MemAvailable": 600}, {}, True, True),                               # 40 %, the low bound: nothing is shed yet
    ({"MemAvailable": 200}, {}, True, False),                              # 80 %, the high bound: no trace
    ({"MemAvailable": 50}, {}, False, False),                              # 95 %, the safe bound: nothing at all
    ({"MemAvailable": 50}, {"zqs.resource.enabled": "false"}, True, True),
    ({"MemFree": 100, "Inactive": 100}, {}, True, False),                  # a kernel without MemAvailable: free and inactive
    ({"MemFree": 500, "Inactive": 150}, {}, True, True),
    ({"MemAvailable": 900}, {"zqs.resource.used": "80"}, True, False),     # the daemon knows better
    ({"MemAvailable": 900}, {"zqs.resource.used": "95"}, False, False),
    ({"total": 0, "MemAvailable": 1}, {}, True, True),                     # unreadable
])
def test_load_shedding(site, shim, figures, settings, monitored, traced):
    site.daemon.configure({**TRACED, "zqs.resource.enabled": "true", **settings})
    result = site.cgi(SLOW, env=meminfo(shim, **figures))
    assert (result.monitored, result.monitored and result.metric.tracer_id is not None) == (monitored, traced)
    assert ("ERROR: read /proc/meminfo fail" in site.log()) == (figures.get("total") == 0)


def test_load_sheds_traces_by_chance_and_an_overload_lasts(site, shim):
    site.daemon.configure({**TRACED, "zqs.resource.enabled": "1", "zqs.resource.low": "0", "zqs.resource.high": "100",
                           "zqs.resource.safe": "95"})
    server = site.serve(FastCgi, env=meminfo(shim, MemAvailable=500))
    traced = [server.get(SLOW, twin=False).metric.tracer_id is not None for _ in range(40)]
    assert 4 < sum(traced) < 36                    # one half, give or take five standard deviations
    site.daemon.forget()
    for available in (10, 900):                    # the mark stays when the memory is free again
        meminfo(shim, MemAvailable=available)
        assert server.agent.request(site.docroot / "index.php", "/index.php").body == b"done"
    server.agent.stop()
    site.daemon.settle()
    assert not site.daemon.received(wire.Metric)


@pytest.mark.parametrize("ratio, inserted", [("0", False), ("1", True), ("2.5", True), ("none", False)])
def test_sampling_of_the_browser_script(site, ratio, inserted):
    site.daemon.configure({"zqs.rum.enabled": "1", "zqs.rum.script": "<script>f({})</script>", "zqs.rum.sample_ratio": ratio})
    result = site.cgi('echo "<html><head><title>t</title></head></html>";', differs=["body"] if inserted else [])
    assert (b"<script>f({" in result.body) == inserted
