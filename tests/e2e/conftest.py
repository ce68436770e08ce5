import pytest

from support import engines
from support.browser import front  # noqa: F401
from support.databases import doubles, mariadb, postgres, shim, shim_library  # noqa: F401
from support.local_daemon import real  # noqa: F401
from support.skips import pytest_make_collect_report, pytest_runtest_makereport  # noqa: F401
from support.staging import root  # noqa: F401
from support.stores import cluster, mortal_redis, phpredis, redis  # noqa: F401


@pytest.fixture
def site():
    found = engines.Site()
    yield found
    found.close()
