"""The other side of outgoing calls: a small server that keeps what it receives, byte for byte, and answers as it is told."""
import base64
import hashlib
import re
import socket
import struct
import threading
import time

CALLEE = '{"id":"77|8","action":"WebAction/stock","trId":"5f","time":{"duration":15,"qu":0,"db":3,"code":12}}'
ANSWER_LINE = "X-Vantor-Tx-Data: " + CALLEE


def http_answer(body="ok", status="200 OK", lines=(ANSWER_LINE,), kind="text/plain"):
    body = body.encode() if isinstance(body, str) else body
    head = [f"HTTP/1.1 {status}", *lines, f"Content-Type: {kind}", f"Content-Length: {len(body)}", "Connection: close"]
    return "".join(line + "\r\n" for line in head).encode("latin-1") + b"\r\n" + body


class Peer:
    """Each connection is served by `serve(connection stream, first bytes)` or, by default, answered once with `answer`:
    bytes, or a list of bytes that are sent one by one. `requests` holds what came in."""

    def __init__(self, answer=None, delay_ms=0):
        self.answer, self.delay_ms = http_answer() if answer is None else answer, delay_ms
        self.requests = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def url(self, path="/api/b2/items/123?x=1"):
        return f"http://127.0.0.1:{self.port}{path}"

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def take(self):
        """The requests so far; the next ones are counted from 0."""
        found, self.requests = self.requests, []
        return found

    def _accept(self):
        while True:
            try:
                sock, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._one, args=(sock,), daemon=True).start()

    def _one(self, sock):
        with sock:
            try:
                self.serve(sock)
            except OSError:
                pass                                # the client has hung up

    def serve(self, sock):
        request = read_http(sock)
        if not request:
            return
        self.requests.append(request)
        time.sleep(self.delay_ms / 1000)
        for part in self.answer if isinstance(self.answer, list) else [self.answer]:
            sock.sendall(part)
            time.sleep(0.01 if isinstance(self.answer, list) else 0)


def read_http(sock):
    """One request with its body; empty when the client has sent nothing."""
    data = b""
    while b"\r\n\r\n" not in data:
        part = sock.recv(65536)
        if not part:
            return data
        data += part
    head, _, body = data.partition(b"\r\n\r\n")
    size = re.search(rb"(?i)\r\ncontent-length: *(\d+)", head)
    while size and len(body) < int(size[1]):
        body += sock.recv(65536)
    return head + b"\r\n\r\n" + body


class WebSocketPeer(Peer):
    """Shakes hands and echoes short text messages."""

    def serve(self, sock):
        request = read_http(sock)
        self.requests.append(request)
        time.sleep(self.delay_ms / 1000)
        key = re.search(rb"Sec-WebSocket-Key: (\S+)", request)[1]
        accept = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest()).decode()
        sock.sendall(f"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n{ANSWER_LINE}\r\nConnection: Upgrade\r\n"
                     f"Sec-WebSocket-Accept: {accept}\r\n\r\n".encode())
        with sock.makefile("rb") as stream:
            while head := stream.read(2):
                mask, body = stream.read(4), stream.read(head[1] & 127)
                text = bytes(byte ^ mask[i % 4] for i, byte in enumerate(body))
                self.requests.append(text)
                sock.sendall(bytes([0x81, len(text)]) + text)


def thrift_string(text):
    data = text.encode()
    return struct.pack(">i", len(data)) + data


class ThriftPeer(Peer):
    """A service of one method in the binary protocol: add(1: i32 a, 2: i32 b) returns i32. Unknown fields of a request are
    skipped and kept in `unknown` as (id, text)."""
    extra = '{"VantorTxData":' + CALLEE + '}'

    def __init__(self, **more):
        super().__init__(**more)
        self.unknown = []

    def serve(self, sock):
        with sock.makefile("rb") as stream:
            def number(form):
                return struct.unpack(form, stream.read(struct.calcsize(form)))[0]

            version = number(">I")
            assert version == 0x80010001, hex(version)
            name, sequence, fields = stream.read(number(">i")), number(">i"), {}
            while kind := number(">b"):
                field = number(">H")
                fields[field] = number(">i") if kind == 8 else stream.read(number(">i")).decode()
            self.requests.append((name.decode(), {k: v for k, v in fields.items() if k in (1, 2)}))
            self.unknown += [(k, v) for k, v in fields.items() if k not in (1, 2)]
            time.sleep(self.delay_ms / 1000)
            answer = struct.pack(">I", 0x80010002) + thrift_string("add") + struct.pack(">i", sequence)
            answer += struct.pack(">bhi", 8, 0, fields[1] + fields[2])
            if self.extra:
                answer += struct.pack(">bH", 11, 65535) + thrift_string(self.extra)
            sock.sendall(answer + b"\0")
