"""The board: one made as docs/protocol.md has it, for an agent whose daemon is another; and servers on the real daemon's."""
import json
import os
import struct
import threading
from contextlib import suppress
from http.client import HTTPException

import pytest

from support.engines import Apache, Fpm, at_once
from support.fake_daemon import wait_until
from support.peers import Peer, http_answer, read_http

SLOT = 10240
AT_ONCE = 20


def make_board(folder, slots=64):
    first = (64 + 8 * slots + 4095) // 4096 * 4096
    header = struct.pack("<QIIIIQQ24x", 0x6472616F625F7A71, 2, slots, SLOT, first, first + slots * SLOT, os.stat("/proc/self/ns/pid").st_ino)
    path = folder / "board"
    path.write_bytes(header)
    os.truncate(path, first + slots * SLOT)
    path.chmod(0o660)
    return path


QUERIES = """
function ask($db, $name) { $db->query("SELECT name FROM product WHERE name = '$name' OR 4711"); }
$db = new PDO('sqlite::memory:');
$db->exec('CREATE TABLE product (name TEXT)');
ask($db, 'secret one');
ask($db, 'secret two');"""
WAIT = """
function outer($url) { return file_get_contents("$url/held?token=secret"); }
echo outer('%s');"""


class Many(Fpm):
    children = lanes = AT_ONCE
    asks = QUERIES                                         # Apache's engine has no database


class Threads(Apache):
    threads = AT_ONCE + 12                                 # some wait for what comes next
    asks = ""


class Holding(Peer):
    """Answers nobody until it is told to."""

    def __init__(self):
        self.free = threading.Event()
        super().__init__()

    def serve(self, sock):
        self.requests.append(read_http(sock))
        self.free.wait(60)
        sock.sendall(http_answer())


def start(real, kind):
    """A server of that kind, on the board that the real daemon makes."""
    real.php()                                             # starts the daemon
    wait_until(lambda: (real.logs / "board").exists(), "the board")
    server = kind(real.site, real.site.ini_file(), True)
    real.site.servers.append(server)
    server.start()
    return server


def now(real, *words):
    return json.loads(real.command("now", "--json", *words) or '{"requests": []}')


@pytest.fixture
def peer():
    found = Holding()
    yield found
    found.free.set()
    found.close()


@pytest.fixture
def held(real, peer, request):
    """A server with so many requests in flight, which wait for the peer; and what they are answered."""
    server = start(real, request.param)
    script = real.site.script(server.asks + WAIT % peer.url(""), "page.php")
    answers = []

    def ask():
        with suppress(OSError, HTTPException, AssertionError, ValueError):                 # of those that are killed
            answers.extend(at_once(AT_ONCE, lambda i: server.request(script, f"/page.php?i={i}")))

    lane = threading.Thread(target=ask)
    lane.start()
    wait_until(lambda: len(peer.requests) == AT_ONCE, "all requests to wait")
    yield server, answers
    peer.free.set()
    lane.join()


def swept(real):
    """Waits until the daemon has looked at all slots of processes that are gone: it frees them."""
    def claims():
        return filter(None, struct.unpack("1024Q", (real.logs / "board").read_bytes()[64:64 + 8 * 1024]))

    wait_until(lambda: all(os.path.exists(f"/proc/{claim >> 32}") for claim in claims()), "the daemon to look at the board")
