import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "harness"))

import engines  # noqa: E402
from servers import doubles, mariadb, postgres  # noqa: E402,F401
from skips import pytest_make_collect_report, pytest_runtest_makereport  # noqa: E402,F401


@pytest.fixture
def site():
    found = engines.Site()
    yield found
    found.close()


@pytest.fixture(scope="session")
def shim_library(tmp_path_factory):
    library = tmp_path_factory.mktemp("shim") / "shim.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, engines.PROJECT / "tests/doubles/shim.c", "-Wl,--no-as-needed",
                    engines.EXTENSION], check=True)
    return library


@pytest.fixture
def shim(site, shim_library):
    """Puts shim.c between the agent and the machine; the environment that names the two files by which to steer it."""
    site.extension = shim_library
    return {"SHIM_MEMINFO": str(site.root / "meminfo"), "SHIM_CLOCK": str(site.root / "clock")}
