"""The operators of MNLExpr: what they return and refuse, dispatch with functions of one's own, values against NumPy.

That all operators give the documented trees is the business of test_mnlexpr_programs.py.
"""

import operator

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point
from nonlinear_reference import value
from tarvopy import TRV, TarvoError, _debug, nlfunc
from tarvopy._core import NLExpr, TempConstr, _ExprTree
from tarvopy._matrixapi import MNLExpr

BINARY = [operator.add, operator.sub, operator.mul, operator.truediv, operator.pow]
IN_PLACE = [operator.iadd, operator.isub, operator.imul, operator.itruediv, operator.ipow]
FUNCTIONS = {"exp": np.exp, "sin": np.sin, "abs": np.abs, "tanh": np.tanh, "sqrt": np.sqrt, "log2": np.log2}


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def x(model):
    return variables(model, 3)


@pytest.fixture
def e(mode, x):
    return nlfunc.exp(x)


def variables(model, shape):
    x = model.addMVar(shape)
    model.update()
    return x


def texts(expr):
    return [str(nle) for nle in expr.copy()._nlearr.flat]


def roots(expr):
    return [nle._root for nle in expr._nlearr.flat]


# ---- values ----------------------------------------------------------------------------------------------------------


def operands(model, point, shape):
    """Pairs of an operand and its numbers."""
    x = model.addMVar(shape)
    y = model.addMVar(shape[-1:])
    point = point(model)
    scalar, number = x[(0,) * len(shape)].item(), point.of(x).flat[0]
    numbers = np.arange(1.0, 1 + np.prod(shape, dtype=int)).reshape(shape)
    return point, [
        (x, point.of(x)),
        (2.0 * y - 1.0, 2.0 * point.of(y) - 1.0),
        (x * y + 0.5, point.of(x) * point.of(y) + 0.5),
        (nlfunc.sin(y), np.sin(point.of(y))),
        (scalar, number),
        (2 * scalar + 1, 2 * number + 1),
        (scalar * scalar, number**2),
        (nlfunc.cos(scalar), np.cos(number)),
        (3, 3),
        (np.float64(0.5), 0.5),
        (numbers, numbers),
        (numbers > 1, (numbers > 1).astype(float)),
        (numbers.astype(np.int8), numbers),
        *([(sp.coo_matrix(numbers), numbers)] if len(shape) == 2 else []),
    ]


@pytest.mark.parametrize("shape", [(3,), (2, 3), (1, 1)])
@pytest.mark.parametrize("function", [*BINARY, *IN_PLACE])
def test_every_kind_of_operand_gives_numpys_values(mode, model, shape, function):
    base = variables(model, shape)
    point, pairs = operands(model, Point, shape)
    with np.errstate(all="ignore"):
        for other, numbers in pairs:
            e = nlfunc.exp(base)
            expected = function(np.exp(point.of(base)), numbers)
            result = function(e, other)
            assert (result is e) == (function in IN_PLACE)
            np.testing.assert_allclose(result.getValue(), expected)
            np.testing.assert_allclose(value(point, result), expected)


@pytest.mark.parametrize("name", FUNCTIONS)
def test_functions_of_arrays(mode, model, name):
    x = variables(model, (2, 2))
    point = Point(model)
    for operand, numbers in ((x, point.of(x)), (2.0 * x, 2 * point.of(x)), (x * x, point.of(x) ** 2)):
        with np.errstate(all="ignore"):
            np.testing.assert_allclose(getattr(nlfunc, name)(operand).getValue(), FUNCTIONS[name](numbers))
            again = getattr(nlfunc, name)(nlfunc.abs(operand))
            np.testing.assert_allclose(value(point, again), FUNCTIONS[name](np.abs(numbers)))


# ---- trees -----------------------------------------------------------------------------------------------------------


def test_an_exponent_of_two_is_a_square(e, x):
    for two in (2, 2.0, True + 1, np.float32(2), np.array(2), np.array([2.0]), np.array([[2]], dtype=object)):
        assert [root.op for root in roots(e**two)] == ["square"] * 3
    assert (e ** np.array([[2.0]])).shape == (1, 3)
    assert (e[:0] ** np.array([[2.0]])).shape == (1, 0)
    for other in (3, 1, 0, -2, np.full(3, 2.0), np.array([3.0])):
        assert {root.op for root in roots(e**other)} == {"pow"}
    assert [root.op for root in roots(2**e)] == ["pow"] * 3
    e **= 2
    e **= np.array([2.0])
    assert [(root.op, root.args[0].op) for root in roots(e)] == [("pow", "square")] * 3


def test_operations_share_the_trees_of_their_operands(e, x):
    elements, column = e._nlearr, nlfunc.sin(x)[:, None]
    scalar = nlfunc.sin(x[0].item())
    total = e + column
    for (i, j), nle in np.ndenumerate(total._nlearr):
        assert nle._root.args == (elements[j]._root, column._nlearr[i, 0]._root)
    assert {id(root.args[1]) for root in roots(e * scalar)} == {id(scalar._root)}
    assert len({id(root.args[1]) for root in roots(e * 2.0)}) == 1
    assert len({id(root.args[1]) for root in roots(e * np.full(3, 2.0))}) == 3
    assert [root.args for root in roots(-e)] == [(nle._root,) for nle in elements]
    assert texts(2 - e) == [f"2.0 - exp(C{i})" for i in range(3)]


def test_in_place_keeps_the_objects(e, x):
    elements = list(e._nlearr)
    for function, other in zip(IN_PLACE, (x, 2.0, 2.0 * x, np.ones(3), 3), strict=True):
        assert function(e, other) is e
    e **= 2
    assert list(e._nlearr) == elements
    assert texts(e)[0] == "(((exp(C0) + C0 - 2.0) * 2.0 * C0 / 1.0) ** 3.0) ** 2"


def test_comparisons_are_left_to_the_model(e, x):
    for function, sense in ((operator.le, TRV.LESS_EQUAL), (operator.ge, TRV.GREATER_EQUAL), (operator.eq, TRV.EQUAL)):
        for other in (1.0, x, e, np.ones(3), "a"):
            temporary = function(e, other)
            assert type(temporary) is TempConstr
            assert (temporary.lhs is e, temporary.sense, temporary.rhs is other) == (True, sense, True)
    for other in (e, 1.0, None):
        with pytest.raises(TarvoError, match=r"^Inequality constraints not supported$") as caught:
            e != other
        assert caught.value.code == TRV.ERROR_INVALID_ARGUMENT
    for use in (lambda: e < 1, lambda: e > 1, lambda: +e, lambda: hash(e)):
        with pytest.raises(TypeError):
            use()


# ---- dispatch --------------------------------------------------------------------------------------------------------


def test_dispatch_takes_any_function_of_trees(e, x):
    calls = []

    def scaled_difference(left, right):
        calls.append((left, right))
        return _ExprTree._from_multiply(_ExprTree._from_constant(2.0), _ExprTree._from_minus(left, right))

    forward = e._dispatch_binary_op(x, scaled_difference)
    assert texts(forward) == [f"2.0 * (exp(C{i}) - C{i})" for i in range(3)]
    assert len(calls) == 3
    assert texts(e._rdispatch_binary_op(1.0, scaled_difference))[0] == "2.0 * (1.0 - exp(C0))"
    wide = e._dispatch_binary_op(other=np.ones((2, 1)), func=scaled_difference)
    assert wide.shape == (2, 3)
    assert texts(e._dispatch_unary_op(lambda tree: tree)) == texts(e)
    assert texts(e._dispatch_unary_op(lambda tree: 5.0)) == ["5.0"] * 3  # whatever NLExpr() takes
    element = e[1]
    assert e._idispatch_binary_op(x, scaled_difference) is e
    assert e._idispatch_unary_op(_ExprTree._from_sin) is e
    assert texts(element) == ["sin(2.0 * (exp(C1) - C1))"]


def test_builders_of_trees_make_no_tree(model):
    x = model.addMVar(1000)
    model.update()
    before = _debug.counts()
    e = nlfunc.exp(x)
    made = [e._dispatch_unary_op(getattr(_ExprTree, f"_from_{name}")) for name in ("uminus", "square", *FUNCTIONS)]
    for name in ("plus", "minus", "multiply", "divide", "pow"):
        builder = getattr(_ExprTree, f"_from_{name}")
        made += [e._dispatch_binary_op(x, builder), e._rdispatch_binary_op(2.0, builder)]
        e._idispatch_binary_op(x, builder)
    assert _debug.counts() == before
    assert roots(made[0])[5].op == "uminus"
    assert [roots(part)[5].op for part in made[-2:]] == ["pow", "pow"]


def test_builders_with_the_wrong_number_of_operands_are_refused_as_functions(e):
    with pytest.raises(TypeError, match=r"_from_pow\(\) takes exactly 2"):
        e._dispatch_unary_op(_ExprTree._from_pow)
    with pytest.raises(TypeError, match=r"_from_exp\(\) takes exactly 1"):
        e._idispatch_binary_op(1.0, _ExprTree._from_exp)
    assert texts(e._dispatch_unary_op(_ExprTree._from_plus)) == texts(e)


@pytest.mark.parametrize("shape", [(0,), (2, 0)])
def test_empty_arrays_go_through_everything(mode, model, shape):
    e = nlfunc.sin(variables(model, shape))

    def never(*_):
        raise AssertionError

    for result in (-e, e + 1, 2 ** (e * e), e._dispatch_unary_op(never), e._dispatch_binary_op(1, never)):
        assert (type(result), result.shape, result._nlearr.dtype) == (MNLExpr, shape, object)
    e += np.ones(shape)
    e[...] = 1.0
    e._idispatch_unary_op(never)
    assert e.shape == shape


# ---- refusals --------------------------------------------------------------------------------------------------------


def test_foreign_operands_are_left_to_the_other_side(e):
    class Other:
        def __radd__(self, other):
            return "theirs"

    assert e + Other() == "theirs"
    for method in ("__add__", "__rsub__", "__imul__", "__truediv__", "__pow__", "__rpow__", "__ipow__"):
        for foreign in (None, "a", [1.0], {}, object(), e <= 1):
            assert getattr(e, method)(foreign) is NotImplemented
    assert e.__radd__(e) is NotImplemented
    assert e._idispatch_binary_op("a", _ExprTree._from_plus) is NotImplemented
    for use in (lambda: e + "a", lambda: [1.0] * e, lambda: e.__class__(e._nlearr) / None):
        with pytest.raises(TypeError):
            use()


def test_refused_operations_change_nothing(e, x, model):
    before = texts(e)
    wide = variables(model, (2, 3))
    for function in IN_PLACE:
        with pytest.raises(ValueError, match=r"\(3,\) doesn't match the broadcast shape \(2,3\)"):
            function(e, wide)
        for other in (np.ones(2), wide[:, :2], sp.csr_matrix(np.ones((2, 2)))):
            with pytest.raises(ValueError, match="broadcast"):
                function(e, other)
        with pytest.raises(TarvoError, match="infinite or NaN"):
            function(e, np.array([1.0, np.nan, 1.0]))
    for function in BINARY:
        with pytest.raises(ValueError, match=r"operands could not be broadcast together with shapes \(3,\) \(2,\)"):
            function(e, np.ones(2))

    def fails_at_last(root, tree):
        if str(root) == "exp(C2)":
            raise RuntimeError
        return tree

    with pytest.raises(RuntimeError):
        e._idispatch_binary_op(1.0, fails_at_last)
    with pytest.raises(TypeError):
        e._idispatch_unary_op(lambda tree: 5.0)
    with pytest.raises(TypeError):
        e._idispatch_unary_op(None)
    assert texts(e) == before


def test_objects_in_arrays_are_taken_as_operands(e, x):
    scalar = x[0].item()
    mixed = np.array([scalar, nlfunc.sin(scalar), 2 * scalar], dtype=object)
    assert texts(e + mixed) == ["exp(C0) + C0", "exp(C1) + sin(C0)", "exp(C2) + 2.0 * C0"]
    assert roots(e * mixed)[1].args[1] is mixed[1]._root
    with pytest.raises(TypeError):
        e + np.array([None, "a", e], dtype=object)


def test_results_are_plain_arrays_also_of_child_classes(x):
    class Child(MNLExpr):
        pass

    child = Child._from_mvar(x)
    assert type(child) is Child
    assert [type(result) for result in (child + 1, -child, child[1:], child[0], child.copy())] == [MNLExpr] * 5
    child += 1
    assert type(child) is Child
    assert isinstance(child._nlearr[0], NLExpr)
