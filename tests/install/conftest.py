from support.bare_root import bare  # noqa: F401
from support.skips import pytest_make_collect_report, pytest_runtest_makereport  # noqa: F401
