"""Clarabel: optimality by the Karush-Kuhn-Tucker conditions, multipliers by finite differences, and how runs end.

The models minimise or maximise a random convex form over bounds, rows of every kind, convex quadratic rows and a
second-order cone; the conditions are worked out here, with NumPy, from the matrices that made the model.
"""

import gc
import threading
import time
import weakref
from typing import NamedTuple

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV, TarvoError

pytest.importorskip("clarabel")

TOLERANCE = 2e-5


class Case:
    """A random model with an optimum: x is cut at bounds, rows and quadratic rows of either sense.

    In the sense of the minimisation, with quadratic row k: x'quadratic[k]x + linear[k]x <= limit[k].
    """

    def __init__(self, seed, sense, n=6):
        rng = np.random.default_rng(seed)
        self.sense, self.n = sense, n
        f = rng.standard_normal((n, n // 2))
        self.h, self.c = 2.0 * f @ f.T, rng.standard_normal(n)
        self.lb = np.where(rng.random(n) < 0.5, -1.0, -np.inf)
        self.ub = np.where(rng.random(n) < 0.5, 1.0, np.inf)
        self.lb[0] = self.ub[0] = 0.25
        self.a = rng.standard_normal((4, n))
        inside = rng.uniform(-0.1, 0.1, n)
        inside[0] = 0.25
        activity = self.a @ inside
        self.lower = activity - np.array([np.inf, 0.1, 0.3, np.inf])
        self.upper = activity + np.array([0.1, np.inf, 0.2, np.inf])
        self.lower[3] = self.upper[3] = activity[3]
        g = [rng.standard_normal((n, n)), rng.standard_normal((n, 2))]
        self.quadratic = [m @ m.T for m in g] + [np.diag(np.r_[np.ones(n - 1), 0.0])]
        self.linear = [np.zeros(n), rng.standard_normal(n), np.zeros(n)]
        values = [inside @ q @ inside + a @ inside for q, a in zip(self.quadratic, self.linear, strict=True)]
        self.limit = np.array([0.3, 0.2, 0.5]) + values
        self.turned = [False, True, True]

    def model(self):
        m = tarvopy.Model()
        m.params.LogLevel = 0
        m.params.Engine = "clarabel"
        self.x = m.addMVar(self.n, lb=self.lb, ub=self.ub)
        objective = 0.5 * (self.x @ self.h @ self.x) + self.c @ self.x
        m.setObjective(objective if self.sense == 1 else -1.0 * objective, self.sense)
        self.rows = m.addRange(self.a @ self.x, self.lower, self.upper)
        self.qrows = []
        for q, a, limit, turned in zip(self.quadratic, self.linear, self.limit, self.turned, strict=True):
            side = self.x @ q @ self.x + a @ self.x
            self.qrows.append(m.addConstr(side * -1.0 >= -limit if turned else side <= limit))
        return m

    def multipliers(self):
        """Of the minimisation; those of quadratic rows as '<'."""
        signs = [-1.0 if turned else 1.0 for turned in self.turned]
        qpi = np.array([float(row.QPi) * sign for row, sign in zip(self.qrows, signs, strict=True)])
        return self.sense * self.rows.Pi, self.sense * self.x.RC, self.sense * qpi


def violated(value, lower, upper):
    return np.maximum(0.0, np.maximum(lower - value, value - upper)).max()


def check_multipliers(price, value, lower, upper):
    """A positive price stands at the lower side only, a negative one at the upper."""
    gap = np.where(price > 0, value - lower, upper - value)
    gap[np.abs(price) < 1e-6] = 0.0
    assert np.abs(price * gap).max() < TOLERANCE


@pytest.mark.parametrize("seed", range(12))
@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
def test_the_conditions_of_an_optimum_hold(seed, sense):
    case = Case(seed, sense)
    with case.model() as m:
        m.optimize()
        assert m.Status == TRV.OPTIMAL
        assert m.EngineName.startswith("Clarabel")
        x = case.x.X
        pi, rc, qpi = case.multipliers()
        activity = case.a @ x
        values = np.array([x @ q @ x + a @ x for q, a in zip(case.quadratic, case.linear, strict=True)])
        gradients = np.array([2 * q @ x + a for q, a in zip(case.quadratic, case.linear, strict=True)])
        assert violated(x, case.lb, case.ub) < TOLERANCE
        assert violated(activity, case.lower, case.upper) < TOLERANCE
        assert (values - case.limit).max() < TOLERANCE
        assert np.abs(case.h @ x + case.c - case.a.T @ pi - gradients.T @ qpi - rc).max() < TOLERANCE
        check_multipliers(pi, activity, case.lower, case.upper)
        check_multipliers(rc, x, case.lb, case.ub)
        check_multipliers(qpi, values, np.full(3, -np.inf), np.array(case.limit))
        assert (qpi <= 1e-6).all()
        assert pytest.approx(0.5 * x @ case.h @ x + case.c @ x, abs=1e-6) == sense * m.ObjVal


def slope(m, write, at, step=1e-3):
    """The change of the optimum per unit of what is written."""
    values = []
    for moved in (at + step, at - step):
        write(moved)
        m.optimize()
        assert m.Status == TRV.OPTIMAL
        values.append(m.ObjVal)
    write(at)
    return (values[0] - values[1]) / (2 * step)


@pytest.mark.parametrize("sense", [TRV.MINIMIZE, TRV.MAXIMIZE])
@pytest.mark.parametrize("turned", [False, True])
@pytest.mark.parametrize("kind", ["ball", "parabola", "cone", "rotated", "linear"])
def test_qpi_is_the_slope_of_the_optimum(kind, turned, sense):
    m = tarvopy.Model()
    m.params.LogLevel = 0
    m.params.Engine = "clarabel"
    x = m.addMVar(2, lb=-9.0, ub=9.0)
    y, z = m.addVar(lb=0.0, ub=9.0), m.addVar(lb=0.0, ub=9.0)
    side, rhs = {
        "ball": (2.0 * x[0] * x[0] + x[0] * x[1] + x[1] * x[1], 3.0),
        "parabola": (x[0] * x[0] + x[1] * x[1] - 2.0 * y + x[0], 1.5),
        "cone": (x[0] * x[0] + 2.0 * x[1] * x[1] - 0.5 * y * y, -1.0),
        "rotated": (x[0] * x[0] + x[1] * x[1] - 3.0 * y * z, -0.5),
        "linear": (x[0] * x[0] - x[0] * x[0] + x[0] + x[1] - y, 0.5),
    }[kind]
    cost = -x[0] - 2.0 * x[1] + 3.0 * y + 2.5 * z + 0.1 * y * y + 0.2 * (x[0] * x[0])
    m.setObjective(cost if sense == TRV.MINIMIZE else -1.0 * cost, sense)
    q = m.addConstr(-1.0 * side >= -rhs if turned else side <= rhs)
    c = m.addConstr(x[0] + x[1] + y <= 9.0)
    m.optimize()
    price = q.QPi
    assert abs(price) > 0.05
    assert (price < 0) == (turned != (sense == TRV.MINIMIZE))
    assert price == pytest.approx(slope(m, lambda v: setattr(q, "QRHS", v), -rhs if turned else rhs), abs=1e-4)
    c.RHS = float(c.RHS - c.Slack - 0.2)
    m.optimize()
    assert c.Pi == pytest.approx(slope(m, lambda v: setattr(c, "RHS", v), c.RHS), abs=1e-4)


@pytest.mark.filterwarnings("error")
def test_at_the_tip_of_a_cone_there_is_no_multiplier():
    with tarvopy.Model() as m:
        m.params.LogLevel = 0
        x, t = m.addMVar(3, lb=-9.0, ub=9.0), m.addVar(lb=0.0)
        m.addConstr(x @ x <= t * t, name="cone")
        m.setObjective(3.0 * t + x[0] - x[1])
        m.optimize()
        assert m.EngineName.startswith("Clarabel")
        assert m.Status == TRV.OPTIMAL
        assert pytest.approx(0.0, abs=1e-6) == m.ObjVal
        with pytest.raises(TarvoError, match=r"'cone' is at the tip"):
            _ = t.RC


# ---- what it is told, and what it holds


class Small(NamedTuple):
    m: tarvopy.Model
    x: tarvopy.MVar
    c: tarvopy.Constr


@pytest.fixture
def small():
    """min (x - 1)'(x - 1) over x0 + x1 + x2 <= 1, x >= 0."""
    with tarvopy.Model() as m:
        m.params.LogLevel = 0
        m.params.Engine = "clarabel"
        x = m.addMVar(3)
        m.setObjective(x @ x - 2.0 * x.sum())
        yield Small(m, x, m.addConstr(x.sum() <= 1.0))


def test_rows_are_made_for_what_is_finite(small):
    assert small.m.prepare() == {"vars": 3, "rows": 4, "nz": 6, "qnz": 3}
    small.x.UB = [5.0, np.inf, 0.0]  # one more bound, and a fixed variable's one row in the place of one
    small.m.addConstr(small.x[0] - small.x[0] + 0.0 * small.x[1] <= 3.0)  # empty, and holds
    small.m.addRange(small.x[0] + small.x[1], 0.5, 0.75)
    small.m.addRange(small.x[0] - small.x[1], -np.inf, np.inf)
    assert small.m.prepare() == {"vars": 3, "rows": 7, "nz": 11, "qnz": 3}
    small.m.optimize()
    assert pytest.approx([0.375, 0.375, 0.0], abs=1e-6) == small.x.X


def test_changes_of_numbers_keep_the_solver(small):
    small.m.optimize()
    assert pytest.approx([1 / 3] * 3, abs=1e-6) == small.x.X
    small.c.RHS = 2.0
    small.m.optimize()
    assert pytest.approx([2 / 3] * 3, abs=1e-6) == small.x.X
    small.x[0].Obj = -4.0
    small.x[1].LB = 0.25
    small.m.optimize()
    assert pytest.approx([4 / 3, 1 / 3, 1 / 3], abs=1e-6) == small.x.X
    assert small.m._engine.loads == 1
    small.x[2].UB = 0.1  # a row more
    small.m.optimize()
    assert pytest.approx([1.45, 0.45, 0.1], abs=1e-6) == small.x.X
    assert small.m._engine.loads == 2


def test_a_sense_that_turns_takes_the_multipliers_along():
    with tarvopy.Model() as m:
        m.params.LogLevel = 0
        x = m.addMVar(2, lb=-10.0, ub=0.5)
        m.addConstr(x @ x <= 100.0)
        row = m.addConstr(x.sum() == -0.2)
        m.setObjective(x[0] + 2.0 * x[1])
        for sense, pi, rc in ((TRV.MINIMIZE, 2.0, [-1.0, 0.0]), (TRV.MAXIMIZE, 1.0, [0.0, 1.0])):
            m.ModelSense = sense
            m.optimize()
            assert (m.Status, m.EngineName.split()[0]) == (TRV.OPTIMAL, "Clarabel")
            assert row.Pi == pytest.approx(pi, abs=1e-6)
            assert pytest.approx(rc, abs=1e-6) == x.RC
        assert m._engine.loads == 1


def test_bounds_that_turn_a_cone_load_anew():
    with tarvopy.Model() as m:
        m.params.LogLevel = 0
        x, y = m.addVar(lb=3.0, ub=9.0), m.addVar(lb=-1.0, ub=9.0)
        y.LB = 0.0
        m.addConstr(x * x <= y * y)
        m.setObjective(y * y)
        m.optimize()
        assert pytest.approx(3.0, abs=1e-5) == y.X
        y.LB, y.UB = -9.0, 0.0
        m.optimize()
        assert m.EngineName.startswith("Clarabel")
        assert pytest.approx(-3.0, abs=1e-5) == y.X


@pytest.mark.parametrize("limited", [False, True])
def test_infeasible_and_unbounded(small, limited):
    small.c.RHS = -1.0
    small.m.optimize()
    assert small.m.Status == TRV.INFEASIBLE
    small.c.RHS = np.inf
    small.m.setObjective(small.x[0] * small.x[0] - small.x[1])
    if limited:
        small.x[1].UB = 7.0
    small.m.optimize()
    assert small.m.Status == (TRV.OPTIMAL if limited else TRV.UNBOUNDED)
    small.m.addConstr(small.x @ small.x + small.x[0] <= -1.0)
    small.m.optimize()
    assert small.m.Status == TRV.INFEASIBLE


@pytest.mark.parametrize("size", [1e8, 1e10])
def test_large_numbers_are_no_proof_of_infeasibility(size):
    """Clarabel's own tolerance takes x >= 1e8 for infeasible, and x*x - 1e8*x for unbounded."""
    with tarvopy.Model() as m:
        m.params.LogLevel = 0
        x = m.addVar(lb=size)
        m.setObjective(x * x)
        m.optimize()
        assert (m.Status, x.X) == (TRV.OPTIMAL, pytest.approx(size))
        x.LB = 0.0
        m.setObjective(x * x - size * x)
        m.optimize()
        assert (m.Status, x.X) == (TRV.OPTIMAL, pytest.approx(size / 2))


def test_an_objective_without_bound_over_no_point_is_infeasible(small):
    small.m.setObjective(small.x[0] * small.x[0] - small.x[1])
    small.c.RHS = np.inf
    small.m.addConstr(small.x[0] - small.x[2] >= 1.0)
    small.m.addConstr(small.x[0] - small.x[2] <= 0.0)
    small.m.optimize()
    assert small.m.Status == TRV.INFEASIBLE


def test_a_model_without_rows_and_bounds():
    with tarvopy.Model() as m:
        m.params.LogLevel = 0
        x = m.addMVar(2, lb=-np.inf)
        m.setObjective(x @ x - 2.0 * x.sum())
        m.optimize()
        assert m.Status == TRV.OPTIMAL
        assert pytest.approx([1.0, 1.0], abs=1e-6) == x.X


@pytest.mark.parametrize(
    ("spoil", "text"),
    [
        (lambda small: small.m.setObjective(small.x[0] * small.x[1]), "the quadratic objective is not convex"),
        (lambda small: small.m.addConstr(small.x @ small.x >= 1.0, name="far"), "quadratic row 'far' is not convex"),
        (lambda small: small.m.addMVar(2, vtype="I"), "2 integer variables"),
        (lambda small: small.m.addVar(vtype="S", ub=5.0), "1 semi-continuous variable"),
    ],
)
def test_refusals_name_what_stands_in_the_way(small, spoil, text):
    spoil(small)
    with pytest.raises(TarvoError, match=text):
        small.m.optimize()


# ---- runs


def test_where_no_time_is_left_nothing_is_set_up(small, monkeypatch):
    small.m.params.TimeLimit = 0.0
    with monkeypatch.context() as patch:
        patch.setattr("clarabel.DefaultSolver", None)
        small.m.optimize()
    assert (small.m.Status, small.m.IterCount) == (TRV.TIME_LIMIT, 0)
    assert not hasattr(small.m, "ObjVal")
    small.m.params.TimeLimit = np.inf
    small.m.optimize()
    assert small.m.Status == TRV.OPTIMAL


def test_limits_options_and_the_log(small, capsys):
    small.m.params.IterationLimit = 1
    small.m.optimize()
    assert small.m.Status == TRV.ITERATION_LIMIT
    small.m.params.IterationLimit = np.inf
    small.m.params.TimeLimit = 0.0
    small.m.optimize()
    assert small.m.Status == TRV.TIME_LIMIT
    small.m.params.TimeLimit = np.inf
    for options in ({"no_such_option": 1}, {"max_iter": "many"}):
        small.m.params.EngineOptions = options
        with pytest.raises(TarvoError, match=next(iter(options))):
            small.m.optimize()
    small.m.params.EngineOptions = {"max_iter": 1}
    small.m.optimize()
    assert small.m.Status == TRV.ITERATION_LIMIT
    small.m.params.EngineOptions = {"max_iter": 50}
    small.m.params.LogLevel = 2
    small.m.optimize()
    assert small.m.Status == TRV.OPTIMAL
    assert "iter" in capsys.readouterr().out


def test_settings_that_a_solver_has_for_life_change_between_solves(small):
    m = small.m
    m.optimize()
    value = m.ObjVal
    for change in (
        lambda: setattr(m.params, "Threads", 2),
        lambda: setattr(m.params, "EngineOptions", {"direct_solve_method": "qdldl"}),
        lambda: setattr(m.params, "EngineOptions", {"presolve_enable": True}),  # a solver whose data cannot change
        lambda: setattr(m.getVars()[0], "LB", -1e3),
        m.params.reset,
    ):
        change()
        m.params.LogLevel = 0
        m.optimize()
        assert (m.Status, m.ObjVal) == (TRV.OPTIMAL, pytest.approx(value))
    m.params.EngineOptions = {"direct_solve_method": "none"}
    with pytest.raises(TarvoError, match=r"refuses the options \{'direct_solve_method': 'none'\}"):
        m.optimize()


def test_a_model_that_was_not_closed_leaves_nothing_behind():
    m = tarvopy.Model()
    m.params.LogLevel = 0
    x = m.addVar()
    m.setObjective(x * x - x)
    m.optimize()
    engine = weakref.ref(m._engine)
    del m, x
    gc.collect()
    assert engine() is None


def test_an_interrupt_comes_through_after_an_iteration():
    n = 1000
    f = np.random.default_rng(0).standard_normal((n, n))
    with tarvopy.Model() as m:
        m.params.LogLevel = 0
        x = m.addMVar(n)
        m.setObjective(x @ (f @ f.T) @ x)
        m.addConstr(x.sum() == 1.0)
        m.prepare()
        engine = m._engine

        def stop():
            while engine._iterations < 1:
                time.sleep(0.005)
            engine.interrupt()

        threading.Thread(target=stop).start()
        m.optimize()
        assert m.Status == TRV.INTERRUPTED
        assert m.IterCount < 6
        m.optimize()
        assert m.Status == TRV.OPTIMAL
