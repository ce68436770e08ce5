"""Every kind of answer a daemon may give, what becomes of it, and what hostile ones cost."""
import random
import time

import pytest

from support.engines import SHIPPED, FastCgi
from support.fake_daemon import HANG_UP, PLAIN, SILENCE
from support.sockets import Slow
from support.wire import answer, record

URI = "/shop/list.php?page=3&tag=ab"
ALL_KEYS = {f"zqs.{key}": value for key, _, value in (line.partition("=") for line in """
    agent_enabled=TRUE auto_action_naming=0 urls_captured=shop capture_params=true ignored_params=tag naming.rules=[]
    web_action_uri_params_captured=/shop/list.php,page vantorIdSecret=12|34 transaction_tracer.enabled=true
    error_collector.enabled=true error_collector.record_db_errors=true error_collector.ignored_status_codes=404
    action_tracer.enabled=true action_tracer.action_threshold=1 action_tracer.stack_trace_threshold=1
    action_tracer.record_sql=obfuscated action_tracer.slow_sql=true action_tracer.slow_sql_threshold=1
    action_tracer.explain_enabled=true action_tracer.explain_threshold=1 rum.enabled=false rum.script= rum.sample_ratio=0.5
    resource.enabled=true resource.low=100 resource.high=101 resource.safe=102 resource.used=1""".split())}
PARAMS = {"zqs.capture_params": "1"}
SETTINGS = b"".join(record(0x0D, f"{key}={value}") for key, value in {**PLAIN, **PARAMS}.items())
STAMP = record(0x0C, b"\7" + bytes(7))
HOLDS = [("page", "3"), ("tag", "ab")]


def packet(*parts, length=None):
    body = b"".join(parts)
    return record(0x0A, body) if length is None else b"\x0a" + length.to_bytes(3, "big") + body


def held_up(site, blocked, *arguments, **options):
    """The result of a request that is held up by that many time-outs of 100 ms. A busy machine only ever adds to what a request
    takes: of up to nine tries the least counts, with the agent and without."""
    site.extension = SHIPPED if blocked else site.extension
    results = []
    while len(results) < 9:
        (site.logs / "php-agent.log").unlink(missing_ok=True)
        results.append(site.cgi(*arguments, **options))
        least = min(result.held_up_ms for result in results) - min(result.bare.held_up_ms for result in results)
        if len(results) >= 3 and round(least / 100) == blocked:
            break
    assert round(least / 100) == blocked, f"held up for {least} ms, not {blocked} times 100 ms"
    return results[-1]


def test_all_keys_take_effect(site):
    end = int(time.monotonic()) + 60
    unknown = {"zqs.new.key": "1", "": "", "x": ""}
    site.daemon.configure({**ALL_KEYS, "zqs.profile_end_time": str(end), **unknown}, 2**64 - 2, app_id="a1")
    result = site.cgi("function f() {} usleep(3000); f();", URI)
    metric = result.metric
    assert metric.params == [("page", "3")] and metric.action.startswith("WebAction/URI/shop%2Flist.php")
    assert metric.tracer_id and metric.transaction_id
    assert [event.name for event in result.events] == ["Web", "usleep", "usleep", "f", "f", "ok"]


@pytest.mark.parametrize("reply, params, opened, blocked, line", [
    # what a daemon should say
    pytest.param(packet(STAMP, record(0x10, "app-1"), SETTINGS), HOLDS, 1, 0, None, id="application id"),
    pytest.param(packet(), [], 1, 0, "no config data, use default setting", id="nothing"),
    pytest.param(packet(STAMP, record(0x77, "?"), record(0x0D, "zqs.Capture_params=0"), record(0x0D, ""), record(0x0D, "x"),
                        record(0x0D, "="), record(0x10, ""), SETTINGS), HOLDS, 1, 0, None, id="unknown types and keys"),
    # and what it should not
    pytest.param(packet(STAMP, SETTINGS, b"\x0d\0\0\x64zqs"), HOLDS, 1, 0, None, id="record overruns"),
    pytest.param(packet(record(0x0C, b"\7\0\0\0"), SETTINGS), HOLDS, 1, 0, None, id="short stamp"),
    pytest.param(packet(record(0x0C, bytes(9)), SETTINGS), HOLDS, 1, 0, None, id="long stamp"),
    pytest.param(packet(STAMP, SETTINGS, length=4000), [], 2, 1, "recv app config data fail", id="half an answer"),
    pytest.param(b"\x0a\0", [], 2, 1, "recv app config header fail: 2 bytes, Resource temporarily unavailable", id="half a header"),
    pytest.param(SILENCE, [], 2, 1, "recv app config header fail: -1 bytes", id="silence"),
    pytest.param(HANG_UP, [], 2, 0, "recv app config header fail: 0 bytes, Success", id="hanging up"),
    pytest.param(record(0x0B, STAMP + SETTINGS), [], 1, 0, "data is not PK_APPINFO!", id="another packet"),
    pytest.param(packet(STAMP, record(0x77, bytes(2**24 - 1 - 4 - len(STAMP) - len(SETTINGS))), SETTINGS), HOLDS, 1, 0, None,
                 id="16 MiB"),
    pytest.param(packet(STAMP, SETTINGS, record(0x0D, "zqs.urls_captured=" + "(" * 30000)), None, 1, 0, None, id="wild pattern"),
    pytest.param(packet(STAMP, SETTINGS, record(0x0D, b"zqs.ignored_params=\0,page\xff,\n"), record(0x0D, b"zqs.cap\0=0")),
                 HOLDS, 1, 0, None, id="bytes that are no text"),
    *[pytest.param(packet(random.Random(seed).randbytes(4096)), [], 1, 0, None, id=f"noise {seed}") for seed in range(4)],
])
def test_answers(site, reply, params, opened, blocked, line):
    """The page is the same whatever comes, and the packet arrives, over a new connection where the old one is of no use."""
    site.daemon.reply = reply
    result = held_up(site, blocked, 'echo "page";', URI, ini={"zqs.agent_log_level": "DEBUG", "memory_limit": "8M"})
    assert [metric.params for metric in result.metrics] == ([params] if params is not None else [])
    assert len(site.daemon.connections) == opened
    assert not line or line in site.log()


def test_an_answer_lasts_a_minute(site, shim):
    """Asked again after 60 s with the stamp held; an equal stamp changes nothing, a new one clears texts but not numbers. The
    host has just been started: that the clock shows less than a minute puts nothing off."""
    def set_clock(seconds):
        with open(shim["SHIM_CLOCK"], "w") as clock:
            clock.write(f"={5 + seconds}")

    def request(seconds, reply):
        set_clock(seconds)
        site.daemon.reply = reply
        result = server.get("echo 1;", URI)
        return [query.stamp for query in result.queries], [name for name, _ in result.metric.params]

    everything = {**PLAIN, **PARAMS, "zqs.ignored_params": "tag"}
    set_clock(0)
    server = site.serve(FastCgi, env=shim)
    assert request(0, answer(stamp=None)) == ([0], [])
    assert request(0, answer(everything, stamp=None)) == ([0], ["page"])
    assert request(0, answer(everything, 2**40 + 5)) == ([0], ["page"])
    assert request(58, SILENCE) == ([], ["page"])
    assert request(61, answer({"zqs.capture_params": "0"}, 2**40 + 5)) == ([2**40 + 5], ["page"])
    assert request(119, SILENCE) == ([], ["page"])
    assert request(122, answer({"zqs.urls_captured": "shop"}, 6)) == ([2**40 + 5], ["page", "tag"])
    assert request(183, SILENCE) == ([6], ["page", "tag"])
    assert request(184, answer({"zqs.ignored_params": "page"}, 7)) == ([6], ["tag"])


STRAY = answer({"zqs.agent_enabled": "0"})


@pytest.mark.parametrize("surplus, thrown_away, is_kept", [
    (b"", 0, True), (STRAY, 1, True), (STRAY * 200, 1, True), (STRAY + b"\x0a\0", 1, False), (STRAY[:-1], 1, False),
], ids=["none", "one", "many", "one and a half header", "part of one"])
def test_applications_are_configured_apart(site, surplus, thrown_away, is_kept):
    """One process, two applications: each asks for itself and keeps its own settings. What a daemon says beyond its answer is for
    neither, and behind a part of a packet nobody knows where the next one begins."""
    site.daemon.reply = lambda query: answer({**PLAIN, **(PARAMS if query.app.endswith(":1") else {})}) + surplus
    server, connections = site.serve(FastCgi, {"zqs.auto_app_naming": "2"}), set()
    for port, asked, params in [("1", 1, HOLDS), ("2", 1, []), ("1", 0, HOLDS), ("2", 0, [])]:
        result = server.get("", URI, env={"SERVER_PORT": port})
        assert (len(result.queries), result.metric.params, result.metric.app) == (asked, params, f"Shop:{port}")
        connections.update(site.daemon.connections)
    assert site.logged("that nobody asked for") == [""] * thrown_away
    assert (len(connections) == 1) == is_kept


def test_a_daemon_that_is_absent_costs_no_time_and_no_output(site):
    with site.daemon.absent():
        held_up(site, 0, 'echo "page";')
    assert site.log().count("connect socket ") == 2      # one for the query, one for the packet; none at start-up


def test_a_signal_during_the_connect_puts_nothing_off(site, shim):
    result = site.cgi("", env={**shim, "SHIM_INTERRUPT": "1"}, ini={"zqs.agent_log_level": "INFO"})
    assert result.monitored and not site.logged("start daemon")


def test_a_daemon_that_accepts_nobody_costs_one_time_out_per_connect(site):
    with site.daemon.full_backlog():
        held_up(site, 3, 'echo "page";')


@pytest.mark.parametrize("behaviour, through, blocked", [("ignore", None, 1), ("read", Slow, 3)], ids=["not at all", "slowly"])
def test_a_daemon_that_does_not_read_costs_a_bounded_time(site, behaviour, through, blocked):
    """2.3 MiB, at 64 KiB per 15 ms half a second: 100 ms for each step, and for all of them 100 ms more per full MiB."""
    site.daemon.after_answer, site.daemon.through = behaviour, through
    form = "&".join(f"p{i}=" + "x" * 4000 for i in range(600)).encode()
    held_up(site, blocked, "echo count($_POST);", method="POST", body=form, ini={"max_input_vars": "1000"}, settings=PARAMS)
    assert "send metric data fail" in site.log()


def test_a_daemon_that_hangs_up_at_once(site):
    site.daemon.hang_up_on_accept = True
    held_up(site, 0, 'echo "page";')
    assert "fail" in site.log()


def test_a_daemon_that_hangs_up_meanwhile_kills_nobody(site):
    """Not even a script that wants SIGPIPE to end it, as command-line filters do."""
    site.daemon.after_answer = "hang up"
    site.cli('pcntl_signal(SIGPIPE, SIG_DFL); usleep(50000); echo "work";')
    assert "send metric data fail" in site.log()


def test_a_daemon_that_dies_between_requests_loses_what_was_on_its_way(site):
    server = site.serve(FastCgi)
    server.get("echo 1;")
    site.daemon.cut()
    server.get("echo 2;", metrics=0)
    assert server.get("echo 3;").metric.action == "WebAction/URI/index.php"
    with site.daemon.absent():
        server.get("echo 4;", metrics=0)
        server.get("echo 5;", metrics=0)
    assert server.get("echo 6;").queries == []
    assert "send metric data fail" in site.log()
