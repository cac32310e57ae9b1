"""Instances of the literature with known answers, through tarvopy.read."""

import json
import math

import pytest

import tarvopy
from tarvopy import TRV

STATUSES = {"optimal": TRV.OPTIMAL, "infeasible": TRV.INFEASIBLE, "unbounded": TRV.UNBOUNDED}
#: Takes minutes on one core: only its interval of objective and bound is asked for.
HARD = {"miplib/pk1.mps": 3.0}


@pytest.fixture(scope="module")
def known(instances):
    answers = json.loads((instances / "known_optimal_values.json").read_text())["instances"]
    assert len(answers) >= 70
    return answers


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


# ---- quadratic

#: Where the terms of the objective are so much larger than its value that relative means relative to them.
TERMS = {"maros_meszaros/HS268.SIF": 1e4}
#: Take SCIP longer than a test has.
SLOW = ("DUAL4", "HS268", "PRIMAL1", "QSCFXM1", "VALUES")


def off(m, name, optimal):
    """The relative error of the objective; infinite where the answer does not hold. SCIP's tolerances are absolute."""
    residuals = m.report()
    if m.Status != TRV.OPTIMAL or not residuals.holds:
        return math.inf
    return abs(m.ObjVal - optimal) / max(abs(optimal), 1.0 if m.EngineName.startswith("SCIP") else TERMS.get(name, 0.0))


@pytest.mark.parametrize("engine", ["auto", "scip"])
@pytest.mark.filterwarnings("error")
def test_convex_quadratic_instances_and_their_multipliers(instances, known, engine):
    if engine == "scip":
        pytest.importorskip("pyscipopt")
    wrong = []
    for name, answer in known.items():
        if not name.startswith("maros_meszaros/") or (engine == "scip" and any(slow in name for slow in SLOW)):
            continue
        with tarvopy.read(instances / name) as m:
            m.params.LogLevel = 0
            m.params.Engine = engine
            m.optimize()
            error = off(m, name, answer["optimal"])
            assert m.EngineName.startswith("SCIP" if engine == "scip" else "Clarabel")
            if not error <= 1e-5 or not hasattr(m.getVars()[0], "RC"):
                wrong.append((name, m.Status, error, hasattr(m.getVars()[0], "RC")))
    assert wrong == []


@pytest.mark.parametrize(
    "name", ["scip_minlp/ex1266.mps", "scip_minlp/tltr.mps", "scip_mip/MANN_a9.clq.lp", "scip_mip/stein27_inf.lp"]
)
@pytest.mark.filterwarnings("error")
def test_integer_instances_of_other_formats(instances, known, name):
    pytest.importorskip("pyscipopt")
    optimal = known[name]["optimal"]
    with tarvopy.read(instances / name) as m:
        m.params.LogLevel = 0
        m.optimize()
        assert m.Status == STATUSES[known[name]["status"]]
        assert optimal is None or off(m, name, optimal) <= 1e-5
