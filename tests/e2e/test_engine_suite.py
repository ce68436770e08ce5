"""A sample of the engine's own tests ends with the agent, monitoring and tracing, as it does without."""
import subprocess

from support.engines import PROJECT


def test_engine_passes_its_own_tests_with_the_agent():
    suite = PROJECT / "tests/engine"
    done = subprocess.run([suite / "engine-suite", "--list", suite / "sample.txt", "--modes", "cli/monitoring cgi/traced"],
                          capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
