"""General constraints solved: the answers of array models are those of enumeration over all values of their variables.

Variables are integer in small ranges (or binary), so that NumPy lists every point; what a function gives is a free
variable of the model and NumPy's result in the list. The model that fixed() makes of an answer must have it too.
"""

# ruff: noqa: SIM300  (y == function reads as the constraint that it is)

import itertools

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV, genfunc

pytest.importorskip("pyscipopt")

LOW, HIGH = -2, 3
RANGE = range(LOW, HIGH + 1)


@pytest.fixture
def m():
    model = tarvopy.Model()
    model.params.LogLevel = 0
    yield model
    model.close()


def points(n, values=RANGE):
    """All points of n variables as an array of shape (number of points, n)."""
    return np.array(list(itertools.product(values, repeat=n)), dtype=float)


def free(m, shape):
    return m.addMVar(shape, lb=-tarvopy.inf)


def best(m, objective, values, allowed=True):
    """Both directions of an objective against its values at all allowed points; the last solution stands."""
    values = values[np.broadcast_to(allowed, values.shape)]
    for sense, oracle in ((TRV.MINIMIZE, np.min), (TRV.MAXIMIZE, np.max)):
        m.setObjective(objective, sense)
        m.optimize()
        if not len(values):
            assert m.Status == TRV.INFEASIBLE
            continue
        assert m.Status == TRV.OPTIMAL
        assert m.ObjVal == pytest.approx(oracle(values), abs=1e-5)
        with m.fixed() as fixed:
            assert fixed.NumGenConstrs == 0
            fixed.optimize()
            assert fixed.Status == TRV.OPTIMAL
            assert fixed.ObjVal == pytest.approx(m.ObjVal, abs=1e-5)


REDUCTIONS = {"max": np.max, "min": np.min}


@pytest.mark.parametrize("name", REDUCTIONS)
@pytest.mark.parametrize("seed", range(3))
def test_largest_and_smallest_over_an_axis_beside_expressions(mode, m, name, seed):
    rng = np.random.default_rng(seed)
    X = m.addMVar((2, 2), lb=LOW, ub=HIGH, vtype="I")
    y, z = free(m, 2), free(m, 2)
    m.addConstr(y == getattr(genfunc, name)(X, axis=1))
    m.addConstr(z + 1 == getattr(genfunc, name)(2 * X[0] - X[1], y, 1.5))
    c, d, e = rng.integers(-3, 4, (2, 2)), rng.integers(-3, 4, 2), rng.integers(-3, 4, 2)
    P = points(4).reshape(-1, 2, 2)
    Y = REDUCTIONS[name](P, axis=2)
    Z = REDUCTIONS[name](np.stack([2 * P[:, 0] - P[:, 1], Y, np.full_like(Y, 1.5)]), axis=0) - 1
    best(m, (c * X).sum() + d @ y + e @ z, (c * P).sum((1, 2)) + Y @ d + Z @ e)
    P = X.X
    assert np.allclose(y.X, REDUCTIONS[name](P, axis=1), atol=1e-5)


@pytest.mark.parametrize("seed", range(3))
def test_absolute_values_and_equations_between_them(m, seed):
    rng = np.random.default_rng(seed)
    x = m.addMVar(4, lb=LOW, ub=HIGH, vtype="I")
    y = free(m, 3)
    m.addConstr(y == genfunc.abs(x[:3] - x[1:]))
    m.addConstr(2.0 == genfunc.abs(x[0] + x[3]))
    c, d = rng.integers(-3, 4, 4), rng.integers(-3, 4, 3)
    P = points(4)
    Y = np.abs(P[:, :3] - P[:, 1:])
    best(m, c @ x + d @ y, P @ c + Y @ d, np.abs(P[:, 0] + P[:, 3]) == 2)


@pytest.mark.parametrize("seed", range(3))
def test_all_and_any(m, seed):
    rng = np.random.default_rng(seed)
    b = m.addMVar((2, 3), vtype="B")
    every, some = m.addMVar(2, vtype="B"), m.addMVar(3, vtype="B")
    m.addConstr(every == genfunc.all(b, axis=1))
    m.addConstr(some == genfunc.any(b, axis=0))
    m.addConstr(1 == genfunc.any(b[0], every[1]))  # broadcast: one of b[0, j], every[1] for each j
    c, d, e = rng.integers(-3, 4, (2, 3)), rng.integers(-5, 6, 2), rng.integers(-5, 6, 3)
    P = points(6, (0, 1)).reshape(-1, 2, 3)
    E, S = P.all(2), P.any(1)
    allowed = (P[:, 0].astype(bool) | E[:, 1:]).all(1)
    best(m, (c * b).sum() + d @ every + e @ some, (c * P).sum((1, 2)) + E @ d + S @ e, allowed)


def test_pieces_go_on_beyond_the_ends_and_jumps_take_all_between(m):
    x = m.addMVar(3, lb=-4, ub=6, vtype="I")
    y = free(m, 3)
    xpts, ypts = [-1, 0, 0, 2, 3], [3, 1, -2, 0, -5]
    m.addConstr(y == genfunc.pwl(x, xpts, ypts))
    m.addConstr(x == [-4, 0, 6])
    m.setObjective(y.sum())
    m.optimize()
    assert np.allclose(y.X, [9, -2, -20], atol=1e-5)
    m.setObjective(y.sum(), TRV.MAXIMIZE)
    m.optimize()
    assert np.allclose(y.X, [9, 1, -20], atol=1e-5)
    with m.fixed() as fixed:
        fixed.optimize()
        assert fixed.ObjVal == pytest.approx(-10, abs=1e-5)


def test_multipliers_of_what_was_fixed(m):
    """A price for the room in which the second of three alternatives is the largest."""
    x = m.addMVar(3, ub=[2.0, 5, 3], name="x")
    y = m.addVar()
    room = m.addConstr(x.sum() <= 6)
    m.addConstr(y == genfunc.max(x))
    m.addSOS(2, x)
    m.setObjective(2 * y + x.sum(), TRV.MAXIMIZE)
    m.optimize()
    with pytest.raises(tarvopy.NoDataError):
        _ = room.Pi
    fixed = m.fixed()
    fixed.optimize()
    assert (m.ObjVal, fixed.ObjVal) == (pytest.approx(16), pytest.approx(16))
    assert fixed.getConstrs()[0].Pi == pytest.approx(1.0)
    assert fixed.getVars()[1].RC == pytest.approx(2.0)


def test_pieces_of_a_continuous_variable_against_a_grid(m):
    x, y = m.addVar(lb=-3.0, ub=4.0), m.addVar(lb=-tarvopy.inf)
    xpts, ypts = np.array([-2.0, -1, 1, 2]), np.array([1.0, -3, 4, 0])
    m.addConstr(y == genfunc.pwl(2 * x - 1, xpts, ypts))
    grid = np.linspace(-3, 4, 70001)
    u = 2 * grid - 1
    f = np.interp(u, xpts, ypts)
    f = np.where(u < -2, 1 - 4 * (u + 2), np.where(u > 2, -4 * (u - 2), f))
    best(m, y + 0.5 * x, f + 0.5 * grid)


@pytest.mark.parametrize("seed", range(4))
@pytest.mark.parametrize("sense", ["<", ">", "="])
def test_indicators_hold_where_their_binary_says_so(m, sense, seed):
    rng = np.random.default_rng(seed)
    b = m.addMVar(2, vtype="B")
    x = m.addMVar(3, lb=LOW, ub=HIGH, vtype="I")
    A, value = rng.integers(-2, 3, (2, 3)), rng.integers(0, 2, 2)
    right = A @ rng.integers(LOW, HIGH + 1, 3)
    m.addConstr(genfunc.indicator(b, value, tarvopy.TempConstr(A @ x, sense, right)))
    c, d = rng.integers(-3, 4, 3), rng.integers(-9, 10, 2)
    X, B = np.split(product(3, 2), [3], axis=1)
    left = X @ A.T
    holds = {"<": left <= right, ">": left >= right, "=": left == right}[sense]
    best(m, c @ x + d @ b, X @ c + B @ d, (holds | (value != B)).all(1))


def product(integers, binaries):
    P, B = points(integers), points(binaries, (0, 1))
    return np.hstack([np.repeat(P, len(B), axis=0), np.tile(B, (len(P), 1))])


@pytest.mark.parametrize("kind", [1, 2])
@pytest.mark.parametrize("seed", range(3))
def test_special_ordered_sets(m, kind, seed):
    rng = np.random.default_rng(seed)
    x = m.addMVar(4, lb=LOW, ub=HIGH, vtype="I")
    weights = rng.permutation(4)
    m.addSOS(kind, x, weights)
    m.addConstr(x.sum() >= -3)
    c = rng.integers(-3, 4, 4)
    P = points(4)
    nonzero = P[:, np.argsort(weights)] != 0
    if kind == 1:
        span = nonzero.sum(1)
    else:
        span = np.where(nonzero.any(1), 4 - nonzero[:, ::-1].argmax(1) - nonzero.argmax(1), 0)
    best(m, c @ x, P @ c, (span <= kind) & (P.sum(1) >= -3))


def test_what_cannot_hold_is_infeasible_and_what_has_no_bound_is_found_out(m):
    x = m.addMVar(2, lb=LOW, ub=HIGH)
    y = m.addVar(lb=-tarvopy.inf)
    m.addConstr(y == genfunc.max(x))
    clash = m.addConstr(y >= HIGH + 1)
    m.optimize()
    assert m.Status == TRV.INFEASIBLE
    m.remove(clash)
    m.optimize()
    assert m.Status == TRV.OPTIMAL
    z = m.addVar()
    w = m.addVar()
    m.addConstr(z == genfunc.abs(w))
    m.setObjective(z, TRV.MAXIMIZE)
    m.optimize()
    assert m.Status in (TRV.UNBOUNDED, TRV.INFEASIBLE_OR_UNBOUNDED)


def test_variables_that_are_not_binary_are_refused_by_name_at_the_solve(m):
    b, x = m.addVar(vtype="B"), m.addVar(name="width")
    m.addConstr(b == genfunc.all(b, x), name="both")
    with pytest.raises(tarvopy.TarvoError, match="'both' takes binary variables only, not 'width'"):
        m.optimize()
    x.VType = "B"
    m.optimize()
    assert m.Status == TRV.OPTIMAL


def test_fixed_charge_of_a_network_by_indicators_and_by_pieces(m):
    """The same little lot-sizing model twice: a set-up cost as an indicator, and as a jump of the cost's pieces."""
    demand, setup = np.array([3.0, 0, 4, 2]), 5.0
    answers = []
    for pieces in (False, True):
        with tarvopy.Model() as m:
            m.params.LogLevel = 0
            make, stock = m.addMVar(4, ub=20.0), m.addMVar(5)
            m.addConstr(stock[1:] == stock[:-1] + make - demand)
            m.addConstr(stock[0] == 0)
            if pieces:
                cost = m.addMVar(4)
                m.addConstr(cost == genfunc.pwl(make, [-1, 0, 0, 20], [0, 0, setup, setup + 20]))
                total = cost.sum()
            else:
                on = m.addMVar(4, vtype="B")
                m.addConstr(genfunc.indicator(on, 0, make <= 0))
                total = setup * on.sum() + make.sum()
            m.setObjective(total + 0.6 * stock.sum())
            m.optimize()
            assert m.Status == TRV.OPTIMAL
            answers.append(m.ObjVal)
    plans = [(setup * np.count_nonzero(p) + np.sum(p), p) for p in covering(demand)]
    enumerated = min(cost + 0.6 * np.sum(np.cumsum(np.array(p) - demand)) for cost, p in plans)
    assert answers == pytest.approx([enumerated] * 2, abs=1e-5)


def covering(demand):
    """Every plan that makes, in some of the periods, all that is needed until the next of them."""
    n = len(demand)
    for chosen in itertools.product([0, 1], repeat=n):
        starts = [i for i in range(n) if chosen[i]]
        if not starts or demand[: starts[0]].sum() > 0:
            continue
        plan = np.zeros(n)
        for begin, end in itertools.pairwise([*starts, n]):
            plan[begin] = demand[begin:end].sum()
        yield plan
