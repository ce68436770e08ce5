"""What the page's server lets in: it listens on a network, and whoever reaches it can send anything."""
import json
import os
import pwd
import socket
import time
from contextlib import ExitStack, suppress
from pathlib import Path

import pytest

from support import web
from support.fake_daemon import wait_until


@pytest.fixture(scope="module")
def store():
    found = web.Store()
    found.fill(web.packet(b"Shop", b"WebAction/shop%2Fproducts", 200, b"/products?page=2"))
    yield found
    found.close()


@pytest.fixture(scope="module")
def server(store):
    found = web.Web(store.root)
    yield found
    found.close()


def test_what_a_request_must_show(server):
    own = f"127.0.0.1:{server.port}"
    kind = {"Content_Type": "application/json"}
    cases = [
        (200, "GET", "/", {}), (200, "HEAD", "/app.js", {}), (200, "GET", "/requests/1", {}), (404, "GET", "/no.js", {}),
        (421, "GET", "/", {"Host": "evil.test"}), (421, "GET", "/api/v1/requests", {"Host": f"evil.test:{server.port}"}),
        (200, "GET", "/api/v1/requests", {"Host": f"LOCALHOST:{server.port}"}),
        (401, "GET", "/api/v1/requests", {"token": False}), (401, "GET", "/api/v1/requests", {"Authorization": "Bearer "}),
        (403, "GET", "/api/v1/requests", {"Origin": "http://127.0.0.1:1"}), (403, "GET", "/api/v1/requests", {"Sec_Fetch_Site": "same-site"}),
        (200, "GET", "/api/v1/requests", {"Origin": f"http://{own}"}), (404, "GET", "/api/v1/nothing", {}), (404, "GET", "/api/v2/requests", {}), (404, "GET", "/api/v1/requests/9999", {}),
        (400, "GET", "/api/v1/requests?n=0", {}), (400, "GET", "/api/v1/requests?since=1w", {}),
        (200, "GET", "/api/v1/radar?to=8.3&format=csv", {}), (400, "GET", "/api/v1/radar?to=x", {}), (400, "GET", "/api/v1/radar?format=x", {}), (400, "GET", "/api/v1/radar?days=0", {}),
        (405, "PUT", "/api/v1/session", {}), (405, "POST", "/requests", kind), (405, "OPTIONS", "/api/v1/requests", {}),
        (415, "POST", "/api/v1/session", {"Content_Type": "text/plain", "body": "{}"}), (403, "POST", "/api/v1/session/end", kind),
        (403, "POST", "/api/v1/profiles", {**kind, "body": '{"application": "Shop", "seconds": 9}'}), (403, "POST", "/api/v1/releases", {**kind, "body": '{"name": "1"}'}),
        (400, "GET", "/api/v1/compare?release=none", {}), (404, "GET", "/api/v1/profiles/99", {}),
        (413, "POST", "/api/v1/session", {**kind, "body": "x" * 5000}), (414, "GET", "/" + "x" * 9000, {}),
        (200, "GET", "/", {"Range": "bytes=" + ",".join(["0-1"] * 1900)}),
    ]
    for status, method, path, more in cases:
        answer = server.ask(path, method, **more)
        assert answer[0] == status, (method, path, more, answer)
        assert not [name for name in answer[1] if name.startswith("access-control")]
    policy = server.ask("/")[1]["content-security-policy"]
    assert "default-src 'none'" in policy and "frame-ancestors 'none'" in policy and "unsafe" not in policy
    assert server.ask("/requests", Host=own, Cookie="x" * 8000)[0] == 200


def all_of(client):
    """What comes until the other side closes."""
    parts = []
    with suppress(ConnectionError):
        while part := client.recv(65536):
            parts.append(part)
    return b"".join(parts)


def test_of_what_is_sent_on_a_connection_at_most_one_request_is_answered(server):
    own = b"Host: 127.0.0.1:%d\r\n" % server.port
    get, post = b"GET /app.css HTTP/1.1\r\n" + own, b"POST /api/v1/session HTTP/1.1\r\nContent-Type: application/json\r\n" + own
    cases = [
        (b"", b""), (b"\x16\x03\x01\0", b""), (b"GET / HTTP/1.1\r\n" + b"X: %s\r\n" % (b"a" * 4000) * 20, b"400"),
        (get + b"Host: b\r\n\r\n", b"421"), (get, b"400"),
        (get + b"\r\n" + get + b"\r\n", b"200"), (get + b"Content-Length: 9\r\n\r\n" + get + b"\r\n", b"200"),
        (post + b"Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + get + b"\r\n", b"401"),
        (post + b"Transfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFF\r\n{}", b"400"),
        (post + b"Content-Length: 9\r\n\r\n{}", b"400"), (post + b"Content-Length: -1\r\n\r\n{}", b"413"),
    ]
    for sent, status in cases:
        with socket.create_connection(("127.0.0.1", server.port), timeout=15) as client:
            client.sendall(sent)
            client.shutdown(socket.SHUT_WR)
            answer = all_of(client)
            assert (answer[9:12], answer.count(b"HTTP/1.1 ")) == (status, bool(status)), sent[:200]


def test_clients_that_say_little_are_not_waited_for_and_many_take_no_room(server):
    descriptors = lambda: len(list(Path(f"/proc/{server.process.pid}/fd").iterdir()))  # noqa: E731
    before, begin = descriptors(), time.monotonic()
    with ExitStack() as stack:
        slow = stack.enter_context(socket.create_connection(("127.0.0.1", server.port), timeout=0.5))
        slow.sendall(b"POST /api/v1/session HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nContent-Type: application/json\r\n"
                     b"Content-Length: 4000\r\n\r\n" % server.port)
        for _ in range(1000):
            stack.enter_context(socket.create_connection(("127.0.0.1", server.port), timeout=15)).sendall(b"GET /")
        wait_until(lambda: descriptors() <= before + 72, "those beyond the bound to be closed")
        with suppress(ConnectionError):
            while time.monotonic() < begin + 60:
                slow.sendall(b"x")
                with suppress(TimeoutError):
                    if not slow.recv(100):
                        break
        assert 8 < time.monotonic() - begin < 60
    wait_until(lambda: descriptors() <= before, "all to be closed")
    assert server.ask("/")[0] == 200


def test_the_link_lets_in_once_and_guessing_has_its_pause(store):
    server = web.Web(store.root)
    try:
        enter = lambda token: server.ask("/api/v1/session", "POST", json.dumps({"token": token}), token=False, Content_Type="application/json")
        link = server.link.partition("#")[2]
        status, headers, body = enter(link)
        assert status == 200 and "HttpOnly; SameSite=Strict" in headers["set-cookie"]
        cookie = headers["set-cookie"].partition(";")[0]
        session = {"token": False, "Cookie": cookie}
        end = lambda **more: server.ask("/api/v1/session/end", "POST", "{}", Content_Type="application/json", **session, **more)[0]
        assert server.ask("/api/v1/requests", **session)[0] == 200
        assert [enter(link)[0] for _ in range(6)] == [401] * 5 + [429]
        assert server.ask("/api/v1/requests")[0] == 429 and enter(server.token)[0] == 429          # whoever guesses right has to wait, too
        assert server.ask("/api/v1/requests", **session)[0] == 200                                 # but who is in stays in
        assert end(X_Quorbit_Token="x") == 403 and end(X_Quorbit_Token=json.loads(body)["token"]) == 200
        assert server.ask("/api/v1/requests", **session)[0] == 401
        assert server.process.poll() is None
        server.errors.seek(0)
        assert server.errors.read() == b""                                                         # no token, right or wrong
    finally:
        server.close()


@pytest.mark.skipif(os.geteuid() != 0, reason="root alone has something to give up")
def test_root_is_given_up(server):
    def told(process, *names):
        lines = dict(line.split(":\t", 1) for line in Path(f"/proc/{process.pid}/status").read_text().splitlines())
        return [lines[name] for name in names]
    assert told(server.process, "CapEff", "CapBnd", "NoNewPrivs") == ["0" * 16, "0" * 16, "1"]     # the folder is root's own
    sample = web.Web("/nowhere", "--sample")
    nobody = pwd.getpwnam("nobody").pw_uid
    try:
        assert set(told(sample.process, "Uid")[0].split()) == {str(nobody)}
    finally:
        sample.close()


NGINX = """
user root; daemon off; pid {root}/nginx.pid; error_log {root}/nginx.log;
events {{ }}
http {{
  access_log off; client_body_temp_path {root}/body; proxy_temp_path {root}/proxy; fastcgi_temp_path {root}/f; uwsgi_temp_path {root}/u; scgi_temp_path {root}/s;
  server {{
    listen 127.0.0.1:{port};
    location / {{ proxy_pass http://unix:{root}/web.sock; proxy_set_header Host $host; proxy_set_header X-Forwarded-Proto https; }}
  }}
}}
"""


def test_a_web_server_in_front_passes_requests_to_the_socket(store, tmp_path):
    web_server = web.Web(store.root, "--listen", f"unix:{tmp_path}/web.sock", "--host", "monitor.example", origin="http://monitor.example")
    (tmp_path / "nginx.conf").write_text(NGINX.format(root=tmp_path, port=web_server.port))
    nginx = web.subprocess.Popen(["nginx", "-p", tmp_path, "-c", tmp_path / "nginx.conf"], stderr=web.subprocess.DEVNULL)
    try:
        wait_until(lambda: not socket.socket().connect_ex(("127.0.0.1", web_server.port)), "nginx")
        assert os.stat(tmp_path / "web.sock").st_mode & 0o777 == 0o660
        assert [web_server.ask("/api/v1/requests", Host=host)[0] for host in ("monitor.example", "evil.test")] == [200, 421]
        status, headers, _ = web_server.ask("/api/v1/session", "POST", json.dumps({"token": web_server.link.partition("#")[2]}), token=False,
                                            Host="monitor.example", Origin="https://monitor.example", Content_Type="application/json")
        assert status == 200 and headers["set-cookie"].endswith("; Secure")
    finally:
        nginx.terminate()
        nginx.wait(10)
        web_server.close()


@pytest.mark.parametrize("options, told", [(["--listen", "0.0.0.0:0"], "--listen needs"), (["--listen", "0.0.0.0:7180"], "needs --password-file"),
                                           (["--password-file", "/etc/passwd"], "is open to others")])
def test_what_is_not_safe_does_not_start(store, options, told):
    done = web.subprocess.run([web.QUORBIT, "web", "--root", store.root, *options], capture_output=True, text=True, timeout=10)
    assert done.returncode == 1 and told in done.stderr
