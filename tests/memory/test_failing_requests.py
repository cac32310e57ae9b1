"""Each request for memory fails once: of the store's functions and of what Python calls, in child processes."""

import subprocess
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).resolve().parents[1]


@pytest.mark.parametrize("program", [["store_operations"], ["python_operations", "scalars", "scalars in place"]])
def test_failing_requests_end_in_memory_errors_and_change_nothing(program):
    name, *words = program
    code = f"import runpy, sys; sys.path.insert(0, {str(TESTS)!r}); runpy.run_module('memory.{name}', None, '__main__')"
    done = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", code, *words],
        capture_output=True,
        text=True,
        timeout=300,
        check=False,
    )
    assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-3000:]
