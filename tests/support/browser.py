"""A real browser that shows a site's pages in frames, and the web server in front of it."""
import html
import json
import os
import re
import subprocess
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import pytest

from support.cases import program

QUEUED_MS = 250            # how long the front says that each request has waited


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
        capture_output=True, timeout=180, env={"PATH": os.environ["PATH"], "HOME": str(home)})
    found = re.search('data-found="(.*?)"', done.stdout.decode())
    assert found, done.stdout[-2000:] + done.stderr[-2000:]
    return json.loads(html.unescape(found[1]))
