"""What a real browser finds in the page: the action's name, its trace id and times, and no script of the visitor's making."""
import pytest

from support.browser import QUEUED_MS, browse
from support.cases import program
from support.engines import Apache, Fpm

# The last "}" closes an empty block: the page's data are assigned in it.
BROWSER_SCRIPT = "window.qv_rum = {}; {}"

# as they arrive at the server: what sends them need not be a browser
URIS = [
    "/index.php",
    "/index.php/o'clock",
    "/index.php/'};alert(1);//",
    "/index.php/\\'};alert(1);//",
    "/index.php/\\",
    "/index.php/</script><script>alert(1)</script>",
    "/index.php/<!--<script>",
    "/index.php/%3C/script%3E%27",
]


@pytest.mark.parametrize("kind, uris", [(Fpm, [*URIS, "/index.php/caf\u00e9"]), (Apache, URIS)])
def test_the_browser_finds_what_the_daemon_is_told(site, front, kind, uris):
    site.daemon.configure({"zqs.rum.enabled": "1", "zqs.rum.script": BROWSER_SCRIPT, "zqs.vantorIdSecret": "12|34",
                           "zqs.auto_action_naming": "0", "zqs.action_tracer.action_threshold": "1"})
    server = site.serve(kind)
    script = site.script(program("browsed.php"))
    front.uris = uris
    front.page = lambda uri, headers: server.agent.request(script, uri, headers=headers)
    frames = browse(site, f"http://127.0.0.1:{front.server_port}/")
    metrics = {metric.tracer_id: metric for metric in site.daemon.wait_metrics(len(uris))}
    for uri, frame in zip(uris, frames, strict=True):
        assert (frame["title"], frame["text"], frame["scripts"], frame["attacked"]) == ("shop", "demo", 2, False), uri
        agent = frame["agent"]
        metric = metrics[agent["tid"]]
        assert (agent["id"], agent["n"], agent["q"]) == ("34", metric.action, metric.block_ms), uri
        assert QUEUED_MS <= agent["q"] and 30 <= agent["a"] <= metric.duration_ms, uri
    assert len({frame["agent"]["n"] for frame in frames}) == len(metrics) == len(uris)
