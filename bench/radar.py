#!/usr/bin/python3
"""What the radar costs once a process has noted what it has to, in instructions counted by callgrind: of a request, as a share of
it; of a call that a rule names, beside the same call when nobody asks. The first page is nothing but old code, one construct a line.
With --check, fails when a request of the second one costs more than the limit in budget.toml. Needs a finished build."""
import argparse
import shutil
import sys
import tomllib

from instructions import count
from measure import PROJECT, drained_site, engines, wire

PAGES = {"nothing but old code": "require 'shop.php';",
         "page of 13,000 calls": "require 'shop.php'; for ($i = 0; $i < 13000; $i++) $x = strlen(strrev('call'));"}
CALLS = {"noted call": "hebrevc('x')", "unwatched call": "nl2br('x')"}
OPCACHE = {"load": ["zend_extension=opcache.so", engines.AGENT], "opcache.enable_cli": "1"}


def per_request(site, ini, code, variables=None):
    """The agent notes in the first request; so the price of one is a difference."""
    script = site.script(code)
    few, many = (count(site.ini_file(True, ini), script, variables or {}, "-T", str(requests)) for requests in (5, 45))
    return (many - few) / 40


def per_call(site, call):
    loop = f"function loop($n) {{ for ($i = 0; $i < $n; $i++) {call}; }} loop((int) getenv('COUNT'));"
    few, many = (per_request(site, {}, loop, {"COUNT": str(calls)}) for calls in (100, 1100))
    return (many - few) / 1000


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true")
    limit = tomllib.loads((PROJECT / "bench/budget.toml").read_text())["radar"]["share_of_later_requests"]
    site, passed = drained_site(), []
    for file in (PROJECT / "tests/e2e/php/radar").iterdir():
        shutil.copy(file, site.docroot)

    def both(measure):
        figures = []
        for asked in ("0", "1"):
            site.daemon.reply = wire.answer({"zqs.resource.enabled": "false", "zqs.radar": asked})
            figures.append(measure())
        return figures

    try:
        for name, code in PAGES.items():
            for kind, ini in (("plain", {}), ("opcache", OPCACHE)):
                without, asked = both(lambda: per_request(site, ini, code))
                share = asked / without - 1
                print(f"{name + ', ' + kind:32}{without:14,.0f}{asked:14,.0f}  {share:+.3%}", flush=True)
                passed += [f"{name}, {kind}: {share:.3%}"] if share > limit and "13,000" in name else []
        for name, call in CALLS.items():
            without, asked = both(lambda: per_call(site, call))
            print(f"{name:32}{without:14,.0f}{asked:14,.0f}", flush=True)
    finally:
        site.close()
    if parser.parse_args().check and passed:
        sys.exit("above the limit: " + "; ".join(passed))


if __name__ == "__main__":
    main()
