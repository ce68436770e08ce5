"""A test that fails after an agent did not get its configuration in time is run again, twice at most.

The agent waits 100 ms for the daemon's answer and then reports without it, rightly; on a machine that is busy enough the daemon
of the tests is later than that. The agent's own log tells, and nothing else is reason to run a test again."""
import re

from support import engines
import pytest
from _pytest.runner import runtestprotocol

LATE = re.compile(r"recv app config \w+ fail: -1 bytes, Resource temporarily unavailable")
AGAIN = 2


def count():
    return sum(len(LATE.findall(site.log())) for site in engines.Site.open)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_call(item):
    outcome = yield
    item.answered_late = outcome.excinfo is not None and count() > item.late_answers      # the site's log goes with the site


def pytest_runtest_protocol(item, nextitem):
    item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
    for _ in range(1 + AGAIN):
        item.late_answers, item.answered_late = count(), False
        reports = runtestprotocol(item, log=False, nextitem=nextitem)
        if not item.answered_late:
            break
        item._initrequest()
    for report in reports:
        item.ihook.pytest_runtest_logreport(report=report)
    item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
    return True
