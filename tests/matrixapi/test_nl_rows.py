"""Nonlinear sides of constraints as linear terms and tapes, and values of array nodes: NumPy is the oracle, and tapes
written from array nodes are those written from the elements' trees."""

import itertools
import time

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point, variables
from nonlinear_values import activities, difference, nlrows
from solver.tapes import op, sumof
from tarvopy import TRV, _debug, nlfunc
from tarvopy._core import NLExpr
from tarvopy._matrixapi import MNLExpr

INF = float("inf")


class World:
    """x (2, 3), v (3,) and s () with a number for each of their variables."""

    def __init__(self):
        self.model = tarvopy.Model()
        self.x, self.v = variables(self.model, (2, 3)), variables(self.model, 3, "v")
        self.s = variables(self.model, (), "s").item()
        self.numbers = 0.3 + 0.17 * ((np.arange(10) * 7) % 10)
        self.X, self.V, self.S = self.numbers[:6].reshape(2, 3), self.numbers[6:9], self.numbers[9:].reshape(())

    def difference(self, lhs, rhs):
        return difference(self.model, lhs, rhs, self.numbers)


def expressions(world):
    """{name: (expression, value)} of nonlinear expressions that have every kind of node."""
    x, v, s, X, V, S = world.x, world.v, world.s, world.X, world.V, world.S
    nx, nv, sines = MNLExpr._from_mvar(x), MNLExpr._from_mvar(v), nlfunc.sin(x)
    return {
        "function": (nlfunc.exp(x), np.exp(X)),
        "sum of all kinds": (
            nx - 2 * nlfunc.cos(x) + 0.5 - v - (-nlfunc.log(v)) * 3,
            X - 2 * np.cos(X) + 0.5 - V + 3 * np.log(V),
        ),
        "of linear ones": (nlfunc.sqrt(2 * x + v + 1) * (3 - v), np.sqrt(2 * X + V + 1) * (3 - V)),
        "of quadratic ones": (nlfunc.tanh(x * x + 3 * x * v - x + 2), np.tanh(X * X + 3 * X * V - X + 2)),
        "minus quadratic ones": (nx - (x * v - 2 * x * x + x - 1), X - (X * V - 2 * X * X + X - 1)),
        "column": (nlfunc.log10(nx[:, 1:2] + 1) / v, np.log10(X[:, 1:2] + 1) / V),
        "transposed outer": (nv * nx[:, ::-1] ** v - 1.0, V * X[:, ::-1] ** V - 1.0),
        "part of a node": ((sines * v)[1, ::-2] - sines[0, :2], (np.sin(X) * V)[1, ::-2] - np.sin(X)[0, :2]),
        "picked": (sines[[1, 0, 1]][:, [2, 0, 0]] ** 2, np.sin(X)[[1, 0, 1]][:, [2, 0, 0]] ** 2),
        "sum": ((sines * 2).sum(axis=0) - nv.sum(), 2 * np.sin(X).sum(axis=0) - V.sum()),
        "dense product": (nlfunc.abs(nx - 1) @ np.array([1.0, 0.0, -2.0]), np.abs(X - 1) @ [1.0, 0.0, -2.0]),
        "sparse product": (sp.csr_array([[1.0, 2.0], [0.0, 0.0]]) @ (nx * v), np.array([[1.0, 2], [0, 0]]) @ (X * V)),
        "constants": (nlfunc.logistic(nx * 0.0) * 1.0 + 0 * nx, 0.5 + 0 * X),
        "scalar": (NLExpr(s) * nlfunc.log2(s + 1) - 2 * s + 1, S * np.log2(S + 1) - 2 * S + 1),
        "scalar function": (NLExpr(s) ** 2, S**2),
    }


def sides(world):
    """{name: (operand, value)} of everything else."""
    x, v, s, X, V, S = world.x, world.v, world.s, world.X, world.V, world.S
    objects = np.empty(3, object)
    objects[:] = [nlfunc.sin(v[0].item()), 2.5, s * s + v[1].item()]
    return {
        "number": (2.5, 2.5),
        "numpy scalar": (np.int8(-2), -2),
        "array": (np.arange(3.0), np.arange(3.0)),
        "column of integers": (np.array([[1], [2]]), np.array([[1], [2]])),
        "sparse": (sp.coo_array(np.eye(1, 3)), np.eye(1, 3)),
        "variable": (s, S),
        "linear": (2 * s - 1, 2 * S - 1),
        "quadratic": (s * s - s, S * S - S),
        "variables": (v, V),
        "compact": (2 * v + 1, 2 * V + 1),
        "linear array": (v - 3 * x[:1] + 1, V - 3 * X[:1] + 1),
        "quadratic array": (x[0] * v - v + 2, X[0] * V - V + 2),
        "objects": (objects, np.array([np.sin(V[0]), 2.5, S * S + V[1]])),
    }


NAMES = list(expressions(World()))


def broadcastable(*arrays):
    try:
        return np.broadcast_shapes(*map(np.shape, arrays))
    except ValueError:
        return None


@pytest.mark.parametrize("name", NAMES)
def test_rows_are_the_difference_of_the_sides(mode, name):
    world = World()
    expr, value = expressions(world)[name]
    for other, number in {**sides(world), **expressions(world)}.values():
        if broadcastable(value, number) is None:
            continue
        for lhs, rhs, expected in [(expr, other, value - number), (other, expr, number - value)]:
            found = world.difference(lhs, rhs)
            assert found.shape == np.shape(expected)
            np.testing.assert_allclose(found, expected, rtol=1e-12, atol=1e-12)


def test_tapes_of_nodes_are_those_of_the_trees():
    def rows(eager):
        world = World()
        _debug.eager(eager)
        try:
            made = {**expressions(world), **sides(world)}
        finally:
            _debug.eager(False)
        for left, right in itertools.product(NAMES, made):
            lhs, rhs = made[left][0], made[right][0]
            if broadcastable(made[left][1], made[right][1]) is not None:
                world.model.addConstr(lhs <= rhs)
        return nlrows(world.model)

    assert rows(eager=False) == rows(eager=True)


def test_values_are_numpys(mode):
    world = World()
    world.numbers[:] = Point(world.model).numbers
    with np.errstate(all="ignore"):
        for name, (expr, value) in expressions(world).items():
            np.testing.assert_allclose(expr.getValue(), value, rtol=1e-12, atol=1e-12, err_msg=name)
            assert np.shape(expr.getValue()) == np.shape(value)


def test_no_values_without_a_solution(mode):
    world = World()
    with pytest.raises(tarvopy.NoDataError, match="X"):
        (nlfunc.sin(world.x) * 2).getValue()
    assert MNLExpr._from_ndarray(np.array([1.5, 2.0])).getValue().tolist() == [1.5, 2.0]


def test_values_need_the_elements_that_are_asked_for_only(mode):
    m = tarvopy.Model()
    x = variables(m, 4)
    both, product = nlfunc.exp(x * x - x), nlfunc.sin(2 * x + 1) * x
    parts = [
        (both[1:], lambda X: np.exp(X * X - X)[1:]),
        (product[::-1][:3], lambda X: (np.sin(2 * X + 1) * X)[:0:-1]),
        (both[[3, 1]].sum(), lambda X: np.exp(X * X - X)[[3, 1]].sum()),
        (sp.csr_array([[0.0, 1.0, 0.0, 2.0]]) @ both, lambda X: np.array([[1.0, 2.0]]) @ np.exp(X * X - X)[[1, 3]]),
    ]
    m.remove(x[0])
    m.update()
    X = np.append(np.nan, Point(m).numbers)
    for part, expected in parts:
        np.testing.assert_allclose(part.getValue(), expected(X))
    with pytest.raises(tarvopy.TarvoError) as refused:
        both.getValue()
    assert refused.value.code == TRV.Error.NOT_IN_MODEL


# ---- what goes where ------------------------------------------------------------------------------------------------


def test_what_is_linear_in_the_sum_is_no_part_of_the_tape(mode):
    m = tarvopy.Model()
    x = variables(m, 3)
    f = nlfunc.sin(x[:1])
    m.addConstr(MNLExpr._from_mvar(x[:1]) - 2 * x[1:2] - (3 * MNLExpr._from_mvar(x[2:]) - 4) - 0.5 * f == 1)
    m.addConstr(x[0].item() - (f - 2 * f.item()) <= 0)
    assert nlrows(m) == [
        ({0: 1.0, 1: -2.0, 2: -3.0}, [op("constant"), 0, op("sin"), op("*")], [-0.5]),
        ({0: 1.0}, [0, op("sin"), op("neg"), op("constant"), 0, op("sin"), op("*"), sumof(2)], [2.0]),
    ]
    assert activities(m, [0.0, 1.0, 0.0])[0] == -2


def test_quadratic_terms_are_summands_of_the_tape(mode):
    m = tarvopy.Model()
    x = variables(m, 2)
    m.addConstr(nlfunc.exp(x[0]) >= x[0] * x[0] - 2 * x[0] * x[1] - x[1] + 1)
    (row,) = nlrows(m)
    assert row.linear == {1: 1.0}
    assert row.code == [0, op("exp"), 0, op("square"), op("neg"), op("constant"), 0, 1, op("*"), op("*"), sumof(3)]
    assert row.constant == [2.0]


def test_infinite_numbers_are_no_bounds_and_nan_is_none(mode):
    world = World()
    c = world.model.addConstr(nlfunc.sin(world.v) <= np.array([1.0, INF, 1e20]))
    objects = np.array([nlfunc.sin(world.s), INF, 7], object)
    world.model.addConstr(world.v <= objects)
    world.model.update()
    sides = tarvopy.problem.Problem.of(world.model._cmodel)
    assert c.shape == (3,)
    assert sides.nlupper.tolist() == [1.0, INF, INF, 0.0, INF, 7.0]
    assert np.all(np.isinf(sides.nllower))
    for lhs, rhs in [
        (nlfunc.sin(world.v), np.nan),
        (nlfunc.sin(world.s), np.nan),
        (np.array([np.nan]), -nlfunc.sin(world.v)),
    ]:
        with pytest.raises(tarvopy.TarvoError, match="is nan"):
            world.model.addConstr(lhs <= rhs)


# ---- refusals -------------------------------------------------------------------------------------------------------


def test_variables_of_two_models_are_refused(mode):
    world, other = World(), tarvopy.Model()
    y = variables(other, 3)
    mixed = np.array([NLExpr(world.s), nlfunc.sin(y[0].item())], object)
    for lhs, rhs in [
        (nlfunc.sin(world.v), y),
        (nlfunc.sin(world.v) - nlfunc.cos(y), 0),
        (y @ y, nlfunc.sin(world.s)),
        (world.v[:2], mixed),
        (nlfunc.sin(world.s) + y[0].item(), 1),
    ]:
        with pytest.raises(tarvopy.TarvoError, match="two models") as refused:
            world.model.addConstr(lhs <= rhs)
        assert refused.value.code == TRV.Error.NOT_IN_MODEL
    world.model.update()
    assert world.model.NumNLConstrs == 0


def test_elements_that_are_left_out_need_not_fit():
    world, other = World(), tarvopy.Model()
    y = variables(other, 3)
    joined = MNLExpr(np.array([nlfunc.sin(world.s), nlfunc.sin(y[0].item())], object)) * 2
    world.model.addConstr(joined[:1] <= 1)
    assert (
        nlrows(world.model) == [({}, [op("constant"), 9, op("sin"), op("*")], [2.0])] or len(nlrows(world.model)) == 1
    )


def test_bad_sides_name_what_is_wrong(mode):
    world = World()
    f = nlfunc.sin(world.v)
    with pytest.raises(ValueError, match=r"\(3,\) \(2,\)"):
        world.model.addConstr(f <= np.zeros(2))
    with pytest.raises(ValueError, match=r"shapes \(100000, 1\) and \(1, 100000\) has more than 2\*\*31 elements"):
        world.model.addConstr(MNLExpr._from_ndarray(np.zeros((100000, 1))) <= np.zeros((1, 100000)))
    with pytest.raises(ValueError, match="element 1: the constants of a nonlinear expression have no finite sum"):
        world.model.addConstr(f + np.array([0, 1e308, 0]) + 1e308 <= 0)
    with pytest.raises(TypeError, match=r"str"):
        world.model.addConstr(world.v <= np.array([nlfunc.sin(world.s), "a", 1], object))
    with pytest.raises(tarvopy.TarvoError, match=r"N1.*: a division by the constant 0"):  # the store's own refusal
        world.model.addConstr(f / np.array([1.0, 0.0, 1.0]) <= 0)
    world.model.update()
    assert world.model.NumNLConstrs == 0


# ---- sizes ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("deep", ["negated", "summed", "nested", "one by one"])
def test_a_hundred_thousand_operations_deep(deep):
    m = tarvopy.Model()
    x = variables(m, 2)
    expr, n = nlfunc.sin(x), 100_000
    for _ in range(n):
        if deep == "negated":
            expr = -expr
        elif deep == "summed":
            expr = expr + x
        elif deep == "nested":
            expr = nlfunc.abs(expr)
        else:
            expr += 1.0
    m.addConstr(expr <= 0)
    first, second = nlrows(m)
    assert [[k for k in row.code if k >= 0] for row in (first, second)] == [[0], [1]]
    assert first.linear == ({0: n} if deep == "summed" else {})
    assert len(first.code) == (n + 2 if deep == "nested" else 2)


def test_a_sum_of_a_hundred_thousand_elements():
    m = tarvopy.Model()
    x = variables(m, 100_000)
    m.addConstr((nlfunc.sin(x) - 2 * x).sum() <= 0)
    (row,) = nlrows(m)
    assert (len(row.linear), set(row.linear.values())) == (100_000, {-2.0})
    assert (len(row.code), row.code[-1]) == (200_001, sumof(100_000))


@pytest.mark.parametrize("doubled", ["one by one", "array", "elements"])
def test_a_part_that_is_doubled_sixty_times_is_refused_at_once(doubled):
    m = tarvopy.Model()
    x = variables(m, 2)
    expr = nlfunc.exp(x[0] if doubled == "one by one" else x)
    for _ in range(60):
        expr = nlfunc.sqrt(expr * expr) + 0.5 * expr
    if doubled == "elements":
        expr._nlearr
    began = time.process_time()
    for use in (lambda: m.addConstr(expr <= 2), lambda: m.setObjective(expr if doubled == "one by one" else expr[0])):
        with pytest.raises(ValueError, match=r"longer than 2\*\*27 operations .* variable of its own"):
            use()
    assert time.process_time() - began < 4
