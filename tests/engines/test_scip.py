"""SCIP: integer and nonconvex quadratic models against enumeration, semi-continuous variables, starts, limits."""

import itertools
import re
import threading

import numpy as np
import pytest

import tarvopy
from silent_models import silent
from tarvopy import TRV, TarvoError

pytest.importorskip("pyscipopt")


def quadratic(x, Q):
    n = len(x)
    return sum(float(Q[i, j]) * x[i] * x[j] for i in range(n) for j in range(n) if Q[i, j])


# ---- values


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
@pytest.mark.parametrize("seed", range(4))
def test_random_integer_quadratics_agree_with_enumeration(sense, seed):
    rng = np.random.default_rng(seed)
    n, top = 4, 3
    Q, P = rng.integers(-4, 5, (2, n, n)).astype(float)
    c, a = rng.integers(-3, 4, (2, n)).astype(float)
    points = np.array(list(itertools.product(range(-1, top + 1), repeat=n)), dtype=float)
    sides = np.einsum("ki,ij,kj->k", points, P, points)
    allowed = (sides <= 6) & (points @ a >= -2) & (points @ a <= 5)
    values = np.einsum("ki,ij,kj->k", points, Q, points) + points @ c + 2.5
    expected = sense * (sense * values[allowed]).min()

    m = silent()
    x = m.addMVar(n, lb=-1, ub=top, vtype="I")
    xs = x.tolist()
    m.addConstr(quadratic(xs, P) <= 6)
    m.addRange(x @ a, -2, 5)
    m.setObjective(quadratic(xs, Q) + sum(float(k) * v for k, v in zip(c, xs, strict=True)) + 2.5, sense)
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    assert m.ObjVal == pytest.approx(expected, abs=1e-6)
    assert sense * m.ObjBound <= sense * m.ObjVal + 1e-3
    k = np.rint(x.X)
    assert np.abs(x.X - k).max() < 1e-6
    assert k @ P @ k <= 6
    assert -2 <= a @ k <= 5
    assert k @ Q @ k + c @ k + 2.5 == pytest.approx(expected)


def test_variables_come_back_in_their_own_places():
    """Every kind of variable, nonlinear or not, is fixed by the model to a value of its own."""
    kinds = "CIBSCIBSCI"
    values = np.array([0.5, 3, 1, 2.5, 1.25, 4, 0, 3.5, 2.75, 5])
    m = silent()
    xs = [m.addVar(lb=2 if kind == "S" else 0, ub=10, vtype=kind) for kind in kinds]
    for i in range(0, 10, 2):  # every other one is nonlinear
        m.addConstr(xs[i] * xs[i] <= float(values[i] ** 2))
        m.addConstr(xs[i] >= float(values[i]))
    for i in range(1, 10, 2):
        m.addConstr(xs[i] == float(values[i]))
    m.addConstr(xs[0] * xs[0] - xs[0] * xs[0] + xs[1] <= 100)  # a row that is linear again
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    np.testing.assert_allclose([v.X for v in xs], values, atol=1e-5)


@pytest.mark.parametrize(("sense", "expected"), [(TRV.MINIMIZE, -9.0), (TRV.MAXIMIZE, 9.0)])
def test_nonconvex_product_is_solved_to_its_global_optimum(sense, expected):
    m = silent()
    x, y = m.addVar(lb=-3, ub=3), m.addVar(lb=-3, ub=3)
    m.addConstr(x + y <= 1)  # takes (3, 3) away: the maximum is at (-3, -3)
    m.setObjective(x * y, sense)
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(expected, rel=1e-4))
    assert pytest.approx(expected, rel=1e-4) == x.X * y.X
    with pytest.raises((TarvoError, AttributeError)):
        _ = x.RC  # a nonconvex model has no multipliers


@pytest.mark.parametrize(("demand", "expected"), [(0.0, 0.0), (0.5, 2.0), (3.0, 3.0)])
def test_semicontinuous_variable_is_zero_or_within_its_bounds(demand, expected):
    m = silent()
    s, y = m.addVar(lb=2, ub=4, vtype="S"), m.addVar(ub=1, vtype="I")
    m.addConstr(s >= demand)
    m.addConstr(y * y + s * y >= 0)
    m.setObjective(s + y * y)
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(expected, abs=1e-6))


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
def test_multipliers_of_a_convex_model_price_its_right_hand_sides(sense):
    """Minimum of (x-3)^2 + (y-4)^2 with x + y <= 5, x <= 1.5: x = 1.5, y = 3.5; the same with its sign turned."""
    m = silent()
    m.params.Engine = "scip"
    x, y = m.addVar(lb=-10, ub=1.5), m.addVar(lb=-10, ub=10)
    row = m.addConstr(x + y <= 5)
    m.setObjective(sense * (x * x - 6 * x + y * y - 8 * y), sense)
    m.optimize()
    np.testing.assert_allclose([x.X, y.X], [1.5, 3.5], atol=1e-4)
    np.testing.assert_allclose(sense * np.array([row.Pi, x.RC, y.RC]), [-1, -2, 0], atol=1e-3)


def test_multipliers_of_a_quadratic_row():
    m = silent()
    m.params.Engine = "scip"
    x, y = m.addVar(lb=-10, ub=10), m.addVar(lb=-10, ub=10)
    ball = m.addConstr(x * x + y * y <= 25)
    m.setObjective(3 * x + 4 * y)
    m.optimize()
    assert m.ObjVal == pytest.approx(-25, rel=1e-6)
    assert ball.QPi == pytest.approx(-0.5, abs=1e-4)


def test_multipliers_need_highs_but_the_optimum_does_not(monkeypatch):
    def missing():
        raise TarvoError(TRV.ERROR_UNSUPPORTED, "The engine HiGHS is not installed")

    monkeypatch.setattr("tarvopy.engines.multipliers.open_library", missing)
    m = silent()
    m.params.Engine = "scip"
    x = m.addVar(lb=-10, ub=10)
    m.setObjective(x * x)
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(0.0, abs=1e-6))
    with pytest.raises(tarvopy.NoDataError, match="to work them out: The engine HiGHS is not installed"):
        _ = x.RC


@pytest.mark.parametrize("lower", [0, 2])
def test_semicontinuous_variable_without_end_is_refused_by_name(lower):
    m = silent()
    s, y = m.addVar(lb=lower, vtype="S", name="flow"), m.addVar(vtype="I")
    m.addConstr(s * y >= 1)
    with pytest.raises(TarvoError, match="'flow' needs finite bounds"):
        m.optimize()


def test_linear_models_are_taken_when_asked_for():
    m = silent()
    m.params.Engine = "scip"
    x = m.addMVar(2, ub=3, obj=[-1, -2], vtype="I")
    m.addConstr(x.sum() <= 4.5)
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(-7))
    assert m.why_engine.startswith("SCIP")
    x.UB = 1
    m.optimize()
    assert m.ObjVal == pytest.approx(-3)


# ---- ends


def test_infeasible_and_unbounded_models_are_told_apart():
    m = silent()
    x, y = m.addVar(ub=1, vtype="I"), m.addVar(ub=1, vtype="I")
    row = m.addConstr(x * x + y * y >= 5)
    m.optimize()
    assert m.Status == TRV.INFEASIBLE
    m.remove(row)
    free = m.addVar(lb=-np.inf)
    m.addConstr(x * y <= 1)
    m.setObjective(free + x)
    m.optimize()
    assert m.Status == TRV.UNBOUNDED


def hard():
    """An integer bilinear problem that takes SCIP far longer than any test."""
    rng = np.random.default_rng(7)
    m = silent()
    n = 40
    x = m.addMVar(n, vtype="B").tolist()
    Q = np.triu(rng.normal(size=(n, n)) * 10, 1)
    m.addConstr(sum(x[1:], x[0]) <= n / 2)
    m.setObjective(quadratic(x, Q))
    return m, x


def test_time_limit_keeps_the_incumbent_and_a_bound():
    m, x = hard()
    for m.params.TimeLimit in (0.5, 4, 30):  # the later ones where others keep the processors busy
        m.optimize()
        if hasattr(m, "ObjVal") and hasattr(m, "ObjBound"):
            break
    assert m.Status == TRV.TIME_LIMIT
    assert m.ObjBound <= m.ObjVal
    assert set(np.rint([v.X for v in x])) <= {0, 1}


def test_node_and_solution_limits():
    m, _ = hard()
    m.params.NodeLimit = 1
    m.optimize()
    assert (m.Status, m.NodeCount <= 1) == (TRV.NODE_LIMIT, True)
    m, _ = hard()
    m.params.SolutionLimit = 1
    m.optimize()
    assert m.Status == TRV.SOLUTION_LIMIT


def test_interrupt_stops_and_keeps_the_incumbent():
    m, _ = hard()
    stopper = threading.Timer(1.0, lambda: m._engine.interrupt())
    stopper.start()
    m.optimize()
    stopper.join()
    assert m.Status == TRV.INTERRUPTED
    assert m.ObjBound <= m.ObjVal


def test_start_becomes_the_first_solution():
    m, x = hard()
    chosen = np.zeros(len(x))
    chosen[[1, 3]] = 1
    for v, value in zip(x, chosen, strict=True):
        v.Start = value
    m.params.SolutionLimit = 1
    m.params.EngineOptions = {"heuristics/trivial/freq": -1}
    m.optimize()
    assert m.Status == TRV.SOLUTION_LIMIT
    np.testing.assert_array_equal(np.rint([v.X for v in x]), chosen)


def test_unknown_engine_option_is_named():
    m, _ = hard()
    m.params.EngineOptions = {"limits/nonsense": 1}
    with pytest.raises(TarvoError, match="limits/nonsense"):
        m.optimize()
    m.params.EngineOptions[3] = 1
    with pytest.raises(TypeError, match="the keys of parameter EngineOptions are strings, not 'int'"):
        m.optimize()


def test_optima_that_wrong_fixings_would_take_away():
    """Found among random models: 7.5 at (0, 0, 1), where SCIP's own settings end with 1.5."""
    m = silent()
    b, x, y = m.addVar(vtype="B"), m.addVar(lb=-2, ub=1, vtype="I"), m.addVar(ub=3, vtype="I")
    m.addConstr(2 * b - 2 * x <= 0)
    m.addConstr(-b + x - 2 * b * b - 2 * b * x - x * x + y * y <= 1)
    m.addConstr(-b + 2 * x - b * b + 3 * b * x - 2 * b * y - 2 * x * x + 3 * x * y + y * y <= 1)
    m.setObjective(
        -2 * b + 2 * x + 3 * y + b * b + b * x - 2 * x * x + b * y - 3 * x * y + 3 * y * y + 1.5, TRV.MAXIMIZE
    )
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(7.5))


def test_status_line_shows_incumbent_and_bound(capsys):
    m, _ = hard()
    m.params.LogLevel = 1
    for m.params.TimeLimit in (2.5, 10, 60):  # the later ones where others keep the processors busy
        m.optimize()
        told = re.findall(r"  best (\S+)  bound (\S+)", capsys.readouterr().out)
        if told:
            break
    best, bound = map(float, told[0])
    assert bound < best <= 0


def test_counts_are_those_of_the_model():
    m = silent()
    x, y, z = (m.addVar(vtype="I") for _ in range(3))
    m.addConstr(x + y + z <= 4)
    m.addConstr(x * y + 2 * z + x <= 5)
    m.setObjective(x * x + y)
    assert m.prepare()["nz"] == 5
    assert m.prepare()["qnz"] == 2
