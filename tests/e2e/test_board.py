"""Whatever somebody does to the board, requests go on as they would without, and the log has a line of it; the project's own
daemon makes it anew."""
import os
import struct
import threading

import pytest

from support.board import make_board, now
from support.engines import IS_ROOT, Fpm
from support.fake_daemon import wait_until

pytestmark = pytest.mark.skipif(not IS_ROOT, reason="root may write what its children may not")
SLOTS = 64
QUERIES = """
$db = new PDO('sqlite::memory:');
$db->exec('CREATE TABLE product (name TEXT)');
foreach (range(1, 50) as $i) { $db->query("SELECT name FROM product WHERE name = 'secret $i'"); }
echo $i;"""


class One(Fpm):
    children = 1


def overwrite(path):
    with path.open("r+b") as board:
        board.write(os.urandom(path.stat().st_size))


def replace(path):
    other = path.with_name("other")
    other.write_bytes(os.urandom(100_000))
    other.rename(path)


def take_every_slot(path):
    """For a process that lives, and has no slot."""
    with path.open("r+b") as board:
        slots = struct.unpack("I", board.read(16)[12:])[0]
        board.seek(64)
        board.write(struct.pack("Q", os.getpid() << 32 | os.getpid()) * slots)


LEFT = "has been removed, cut short or overwritten"
SPOILED = {                                                # how, what the log says ("": nothing), and whether before the process starts
    "absent": (os.unlink, "", True),
    "not to be written": (lambda path: path.chmod(0o440), "cannot be opened: Permission denied", True),
    "of another size": (lambda path: os.truncate(path, 4096), "is not of this version", True),
    "random": (overwrite, "is not of this version", True),
    "full": (take_every_slot, "is full", True),
    "deleted while mapped": (os.unlink, LEFT, False),
    "cut short while mapped": (lambda path: os.truncate(path, 0), LEFT, False),
    "random while mapped": (overwrite, LEFT, False),
}


@pytest.mark.parametrize("how", SPOILED)
def test_requests_go_on_whatever_the_board_is_and_the_log_says_so_once(site, how):
    spoil, words, before = SPOILED[how]
    board, script = make_board(site.logs, SLOTS), site.script(QUERIES, "page.php")
    os.chown(board, -1, site.logs.stat().st_gid)
    site.daemon.configure({"zqs.details": "1"})
    if before:
        spoil(board)
    pair = site.serve(One)

    def ask():
        pair.agent.request(script, "/page.php").check_twin(pair.bare.request(script, "/page.php"), ())

    def told():
        return [line for line in site.log().splitlines() if "the board" in line]

    ask()
    if not before:
        claimed = any(struct.unpack(f"{SLOTS}Q", board.read_bytes()[64:64 + 8 * SLOTS]))
        assert claimed and not told()
        spoil(board)
    wait_until(lambda: ask() or told() or not words, "a line of the log")
    for _ in range(4):
        ask()
    assert len(told()) == bool(words) and all(words in line for line in told()), told()


MENDED = {                                                 # how, and whether the daemon makes another
    "deleted": (os.unlink, True),
    "replaced": (replace, True),
    "cut short": (lambda path: os.truncate(path, 0), True),
    "random": (overwrite, True),
    "not to be written": (lambda path: path.chmod(0o440), True),
    "full": (take_every_slot, False),
}


@pytest.mark.parametrize("how", MENDED)
def test_a_board_that_was_spoilt_soon_shows_requests_again(real, how):
    spoil, is_new = MENDED[how]
    board, script = real.logs / "board", real.site.script("usleep(200000); echo 'ok';", "page.php")
    real.php()
    wait_until(board.exists, "the board")
    pair = real.site.serve(One)

    def is_shown():
        answers = []
        lane = threading.Thread(target=lambda: answers.append(pair.agent.request(script, "/page.php")))
        lane.start()
        seen = False
        while lane.is_alive() and not seen:
            seen = any(row["path"] == "/page.php" for row in now(real)["requests"])
        lane.join()
        answers[0].check_twin(pair.bare.request(script, "/page.php"), ())
        return seen

    wait_until(is_shown, "the request on the board")
    before = board.stat().st_ino
    spoil(board)
    wait_until(lambda: board.exists() and (board.stat().st_ino != before) == is_new, "another board")
    wait_until(is_shown, "the request on the board that was mended")
    told = [line for line in real.site.log().splitlines() if "the board" in line]
    made = [line for line in (real.logs / "daemon.log").read_text().splitlines() if "made anew" in line]
    assert len(told) <= 1 and len(made) == is_new, (told, made)
    assert board.stat().st_mode & 0o777 == 0o660
