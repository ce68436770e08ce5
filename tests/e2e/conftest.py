import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "harness"))

import engines  # noqa: E402
from browser import front  # noqa: E402,F401
from late_answers import pytest_runtest_call, pytest_runtest_protocol  # noqa: E402,F401
from local_daemon import real  # noqa: E402,F401
from servers import doubles, mariadb, postgres, shim, shim_library  # noqa: E402,F401
from skips import pytest_make_collect_report, pytest_runtest_makereport  # noqa: E402,F401
from staging import root  # noqa: E402,F401
from stores import cluster, mortal_redis, phpredis, redis  # noqa: E402,F401


@pytest.fixture
def site():
    found = engines.Site()
    yield found
    found.close()
