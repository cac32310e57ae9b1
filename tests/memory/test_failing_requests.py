"""Requests for memory fail, in the store's functions and in what Python calls, and what operations leave behind is
counted: in child processes, which a crash may end. CONTRIBUTING.md says how all requests are gone through."""

import random
import subprocess
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).resolve().parents[1]
SEED = f"seed={random.randrange(10**6)}"
MODELS = ["models", "solutions", "general", "general with a solution", "files"]
ENGINES = ["highs", "highs again", "clarabel", "clarabel again", "scip"]


def run(name: str, *words: str) -> None:
    code = f"import runpy, sys; sys.path.insert(0, {str(TESTS)!r}); runpy.run_module('memory.{name}', None, '__main__')"
    done = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", code, *words],
        capture_output=True,
        text=True,
        timeout=600,
        check=False,
    )
    assert done.returncode == 0, done.stdout[-3000:] + done.stderr[-3000:]


@pytest.mark.parametrize(
    "program",
    [
        ["store_operations"],
        [
            "python_operations",
            "scalars",
            "scalars in place",
            "arrays in place",
            "arrays with objects in place",
            "compact arrays in place",
        ],
        ["python_operations", "arrays", "arrays with objects", *MODELS, "every=23", SEED],
        ["python_operations", *ENGINES, "every=41", SEED],
        ["python_operations", "eager", "arrays", "arrays with objects", *MODELS, "every=53", SEED],
    ],
    ids=["store", "scalars and in place", "arrays and models", "engines", "eager"],
)
def test_failing_requests_end_in_memory_errors_and_change_nothing(program):
    run(*program)


def test_operations_leave_no_memory_and_no_references_behind():
    run("flat_counts")
