#!/usr/bin/python3
"""What the agent takes of a server's memory: private memory of Apache's event MPM with 16 threads, with and without it.

    bench/memory.py [ROUNDS]

Each round starts one server with the agent and one without. Idle: every thread has served one empty request. In a request:
every thread holds one request of a page of 13,000 calls that has done its work and waits. Idle after it: the same, once these
are answered. The figures are differences of Private_* in smaps_rollup, by the number of threads."""
import sys
from pathlib import Path

from measure import PROJECT, Record, engines

IDLE_KIB, REQUEST_KIB = 256, 1024       # what a thread may take idle, and more than that in a request
HOLD = """<?php if (isset($_GET['wait'])) {
    touch(__DIR__ . '/at/' . $_GET['wait']);
    while (!file_exists(__DIR__ . '/go')) {
        usleep(2000);
        clearstatcache();
    }
}
"""


def private_kib(server):
    """Of the process that has the threads: the server's only child."""
    pid = server.process.pid
    child, = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    lines = (line.split() for line in Path(f"/proc/{child}/smaps_rollup").read_text().splitlines()[1:])
    return sum(int(line[1]) for line in lines if line[0] in ("Private_Clean:", "Private_Dirty:"))


def all_threads(site, server, page, while_held):
    """One request in every thread at once; calls while_held() when all have come to their end."""
    at, go = site.docroot / "at", site.docroot / "go"
    for path in at.iterdir():
        path.unlink()
    go.unlink(missing_ok=True)
    count, found = server.threads, []

    def request(i):
        if i == count:
            try:
                engines.wait_until(lambda: len(list(at.iterdir())) == count, "every thread to be held", 30)
                found.append(while_held())
            finally:
                go.touch()
        else:
            assert server.request(page, f"/{page.name}?wait={i}").status == 200

    engines.at_once(count + 1, request)
    return found[0]


def measure(site, pages, agent):
    server = engines.Apache(site, site.ini_file(agent), agent)
    site.servers.append(server)
    server.start()
    try:
        def held(page):
            return all_threads(site, server, page, lambda: private_kib(server))
        held(pages["empty"])
        idle = private_kib(server)
        busy = held(pages["calls"])
        after = private_kib(server)
    finally:
        server.stop()
    return {"idle": idle, "in a request": busy, "idle after it": after}


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    site, record = engines.Site(), Record("memory")
    for folder in (site.docroot, site.docroot / "at"):
        folder.mkdir(exist_ok=True)
        folder.chmod(0o777)
    pages = {"empty": site.script("", "empty.php"), "calls": site.docroot / "calls.php"}
    pages["empty"].write_text(HOLD)
    pages["calls"].write_text((PROJECT / "bench/php/page_calls.php").read_text() + HOLD.removeprefix("<?php "))
    try:
        found = [(measure(site, pages, True), measure(site, pages, False)) for _ in range(rounds)]
    finally:
        site.close()
    threads = engines.Apache.threads
    print(f"KiB of private memory that the agent adds, by thread, {threads} threads")
    added = {state: [(mine[state] - bare[state]) / threads for mine, bare in found] for state in found[0][0]}
    record.add("private memory of an idle thread", "KiB", added["idle"], IDLE_KIB)
    more = [busy - idle for busy, idle in zip(added["in a request"], added["idle"])]
    record.add("private memory in a request, more than idle", "KiB", more, REQUEST_KIB)
    record.add("private memory, idle after it", "KiB", added["idle after it"])
    record.add("the process without the agent, idle", "MiB", [bare["idle"] / 1024 for _, bare in found])
    return record.keep()


if __name__ == "__main__":
    sys.exit(main())
