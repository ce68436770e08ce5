"""A daemon that does as it is told: one thread per connection, everything received kept and decoded."""
import os
import select
import socket
import struct
import sys
import threading
import time
from contextlib import contextmanager

from support import wire

HANG_UP = object()    # as a reply: close the connection instead of answering
SILENCE = None        # as a reply: say nothing, keep the connection

sys.setrecursionlimit(100_000)                    # a trace is as deep as the calls were
threading.stack_size(256 << 20)

KEPT = os.environ.get("QUORBIT_PACKETS")     # file for all that comes in, for tests/wire_compare.py
PLAIN = {"zqs.resource.enabled": "false"}    # a busy test machine must not shed traces


class Connection:
    def __init__(self, sock):
        self.sock = sock
        self.pid, self.uid, _ = struct.unpack("3i", sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))
        self.packets = []
        self.open = True

    def read(self, size):
        data, count = bytearray(size), 0
        while count < size and (more := self.sock.recv_into(memoryview(data)[count:])):
            count += more
        return bytes(data[:count])


class FakeDaemon:
    """`reply` is what a query is answered with: bytes, SILENCE, HANG_UP or a function of the query that gives one of these."""

    def __init__(self, path):
        self.path = path
        self.reply = wire.answer(PLAIN)
        self.hang_up_on_accept = False
        self.after_answer = "read"                # or "ignore" what comes then, or "hang up"
        self.through = None                       # what stands between new connections and their sockets
        self.connections, self.faults = [], []
        self._changed = threading.Condition()
        self._listener = None
        self.start()

    def configure(self, settings=None, stamp=1, **more):
        self.reply = wire.answer({**PLAIN, **(settings or {})}, stamp, **more)

    def start(self):
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(self.path)
        os.chmod(self.path, 0o666)
        listener.listen(512)
        self._listener = listener
        threading.Thread(target=self._accept, args=(listener,), daemon=True).start()

    def stop(self):
        """Dies: nobody listens any more, every connection is cut."""
        if self._listener:
            self._listener.shutdown(socket.SHUT_RDWR)
            self._listener.close()
            self._listener = None
            os.unlink(self.path)
        self.cut()

    def cut(self):
        """Cuts the connections there are and waits until their threads know."""
        with self._changed:
            for connection in self.connections:
                if connection.open:
                    connection.sock.shutdown(socket.SHUT_RDWR)
            self._wait(lambda: not any(c.open for c in self.connections), "connections to end")

    @contextmanager
    def absent(self):
        self.stop()
        yield
        self.start()

    @contextmanager
    def full_backlog(self):
        """Somebody listens, but accepts nobody, and no more fit into the queue."""
        self.stop()
        listener, waiting = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM), []
        listener.bind(self.path)
        listener.listen(0)
        try:
            while True:
                one = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                waiting.append(one)
                one.setblocking(False)
                one.connect(self.path)
        except BlockingIOError:
            pass
        yield
        for one in waiting + [listener]:
            one.close()
        os.unlink(self.path)
        self.start()

    def _accept(self, listener):
        while True:
            try:
                sock, _ = listener.accept()
            except OSError:
                return
            connection = Connection(sock)
            if connection.pid == os.getpid():     # a probe of settle()
                connection.open = False
                sock.close()
                connection = None
            elif self.hang_up_on_accept:
                connection.open = False
                sock.close()
            else:
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()
            with self._changed:
                self._probes += connection is None
                if connection:
                    self.connections.append(connection)
                self._changed.notify_all()

    _probes = 0

    def _serve(self, connection):
        if self.through:
            connection.sock = self.through(connection.sock)
        try:
            while self._one(connection):
                pass
        except OSError:
            pass                                  # a reset by the peer
        except Exception as fault:
            self.faults.append(f"pid {connection.pid}: {fault!r}")
        finally:
            with self._changed:
                connection.open = False
                connection.sock.close()
                self._changed.notify_all()

    def _one(self, connection):
        header = connection.read(4)
        if not header:
            return False
        size = int.from_bytes(header[1:], "big")
        body = connection.read(size)
        if len(header) < 4 or len(body) < size:
            raise wire.WireError(f"stream ended inside a packet, {len(header) + len(body)} of {size + 4} bytes")
        if KEPT:
            with self._changed, open(KEPT, "a") as log:
                log.write(f"{os.environ['PYTEST_CURRENT_TEST'].rpartition(' (')[0]}\t{(header + body).hex()}\n")
        packet = wire.decode(header + body)
        with self._changed:
            connection.packets.append(packet)
            self._changed.notify_all()
        if not isinstance(packet, wire.Query):
            return True
        reply = self.reply(packet) if callable(self.reply) else self.reply
        if reply is not SILENCE and reply is not HANG_UP:
            connection.sock.sendall(reply)
        if self.after_answer == "ignore":
            hung_up = select.poll()
            hung_up.register(connection.sock, 0)
            hung_up.poll()
        return reply is not HANG_UP and self.after_answer == "read"

    def _wait(self, condition, what, timeout=30):
        if not self._changed.wait_for(condition, timeout):
            raise AssertionError(f"waited {timeout} s for {what}; connections: " +
                                 str([(c.pid, c.open, len(c.packets)) for c in self.connections]))

    def received(self, kind, connections=None):
        chosen = self.connections if connections is None else connections
        return [packet for c in chosen for packet in c.packets if isinstance(packet, kind)]

    def wait_metrics(self, count=1, timeout=30):
        """Waits for `count` metric packets since the last forget(); more than that is a failure as well."""
        with self._changed:
            self._wait(lambda: len(self.received(wire.Metric)) >= count, f"{count} metric packets", timeout)
            found = self.received(wire.Metric)
        assert len(found) == count, found
        return found

    def settle(self):
        """For clients that have ended: waits until all that they sent is read."""
        with self._changed:
            probes = self._probes
        if self._listener:
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
                probe.connect(self.path)          # accepted after every earlier connection
        with self._changed:
            self._wait(lambda: not self._listener or self._probes > probes, "the probe")
            self._wait(lambda: not any(c.open for c in self.connections), "connections to end")

    def forget(self):
        """Packets and ended connections so far do not count any more."""
        with self._changed:
            self.connections = [c for c in self.connections if c.open]
            for connection in self.connections:
                connection.packets.clear()


def wait_until(condition, what, timeout=30):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, f"waited {timeout} s for {what}"
        time.sleep(0.005)
