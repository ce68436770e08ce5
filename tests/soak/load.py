"""Load from one thread: a number of lanes, each with one request under way, and every answer compared with what it must be.

A lane speaks HTTP, over a connection that it keeps or over one for each request, or FastCGI."""
import re
import selectors
import socket
import struct
import time
from collections import Counter

from support.engines import fastcgi_request, web_environment

STALLED_S = 30
SCRIPT = re.compile(rb"<script>f\(\{qv_rum\.agent=[^<]*\)</script>")     # what the agent adds to a page
FINISHED = 1


class Http:
    def __init__(self, port, keep):
        self.port, self.keep = port, keep

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), STALLED_S)

    def request(self, uri):
        keep = "keep-alive" if self.keep else "close"
        return f"GET {uri} HTTP/1.1\r\nHost: shop.test\r\nX-Vantor-Id: 12|5;c=1;x=77\r\nConnection: {keep}\r\n\r\n".encode()

    def answer(self, data, ended):
        """(status, body, whether the connection stays), or None while it is incomplete."""
        head, gap, body = bytes(data).partition(b"\r\n\r\n")
        if not gap:
            return None
        length = re.search(rb"(?i)\r\ncontent-length: (\d+)", head)
        if not (ended if length is None else len(body) >= int(length[1])):
            return None
        stays = length is not None and self.keep and not re.search(rb"(?i)\r\nconnection: close", head)
        return int(head[9:12]), body, stays


class FastCgi:
    keep = False

    def __init__(self, path, script):
        self.path, self.script = path, script

    def connect(self):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.settimeout(STALLED_S)
        sock.connect(self.path)
        return sock

    def request(self, uri):
        return fastcgi_request(web_environment(self.script, uri, headers={"X-Vantor-Id": "12|5;c=1;x=77"}))

    def answer(self, data, ended):
        output, at = b"", 0
        while len(data) - at >= 8:
            _, kind, _, size, padding = struct.unpack_from(">BBHHBx", data, at)
            if len(data) < at + 8 + size + padding:
                return None
            if kind == 3:
                head, _, body = output.partition(b"\r\n\r\n")
                status = re.search(rb"Status: (\d+)", head)
                return int(status[1]) if status else 200, body, False
            output += bytes(data[at + 8:at + 8 + size]) if kind == 6 else b""
            at += 8 + size + padding
        return None


class Lane:
    def __init__(self):
        self.sock, self.data, self.number = None, bytearray(), None
        self.kept = False                    # an answer has come over this connection


class Load:
    """Requests 0 to `count` - 1, fewer if `tick` (called about every 20 ms) says FINISHED. `answered[n]` is 1 for each whole and
    right answer; `lost` counts by reason the requests that got none, `wrong` keeps the first wrong ones.

    A server may close a connection that it keeps just when the next request is on its way; a client then sends that again over
    a new one (RFC 9112, 9.3.1), and `repeated` counts it. Apache's event MPM does so whenever all its threads are busy."""

    def __init__(self, protocol, lanes, count, expect, uri="/index.php/{}"):
        self.protocol, self.count, self.expect, self.uri = protocol, count, expect, uri
        self.lanes = [Lane() for _ in range(lanes)]
        self.answered, self.lost, self.wrong, self.next, self.right = bytearray(count), Counter(), [], 0, 0
        self.repeated, self.selector = 0, selectors.EpollSelector()

    def run(self, tick=lambda: None):
        for lane in self.lanes:
            self._start(lane)
        ticked, moved = 0, time.monotonic()
        while self.selector.get_map():
            ready = self.selector.select(0.02)
            for key, _ in ready:
                self._read(key.data)
            now = time.monotonic()
            moved = now if ready else moved
            if now - moved > STALLED_S:
                raise AssertionError(f"no answer for {STALLED_S} s to {[lane.number for lane in self.lanes if lane.sock]}")
            if now - ticked > 0.02:
                ticked = now
                if tick() == FINISHED:
                    self.count = self.next
        return self

    def _start(self, lane, again=False):
        """Sends the lane's next request, or `again` the one that it had."""
        while again or self.next < self.count:
            if not again:
                lane.number, self.next = self.next, self.next + 1
            lane.data.clear()
            try:
                if not lane.sock:
                    lane.sock = self.protocol.connect()
                    self.selector.register(lane.sock, selectors.EVENT_READ, lane)
                lane.sock.sendall(self.protocol.request(self.uri.format(lane.number)))
                return
            except OSError as failure:
                again = self._fail(lane, failure)
        self._close(lane)

    def _close(self, lane):
        if lane.sock:
            self.selector.unregister(lane.sock)
            lane.sock.close()
            lane.sock, lane.kept = None, False

    def _fail(self, lane, reason):
        """Notes a request that got no answer, and gives whether it is to be sent again."""
        again = lane.kept and not lane.data
        if again:
            self.repeated += 1
        else:
            self.lost[f"{type(reason).__name__} {reason}" if isinstance(reason, Exception) else reason] += 1
        self._close(lane)
        return again

    def _read(self, lane):
        try:
            data = lane.sock.recv(1 << 16)
        except OSError as failure:
            return self._start(lane, self._fail(lane, failure))
        lane.data += data
        answer = self.protocol.answer(lane.data, not data)
        if answer:
            self._finish(lane, *answer)
        elif not data:
            return self._start(lane, self._fail(lane, f"end of stream {'inside' if lane.data else 'instead of'} an answer"))
        else:
            return None
        return self._start(lane)

    def _finish(self, lane, status, body, stays):
        if (status, SCRIPT.sub(b"", body)) == self.expect(lane.number):
            self.answered[lane.number] = 1
            self.right += 1
        elif len(self.wrong) < 10:
            self.wrong.append((lane.number, status, body[:300]))
        else:
            self.lost["wrong answer"] += 1
        if stays:
            lane.kept = True
        else:
            self._close(lane)
