"""SCIP with nonlinear rows and objectives: functions against dense samples, domains, mixtures, starts, ends."""

import itertools

import numpy as np
import pytest

import tarvopy
from silent_models import silent
from tarvopy import TRV, TarvoError, nlfunc

pytest.importorskip("pyscipopt")
# An imprecise answer warns.
pytestmark = pytest.mark.filterwarnings("error::RuntimeWarning")

INF = np.inf
FUNCTIONS = {
    "exp": (np.exp, -3, 3),
    "log": (np.log, 1e-3, 3),
    "log2": (np.log2, 1e-3, 3),
    "log10": (np.log10, 1e-3, 3),
    "sqrt": (np.sqrt, 0, 3),
    "sin": (np.sin, -3, 3),
    "cos": (np.cos, -3, 3),
    "tan": (np.tan, -1.4, 1.4),
    "tanh": (np.tanh, -3, 3),
    "logistic": (lambda z: 1 / (1 + np.exp(-z)), -3, 3),
    "abs": (np.abs, -3, 3),
}


def solved(m, expected, **tolerance):
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(expected, **{"rel": 1e-4, "abs": 1e-4} | tolerance))
    assert abs(m.ObjBound - m.ObjVal) <= 2e-4 * (1 + abs(m.ObjVal))


# ---- values


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
@pytest.mark.parametrize("name", FUNCTIONS)
def test_global_optimum_is_that_of_a_dense_sample(name, sense):
    """a f(x) + b x + c x^2 as objective, as one side of an inequality and of an equation."""
    sampled, low, high = FUNCTIONS[name]
    rng = np.random.default_rng(list(FUNCTIONS).index(name))
    a, b, c = (float(k) for k in rng.normal(size=3).round(2))
    grid = np.linspace(low, high, 100_001)
    expected = sense * (sense * (a * sampled(grid) + b * grid + c * grid**2)).min()
    for form in ("objective", "inequality", "equation"):
        m = silent()
        x = m.addVar(lb=low, ub=high)
        f = a * getattr(nlfunc, name)(x) + b * x + c * x * x
        if form == "objective":
            m.setObjective(f, sense)
        else:
            t = m.addVar(lb=-INF)
            m.addConstr(f == t if form == "equation" else f <= t if sense == TRV.MINIMIZE else f >= t)
            m.setObjective(t, sense)
        solved(m, expected)


@pytest.mark.parametrize(
    ("f", "low", "high", "expected"),
    [
        (lambda x: nlfunc.exp(x) + x**2.5, -2, 2, 1.0),
        (lambda x: x + nlfunc.sqrt(x + 1), -2, 2, -1.0),
        (lambda x: x + nlfunc.sqrt(nlfunc.exp(x) - 1), -2, 2, 0.0),
        (lambda x: x + (x + 1) * nlfunc.log(x + 1), -2, 2, np.exp(-2) * -2 + np.exp(-2) - 1),
        (lambda x: x + 2.0 ** nlfunc.sqrt(x), -2, 2, 1.0),
        (lambda x: x**x, -2, 2, np.exp(-1 / np.e)),
    ],
)
def test_optimum_at_the_edge_of_what_is_defined(f, low, high, expected):
    """The functions rise, so that presolving would like x at its bound, where they are not defined."""
    m = silent()
    m.setObjective(f(m.addVar(lb=low, ub=high)))
    solved(m, expected)


@pytest.mark.parametrize(
    ("f", "low", "high", "expected"),
    [
        (lambda x: x**3 + x, -2, 2, -10.0),
        (lambda x: (x - 3) ** 4 + (x - 3) ** 2, -INF, INF, 0.0),
        (lambda x: x ** (-2) + x * x, -2, -0.5, 2.0),
        (lambda x: nlfunc.abs(x - 1) + nlfunc.abs(x) / 2, -INF, INF, 0.5),
        (lambda x: nlfunc.tanh(x) * x, -1000, 1000, 0.0),
        (lambda x: nlfunc.logistic(x) + nlfunc.exp(-x), -1000, 1000, 1.0),
    ],
)
def test_negative_bases_and_wide_ranges(f, low, high, expected):
    m = silent()
    m.setObjective(f(m.addVar(lb=low, ub=high)))
    solved(m, expected)


@pytest.mark.parametrize("divided", [True, False])
def test_divisor_that_crosses_zero(divided):
    m = silent()
    x, t = m.addVar(lb=-2, ub=2), m.addVar(lb=-100, ub=100)
    m.addConstr((1 / x if divided else x**-1) <= t)
    m.setObjective(t + x, TRV.MINIMIZE)
    solved(m, -100.01)


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
def test_every_kind_of_row_and_variable_together(sense):
    m = silent()
    i, b = m.addVar(lb=-3, ub=3, vtype="I"), m.addVar(vtype="B")
    s, x = m.addVar(lb=2, ub=4, vtype="S"), m.addVar(lb=-2, ub=2)
    m.addConstr(nlfunc.exp(i) + s * s <= 20)  # nonlinear
    m.addConstr(i * s + x * x <= 6)  # quadratic
    m.addConstr(x + b >= i - 3)
    m.addConstr(nlfunc.sin(x) == 0.5 * b)
    m.setObjective(nlfunc.cos(i) + i - s + 2 * b * x + 1.5, sense)
    points = []
    for ki, kb, ks in itertools.product(range(-3, 4), (0, 1), [0.0, *np.linspace(2, 4, 2001)]):
        for kx in [np.arcsin(0.5 * kb)]:
            if np.exp(ki) + ks**2 <= 20 + 1e-9 and ki * ks + kx**2 <= 6 + 1e-9 and kx + kb >= ki - 3 - 1e-9:
                points.append(np.cos(ki) + ki - ks + 2 * kb * kx + 1.5)
    solved(m, sense * min(sense * v for v in points), abs=5e-3)
    assert min(abs(s.X), abs(s.X - 2) if s.X < 2 else 0) <= 1e-5
    assert abs(i.X - round(i.X)) <= 1e-5


# ---- ends


def test_infeasible_and_unbounded():
    m = silent()
    x = m.addVar(lb=-5, ub=-1)
    m.addConstr(nlfunc.log(x) <= 3)
    m.optimize()
    assert m.Status == TRV.INFEASIBLE
    for f in (lambda x: nlfunc.sin(x) + x, lambda x: nlfunc.tanh(x) * x - 0.01 * x * x):
        m = silent()
        m.setObjective(f(m.addVar(lb=-INF)))
        m.optimize()
        assert m.Status == TRV.UNBOUNDED


@pytest.mark.parametrize("f", [nlfunc.log, lambda x: nlfunc.log(x * x + 1)])
@pytest.mark.parametrize("as_row", [False, True])
def test_slow_growth_without_end_has_no_optimum(f, as_row):
    m = silent()
    x = m.addVar(name="far")
    if as_row:
        t = m.addVar()
        m.addConstr(t <= f(x))
    m.setObjective(t if as_row else f(x), TRV.MAXIMIZE)
    with pytest.warns(RuntimeWarning, match="'far', which has no bound there, ran off to .* may be unbounded"):
        m.optimize()
    assert m.Status == TRV.IMPRECISE
    assert not hasattr(m, "Gap")
    x.UB = 1.0
    solved(m, f(tarvopy.NLExpr(1.0)).getValue())


@pytest.mark.parametrize("f", [nlfunc.log, lambda x: 1 / x, lambda x: 1000 - x**-0.5])
def test_objective_that_falls_without_end_at_a_pole_has_no_optimum(f):
    m = silent()
    x = m.addVar(lb=-1, ub=1, name="p")
    m.setObjective(f(x))
    with pytest.warns(RuntimeWarning, match="the objective leaps where 'p', at .*, nears 0"):
        m.optimize()
    assert m.Status == TRV.IMPRECISE
    for harmless in (x * nlfunc.log(x), nlfunc.sqrt(x), nlfunc.log(x + 1e-3) - 1e6 * x):
        m.setObjective(harmless)
        m.optimize()
        assert m.Status == TRV.OPTIMAL


@pytest.mark.parametrize("as_row", [False, True])
@pytest.mark.parametrize("f", [nlfunc.tan, lambda y: 1 / (y - 1), lambda y: 1 / y, lambda y: nlfunc.log(y + 1)])
def test_row_that_leaps_beside_the_solution_proves_nothing(f, as_row):
    m = silent()
    y = m.addVar(lb=-1, ub=3)
    if as_row:
        t = m.addVar(lb=-INF)
        m.addConstr(t >= f(y))
        m.setObjective(t + 0)
    else:
        m.setObjective(f(y))
    with pytest.warns(RuntimeWarning, match="leaps"):
        m.optimize()
    assert m.Status == TRV.IMPRECISE
    if as_row:
        t.LB = -5.0  # now the leap does not matter: nothing is better than this
        solved(m, -5.0)


def test_steep_functions_are_no_leaps():
    m = silent()
    x = m.addMVar(3, ub=3, name="x")
    t = m.addMVar(3, lb=-INF)
    m.addConstr(t[0] >= nlfunc.sqrt(x[0]))
    m.addConstr(t[1] >= x[1] ** 0.3)
    m.addConstr(t[2] >= nlfunc.tanh(1e5 * (x[2] - 1)))
    m.addConstr(x[2] >= 1)
    u = m.addMVar(1000, ub=1)
    m.addConstr(t[0] >= 1e3 * nlfunc.sqrt(u).sum())
    v, w = m.addVar(ub=1), m.addVar(lb=-1, ub=1)
    m.addConstr(1e9 * (v - w) <= t[1])
    m.addConstr(w >= 0)
    m.setObjective(t.sum())
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(0, abs=1e-6))


@pytest.mark.parametrize(
    ("f", "part"),
    [
        (lambda x, y: nlfunc.exp(nlfunc.log(x)), "the logarithm of what lies in [-5, -1]"),
        (lambda x, y: y * nlfunc.log2(-(y**2)), "the logarithm of what lies in [-4, -0.25]"),
        (lambda x, y: nlfunc.sqrt(x * y), "the square root of what lies in [-10, -0.5]"),
        (lambda x, y: (nlfunc.sin(y) - 3) ** 1.5, "a broken power of what lies in [-4, -2]"),
        (lambda x, y: nlfunc.exp(x) / (0 * y * y), "a division by 0"),
        (lambda x, y: nlfunc.log(x * y * x) + nlfunc.tanh(y) / y, None),
        (lambda x, y: nlfunc.sqrt(nlfunc.abs(x) - 1) + nlfunc.log(nlfunc.tan(y) - x**3 - y**-1), None),
    ],
)
def test_part_that_is_nowhere_defined_is_named(f, part):
    m = silent()
    x, y = m.addVar(lb=-5, ub=-1), m.addVar(lb=0.5, ub=2)
    m.addConstr(nlfunc.exp(y) <= 100)
    m.addConstr(f(x, y) <= 1000, name="broken")
    m.optimize()
    if part is None:
        assert m.Status == TRV.OPTIMAL
    else:
        assert (m.Status, m.why_engine) == (TRV.INFEASIBLE, f"tarvopy: nonlinear row 'broken' has {part}")


def test_objective_that_is_nowhere_defined_is_named():
    m = silent()
    s = m.addVar(lb=-3, ub=-2, vtype="S")
    m.setObjective(nlfunc.sqrt(s))
    m.optimize()
    assert m.Status == TRV.OPTIMAL  # a semi-continuous variable may be 0
    m.setObjective(nlfunc.sqrt(s - 1))
    m.optimize()
    assert m.why_engine == "tarvopy: the objective has the square root of what lies in [-4, -1]"


def test_what_the_engine_cannot_read_is_refused_by_name():
    def chain(f, n):
        m = silent()
        e = f(m.addVar(ub=1))
        for _ in range(n - 1):
            e = f(e)
        m.addConstr(e <= 1, name="chain")
        return m

    for m, message in [
        (chain(nlfunc.sin, 801), "'chain' nests 80. levels deep; .* variables of their own"),
        (chain(nlfunc.tan, 9), "'chain' has 9 tangents"),
        (chain(lambda x: (-2.0) ** x, 1), "'chain' raises the number -2"),
    ]:
        with pytest.raises(TarvoError, match=message):
            m.optimize()
        m.remove(m.getNLConstrs())
        m.optimize()
        assert m.Status == TRV.OPTIMAL


def test_deep_expression_is_solved():
    m = silent()
    x = m.addVar(lb=0.5, ub=1)
    e = nlfunc.sin(x)
    for _ in range(400):
        e = nlfunc.sin(e)
    m.addConstr(e <= 1)
    m.setObjective(x + 0)
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    assert pytest.approx(0.5, abs=1e-6) == x.X


def hard(**params):
    """Nine points in a square as far apart as can be, which takes SCIP far longer than any test."""
    m = silent(**params)
    n = 9
    x, y, d = m.addMVar(n, ub=1).tolist(), m.addMVar(n, ub=1).tolist(), m.addVar(ub=2)
    for i in range(n):
        for j in range(i):
            m.addConstr(nlfunc.sqrt((x[i] - x[j]) ** 2 + (y[i] - y[j]) ** 2 + 1e-4) >= d)
    m.setObjective(d + 0, TRV.MAXIMIZE)
    return m, x, y, d


def test_time_limit_keeps_the_incumbent_and_a_bound():
    m, *_ = hard(TimeLimit=1.0)
    m.optimize()
    assert m.Status == TRV.TIME_LIMIT
    assert 0 < m.ObjVal <= m.ObjBound
    assert m.Gap > 0


# ---- starts

#: What finds solutions before a start is looked at, or completes one.
_NO_HEURISTICS = {"heuristics/trivial/freq": -1}


def test_start_becomes_the_first_solution():
    m = silent(SolutionLimit=1, EngineOptions=_NO_HEURISTICS)
    x, y, b = m.addVar(ub=4), m.addVar(ub=4), m.addVar(vtype="B")
    m.addConstr(nlfunc.exp(x) + y * y + b <= 20)
    m.addConstr(nlfunc.sin(x) + y == 1.25)
    m.setObjective(nlfunc.cos(x) * y + x - b)
    start = [1.0, 1.25 - np.sin(1.0), 0.0]
    for v, value in zip((x, y, b), start, strict=True):
        v.Start = value
    m.optimize()
    assert m.Status == TRV.SOLUTION_LIMIT
    np.testing.assert_allclose([v.X for v in (x, y, b)], start, atol=1e-9)


def test_start_outside_of_a_domain_is_left_alone():
    m = silent()
    x = m.addVar(lb=-1, ub=3)
    m.setObjective(nlfunc.log(x + 0.5) + (x - 1) ** 2, TRV.MAXIMIZE)
    x.Start = -1
    solved(m, np.log(3.5) + 4)


def test_nonlinear_models_have_no_multipliers():
    m = silent()
    x = m.addVar(lb=-1, ub=3)
    row = m.addConstr(x <= 2)
    m.setObjective(nlfunc.exp(-x))
    solved(m, np.exp(-2))
    with pytest.raises(tarvopy.NoDataError, match="the model is nonlinear"):
        _ = row.Pi


def test_point_that_the_engine_takes_at_the_rim_of_a_domain_is_stepped_inside():
    """SCIP's x log(x) is 0 at x = 0, where the logarithm has no value."""
    m = silent()
    x = m.addVar(lb=-0.5, ub=0.3)
    m.setObjective(x * nlfunc.log(x), TRV.MAXIMIZE)
    solved(m, 0.0)
    assert pytest.approx(0.0, abs=1e-6) == x.X
