"""What may stand between the fake daemon and its sockets."""
import time


class Through:
    """A daemon's socket that does its work in another way."""

    def __init__(self, sock):
        self.sock = sock

    def __getattr__(self, name):
        return getattr(self.sock, name)


class Mortal(Through):
    """Dies with the last byte of its allowance, whichever way that goes."""
    allowance = total = 0

    def spend(self, data, move):
        count = move(data[:self.allowance])
        self.allowance -= count
        Mortal.total += count
        if not self.allowance or not count:
            raise ConnectionAbortedError
        return count

    def recv_into(self, view):
        return self.spend(view, self.sock.recv_into)

    def sendall(self, data):
        self.spend(data, self.sock.send)


class Slow(Through):
    """Reads little at a time once it has answered, and takes its time for it."""
    pause_s = 0

    def recv_into(self, view):
        time.sleep(self.pause_s)
        count = self.sock.recv_into(view[:1 << 16])
        if not count:
            raise ConnectionAbortedError
        return count

    def sendall(self, data):
        self.sock.sendall(data)
        self.pause_s = 0.015
