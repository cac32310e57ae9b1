"""Random programs with nonlinear operations, with NumPy as the oracle.

A program works on a list of registers: variables, expressions of every degree, arrays and numbers, each with the
numbers that it stands for. It is run with all objects made at once, with objects on demand, and with looks in between;
all three leave the same values, trees, and identities of elements and of nodes, and the same rows in a model.
"""

import operator

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st

import tarvopy
from nonlinear_trees import FUNCTIONS, Numbering, values
from nonlinear_values import difference
from tarvopy import MLinExpr, MNLExpr, MQuadExpr, MVar, _debug, nlfunc
from tarvopy._core import NLExpr

SHAPES = [(3,), (3,), (1, 3), (3, 1), (2, 3), (3, 3), (), (1,), (2, 1, 3), (0, 3)]
KEYS = [0, -1, slice(1, None), slice(None, None, -1), Ellipsis, None, [0, 1], [1, 1, 0], (0, 0), (slice(None), 1)]
OPERATORS = {"+": np.add, "-": np.subtract, "*": np.multiply, "/": np.divide, "**": np.power, "@": np.matmul}
PYTHON = {
    "+": operator.add,
    "-": operator.sub,
    "*": operator.mul,
    "/": operator.truediv,
    "**": operator.pow,
    "@": operator.matmul,
}
IN_PLACE = {
    "+": operator.iadd,
    "-": operator.isub,
    "*": operator.imul,
    "/": operator.itruediv,
    "**": operator.ipow,
}
MATRIX = (MVar, MLinExpr, MQuadExpr, MNLExpr)
SCALAR = (tarvopy.Var, tarvopy.LinExpr, tarvopy.QuadExpr, NLExpr)
CHANGING = (MLinExpr, MQuadExpr, np.ndarray, tarvopy.LinExpr, tarvopy.QuadExpr, NLExpr)
REFUSALS = (ValueError, TypeError, IndexError, tarvopy.TarvoError)


class Skip(Exception):
    """A step that means nothing here, or whose numbers leave the range in which rounding stays small."""


class Run:
    def __init__(self, shapes):
        self.model = tarvopy.Model()
        self.point = []
        self.registers = []  # (what the package holds, what NumPy holds)
        self.shared = set()  # polynomials of which a part is another register
        for shape in shapes:
            x = self.model.addMVar(shape)
            numbers = (np.arange(x.size) * 7 + 3 * len(self.point)) % 11 / 4.0 + 0.25
            self.point.extend(numbers)
            self.registers.append((x, numbers.reshape(shape)))
        v, w = self.model.addVar(), self.model.addVar()
        self.model.update()
        self.point += [0.75, 1.5]
        x, numbers = self.registers[0]
        expressions = [
            (nlfunc.sin(x) + x, np.sin(numbers) + numbers),
            (2.0 * x - 1.0, 2.0 * numbers - 1.0),
            (x * x + 0.5, numbers * numbers + 0.5),
        ]
        scalars = [(v, 0.75), (v + w, 2.25), (v * w, 1.125), (nlfunc.exp(v), np.exp(0.75)), (-1.5, -1.5), (2.0, 2.0)]
        self.registers += [(thing, np.array(value)) for thing, value in expressions + scalars]
        for array in (np.array([0.5, -1.0, 2.0]), np.array([[2.0]]), np.array([[0.0, 1.0, -2.0]] * 3)):
            self.registers.append((array, array))
        self.registers.append((sp.csr_array(array), array.copy()))

    def pick(self, number, kind=object):
        """The latest ones under the small numbers, which are drawn most often."""
        known = [register for register in reversed(self.registers) if isinstance(register[0], kind)]
        return known[number % len(known)]

    # ---- steps: (the package's way, NumPy's way)

    def new(self, make, numbers):
        """A new register, unless both refuse."""
        with np.errstate(all="ignore"):
            try:
                expected = np.array(numbers(), dtype=float, copy=None)
            except (ValueError, IndexError):
                with pytest.raises(REFUSALS):
                    make()
                return
        if expected.size and not np.abs(expected).max() < 1e3:  # NaN too
            raise Skip
        result = make()
        if isinstance(result, np.ndarray | np.generic):
            result = expected  # numbers of both sides are the same array, in place too
        assert np.shape(result) == expected.shape or getattr(result, "shape", ()) == expected.shape
        self.registers.append((result, expected))

    def binary(self, sign, i, j):
        (a, x), (b, y) = self.pick(i), self.pick(j)
        if sp.issparse(a) and not (sign == "@" and isinstance(b, MATRIX)):
            raise Skip
        if sp.issparse(b) and (not isinstance(a, MATRIX) or (sign == "**" and not isinstance(a, MNLExpr))):
            raise Skip
        if not isinstance(a, MATRIX + SCALAR) and not isinstance(b, MATRIX + SCALAR):
            raise Skip
        if sign == "**" and isinstance(a, MVar) and isinstance(b, tarvopy.LinExpr | tarvopy.QuadExpr):
            raise Skip
        if sign == "@" and (isinstance(a, SCALAR) or isinstance(b, SCALAR)):
            raise Skip
        self.new(lambda: PYTHON[sign](a, b), lambda: OPERATORS[sign](x, y))

    def function(self, name, i):
        a, x = self.pick(i)
        if isinstance(a, np.ndarray) or sp.issparse(a):
            raise Skip
        self.new(lambda: getattr(nlfunc, name)(a), lambda: FUNCTIONS[name](x))

    def total(self, axis, i):
        a, x = self.pick(i, MATRIX)
        if x.ndim == 0:
            raise Skip
        self.new(lambda: a.sum(axis=axis), lambda: x.sum(axis=axis))

    def index(self, key, i):
        a, x = self.pick(i, MATRIX)
        self.new(lambda: a[key], lambda: x[view_key(key)])
        if isinstance(a, MLinExpr | MQuadExpr):
            self.shared |= {id(a), id(self.registers[-1][0])}

    def join(self, how, i, j):
        (a, x), (b, y) = self.pick(i, MATRIX), self.pick(j, (*MATRIX, np.ndarray))
        arguments = {} if how != "concatenate" else {"axis": -1}
        self.new(lambda: getattr(tarvopy, how)([a, b], **arguments), lambda: getattr(np, how)([x, y], **arguments))

    def change_by(self, sign, register, other):
        (a, x), (b, y) = register, other
        with np.errstate(all="ignore"):
            expected = OPERATORS[sign](x, y)
        if expected.size and not np.abs(expected).max() < 1e3:
            raise Skip
        assert IN_PLACE[sign](a, b) is a
        x[...] = expected

    def in_place(self, sign, i, j):
        register, other = self.pick(i, MNLExpr), self.pick(j)
        if fits(register[1], other[1]):
            return self.change_by(sign, register, other)
        with pytest.raises(REFUSALS):
            IN_PLACE[sign](register[0], other[0])

    def change(self, sign, i, j):
        """What was made of an operand does not change with it."""
        (a, x), (b, y) = register, other = self.pick(i, CHANGING), self.pick(j)
        within = degree(b) <= degree(a) if sign in "+-" else degree(b) == 0
        if sign == "**" or not within or not fits(x, y) or id(a) in self.shared:
            raise Skip
        if isinstance(a, (np.ndarray, *SCALAR)) and not isinstance(b, float):
            raise Skip
        self.change_by(sign, register, other)

    def assign(self, key, i, j):
        (a, x), (b, y) = self.pick(i, MNLExpr), self.pick(j)
        if sp.issparse(b):
            raise Skip
        try:
            takes = fits(x[view_key(key)], y) and not isinstance(b, tarvopy.LinExpr | tarvopy.QuadExpr)
        except IndexError:
            takes = False
        if takes:
            a[key] = b
            x[view_key(key)] = y
        else:
            with pytest.raises(REFUSALS):
                a[key] = b

    # ---- what is left

    def check_values(self):
        for thing, numbers in self.registers:
            if isinstance(thing, MATRIX + SCALAR):
                np.testing.assert_allclose(values(thing, self.point), numbers, rtol=1e-6, atol=1e-6)

    def check_rows(self):
        """What the store gets of them, as tapes over the same numbers."""
        for thing, numbers in self.registers:
            if isinstance(thing, MNLExpr | NLExpr) and numbers.size:
                held = difference(self.model, thing, 0.25, self.point) + 0.25
                np.testing.assert_allclose(held, numbers, rtol=1e-6, atol=1e-6)

    def trace(self):
        numbering, found = Numbering(), []
        for thing, _ in self.registers:
            if isinstance(thing, MNLExpr):
                elements = [numbering.of_object(element) for element in thing._nlearr.flat]
                roots = [numbering.of_tree(element._root) for element in thing._nlearr.flat]
                found.append((thing.shape, elements, roots))
            elif isinstance(thing, NLExpr):
                found.append((numbering.of_object(thing), numbering.of_tree(thing._root)))
            else:
                found.append((type(thing), getattr(thing, "shape", ())))
        return found, numbering.nodes


def fits(x, y):
    """Whether y broadcasts into x without making it larger."""
    try:
        return np.broadcast_shapes(x.shape, y.shape) == x.shape
    except ValueError:
        return False


def degree(operand):
    """What an operator in place has to take in; nothing takes in a nonlinear one here."""
    kinds = [(MVar, MLinExpr, tarvopy.Var, tarvopy.LinExpr), (MQuadExpr, tarvopy.QuadExpr), (MNLExpr, NLExpr)]
    return next((number for number, kind in enumerate(kinds, 1) if isinstance(operand, kind)), 0)


def view_key(key):
    """The same elements as a view, where NumPy would give a number."""
    if isinstance(key, list) or key is Ellipsis:
        return key
    return (*(key if isinstance(key, tuple) else (key,)), Ellipsis)


def look_at(thing):
    if isinstance(thing, MNLExpr):
        thing._nlearr
    elif isinstance(thing, MVar):
        thing._vararr
    elif isinstance(thing, MLinExpr):
        thing._matmulparts if thing._is_compact() else thing._learr
    elif isinstance(thing, MQuadExpr):
        thing._quadparts if thing._is_compact() else thing._qearr
        look_at(thing._ndle)


NUMBER = st.integers(0, 30)
STEPS = st.one_of(
    st.tuples(st.just("binary"), st.sampled_from(list(OPERATORS)), NUMBER, NUMBER),
    st.tuples(st.just("binary"), st.sampled_from(list(OPERATORS)), NUMBER, NUMBER),
    st.tuples(st.just("function"), st.sampled_from(list(FUNCTIONS)), NUMBER),
    st.tuples(st.just("total"), st.sampled_from([None, 0, -1, 1]), NUMBER),
    st.tuples(st.just("index"), st.sampled_from(KEYS), NUMBER),
    st.tuples(st.just("join"), st.sampled_from(["vstack", "hstack", "concatenate"]), NUMBER, NUMBER),
    st.tuples(st.just("in_place"), st.sampled_from(list(IN_PLACE)), NUMBER, NUMBER),
    st.tuples(st.just("change"), st.sampled_from(list(IN_PLACE)), NUMBER, NUMBER),
    st.tuples(st.just("assign"), st.sampled_from(KEYS), NUMBER, NUMBER),
)


def run(program, eager, looks=(), rows=False):
    shapes, steps = program
    _debug.eager(eager)
    try:
        world = Run(shapes)
        for count, (step, *arguments) in enumerate(steps):
            if count < len(looks) and looks[count] is not None:
                look_at(world.pick(looks[count])[0])
            try:
                getattr(world, step)(*arguments)
            except Skip:
                continue
        if rows:
            world.check_rows()
        world.check_values()
        return world.trace()
    finally:
        _debug.eager(False)


@pytest.mark.filterwarnings("ignore:Chained matrix:UserWarning")
@settings(max_examples=300, deadline=None)
@given(
    st.lists(st.sampled_from(SHAPES), min_size=1, max_size=3),
    st.lists(STEPS, min_size=1, max_size=10),
    st.lists(st.none() | NUMBER, max_size=10),
)
def test_programs_give_what_numpy_gives_and_never_tell_whether_objects_exist(shapes, steps, looks):
    program = (shapes, steps)
    expected = run(program, True)
    assert run(program, False, rows=True) == expected
    assert run(program, False, looks) == expected
