#!/usr/bin/python3
"""How fast a report is made of what an action has recorded, and that the time grows with its length: megabytes per second of
processor time.

    bench/packet.py [ROUNDS]

One action of as many statements as make a packet of about 1, 4 and 15 MiB; once without a trace, once with every statement in
it. Timed is the whole end of the action while no daemon listens: making the packet, trying to hand it over, releasing the
records. The length is counted by a reader of the socket in a run of its own. With --instructions, callgrind's count for each
byte, which a busy machine cannot blur."""
import os
import re
import socket
import subprocess
import sys
import threading

from measure import ON, PROJECT, TRACED, Record, configurations, engines, in_turns, pin, ratios

AT_LEAST = 200                      # MB/s
LINEAR = 1.5                        # time of a byte in the longest packet by that in the shortest: beyond any cache, but no more
KINDS = {"statements": ON, "statements and trace": TRACED}
PACKET = {"statements": 380, "statements and trace": 880}           # bytes of one statement, about
SIZES_MIB = (1, 4, 15)


def run(ini, count, prefix):
    command = [*prefix, engines.ENGINE / "bin/php", "-c", ini, PROJECT / "bench/php/packet.php"]
    done = subprocess.run([str(a) for a in command], env={"PATH": os.environ["PATH"], "COUNT": str(count)}, capture_output=True)
    if done.returncode:
        sys.exit(f"{command}\n{done.stdout[-2000:]}{done.stderr[-2000:]}")
    return done


def packet_length(site, ini, count):
    """Bytes of the packet, read from the daemon's socket by somebody who never answers."""
    lengths = []

    def read(connection):
        length = 0
        while part := connection.recv(1 << 20):
            length += len(part)
        lengths.append(length)

    def listen(listener):
        for _ in range(4):              # start-up, the request's query, the action's query, the packet
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=read, args=(connection,), daemon=True).start()

    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(site.daemon.path)
        listener.listen(8)
        threading.Thread(target=listen, args=(listener,), daemon=True).start()
        run(ini, count, [])
        engines.wait_until(lambda: lengths and max(lengths) > count * 100, "the packet")
    os.unlink(site.daemon.path)
    return max(lengths)


def instructions(ini, count):
    done = run(ini, count, ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--toggle-collect=*send_metric*"])
    return int(re.search(rb"Collected : (\d+)", done.stderr).group(1))


def measure(record, site, ini, kind, rounds):
    counts = {mib: mib * (1 << 20) // PACKET[kind] for mib in SIZES_MIB}
    lengths = {mib: packet_length(site, ini, count) for mib, count in counts.items()}
    if "--instructions" in sys.argv:
        for mib, length in lengths.items():
            print(f"{kind}, {length / 1e6:.1f} MB: {instructions(ini, counts[mib]) / length:.2f} instructions a byte", flush=True)
        return
    byte_us = in_turns(SIZES_MIB, rounds, lambda mib: float(run(ini, counts[mib], pin(-1)).stdout) / lengths[mib])
    for mib, length in lengths.items():
        record.add(f"packet of {kind}, {length / 1e6:.1f} MB", "MB/s", [1 / us for us in byte_us[mib]], AT_LEAST, at_least=True)
    record.add(f"packet of {kind}, a byte of the longest by one of the shortest", "times",
               ratios(byte_us[SIZES_MIB[-1]], byte_us[SIZES_MIB[0]]), LINEAR)


def main():
    arguments = [a for a in sys.argv[1:] if a != "--instructions"]
    rounds = int(arguments[0]) if arguments else 15
    site, record = engines.Site(**{"zqs.agent_log_level": "OFF"}), Record("packet")
    site.daemon.stop()
    try:
        inis = configurations(site, KINDS.values())
        for kind, configuration in KINDS.items():
            measure(record, site, inis[configuration], kind, rounds)
    finally:
        site.close()
    return record.keep() if record.rows else 0


if __name__ == "__main__":
    sys.exit(main())
