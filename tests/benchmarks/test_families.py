"""The benchmark models are the models they claim to be, and building them makes no element objects."""

import gc
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "benchmarks"))
import common
import families

from tarvopy import _debug


@pytest.mark.parametrize("family", families.FAMILIES)
def test_family_is_the_model_made_by_hand(family, mode):
    assert families.differences(family, common.WARM.get(family, 6)) == []


@pytest.mark.parametrize("family", families.FAMILIES)
def test_family_is_built_without_element_objects(family):
    gc.collect()
    before = _debug.counts()
    built = families.FAMILIES[family](200 if family in ("knapsack", "sparserows") else 8)
    after = _debug.counts()
    assert built()["vars"] == common.expected(family, 200 if family in ("knapsack", "sparserows") else 8)[0]
    assert {kind: after[kind] - before[kind] for kind in ("Var", "LinExpr")} == {"Var": 0, "LinExpr": 0}


def test_a_wrong_coefficient_is_found(monkeypatch):
    def halved(n):
        v, w = common.data("knapsack", n)
        return v, 0.5 * w

    monkeypatch.setattr(families, "data", lambda family, n: halved(n))
    assert families.differences("knapsack", 50) == ["rows"]
