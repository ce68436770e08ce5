"""The rule that a skipped test fails in continuous integration works."""
import os
import subprocess
import sys
from pathlib import Path

import pytest

from support import skips


@pytest.mark.parametrize("ci, code", [("true", 1), ("", 0)])
@pytest.mark.parametrize("test", ['def test_it(): pytest.skip("why")', 'pytest.skip("why", allow_module_level=True)'])
def test_skipped_test_fails_in_ci(tmp_path, ci, code, test):
    (tmp_path / "test_sample.py").write_text(f"import pytest\ndef test_other(): pass\n{test}\n")
    done = subprocess.run([sys.executable, "-m", "pytest", "-p", "support.skips", "-p", "no:cacheprovider", "test_sample.py"], cwd=tmp_path,
                          capture_output=True, env={**os.environ, "CI": ci, "PYTHONPATH": str(Path(skips.__file__).parents[1])})
    assert (done.returncode in (1, 2)) == bool(code), done.stdout


def test_only_reasoned_names_are_allowed():
    assert skips.allowed("# a | comment\nt.py::one | needs a license\nt.py::two\nt.py::three |  \n") == {"t.py::one"}
