#!/usr/bin/python3
"""What the name of a request costs, with 50 rules of all operators and with none, beside the same work without a name.

    bench/naming.py [ROUNDS]

First the agent's own naming code in a loop, where nothing else hides it; the bounds are held against that. Then the whole
extension: requests for an empty page to FastCGI processes that take turns, one on the bare engine, one with the agent and no
rules, one with the rules; the third less the second is what the rules cost there. All figures are processor time. Half of the
requests meet the last rule, the others none. Ends with status 1 when a bound is passed. Needs a finished build."""
import json
import subprocess
import sys
import tempfile
from pathlib import Path
from statistics import median

from measure import PROJECT, engines

RULES_BOUND_US, NONE_BOUND_US = 200, 2
URIS = ["/shop/category/4711/items", "/index.php/user/42/orders?page=3"]       # as in naming_loop.cpp
BLOCK = 50                                                                  # requests in one turn
VALUES = {1: "/account/%d/settings", 2: "/api/v%d/", 3: "/export%d.csv", 4: "/landing-%d/", 5: "^/(blog|news)/[0-9]+/%d/[a-z-]+$"}


def rules():
    found = []
    for number in range(1, 50):
        operator = number % 5 + 1
        match = {"method": number % 2, "match": operator, "value": VALUES[operator] % number}
        if number % 10 == 0:
            match |= {"match": 0, "params": [{"type": 1, "name": "page", "match": 5, "value": f"^{number}[0-9]+$"}]}
        found.append({"name": f"Rule {number}", "match": match, "split": {"uri": "2", "urlParams": "page"}})
    last = {"method": 1, "match": 5, "value": "^/shop/(category|brand)/[0-9]+"}
    return json.dumps(found + [{"name": "Shop", "match": last, "split": {"uri": "1,2,4", "method": True}}])


def build(name):
    """build/bench/NAME, built from the sources that the extension is built from."""
    target = PROJECT / "build/bench" / name
    target.parent.mkdir(parents=True, exist_ok=True)
    flags = subprocess.check_output(["pkg-config", "--cflags", "--libs", "libcjson"], text=True).split()
    sources = [PROJECT / f"bench/{name}.cpp", PROJECT / "ext/zqp_naming_rules.cpp", PROJECT / "ext/zqp_helper_regex.cpp",
               PROJECT / "ext/zqp_helper_regex_read.cpp"]
    subprocess.check_call(["g++", "-std=c++20", "-O2", f"-I{PROJECT}/ext", *sources, "-o", target, *flags])
    return target


def loop(rounds):
    """Median microseconds: (with the rules, without rules, without a name)."""
    with tempfile.NamedTemporaryFile("w") as file:
        file.write(rules())
        file.flush()
        lines = subprocess.check_output([build("naming_loop"), file.name, str(rounds)], text=True).splitlines()
    return [median(column) for column in zip(*(map(float, line.split()) for line in lines))]


def processor_us(server):
    return int(Path(f"/proc/{server.process.pid}/schedstat").read_text().split()[0]) / 1000


def start(site, agent, settings, by_first):
    """A process that has its settings from the daemon, for long enough not to ask again while it is measured; `by_first`
    begins the name that the first of the requests gets."""
    site.daemon.configure(settings)
    server = engines.FastCgi(site, site.ini_file(agent), agent, env={"PHP_FCGI_MAX_REQUESTS": "1000000"})
    site.servers.append(server)
    server.start()
    turn(site, server)
    if agent:
        names = {metric.action for metric in site.daemon.wait_metrics(BLOCK)}
        assert len(names) == 2 and any(name.startswith(by_first) for name in names), names
        site.daemon.forget()
    return server


def turn(site, server):
    """Microseconds of a request in one turn."""
    before = processor_us(server)
    for i in range(BLOCK):
        server.request(site.docroot / "index.php", URIS[i % 2])
    return (processor_us(server) - before) / BLOCK


def extension(rounds):
    """Median microseconds of a request: (bare, agent without rules, agent with rules), and of what the rules add."""
    site = engines.Site()
    try:
        site.script("")
        bare = start(site, False, {}, None)
        none = start(site, True, {"zqs.agent_enabled": "1"}, "WebAction/PHP/tmp%2F")
        ruled = start(site, True, {"zqs.agent_enabled": "1", "zqs.naming.rules": rules()}, "WebAction/Shop/shop%2Fcategory")
        found = []
        for i in range(rounds):
            servers = (bare, none, ruled)
            times = {server: turn(site, server) for server in (servers if i % 2 else reversed(servers))}
            found.append([times[server] for server in servers])
            site.daemon.forget()
    finally:
        site.close()
    return [median(column) for column in zip(*found)] + [median(row[2] - row[1] for row in found)]


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 41
    ruled, none, nothing = loop(rounds)
    held = ruled - nothing < RULES_BOUND_US and none - nothing < NONE_BOUND_US
    print(f"{'us per request':<28}{'without a name':>16}{'no rules':>10}{'bound':>7}{'50 rules':>10}{'bound':>7}")
    print(f"{'the naming alone':<28}{nothing:>16.2f}{none:>10.2f}{NONE_BOUND_US:>7}{ruled:>10.1f}{RULES_BOUND_US:>7}"
          f"  {'ok' if held else 'ABOVE THE BOUND'}", flush=True)
    print("\nregular expressions at their worst (aim: 5 ms)")
    print(subprocess.check_output([build("naming_patterns")], text=True), flush=True)
    bare, none, ruled, added = extension(rounds)
    print(f"{'':<28}{'without agent':>16}{'no rules':>10}{'':>7}{'50 rules':>10}{'added by the rules':>21}")
    print(f"{'an empty page, FastCGI':<28}{bare:>16.0f}{none:>10.0f}{'':>7}{ruled:>10.0f}{added:>21.0f}")
    return 0 if held else 1


if __name__ == "__main__":
    sys.exit(main())
