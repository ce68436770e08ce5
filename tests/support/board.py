"""The daemon's board, made as docs/protocol.md has it, for an agent whose daemon is another."""
import os
import struct

SLOT = 10240


def make_board(folder, slots=64):
    first = (64 + 8 * slots + 4095) // 4096 * 4096
    header = struct.pack("<QIIIIQQ24x", 0x6472616F625F7A71, 1, slots, SLOT, first, first + slots * SLOT, os.stat("/proc/self/ns/pid").st_ino)
    path = folder / "board"
    path.write_bytes(header)
    os.truncate(path, first + slots * SLOT)
    path.chmod(0o660)
    return path
