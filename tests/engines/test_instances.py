"""Instances of the literature with known answers, through tarvopy.read."""

import json

import pytest

import tarvopy
from tarvopy import TRV

STATUSES = {"optimal": TRV.OPTIMAL, "infeasible": TRV.INFEASIBLE, "unbounded": TRV.UNBOUNDED}
#: Takes minutes on one core: only its interval of objective and bound is asked for.
HARD = {"miplib/pk1.mps": 3.0}


@pytest.fixture(scope="module")
def known(instances):
    answers = json.loads((instances / "known_optimal_values.json").read_text())["instances"]
    chosen = {k: v for k, v in answers.items() if k.split("/")[0] in ("netlib", "miplib", "infeasible")}
    assert len(chosen) >= 45
    return chosen


@pytest.mark.parametrize("folder", ["netlib", "miplib", "infeasible"])
@pytest.mark.filterwarnings("error")  # an answer called imprecise would be a misfire
def test_known_answers(instances, known, folder):
    wrong = []
    for name, answer in known.items():
        if not name.startswith(folder):
            continue
        with tarvopy.read(instances / name) as m:
            m.params.LogLevel = 0
            if folder == "miplib":
                m.params.RelGap = 1e-9
            if name in HARD:
                m.params.TimeLimit = HARD[name]
            m.optimize()
            if not as_known(m, name, answer):
                wrong.append((name, m.Status, m.ObjVal if m.Status == TRV.OPTIMAL else None, answer["optimal"]))
    assert wrong == []


def as_known(m, name, answer):
    optimal = answer["optimal"]
    if name in HARD and m.Status == TRV.TIME_LIMIT:
        return m.ObjBound <= optimal + 1e-6 and optimal <= m.ObjVal + 1e-6
    if m.Status != STATUSES[answer["status"]]:
        return False
    return optimal is None or abs(m.ObjVal - optimal) <= 1e-7 * max(1.0, abs(optimal))
