"""A daemon for a million requests, in a process of its own: it decodes every packet as the tests' daemon does, and counts
instead of keeping. Each request carries its number in its URI, so that lost, doubled and torn packets all show."""
import multiprocessing
import os
import re
import selectors
import signal
import socket
import struct
import time

from support import wire

NUMBER = re.compile(r"/index\.php/(\d+)")
COUNTERS = ("queries", "packets", "connections", "open", "torn", "faults")
NEW_SETTINGS_S = 5           # whoever asks after that long gets another configuration, with another stamp
SETTINGS = {"zqs.resource.enabled": "false",                  # a busy machine must not shed what is counted here
            "zqs.action_tracer.action_threshold": "1", "zqs.transaction_tracer.enabled": "1", "zqs.vantorIdSecret": "12|34",
            "zqs.capture_params": "1", "zqs.rum.enabled": "1", "zqs.rum.script": "f({})", "zqs.urls_captured": "^/index\nx"}


class Connection:
    def __init__(self, sock):
        self.sock, self.data = sock, bytearray()
        self.pid, _, _ = struct.unpack("3i", sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))

    def packets(self):
        """The complete packets that have come in."""
        while len(self.data) >= 4:
            end = 4 + int.from_bytes(self.data[1:4], "big")
            if len(self.data) < end:
                return
            packet = bytes(self.data[:end])
            del self.data[:end]
            yield packet


class Sink:
    """`seen[n]` says how many metric packets told of request n; `expect(metric, n)` gives what is wrong with one, or None."""

    def __init__(self, path, count, expect):
        self.path, self.expect = path, expect
        fork = multiprocessing.get_context("fork")
        self.seen = fork.RawArray("B", count)
        self._counters = fork.RawArray("q", len(COUNTERS))
        self._told, self._tell = fork.Pipe(duplex=False)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(path)
        os.chmod(path, 0o666)
        self._listener.listen(512)
        self._process = fork.Process(target=self._serve, daemon=True)
        self._process.start()
        self._listener.close()

    def __getattr__(self, name):
        return self._counters[COUNTERS.index(name)]

    def stop(self):
        """Ends it; what was wrong with packets, the first few of each kind."""
        self._process.terminate()
        self._process.join()
        os.unlink(self.path)
        return self.complaints()

    def complaints(self):
        found = []
        while self._told.poll():
            found.append(self._told.recv())
        return found

    # ---- inside the process of its own ----

    def _add(self, name, by=1):
        self._counters[COUNTERS.index(name)] += by

    def _fault(self, kind, text):
        self._add(kind)
        if self._counters[COUNTERS.index(kind)] <= 10:
            self._tell.send(text)

    def _serve(self):
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        selector = selectors.EpollSelector()
        selector.register(self._listener, selectors.EVENT_READ, None)
        while True:
            for key, _ in selector.select():
                if key.data is None:
                    sock, _ = self._listener.accept()
                    selector.register(sock, selectors.EVENT_READ, Connection(sock))
                    self._add("connections")
                    self._add("open")
                elif not self._read(key.data):
                    selector.unregister(key.fileobj)
                    key.fileobj.close()
                    self._add("open", -1)

    def _read(self, connection):
        try:
            data = connection.sock.recv(1 << 18)
        except OSError:
            data = b""
        connection.data += data
        for packet in connection.packets():
            try:
                self._take(connection, packet)
            except Exception as fault:
                self._fault("faults", f"pid {connection.pid}: {fault!r}")
        if not data and connection.data:
            self._fault("torn", f"pid {connection.pid}: the stream ended {len(connection.data)} bytes into a packet")
        return bool(data)

    def _take(self, connection, raw):
        packet = wire.decode(raw)
        if isinstance(packet, wire.Query):
            self._add("queries")
            try:
                connection.sock.sendall(wire.answer(SETTINGS, stamp=1 + int(time.monotonic() / NEW_SETTINGS_S)))
            except OSError:
                pass                              # it has given up
            return
        self._add("packets")
        number = int(NUMBER.match(packet.uri)[1])
        self.seen[number] = min(self.seen[number] + 1, 255)
        if packet.details["threadName"] != f"pid-{connection.pid}":
            raise wire.WireError(f"request {number} of {packet.details['threadName']}")
        wrong = self.expect(packet, number)
        if wrong:
            raise wire.WireError(f"request {number}: {wrong}")
