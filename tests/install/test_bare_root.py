"""The packages on a Debian that has nothing else: what the README says is typed there line by line, and each step
leaves the files that it should and no others. Beside the packages and the system there is only a PHP 5.6, as a host
has it. Needs root."""
import json
import re
import sqlite3
import threading

from support.bare_root import CONF, DAEMONS_OWN, packages, typed
from support.fake_daemon import wait_until

BY_INSTALLING = {"/var/log/quorbit", "/var/log/quorbit/php-agent.log", "/var/log/quorbit/.quorbit.cfg",
                 "/var/log/quorbit/applications.conf",
                 "/etc/systemd/system/multi-user.target.wants/quorbit.service"}


def change_layout(bare, number):
    """Gives the store the layout of that number, and returns the one that it had."""
    with sqlite3.connect(bare.folder / "var/log/quorbit/quorbit.db") as store:
        old, = store.execute("PRAGMA user_version").fetchone()
        store.execute(f"PRAGMA user_version = {number}")
    return old


def test_the_documented_commands_lead_from_nothing_to_the_first_action_and_back(bare):
    home = bare.folder / "root"
    names = packages(home)
    bare.host_php()
    bare.serve()
    install, setup, enable, doctor = commands = typed("README.md", "Into a real server")
    assert commands == typed("docs/install.md", "Debian packages")
    install = install.replace("apt ", "apt-get -y --no-install-recommends ", 1)
    bare.download(*(f"./{name}" for name in names))              # first: their files are not ours
    before = bare.files()
    bare.type(install)
    assert "off" in bare.type(setup)
    assert "quorbit.ini" in bare.type(enable)
    bare.serve()                                                 # as its last lines say
    assert b"page" in bare.get()
    assert "Nothing is amiss." in bare.type(doctor)
    wait_until(lambda: "index.php" in bare.type("quorbit show --app Shop"), "the action")

    listed = {re.sub("^/lib/", "/usr/lib/", path) for path in bare.type("dpkg -L quorbit quorbit-php").split()}
    new = bare.files() - before
    assert new - listed - DAEMONS_OWN == BY_INSTALLING | {f"{CONF}/quorbit.ini"}
    placed = {path for path in listed if path.startswith(("/usr/", "/lib/", "/etc/"))}
    assert {path for path in placed if not (bare.folder / path[1:]).exists()} == set()

    upgraded = packages(home, "9.9-1")
    stored = lambda: [action["id"] for action in json.loads(bare.type("quorbit show --json -n 100000"))]  # noqa: E731
    kept, answers, done = stored(), [], threading.Event()
    visitor = threading.Thread(target=lambda: [answers.append(bare.get()) for _ in iter(done.is_set, True)])
    visitor.start()
    try:
        bare.type("apt-get install -y ./" + " ./".join(upgraded))
    finally:
        done.set()
        visitor.join()
    assert len(answers) > 10 and all(answer and b"page" in answer for answer in answers)
    bare.serve()
    assert b"page" in bare.get()
    wait_until(lambda: len(stored()) > len(kept) + 1, "actions after the upgrade")
    after = stored()                                             # while the last are still on their way
    assert set(kept) <= set(after) and after == list(range(max(after), 0, -1))
    assert bare.files() - listed - DAEMONS_OWN - before == BY_INSTALLING | {f"{CONF}/quorbit.ini"}

    layout = change_layout(bare, 1000)                           # as if the newer version had another one
    downgrade = bare.type("apt-get install -y --allow-downgrades ./" + " ./".join(names))
    refused = "layout 1000 is of a newer quorbit"
    assert f"{refused}, this one knows {layout}: install the newer one again, or move the store away" in downgrade
    bare.serve()
    assert b"page" in bare.get()
    for command, status in (("show", 1), ("top", 1), ("status", 1), (doctor.partition(" ")[2], 2)):
        assert refused in bare.type(f"quorbit {command}", accept=(status,))
    assert change_layout(bare, layout) == 1000                   # it was left as it was
    bare.type("apt-get remove -y quorbit quorbit-php")
    assert b"page" in bare.get()                                 # a server that has not been restarted
    bare.serve()
    assert b"page" in bare.get()
    left = bare.files() - before
    assert left - DAEMONS_OWN == BY_INSTALLING | {"/etc/logrotate.d/quorbit"}
    bare.type("apt-get purge -y quorbit")
    assert bare.files() - before == set()
