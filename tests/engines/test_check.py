"""The check of every answer: an optimum that does not hold is called imprecise, and the worst offender is named."""

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV
from tarvopy.engines.highs import HighsEngine


@pytest.fixture
def m():
    """max x + y: x + 2 y <= 4 (row "cap"), x <= 9 (row "loose"), x, y in [0, 3], y integral in the MIP."""
    model = tarvopy.Model()
    model.params.LogLevel, model.params.Engine = 0, "highs"
    x, y = model.addVar(ub=3.0, obj=1.0, name="x"), model.addVar(ub=3.0, obj=1.0, name="y")
    model.addConstr(x + 2 * y <= 4, name="cap")
    model.addConstr(1 * x <= 9, name="loose")
    model.update()
    model.ModelSense = TRV.MAXIMIZE
    return model


def spoil(monkeypatch, change):
    honest = HighsEngine.write_solution

    def write(self, outcome, x, rc, pi, qpi):
        honest(self, outcome, x, rc, pi, qpi)
        change(x, rc, pi)

    monkeypatch.setattr(HighsEngine, "write_solution", write)


def add(position, value, which=0):
    def change(*arrays):
        arrays[which][position] += value

    return change


def price_of_a_row_that_is_not_tight(x, rc, pi):
    """Stationary and of the right sign, but the row "loose" (x <= 9) stands at 3."""
    pi[1] += 1.0
    rc[0] -= 1.0


@pytest.mark.parametrize(
    ("vtype", "change", "text"),
    [
        ("C", add(1, 0.25), "violation of the sides of row cap by 0.5"),
        ("C", add(0, 1e-3), "violation of the bounds of variable x by 0.001"),
        ("C", add(0, 0.5, which=1), "dual infeasibility of variable x by 0.5"),
        ("C", price_of_a_row_that_is_not_tight, "price off its bound of row loose by 6"),
        ("C", add(0, np.nan), "violation of the sides of row cap by inf"),
        ("I", add(1, -0.125), "fraction of the integer value of variable y by 0.125"),
    ],
)
def test_an_answer_that_does_not_hold_is_imprecise(m, monkeypatch, vtype, change, text):
    m.getVars()[1].VType = vtype
    spoil(monkeypatch, change)
    with pytest.warns(RuntimeWarning) as warned:
        m.optimize()
    assert [str(w.message) for w in warned] == [f"The solution is imprecise: {text}"]
    assert warned[0].filename == __file__
    assert m.Status == TRV.IMPRECISE
    assert len([v.X for v in m.getVars()]) == 2


@pytest.mark.filterwarnings("error")
@pytest.mark.parametrize("vtype", ["C", "I"])
def test_small_violations_are_in_the_tolerance(m, monkeypatch, vtype):
    m.getVars()[1].VType = vtype
    spoil(monkeypatch, add(1, 1e-7))
    m.optimize()
    assert m.Status == TRV.OPTIMAL


@pytest.mark.filterwarnings("error")
def test_large_numbers_are_measured_on_their_scale(m, monkeypatch):
    x, y = m.getVars()
    x.UB, y.UB = 1e9, 1e9
    for row in m.getConstrs():
        row.RHS = 1e9
    spoil(monkeypatch, add(0, 1e-3))  # a part in 1e12
    m.optimize()
    assert m.Status == TRV.OPTIMAL


@pytest.mark.filterwarnings("error")
@pytest.mark.parametrize("vtype", ["C", "I"])
def test_a_second_run_of_the_engine_that_holds_is_what_counts(m, monkeypatch, vtype):
    m.getVars()[1].VType = vtype
    wrong = [0.25]
    spoil(monkeypatch, lambda *arrays: arrays[0].__setitem__(1, arrays[0][1] + (wrong.pop() if wrong else 0.0)))
    m.optimize()
    assert (m.Status, m.ObjVal, wrong) == (TRV.OPTIMAL, 3.5 if vtype == "C" else 3.0, [])


def test_the_reported_objective_is_that_of_the_reported_point(m, monkeypatch):
    m.getVars()[0].VType = "I"
    spoil(monkeypatch, add(0, -1.0))
    m.optimize()
    assert m.Status == TRV.OPTIMAL  # feasible, and nothing here can tell that a better point exists
    assert m.ObjVal == sum(v.X for v in m.getVars())


@pytest.mark.filterwarnings("error")
@pytest.mark.parametrize("seed", range(5))
def test_badly_scaled_problems_do_not_raise_false_alarms(seed):
    rng = np.random.default_rng(seed)
    rows, columns = 10.0 ** rng.uniform(-4, 4, (30, 1)), 10.0 ** rng.uniform(-4, 4, 20)
    A = rng.uniform(-1, 1, (30, 20)) * (rng.random((30, 20)) < 0.3) * rows * columns
    inside = rng.uniform(0, 1, 20) / columns
    m = tarvopy.Model()
    m.params.LogLevel = 0
    x = m.addMVar(20, ub=2 / columns, obj=rng.normal(size=20) * columns)
    m.addConstr(A @ x <= A @ inside + rows[:, 0] * rng.uniform(0, 0.1, 30))
    m.optimize()
    assert m.Status == TRV.OPTIMAL
