import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

import engines  # noqa: E402
from skips import pytest_make_collect_report, pytest_runtest_makereport  # noqa: E402,F401


@pytest.fixture(scope="session")
def shim(tmp_path_factory):
    """Environment that puts shim.c between an engine and the machine, and the two files by which to steer it."""
    folder = tmp_path_factory.mktemp("shim")
    library, meminfo, clock = folder / "shim.so", folder / "meminfo", folder / "clock"
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library, Path(__file__).parent / "shim.c"], check=True)
    return {"LD_PRELOAD": str(library), "SHIM_MEMINFO": str(meminfo), "SHIM_CLOCK": str(clock)}


@pytest.fixture
def site():
    found = engines.Site()
    yield found
    found.close()
