"""What operations cost in machine instructions stays within the budgets in benchmarks/instruction_budgets.json."""

import json
import os
import shutil
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "benchmarks"))
import instructions


@pytest.fixture
def known():
    """The table of budgets; skips where a count would say nothing about it, which CI never does."""
    known = json.loads(instructions.BUDGETS.read_text())
    if "asan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("a build with sanitizers has instructions of its own")
    if not os.environ.get("CI"):
        if not shutil.which("valgrind"):
            pytest.skip("valgrind is missing: apt install valgrind")
        if known["build"] != instructions.build():
            pytest.skip(f"the budgets are of another build: {known['build']}")
    return known


def test_no_operation_costs_over_its_budget(known):
    over = list(instructions.over_budget(instructions.counts(), known["budgets"]))
    assert over == [], f"{instructions.build()} against {known['build']}; benchmarks/instructions.py says how to renew"


def test_a_lost_tenth_is_seen():
    budgets = {"elements": 1000, "row_sums": 200}
    assert list(instructions.over_budget({"elements": 1099, "row_sums": 200}, budgets)) == []
    counted = {"elements": 1101, "row_sums": 150, "sums_in_place": 1}
    assert [text.partition(":")[0] for text in instructions.over_budget(counted, budgets)] == [
        "elements",
        "sums_in_place",
    ]
