"""Valgrind's verdict on the agent, with the engine's own allocator out of the way: no invalid access, nothing lost."""
import subprocess

import pytest

from support import engines, memcheck
from support.cases import program

CODE = "$_GET = array('rounds' => 3);" + program("faults/every_hook.php") + "exit(3);"


@pytest.mark.parametrize("server", ["php", "php-cgi"])
def test_no_invalid_access_and_no_leak(site, server):
    site.daemon.configure({"zqs.action_tracer.action_threshold": "1", "zqs.transaction_tracer.enabled": "1",
                           "zqs.vantorIdSecret": "a|1", "zqs.rum.enabled": "1", "zqs.rum.script": "{}", "zqs.capture_params": "1",
                           "zqs.naming.rules": '[{"name":"n","match":{"method":0,"match":5,"value":"^/x"},"split":{"uri":"1"}}]'})
    report, script = site.root / "valgrind.xml", str(site.script(CODE))
    command = ["valgrind", "-q", "--xml=yes", f"--xml-file={report}", "--leak-check=full", "--show-leak-kinds=definite,indirect",
               "--num-callers=40", str(engines.ENGINE / "bin" / server), "-c", str(site.ini_file())]
    environment = {"PATH": "/usr/bin:/bin", "USE_ZEND_ALLOC": "0"}
    if server == "php-cgi":
        environment.update(engines.web_environment(script, "/x/1?a=b", headers={"X-Vantor-Id": "a|2;c=1;x=77", "Referer": "r"}))
    else:
        command.append(script)
    done = subprocess.run(command, env=environment, capture_output=True, timeout=120)
    metric, = site.daemon.wait_metrics()
    assert metric.error and metric.sql, done.stdout + done.stderr
    assert memcheck.faults(report) == []
