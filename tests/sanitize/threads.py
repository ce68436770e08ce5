"""Threads of one process under ThreadSanitizer: host.cpp serves while a fake daemon changes every application's configuration
each second. Fails on any report that thread.supp does not name, and unless the sanitizer sees the races of a host
whose lock does nothing.

threads.py HOST [SECONDS]"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from support import wire
from support.fake_daemon import FakeDaemon
from support.peers import Peer

HERE = Path(__file__).resolve().parent
THREADS = 16
CLOCK_RATE = 60                        # of the host's monotonic clock
SHORTEST_RUN_S, PLANTED_RUN_S = 5, 5
SUPPRESSIONS = HERE / "thread.supp"
# what the packets of a run must hold, or its threads did not meet where they might race
CROSSED = ["error", "trace", "sql", "calls", "call_errors", "nosql", "components", "params", "transaction_id"]

RULES = ['[{"name":"first","match":{"method":0,"match":5,"value":"^/page/[0-3]"},"split":{"uri":"1,2"}}]',
         '[{"name":"second","match":{"method":1,"match":2,"value":"/page"},"split":{"uri":"-1","urlParams":"case"}}]', ""]
SCRIPTS = ["window.agent={};", "", "(function(){ window.other = {} })();"]


def configuration(app, second):
    """What an application is told in this second: most settings take another value than in the one before."""
    profiled = app.startswith("shopa") and second % 4 == 0
    settings = {
        "naming.rules": RULES[second % 3], "web_action_uri_params_captured": f"/page/{second},case", "urls_captured": f"^/page\n[a-z]{second}",
        "rum.enabled": 1, "rum.script": SCRIPTS[second % 3], "capture_params": 1, "ignored_params": f"secret{second}",
        "error_collector.ignored_status_codes": f"40{second % 10}", "vantorIdSecret": f"acme|{second % 5}",
        "transaction_tracer.enabled": second % 2, "action_tracer.action_threshold": 1 + second % 200,
        "action_tracer.record_sql": ["raw", "obfuscated", "off"][second % 3], "action_tracer.slow_sql_threshold": 1,
        "action_tracer.explain_enabled": 1, "action_tracer.explain_threshold": 1,
        "resource.enabled": 1, "resource.low": 0, "resource.high": 99, "resource.safe": 101,
        "profile_end_time": int(time.monotonic() + 1) * CLOCK_RATE if profiled else 0}
    return {f"zqs.{key}": str(value) for key, value in settings.items()}


class Configurations:
    """The daemon's answers. An answer without a stamp is applied by every request of its application."""

    def __init__(self):
        self.begin, self.given = time.monotonic(), set()

    def __call__(self, query):
        second = int(time.monotonic() - self.begin)
        self.given.add((query.app, second))
        stamp = None if query.app.startswith("shoph") else second + 1
        return wire.answer(configuration(query.app, second), stamp, app_id=f"{query.app}-{second}")


def serve(host, seconds, *mode):
    """Runs the host; its reports, and what it, the daemon and the sanitizer counted."""
    root = Path(tempfile.mkdtemp(prefix="zq", dir="/tmp"))         # short: a socket path has 107 bytes at most
    (root / "log/quorbit").mkdir(parents=True)
    daemon, peer, answers = FakeDaemon(str(root / "log/quorbit/.quorbit.sock")), Peer(), Configurations()
    daemon.reply = answers
    options = f"suppressions={SUPPRESSIONS}:log_path={root}/report:print_suppressions=1:exitcode=0:history_size=4"
    try:
        done = subprocess.run([host, root, HERE / "page.php", str(THREADS), str(seconds), *mode], capture_output=True, text=True,
                              env={"PATH": os.environ["PATH"], "TSAN_OPTIONS": options, "PEER_PORT": str(peer.port)},
                              timeout=seconds * 4 + 120)
        daemon.settle()
        text = "".join(path.read_text(errors="replace") for path in root.glob("report.*"))
        reports = re.findall(r"WARNING: ThreadSanitizer.*?\n=====", text, re.S)
        served = re.match(r"(\d+) requests", done.stdout)
        metrics = daemon.received(wire.Metric)
        missing = [field for field in CROSSED if not any(getattr(metric, field) for metric in metrics)]
        missing += [] if daemon.received(wire.Event) else ["thread profile"]
        suppressed = re.findall(r"^\d+ \S+:\S+", text, re.M)
        return {"missing": missing, "reports": reports, "suppressed": suppressed, "code": done.returncode,
                "stderr": done.stderr, "requests": int(served[1]) if served else 0, "packets": len(metrics),
                "configurations": len(answers.given), "faults": [f for f in daemon.faults if "ended inside" not in f]}
    finally:
        daemon.stop()
        peer.close()
        shutil.rmtree(root, ignore_errors=True)


def main():
    host, seconds = Path(sys.argv[1]).resolve(), max(int(sys.argv[2]) if len(sys.argv) > 2 else 30, SHORTEST_RUN_S)
    run = serve(host, seconds)
    planted = serve(host, PLANTED_RUN_S, "unlocked")
    wrong = run["reports"][:20] + run["faults"]
    if run["code"] or not run["requests"]:
        wrong.append(f"the host ended with {run['code']}: {run['stderr'][-2000:]}")
    if run["packets"] < run["requests"] * 0.9 or run["configurations"] < seconds:
        wrong.append("the threads were not monitored, or their configuration did not change")
    if run["missing"]:
        wrong.append(f"nothing of this was reported: {run['missing']}")
    if not any("zq_apply_config_answer" in report for report in planted["reports"]):
        wrong.append("races were let in, and not seen")
    print(*wrong, sep="\n", end="\n" if wrong else "")
    for row in run["suppressed"]:
        print("in the engine:", row)
    print(f"ThreadSanitizer: {THREADS} threads, {run['requests']} requests, {run['packets']} packets, {run['configurations']} "
          f"configurations, {len(run['reports'])} reports; {len(planted['reports'])} reports with the lock taken out")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
