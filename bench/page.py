#!/usr/bin/python3
"""What the browser script costs a page: processor time of its writes, and how much more memory grows meanwhile.

    bench/page.py [PAIRS]

The engine without and with the agent take turns at the same pages, read through a pipe; the figure is the median of the pairs'
ratios. In the first three pages there is no place for the script, so that they are searched as far as pages ever are; the
last one has it at once. Ends with status 1 when a bound is passed. Needs a finished build."""
import os
import subprocess
import sys
from statistics import median

from measure import engines

MIB = 1 << 20
BOUND, MEMORY_BOUND_KIB = 1.02, 128
SETTINGS = {"zqs.rum.enabled": "1", "zqs.rum.script": "f({})"}
TIMED = """function spent() { $r = getrusage(); return $r['ru_utime.tv_sec'] + $r['ru_stime.tv_sec']
    + ($r['ru_utime.tv_usec'] + $r['ru_stime.tv_usec']) / 1e6; }
function peak() { preg_match('/VmHWM:\\s+(\\d+)/', file_get_contents('/proc/self/status'), $m); return $m[1]; }
$block = str_repeat('<p>text</p> ', %d); echo '<html>'; $before = peak(); $t = spent();
for ($i = 0; $i < %d; $i++) { %s }
file_put_contents('figures', spent() - $t . ' ' . (peak() - $before));"""
# (how long the block is, how often it is written, how, bound)
PAGES = {
    "100 MiB in 1 MiB writes": (MIB // 12 + 1, 100, "echo $block;", BOUND),
    "100 MiB in 8 KiB writes": (8192 // 12 + 1, 12800, "echo $block;", BOUND),
    "1 MiB in one-byte writes": (0, MIB, "echo 'x';", None),
    "100 MiB after the script": (MIB // 12 + 1, 100, "if (!$i) echo '<head></head>'; echo $block;", BOUND),
}


def load(site, script, agent, expected):
    """One page: (processor seconds of its writes, growth of the process's peak memory meanwhile in KiB)."""
    environment = {"PATH": os.environ["PATH"], "PHP_INI_SCAN_DIR": "", **engines.web_environment(script, "/index.php")}
    with subprocess.Popen([engines.ENGINE / "bin/php-cgi", "-c", site.ini_file(agent)], env=environment, cwd=site.docroot,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE) as process:
        size = 0
        while block := os.read(process.stdout.fileno(), MIB):
            size += len(block)
    assert process.returncode == 0 and size > expected
    seconds, growth = (site.docroot / "figures").read_text().split()
    return float(seconds), int(growth)


def compare(site, name, pairs):
    size, count, write, bound = PAGES[name]
    script = site.script(TIMED % (size, count, write))
    expected = count * max(12 * size, 1)
    load(site, script, True, expected)                    # warms up the caches of both
    bare, ratios, grown = [], [], []
    for i in range(pairs):
        found = {agent: load(site, script, agent, expected) for agent in ((False, True) if i % 2 else (True, False))}
        bare.append(found[False][0])
        ratios.append(found[True][0] / found[False][0])
        grown.append(found[True][1] - found[False][1])
    held = (bound is None or median(ratios) <= bound) and median(grown) <= MEMORY_BOUND_KIB
    print(f"{name:<28}{median(bare) * 1000:8.1f} ms {median(ratios):8.3f} {bound or '':>7}{median(grown):>8} KiB"
          f"{MEMORY_BOUND_KIB:>7}  {'ok' if held else 'ABOVE THE BOUND'}", flush=True)
    return held


def main():
    pairs = int(sys.argv[1]) if len(sys.argv) > 1 else 25
    site = engines.Site()
    site.daemon.configure(SETTINGS)
    try:
        print(f"{'':<28}{'without':>11}{'ratio':>9}{'bound':>8}{'memory':>12}{'bound':>7}")
        held = [compare(site, name, pairs) for name in PAGES]
    finally:
        site.close()
    return 0 if all(held) else 1


if __name__ == "__main__":
    sys.exit(main())
