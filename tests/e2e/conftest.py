import subprocess

import pytest

from support import engines
from support.browser import front  # noqa: F401
from support.clickhouse import clickhouse, clickhouse_server  # noqa: F401
from support.databases import doubles, mariadb, postgres, shim, shim_library  # noqa: F401
from support.fleet import sample_store  # noqa: F401
from support.local_daemon import real  # noqa: F401
from support.otlp import definitions  # noqa: F401
from support.skips import pytest_make_collect_report, pytest_runtest_makereport  # noqa: F401
from support.staging import root  # noqa: F401
from support.stores import cluster, mortal_redis, phpredis, redis  # noqa: F401


def pytest_sessionstart(session):
    """What the sources have become is built first: a test of yesterday's build shows nothing."""
    if engines.BUILD != engines.PROJECT / "build" or hasattr(session.config, "workerinput"):
        return
    targets = [f"zqprof_{variant}" for variant in ("patient", "traced")]
    subprocess.run(["cmake", "--build", engines.BUILD, "--target", "all", *targets], check=True, stdout=subprocess.DEVNULL)


@pytest.fixture
def site():
    found = engines.Site()
    yield found
    found.close()
