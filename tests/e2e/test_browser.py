"""What a real browser finds in the page: the action's name, its trace id and times, and no script of the visitor's making."""
import html
import json
import os
import re
import subprocess
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import pytest

from cases import program
from engines import Apache, Fpm

QUEUED_MS = 250

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


class Front(BaseHTTPRequestHandler):
    """The web server in front: tells when a request came in, and knows each page by a number."""

    def do_GET(self):
        number = re.fullmatch(r"/page/(\d+)", self.path)
        status, kind, body = 404, "text/plain", b""
        if number:
            queued = int(time.monotonic() * 1000) - QUEUED_MS
            answer = self.server.page(self.server.uris[int(number[1])], {"X-Queue-Start": f"t={queued}"})
            kind, = [value for name, value in answer.headers if name.lower() == "content-type"]
            status, body = answer.status, answer.body
        elif self.path == "/":
            frames = "".join(f'<iframe src="/page/{i}"></iframe>' for i in range(len(self.server.uris)))
            status, kind, body = 200, "text/html", program("frames.html").replace("FRAMES", frames).encode()
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


@pytest.fixture
def front():
    server = ThreadingHTTPServer(("127.0.0.1", 0), Front)
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    yield server
    server.shutdown()
    thread.join()
    server.server_close()


def browse(site, url):
    """What the frames hold, as a browser with nothing but this machine's loopback sees them."""
    home = site.root / "browser"
    home.mkdir()
    done = subprocess.run(
        ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-dev-shm-usage",
         "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-extensions",
         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", f"--user-data-dir={home}", "--dump-dom", url],
        capture_output=True, timeout=60, env={"PATH": os.environ["PATH"], "HOME": str(home)})
    found = re.search('data-found="(.*?)"', done.stdout.decode())
    assert found, done.stdout[-2000:] + done.stderr[-2000:]
    return json.loads(html.unescape(found[1]))


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
