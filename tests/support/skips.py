"""Under CI=true nothing is skipped unless tests/skips.txt says so, one line each: name of the test, " | ", reason."""
import os
from pathlib import Path

import pytest

ALLOWED = Path(__file__).resolve().parents[1] / "skips.txt"


def allowed(text):
    """The names in a list of skips; a name without a reason counts for nothing."""
    pairs = [line.partition(" | ") for line in text.splitlines() if line.strip() and not line.startswith("#")]
    return {name.strip() for name, _, reason in pairs if reason.strip()}


def refuse(report, name):
    if report.skipped and not hasattr(report, "wasxfail") and os.environ.get("CI") == "true":
        if name not in allowed(ALLOWED.read_text()):
            report.outcome = "failed"
            report.longrepr = f"{name} is skipped, and {ALLOWED.name} does not name it: {report.longrepr}"


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    refuse(outcome.get_result(), item.nodeid)


@pytest.hookimpl(hookwrapper=True)
def pytest_make_collect_report(collector):
    outcome = yield
    refuse(outcome.get_result(), collector.nodeid)
