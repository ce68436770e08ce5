"""The error that an action reports: each way in which a request can fail, and what does not count as a failure. The page, the
status and the server's log are the same as without the agent, in every case."""
import json
import re

import pytest

from support import engines, wire
from support.cases import cases, program

SHOWN = {"memory_limit": "8M", "display_errors": "1", "html_errors": "0", "log_errors": "1", "error_log": ""}
COLLECTING = {"zqs.error_collector.enabled": "1", "zqs.error_collector.ignored_status_codes": "418,503"}


def summary(error):
    """class | first line of the message, without its place | functions of the stack, innermost first; the engine gives the
    innermost one twice, where it is and where it was called"""
    kind, message = (json.loads(f'"{text}"') for text in (error["class"], error["message"]))
    names = [frame.partition("(")[0] for frame in error["stack"]]
    stack = [name for at, name in enumerate(names) if at == 0 or name != names[at - 1]]
    words = re.sub(r"(, called)? in /.*| \(tried .*", "", message.split("\n")[0])
    return " | ".join([kind, words, *filter(None, [" ".join(stack)])])


@pytest.mark.parametrize("code, expected", cases("errors.php"))
def test_the_reported_error(site, code, expected):
    result = site.cgi(code, ini=SHOWN, settings=COLLECTING)
    error = result.metric.error
    assert (error and summary(error)) == expected
    assert not error or error["class"] != "HTTP_ERROR" or error["status"] == result.status


@pytest.mark.parametrize("filler", [0, 100_000, 300_000, 700_000])
def test_recording_exhausted_memory_costs_the_page_nothing(site, filler):
    """However near to the limit the last allocation came: the engine discards a buffered page that is beyond it."""
    name = "f" * 2000
    result = site.cgi(program("exhausted.php").replace("NAME", name), ini={**SHOWN, "memory_limit": "2M"}, twin=False,
                      env={"FILLER": str(filler)}, settings=COLLECTING)
    assert result.body.startswith(b"page") and result.body.count(b"Allowed memory size") == 1
    assert len(result.metric.error["stack"]) == 20


def test_a_machine_without_memory(site):
    """No stack then, but the message."""
    site.daemon.configure(COLLECTING)
    script = site.script("ob_start(); echo 'page'; $all = array(); while (true) $all[] = str_repeat('x', 3000);")
    php = [engines.ENGINE / "bin/php-cgi", "-c", site.ini_file(True, {**SHOWN, "memory_limit": "-1"})]
    result = site.run(["/bin/sh", "-c", 'ulimit -v 300000; exec "$@"', "sh", *php],
                      engines.web_environment(script, "/index.php"), web=True)
    site.daemon.settle()
    metric, = site.daemon.received(wire.Metric)
    assert result.body.startswith(b"page\nFatal error: Out of memory")
    assert metric.error["message"].startswith("Out of memory ")
    assert (metric.error["class"], metric.error["stack"]) == ("RUNTIME_ERROR", None)
