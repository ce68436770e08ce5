"""A daemon in a process of its own that decodes whatever an agent sends and keeps only how often each action came."""
import collections
import multiprocessing
import signal

from support import wire
from support.fake_daemon import FakeDaemon

# `actions` counts packets by URI, or by action name where there is none; `connections` counts those that were made.
Report = collections.namedtuple("Report", "actions traces connections faults")


class CountingDaemon(FakeDaemon):
    def __init__(self, path):
        self.actions, self.traces = collections.Counter(), 0
        super().__init__(path)

    def _one(self, connection):
        more = super()._one(connection)
        with self._changed:
            for packet in connection.packets:
                if isinstance(packet, wire.Metric):
                    self.actions[packet.uri or packet.action] += 1
                    self.traces += packet.trace is not None
            connection.packets.clear()                 # some ten thousand packets, and traces can be long
        return more


def settled(daemon):
    """The last traces may take a while to decode."""
    for _ in range(6):
        try:
            return daemon.settle()
        except AssertionError as late:
            reason = late
    daemon.faults.append(f"never came to rest: {reason}")


def serve(path, pipe):
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    daemon = CountingDaemon(path)
    pipe.send("listening")
    if pipe.recv() == "report":
        settled(daemon)
        pipe.send(Report(daemon.actions, daemon.traces, len(daemon.connections), daemon.faults))
    daemon.stop()


class Daemon:
    """Listens at `path` from the start; report() ends it."""

    def __init__(self, path):
        self.pipe, other = multiprocessing.Pipe()
        self.process = multiprocessing.Process(target=serve, args=(path, other), daemon=True)
        self.process.start()
        self.pipe.recv()

    def report(self):
        self.pipe.send("report")
        found = self.pipe.recv()
        self.process.join()
        return found
