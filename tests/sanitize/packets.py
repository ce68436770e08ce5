"""Mutated packets, always the same ones, against a daemon and commands that are under sanitizers: it answers queries in between, keeps
what can be kept, prints it, and ends when told to.

packets.py QUORBIT [COUNT [SEED]]"""
import random
import socket
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

from support import wire
from support.fake_daemon import wait_until

QUORBIT, COUNT, SEED = sys.argv[1], int((sys.argv[2:] or [200_000])[0]), int((sys.argv[3:] or [1])[0])
ASKED_EVERY, SHOWN = 2_000, 20

TRACE = (b'[0,120,"","",1,"PHP","execute",{},[[3,15,"Database MySQL/users/SELECT","",1,"PDO","query",{"sql":"SELECT 1",'
         b'"stacktrace":["a.b(/x.php:3)"],"explainPlan":{"rows":[[1,"SIMPLE","users","ALL",null,60000]]}},[]],'
         b'[20,90,"External/http:%2F%2Fb%2F/curl_exec","http://b/",1,"","curl_exec",{"txId":"5f","txData":{"id":"1"}},[]]]]')
RECORDS = [(0x11, b"Shop"), (0x0E, b"empty key"), (0x12, b"WebAction/URI/cart"), (0x21, b"/cart"), (0x1A, b"\3\0\0\0"),
           (0x1B, b"\1\0\0\0"), (0x14, b"\0\0\0\0"), (0x15, b"\x78\0\0\0"), (0x16, b"\x0c\0\0\0"),
           (0x27, b'2:125:MySQL8:SELECT 115:["a.b(/x.php:3)]13:{"rows":[[1]]}'), (0x29, b"Redis\n\nHSET\n3"), (0x17, b"3\nRedis"),
           (0x29, b"http\nhttp:%2F%2Fb%2F/curl_exec\n\n70\n1\nWebAction/b"), (0x18, b"\x46\0\0\0"), (0x2B, b"15\n5\nPHP/Shop/pay"),
           (0x2A, b"1\n500\nRUNTIME_ERROR\nK\\u00e4se\n[]"), (0x2D, b"External/x\n1000\n\nfailed\n?a=1\n[]"), (0x25, TRACE),
           (0x20, b"5f0e2a"), (0x26, b"77ab01"), (0x24, b"httpStatus: 500"), (0x24, b"user-agent: \x1b[31m"), (0x23, b"q: x")]
BODIES = [(0x0B, b"".join(wire.record(*record) for record in RECORDS)),
          (0x09, b"".join(wire.record(*record) for record in [*RECORDS[:2], (0x2C, b"5007 42 enter function Cart::total")])),
          (0x0A, b"".join(wire.record(*record) for record in [*RECORDS[:2], (0x0C, bytes(8)), (0x1C, b"Server API=FPM")]))]


def mutate(chance, body):
    """A few bytes, lengths, numbers or pieces of it changed, moved, doubled or gone."""
    body = bytearray(body)
    for _ in range(chance.choice([1, 1, 2, 4, 16])):
        at, length = chance.randrange(len(body) + 1), chance.choice([1, 1, 2, 4, 30, 300])
        piece = body[at:at + length]
        other = chance.randrange(len(body) + 1)
        match chance.randrange(6):
            case 0: body[at:at + length] = chance.randbytes(len(piece))
            case 1: del body[at:at + length]
            case 2: body[other:other] = piece * chance.choice([1, 2, 50])
            case 3: body[at:at + 4] = struct.pack(">I", chance.choice([0, 1, 0x25FFFFFF, 0x27000004, 0xFFFFFFFF, len(body)]))
            case 4: body[at:at] = chance.choice([b"\0", b"\xff\xfe", b"\n", b"99999999999999999999", b"-1", b"[" * 600, b'"', b"\x1b"])
            case 5: del body[at:]
    return bytes(body)


def packet(chance):
    """Every other one is framed rightly, so that its records are read."""
    if not chance.randrange(10):
        records = chance.choices(RECORDS, k=chance.randrange(1, 40))
        return wire.record(0x0B, b"".join(wire.record(kind, mutate(chance, body)) for kind, body in records))
    kind, body = chance.choices(BODIES, weights=[8, 1, 1])[0]
    return wire.record(kind, mutate(chance, body)) if chance.randrange(2) else mutate(chance, wire.record(kind, body))


def connect(folder):
    client = socket.socket(socket.AF_UNIX)
    for direction in (socket.SO_SNDTIMEO, socket.SO_RCVTIMEO):
        client.setsockopt(socket.SOL_SOCKET, direction, struct.pack("ll", 20, 0))
    client.connect(str(folder / ".quorbit.sock"))
    return client


def send_all(folder):
    """How many connections the daemon closed."""
    chance, client, closed = random.Random(SEED), connect(folder), 0
    for number in range(COUNT):
        try:
            client.send(packet(chance))
            client.recv(65536, socket.MSG_DONTWAIT)              # answers to mutated queries must not pile up
        except BlockingIOError:
            pass
        except OSError:
            closed += 1
            client.close()
            client = connect(folder)
        if number % ASKED_EVERY == 0:
            with connect(folder) as asking:
                asking.sendall(wire.record(0x0A, BODIES[2][1]))
                assert asking.recv(4)[:1] == b"\x0a", "a query got no answer"
    client.close()
    return closed


def command(root, *words):
    done = subprocess.run([QUORBIT, *words, "--root", root], capture_output=True, text=True, timeout=300)
    expected = (0, 1) if words == ("status",) else (0,)         # this host may be amiss
    assert done.returncode in expected and not done.stderr, (words, done.stderr[-3000:])
    return done.stdout


def main():
    with tempfile.TemporaryDirectory(prefix="quorbit-packets-") as root:
        folder = Path(root) / "log/quorbit"
        folder.mkdir(parents=True)
        (folder / ".quorbit.cfg").write_text(f"zqs.daemon_log_level=warning\nzqs.daemon_log_file_name={folder}/daemon.log\n"
                                             f"zqs.pid_file={folder}/quorbit.pid\nzqs.ipc_listen_file={folder}/.quorbit.sock\n")
        with subprocess.Popen([QUORBIT, "-f", folder / ".quorbit.cfg", "--foreground"]) as daemon:
            try:
                wait_until(lambda: (folder / ".quorbit.sock").exists() or daemon.poll() is not None, "the daemon", 30)
                closed = send_all(folder)
                shown = command(root, "show", "-n", str(SHOWN)).splitlines()[1:]
                assert len(shown) == SHOWN, shown
                for line in shown:
                    for words in (["--full"], ["--json"]):
                        command(root, "show", line.split()[0], *words)
                for words in (["show", "--json", "-n", "100000"], ["top"], ["status"]):
                    assert command(root, *words)
            finally:
                daemon.terminate()
        assert daemon.returncode == 0, f"the daemon ended with {daemon.returncode}"
    print(f"{COUNT} mutated packets, seed {SEED}: {closed} cost their connection, {len(shown)} of the kept actions printed whole")


if __name__ == "__main__":
    main()
