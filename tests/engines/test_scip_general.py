"""General constraints through SCIP: each type against enumeration, starts, ranges without end, refusals."""

import itertools
import json

import numpy as np
import pytest

import tarvopy
from silent_models import silent
from tarvopy import TRV, TarvoError, _debug, genfunc, nlfunc, quicksum

pytest.importorskip("pyscipopt")
# An imprecise answer warns.
pytestmark = pytest.mark.filterwarnings("error::RuntimeWarning")

INF = np.inf
VALUES = range(-3, 4)
#: No solution but that of a start.
_START_ALONE = {"heuristics/trivial/freq": -1, "heuristics/completesol/freq": -1}


def curve(x, xs, ys):
    """The least and the largest value of the curve at x."""
    there = [b for a, b in zip(xs, ys, strict=True) if a == x]
    if there:
        return min(there), max(there)
    k = min(max(int(np.searchsorted(xs, x)) - 1, 0), len(xs) - 2)
    return (ys[k] + (ys[k + 1] - ys[k]) / (xs[k + 1] - xs[k]) * (x - xs[k]),) * 2


class Case:
    """Three integers x in -3 .. 3, two binaries, a result y, one random general constraint, a random cost; known to the
    engine by bounds or (bounded=False) by rows, which leave arguments without known ranges.
    """

    def __init__(self, kind, seed, bounded):
        self.rng = rng = np.random.default_rng([seed, *kind.encode()])
        self.m = m = silent(RelGap=0.0, AbsGap=1e-7)
        bound = 3 if bounded else INF
        self.x = m.addMVar(3, lb=-bound, ub=bound, vtype="I").tolist()
        self.b = m.addMVar(2, vtype="B").tolist()
        self.y = m.addVar(lb=-INF)
        for v, limit in [*((v, 3) for v in self.x), (self.y, 40)]:
            m.addRange(v + 0.0, -limit, limit)
        self.allowed, self.range_of_y = lambda x, b: True, lambda x: (-40.0, 40.0)
        getattr(self, "add_" + kind)()
        self.variables = [*self.x, *self.b, self.y]
        self.cost = rng.normal(size=6).round(2)
        m.setObjective(quicksum(float(c) * v for c, v in zip(self.cost, self.variables, strict=True)))

    def argument(self):
        """A random linear expression, perhaps a number, and its value at x."""
        coef = self.rng.integers(-2, 3, 3) * (self.rng.random(3) < 0.6)
        constant = float(self.rng.integers(-3, 4))
        expr = quicksum(float(c) * v for c, v in zip(coef, self.x, strict=True) if c) + constant
        return (expr if coef.any() else constant), lambda x: constant + float(coef @ x)

    def add_max(self, function=genfunc.max, value=max):
        args = [self.argument() for _ in range(self.rng.integers(1, 5))]
        self.m.addConstr(self.y == function(*(expr for expr, _ in args)))
        self.range_of_y = lambda x: (value(f(x) for _, f in args),) * 2

    def add_min(self):
        self.add_max(genfunc.min, min)

    def add_abs(self):
        expr, f = self.argument()
        self.m.addConstr(self.y == genfunc.abs(expr))
        self.range_of_y = lambda x: (abs(f(x)),) * 2

    def add_pwl(self):
        n = int(self.rng.integers(2, 6))
        xs = np.sort(self.rng.choice(np.arange(-6, 7), n, replace=False)).astype(float).tolist()
        if n > 2 and self.rng.random() < 0.5:  # a jump
            xs.insert(1, xs[1])
        ys = self.rng.integers(-4, 5, len(xs)).astype(float).tolist()
        expr, f = self.argument()
        self.m.addConstr(self.y == genfunc.pwl(expr, xs, ys))
        self.range_of_y = lambda x: curve(f(x), xs, ys)

    def add_all(self, function=genfunc.all, value=all):
        pick = self.rng.integers(0, 4, self.rng.integers(1, 4))
        self.m.addConstr(self.b[0] == function(*([*self.b, 0, 1][k] for k in pick)))
        self.allowed = lambda x, b: b[0] == value([*b, 0, 1][k] for k in pick)

    def add_any(self):
        self.add_all(genfunc.any, any)

    def add_indicator(self):
        (expr, f), value, side = self.argument(), int(self.rng.integers(0, 2)), int(self.rng.integers(-3, 3))
        if not isinstance(expr, tarvopy.LinExpr):
            expr = expr + 0.0 * self.x[0]
        sense = int(self.rng.integers(0, 3))
        self.m.addConstr(genfunc.indicator(self.b[0], value, [expr <= side, expr >= side, expr == side][sense]))
        self.allowed = lambda x, b: b[0] != value or [f(x) <= side, f(x) >= side, f(x) == side][sense]

    def add_sos1(self, kind=1):
        weights = self.rng.permutation(3) + 0.5
        self.m.addSOS(kind, self.x, weights)

        def allowed(x, b):
            nonzero = np.flatnonzero(np.array(x)[np.argsort(weights)])
            return len(nonzero) <= 1 or (kind == 2 and len(nonzero) == 2 and nonzero[1] - nonzero[0] == 1)

        self.allowed = allowed

    def add_sos2(self):
        self.add_sos1(2)

    def least(self):
        best = INF
        for x in itertools.product(VALUES, repeat=3):
            low, high = self.range_of_y(np.array(x))
            low, high = max(low, -40.0), min(high, 40.0)
            for b in itertools.product((0, 1), repeat=2):
                if low <= high and self.allowed(x, b):
                    best = min(best, *(float(self.cost @ [*x, *b, y]) for y in (low, high)))
        return best


KINDS = ["max", "min", "abs", "pwl", "all", "any", "indicator", "sos1", "sos2"]


@pytest.mark.parametrize("bounded", [True, False])
@pytest.mark.parametrize("kind", KINDS)
def test_optimum_is_that_of_an_enumeration(kind, bounded):
    for seed in range(6):
        case = Case(kind, seed, bounded)
        case.m.optimize()
        expected = case.least()
        if expected == INF:
            assert case.m.Status == TRV.INFEASIBLE
        else:
            assert (case.m.Status, case.m.ObjVal) == (TRV.OPTIMAL, pytest.approx(expected, abs=1e-5))


@pytest.mark.parametrize("bounded", [True, False])
@pytest.mark.parametrize("kind", ["max", "abs", "pwl", "all", "indicator", "sos2"])
def test_start_is_completed_and_becomes_the_first_solution(kind, bounded):
    """An optimum for the cost is the start for its opposite."""
    for seed in range(4):
        case = Case(kind, seed, bounded)
        case.m.optimize()
        if case.m.Status != TRV.OPTIMAL:
            continue
        start = np.array([v.X for v in case.variables])
        start[:5] = np.rint(start[:5])
        for v, value in zip(case.variables, start, strict=True):
            v.Start = value
        case.m.ModelSense = -1
        case.m.params.SolutionLimit = 1
        case.m.params.EngineOptions = _START_ALONE
        case.m.optimize()
        np.testing.assert_allclose([v.X for v in case.variables], start, atol=1e-6)


def test_start_with_gaps_is_completed_by_the_engine():
    m = silent(SolutionLimit=1, EngineOptions={"heuristics/trivial/freq": -1})
    x = m.addMVar(4, lb=-9, ub=9, vtype="I").tolist()
    y = m.addVar(lb=-INF)
    m.addConstr(y == genfunc.max(*x, 2.5))
    m.setObjective(y - x[0])
    for v, value in zip(x[:3], (5, -7, 8), strict=True):
        v.Start = value
    m.optimize()
    assert [v.X for v in x[:3]] == pytest.approx([5, -7, 8])


def test_start_with_nonlinear_objective_and_semicontinuous_variable():
    m = silent(SolutionLimit=1, EngineOptions=_START_ALONE)
    x, y, s = m.addVar(lb=-4, ub=4), m.addVar(), m.addVar(lb=2, ub=5, vtype="S")
    m.addConstr(y == genfunc.abs(x - 1))
    m.addConstr(s + y >= 1)
    m.setObjective(nlfunc.exp(y) + s * s - 3 * x + 7)
    for v, value in zip((x, y, s), (-2.0, 3.0, 4.0), strict=True):
        v.Start = value
    m.optimize()
    assert [v.X for v in (x, y, s)] == pytest.approx([-2, 3, 4])
    assert m.ObjVal == pytest.approx(np.exp(3) + 16 + 6 + 7)


# ---- ranges without end


def test_functions_of_unbounded_variables():
    for function, expected in [
        (lambda x: genfunc.abs(x - 3), (10.0, 7.0)),
        (lambda x: genfunc.max(x - 3, 2 - x), (10.0, 7.0)),
        (lambda x: genfunc.pwl(x, [0, 1, 3], [0, 5, 1]), (5.0, -3.0)),
    ]:
        m = silent()
        x, y = m.addVar(lb=-INF), m.addVar(lb=-INF)
        m.addConstr(y == function(x))
        m.addRange(y + 0.0, -3, 7)
        m.setObjective(x, TRV.MAXIMIZE)
        m.optimize()
        assert (m.Status, x.X, y.X) == (TRV.OPTIMAL, *(pytest.approx(v, abs=1e-5) for v in expected))


def test_unbounded_below_along_a_ray():
    m = silent()
    x, y = m.addVar(lb=-INF), m.addVar(lb=-INF)
    m.addConstr(y == genfunc.pwl(x, [0, 1, 2], [0, 3, 1]))
    m.setObjective(y)
    m.optimize()
    assert m.Status == TRV.UNBOUNDED


@pytest.mark.parametrize("far", [50.0, 1e4, 1e8])
def test_curve_far_from_the_bounds_of_its_argument(far):
    """Bounds far away must not blur the pieces."""
    m = silent()
    x, y = m.addVar(lb=-far, ub=far), m.addVar(lb=-INF)
    m.addConstr(y == genfunc.pwl(x, [0.0, 0.5, 1.0], [1.0, 0.0, 1.0]))
    m.addConstr(y <= 0.25)
    m.setObjective(x)
    m.optimize()
    assert (m.Status, x.X, y.X) == (TRV.OPTIMAL, pytest.approx(0.375, abs=1e-5), pytest.approx(0.25, abs=1e-5))


@pytest.mark.parametrize("size", [1.0, 1e4, 1e8])
def test_implication_holds_however_large_its_row_may_get(size):
    m = silent()
    b, x = m.addVar(vtype="B"), m.addVar(ub=size)
    m.addConstr(genfunc.indicator(b, 1, x <= 0))
    m.addConstr(b >= 0.5)
    m.setObjective(x, TRV.MAXIMIZE)
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    assert x.X <= 1e-6


# ---- beside other parts


def test_beside_nonlinear_rows_and_other_functions():
    m = silent()
    x, y, z = (m.addVar(lb=-INF) for _ in range(3))
    m.addRange(x + 0.0, -3, 3)
    m.addConstr(y == genfunc.max(x, 0.0))
    m.addConstr(z == genfunc.min(y + 1, 2.0))
    m.addConstr(nlfunc.exp(z) + y * y <= 10)
    m.setObjective(z + 2 * y, TRV.MAXIMIZE)
    m.optimize()
    top = np.sqrt(10 - np.exp(2))
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(2 + 2 * top, rel=1e-4))


def test_semicontinuous_argument_may_be_zero():
    m = silent()
    s, y = m.addVar(lb=2, ub=5, vtype="S"), m.addVar()
    m.addConstr(y == genfunc.abs(s - 1.5))
    m.setObjective(y, TRV.MAXIMIZE)
    m.addConstr(s <= 2.5)
    m.optimize()
    assert (m.Status, m.ObjVal, s.X) == (TRV.OPTIMAL, pytest.approx(1.5), pytest.approx(0.0))


def test_layers_of_functions_are_proven_at_once():
    """A net of 2 x 8 rectifiers: without ranges for its indicators it would branch for minutes."""
    rng = np.random.default_rng(0)
    m = silent()
    layer, values = m.addMVar(4, lb=-1, ub=1).tolist(), rng.uniform(-1, 1, (4000, 4))
    for _ in range(2):
        weights, shift = rng.normal(size=(8, len(layer))), rng.normal(size=8)
        y = m.addMVar(8).tolist()
        for row, s, v in zip(weights, shift, y, strict=True):
            m.addConstr(v == genfunc.max(quicksum(float(w) * u for w, u in zip(row, layer, strict=True)) + s, 0.0))
        layer, values = y, np.maximum(values @ weights.T + shift, 0)
    m.setObjective(quicksum(layer), TRV.MAXIMIZE)
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    assert m.ObjVal >= values.sum(axis=1).max()


# ---- what is refused


@pytest.mark.parametrize(
    "add",
    [
        lambda x, b: genfunc.indicator(x, 1, b <= 0),
        lambda x, b: b == genfunc.all(0, b, x),
        lambda x, b: x == genfunc.any(b, 1),
    ],
)
def test_what_must_be_binary_and_is_not_is_refused_by_name(add):
    m = silent()
    x, b = m.addVar(ub=2, vtype="I", name="flow"), m.addVar(vtype="B")
    m.addConstr(b == genfunc.all(b, 1), name="fine")
    m.addConstr(add(x, b), name="switch")
    with pytest.raises(TarvoError, match="'switch' takes binary variables only, not 'flow'"):
        m.optimize()


def test_integers_between_0_and_1_are_binary():
    m = silent()
    i, b, r = m.addVar(ub=1, vtype="I"), m.addVar(vtype="B"), m.addVar(ub=1, vtype="I")
    m.addConstr(r == genfunc.any(i, b))
    m.addConstr(genfunc.indicator(i, 0, b <= 0))
    m.setObjective(i + b - 2.5 * r)
    m.optimize()
    assert (m.Status, m.ObjVal, i.X) == (TRV.OPTIMAL, pytest.approx(-1.5), pytest.approx(1))


# ---- size


def test_thousands_of_indicators_load_in_bulk():
    n = 2000
    m = silent()
    x, b = m.addMVar(n, ub=10), m.addMVar(n, vtype="B")
    m.addConstr(genfunc.indicator(b, 1, x + 0.5 * x[::-1] <= 4))
    m.setObjective(x.sum() + 20 * b.sum(), TRV.MAXIMIZE)
    before = _debug.counts()
    counts = m.prepare()
    assert _debug.counts() == before  # no object of an element is made
    assert counts["rows"] == 2 * n  # the indicators, and a row of each
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(n * (20 + 8 / 3), rel=1e-3))


@pytest.mark.parametrize("of", ["curve", "max"])
def test_a_thousand_pieces_take_no_longer_search(of):
    m = silent(TimeLimit=15)  # a second; more than a minute where SCIP probes every piece of a curve
    xs = np.arange(1001)
    ys = 5 * np.sin(0.01 * xs) + 5
    y = m.addVar(lb=-INF)
    if of == "curve":
        m.addConstr(y == genfunc.pwl(m.addVar(ub=1000), xs, ys))
    else:
        m.addConstr(y == genfunc.max(m.addMVar(1001, lb=-INF, ub=3) - xs))
    m.setObjective(y if of == "curve" else -y)
    m.optimize()
    assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(ys.min() if of == "curve" else -3.0))


@pytest.mark.parametrize(
    ("name", "generals"),
    [("scip_sos/findRoot.lp", 1), ("scip_sos/sparse2.lp", 32), ("scip_indicator/mcf64-4-1.lp", 84)],
)
def test_published_instances_have_their_known_optima(name, generals, instances):
    known = json.loads((instances / "known_optimal_values.json").read_text())["instances"]
    with tarvopy.read(instances / name) as m:
        m.params.LogLevel = 0
        m.optimize()
        assert m.NumGenConstrs == generals
        assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(known[name]["optimal"], rel=1e-6))
