"""Random programs over variables, expressions and numbers, with NumPy as the oracle.

Every variable stands for a number. Whatever a program does to arrays of variables and expressions, the value of the
result is what NumPy gives on the numbers; where NumPy refuses, the package refuses; operands keep their values. The
same program is run with and without element objects, looked at and not.
"""

import operator

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st

import tarvopy
from tarvopy import _debug

SHAPES = [(), (1,), (3,), (1, 3), (3, 1), (1, 1), (2, 3), (3, 3), (2, 1, 3), (0,), (0, 3), (3, 0)]
NUMBERS = st.sampled_from([-2.0, -1.0, 0.5, 1.0, 3.0])


def value(expr, point):
    """The numbers that an expression stands for, read off its own elements."""
    result = np.empty(expr.shape)
    full = expr._to_full() if expr._is_compact() else expr
    for key, element in np.ndenumerate(full._learr):
        result[key] = element.getConstant() + sum(c * point[v.index] for c, v in element.terms())
    return result


def quadratic_value(expr, point):
    """The same of a quadratic expression; linear terms may stand inside its QuadExpr objects too."""
    full = expr.copy()
    full._convert_to_full()
    result = value(full._ndle, point)
    for key, element in np.ndenumerate(full._qearr):
        own = element.getLinExpr()
        result[key] += own.getConstant() + sum(c * point[v.index] for c, v in own.terms())
        result[key] += sum(c * point[a.index] * point[b.index] for c, a, b in element.terms())
    return result


class World:
    """One model; `make` gives a pair (what the package holds, what NumPy holds)."""

    def __init__(self):
        self.model = tarvopy.Model()
        self.point = []

    def variables(self, shape):
        x = self.model.addMVar(shape)
        self.model.update()
        first = len(self.point)
        numbers = (np.arange(x.size) * 7 + first * 3) % 11 - 5.0
        self.point.extend(numbers)
        return x, numbers.reshape(x.shape)

    def value(self, thing):
        if isinstance(thing, tarvopy.MVar):
            return np.array([self.point[i] for i in thing._idxarr().flat]).reshape(thing.shape)
        if isinstance(thing, tarvopy.MLinExpr):
            return value(thing.copy(), self.point)
        if isinstance(thing, tarvopy.MQuadExpr):
            return quadratic_value(thing, self.point)
        return thing.toarray() if sp.issparse(thing) else np.asarray(thing)


@st.composite
def operand(draw, world, kinds=("variables", "expression", "quadratic", "array", "integers", "sparse", "scalar")):
    kind = draw(st.sampled_from(kinds))
    shape = draw(st.sampled_from(SHAPES))
    if kind == "scalar":
        number = draw(NUMBERS)
        return draw(st.sampled_from([float, np.float64, np.array, lambda n: int(2 * n)]))(number), None
    if kind == "sparse":
        shape = draw(st.sampled_from([s for s in SHAPES if len(s) == 2 and 0 not in s]))
        dense = np.arange(np.prod(shape)).reshape(shape) % 3 - 1.0
        make = draw(st.sampled_from([sp.csr_matrix, sp.csc_matrix, sp.coo_matrix, sp.csr_array, sp.lil_matrix]))
        return make(dense), dense
    if kind in ("array", "integers"):
        numbers = (np.arange(np.prod(shape, dtype=int)) * 5 % 7 - 3.0).reshape(shape)
        numbers = numbers.astype(int) if kind == "integers" else numbers
        if draw(st.booleans()) and numbers.ndim > 1:
            numbers = np.asfortranarray(numbers)
        return numbers, numbers
    x, numbers = world.variables(shape)
    if kind == "variables":
        return x, numbers
    scale, shift = draw(NUMBERS), draw(NUMBERS)
    if kind == "quadratic":
        y, others = world.variables(draw(st.sampled_from([shape, (), (1,)])))
        return scale * (x * y) + x + shift, np.asarray(scale * (numbers * others) + numbers + shift)
    return x * scale + shift, np.asarray(numbers * scale + shift)


def plain(thing, numbers):
    return np.asarray(thing) if numbers is None else numbers


OPERATORS = [operator.add, operator.sub, operator.mul, operator.truediv, operator.matmul]
IN_PLACE = [operator.iadd, operator.isub, operator.imul, operator.itruediv]


def degree(thing):
    return 2 if isinstance(thing, tarvopy.MQuadExpr) else int(isinstance(thing, tarvopy.MVar | tarvopy.MLinExpr))


def make_objects(thing):
    if isinstance(thing, tarvopy.MLinExpr):
        thing._learr
    if isinstance(thing, tarvopy.MQuadExpr):
        thing._quadparts if thing._is_compact() else thing._qearr
        thing._ndle._learr


def outcome(function):
    """(result, None) or (None, the kind of refusal)"""
    try:
        with np.errstate(all="ignore"):
            return function(), None
    except (ValueError, TypeError, IndexError, tarvopy.TarvoError) as refusal:
        return None, refusal


@pytest.mark.filterwarnings("ignore:Chained matrix:UserWarning", "ignore:divide by zero:RuntimeWarning")
@settings(max_examples=400, deadline=None)
@given(st.data(), st.booleans(), st.booleans())
def test_binary_operators_give_what_numpy_gives(data, eager, look):
    _debug.eager(eager)
    try:
        world = World()
        a, a_numbers = data.draw(operand(world))
        b, b_numbers = data.draw(operand(world))
        op = data.draw(st.sampled_from(OPERATORS))
        sum_of_both = op is operator.add or op is operator.sub
        degrees = max(degree(a), degree(b)) if sum_of_both else degree(a) + degree(b)
        if not 1 <= degrees <= 2 or (op is operator.truediv and degree(b)):
            return
        if look:
            make_objects(a)
            make_objects(b)
        x, y = plain(a, a_numbers), plain(b, b_numbers)
        expected, refusal = outcome(lambda: op(x, y))
        if expected is not None and not np.isfinite(expected).all():
            return
        if refusal:
            with pytest.raises((ValueError, TypeError, tarvopy.TarvoError)):
                op(a, b)
        else:
            result = op(a, b)
            assert isinstance(result, (tarvopy.MLinExpr, tarvopy.MQuadExpr)[degrees - 1])
            assert result.shape == np.shape(expected)
            np.testing.assert_allclose(world.value(result), expected, atol=1e-9)
        np.testing.assert_array_equal(world.value(a), x)
        np.testing.assert_array_equal(world.value(b), y)
    finally:
        _debug.eager(False)


@pytest.mark.filterwarnings("ignore:divide by zero:RuntimeWarning")
@settings(max_examples=400, deadline=None)
@given(st.data(), st.booleans(), st.booleans())
def test_in_place_operators_give_what_numpy_gives(data, eager, look):
    _debug.eager(eager)
    try:
        world = World()
        a, x = data.draw(operand(world, kinds=("expression", "quadratic")))
        b, b_numbers = data.draw(operand(world))
        y = plain(b, b_numbers)
        op = data.draw(st.sampled_from(IN_PLACE))
        if degree(b) > degree(a) or (degree(b) and op not in (operator.iadd, operator.isub)):
            return
        if data.draw(st.booleans()) and op in (operator.iadd, operator.isub):
            b, y = a, x.copy()  # e += e
            if x.ndim and data.draw(st.booleans()):
                b, y = a[::-1], y[::-1]
        if look:
            make_objects(a)
        expected, refusal = outcome(lambda: op(x.copy(), y))
        if expected is not None and not np.isfinite(expected).all():
            return
        if refusal:
            with pytest.raises((ValueError, TypeError, tarvopy.TarvoError)):
                op(a, b)
            np.testing.assert_array_equal(world.value(a), x)
        else:
            assert op(a, b) is a
            np.testing.assert_allclose(world.value(a), expected, atol=1e-9)
    finally:
        _debug.eager(False)


KEYS = [
    0,
    -1,
    slice(None),
    slice(1, None),
    slice(None, None, -1),
    Ellipsis,
    None,
    [0, 1],
    [1, 1, 0],
    (0, 0),
    (slice(None), 1),
]


@settings(max_examples=300, deadline=None)
@given(st.data(), st.booleans())
def test_indexing_assignment_and_sums_give_what_numpy_gives(data, eager):
    _debug.eager(eager)
    try:
        world = World()
        e, x = data.draw(operand(world, kinds=("expression", "quadratic")))
        x = x.copy()
        for _ in range(data.draw(st.integers(1, 4))):
            key = data.draw(st.sampled_from(KEYS))
            step = data.draw(st.sampled_from(["read", "write", "shift", "sum", "own"]))
            if step == "sum" and x.ndim > 0:  # a 0-dimensional array has no axis 0 here
                axis = data.draw(st.sampled_from([None, 0, -1, 1]))
                expected, refusal = outcome(lambda axis=axis: x.sum(axis=axis))
                if refusal is None:
                    np.testing.assert_allclose(world.value(e.sum(axis=axis)), expected, atol=1e-9)
                else:
                    with pytest.raises((ValueError, tarvopy.TarvoError)):
                        e.sum(axis=axis)
                continue
            expected, refusal = outcome(lambda key=key: x[key])
            if refusal:
                with pytest.raises(IndexError):
                    e[key]
                continue
            if step in ("read", "sum"):
                np.testing.assert_array_equal(world.value(e[key]), expected)
                continue
            if step == "shift":
                b, y = e[key], x[key] * 1.0
            elif step == "own":
                b, y = e, x.copy()
            else:
                b, b_numbers = data.draw(operand(world))
                y = plain(b, b_numbers)
                if sp.issparse(b) or degree(b) > degree(e):
                    continue

            def assign(key=key, y=y):
                x[key] = y

            before = x.copy()
            _, refusal = outcome(assign)
            if refusal:
                x[...] = before
                if np.size(y) == 1:
                    continue  # NumPy's refusal of x[0] = [1.0] is about number cells, not about shapes
                with pytest.raises((ValueError, TypeError)):
                    e[key] = b
            else:
                e[key] = b
            np.testing.assert_array_equal(world.value(e), x)
    finally:
        _debug.eager(False)


STEPS = [operator.add, operator.sub, operator.mul, operator.matmul, operator.iadd, operator.isub, operator.imul]


def run(program, eager, looks):
    """What a program leaves: for each step the terms and states of the result, or the kind of refusal."""
    _debug.eager(eager)
    try:
        world, trace = World(), []
        a, b, c = (world.variables(shape)[0] for shape in program[0])
        q = a * b
        for (op, factor, backwards), look in zip(program[1], looks, strict=True):
            other = {"a": a, "e": 2.0 * b + 1.0, "cc": c * c, "bc": b * c - c, "n": np.arange(3.0), "s": -2.0}[factor]
            if look:
                make_objects(q)
            try:
                q = op(other, q) if backwards else op(q, other)
            except (ValueError, TypeError, tarvopy.TarvoError) as refusal:
                trace.append((type(refusal), str(refusal)))
                continue
            if not isinstance(q, tarvopy.MQuadExpr):
                return trace
            trace.append((q.shape, q._is_compact(), q._ndle._is_compact()))
            halves = q.copy()
            halves._convert_to_full()
            trace.append([[(k, v.index, w.index) for k, v, w in qe.terms()] for qe in halves._qearr.flat])
            halves._ndle._convert_to_full()
            trace.append([[(k, v.index) for k, v in le.terms()] for le in halves._ndle._learr.flat])
            trace.append([le.getConstant() for le in halves._ndle._learr.flat])
        return trace
    finally:
        _debug.eager(False)


STEP = st.tuples(st.sampled_from(STEPS), st.sampled_from(["a", "e", "cc", "bc", "n", "s"]), st.booleans())


@pytest.mark.filterwarnings("ignore:Chained matrix:UserWarning")
@settings(max_examples=400, deadline=None)
@given(st.data())
def test_programs_never_tell_whether_objects_exist(data):
    shapes = data.draw(st.tuples(*[st.sampled_from([(), (1,), (3,), (1, 1), (2, 3)])] * 3))
    steps = data.draw(st.lists(STEP, min_size=1, max_size=5))
    try:
        np.broadcast_shapes(*shapes[:2])
    except ValueError:
        return
    program = (shapes, steps)
    unseen = [False] * len(steps)
    expected = run(program, True, unseen)
    assert run(program, False, unseen) == expected
    assert run(program, False, data.draw(st.lists(st.booleans(), min_size=len(steps), max_size=len(steps)))) == expected
