"""Operators of MVar: which operand goes where, on either side, whether the variables exist or not."""

import operator
from decimal import Decimal
from fractions import Fraction

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from tarvopy import TRV, _debug
from tarvopy._core import TempConstr
from tarvopy._exception import TarvoError
from tarvopy._matrixapi import MLinExpr, MVar

FORMATS = ["csr", "csc", "coo", "dia", "dok", "lil", "bsr"]
SPARSE = [getattr(sp, f"{name}_{kind}") for name in FORMATS for kind in ("matrix", "array")]


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def x(mode, model):
    x = model.addMVar((2, 2), name="x")
    model.update()
    return x


def texts(expr):
    full = expr._to_full() if expr._is_compact() else expr
    return [str(e) for e in full._learr.flat]


ARRAYS = [np.array([[1.0, 2.0], [3.0, 4.0]]), np.array([[1, 2], [3, 4]]), np.array([[1, 2], [3, 4]], dtype=object)]
ARRAYS += [np.matrix([[1.0, 2.0], [3.0, 4.0]]), np.array([[1.0, 3.0], [2.0, 4.0]]).T]


@pytest.mark.parametrize("a", [*ARRAYS, *[make(ARRAYS[0]) for make in SPARSE]], ids=lambda a: type(a).__name__)
def test_arrays_and_every_sparse_format_reach_the_operators_from_the_left(x, a):
    names = ["x[0,0]", "x[0,1]", "x[1,0]", "x[1,1]"]
    assert texts(a + x) == [f"1.0 {n} + {c}.0" for n, c in zip(names, "1234", strict=True)]
    assert texts(a - x) == [f"-1.0 {n} + {c}.0" for n, c in zip(names, "1234", strict=True)]
    assert texts(a * x) == texts(x * a) == [f"{c}.0 {n}" for n, c in zip(names, "1234", strict=True)]
    if a.dtype != object:
        assert texts(a @ x)[3] == "3.0 x[0,1] + 4.0 x[1,1]"
        assert texts(x @ a)[3] == "2.0 x[1,0] + 4.0 x[1,1]"
    for compare, sense in [(operator.le, TRV.GREATER_EQUAL), (operator.ge, TRV.LESS_EQUAL), (operator.eq, TRV.EQUAL)]:
        constraint = compare(a, x)
        assert type(constraint) is TempConstr
        assert constraint.lhs is x
        assert constraint.rhs is a
        assert constraint.sense == sense
    with pytest.raises(TarvoError):
        a != x


@pytest.mark.parametrize(
    "two", [2, 2.0, np.float64(2), np.int8(2), np.array(2), np.float32(2)], ids=lambda a: type(a).__name__
)
def test_numbers_from_either_side(x, two):
    assert texts(two * x)[1] == texts(x * two)[1] == "2.0 x[0,1]"
    assert texts(two + x)[1] == texts(x + two)[1] == "1.0 x[0,1] + 2.0"
    assert texts(two - x)[1] == "-1.0 x[0,1] + 2.0"
    assert texts(x / two)[1] == "0.5 x[0,1]"
    assert (two >= x).lhs is x
    for use in (lambda: x @ two, lambda: two @ x):
        with pytest.raises(ValueError, match="dimension"):
            use()


def test_comparisons_keep_both_sides_untouched(x):
    rhs = [object()]
    for compare, sense in [(operator.le, TRV.LESS_EQUAL), (operator.ge, TRV.GREATER_EQUAL), (operator.eq, TRV.EQUAL)]:
        constraint = compare(x, rhs)
        assert (constraint.lhs is x, constraint.sense, constraint.rhs is rhs) == (True, sense, True)
    with pytest.raises(TarvoError) as error:
        x != 0
    assert (error.value.code, str(error.value)) == (-1, "Inequality constraints not supported")


def test_signs(x):
    assert +x is x
    assert type(-x) is MLinExpr
    assert texts(-x)[0] == "-1.0 x[0,0]"


def test_what_no_rule_lists_is_left_to_the_other_operand(x):
    class Other:
        def __rmatmul__(self, other):
            return "mine"

        __rpow__ = __pow__ = __rtruediv__ = __radd__ = __rmatmul__

    assert x @ Other() == x ** Other() == "mine"
    assert Other() ** x == "mine"
    assert x + Other() == "mine"
    for use in (
        lambda: x @ "a",
        lambda: "a" @ x,
        lambda: x + None,
        lambda: [1] - x,
        lambda: x / "a",
        lambda: {} / x,
        lambda: x // 2,
    ):
        with pytest.raises(TypeError):
            use()


def test_a_product_with_numbers_makes_no_variable(model):
    x = model.addMVar((30, 40))
    before = _debug.counts()
    e = x * np.ones((30, 40)) + 2.0 * x[:, :1] - x[0]
    assert _debug.counts() == before
    assert e.shape == (30, 40)
    assert not (x * np.ones((30, 40)))._is_compact()
    assert (x[0] * np.ones(40))._is_compact()
    assert (x[0] * 2)._is_compact()


# ---- the law: whether objects exist is never told --------------------------------------------------------------------


def operands(x, model):
    v = x[0, 1].item()
    return [
        0, -0.0, 1e300, np.nan, np.inf, 2**70, True, 1j, "a", None, [1, 2], v, 2 * v + 1, x, x.T, x[0], x[:, :1] + 1,
        x[0] - 1, x[:0],
        np.zeros((2, 2)), np.ones(2), np.ones((3, 1, 1)), np.ones(7), np.ones((0, 2)), np.full((2, 2), np.nan),
        np.full(2, np.inf),
        np.full((2, 2), 1j), np.full((2, 2), "a"), np.full((2, 2), 2, dtype=np.longdouble),
        np.array([[True, False]] * 2),
        np.array([[1, v], [2 * v, 0.5]], dtype=object), np.array([[None, 1]], dtype=object), np.float16(0.1),
        np.array(3, dtype=np.uint8),
        np.arange(4.0).reshape(2, 2)[::-1], np.ma.array([1.0, 2.0]), sp.csr_array(np.eye(2)), sp.coo_array(np.ones(2)),
        sp.csr_array(np.ones((3, 3))), model.addConstr(v <= 1),
    ]  # fmt: skip


def described(use):
    try:
        result = use()
    except Exception as error:
        return type(error), str(error)
    if isinstance(result, MLinExpr):
        return result.shape, result._is_compact(), texts(result)
    return type(result)


@pytest.mark.filterwarnings("ignore::RuntimeWarning")
@pytest.mark.parametrize("op", ["add", "sub", "mul", "matmul", "truediv", "pow", "le"])
def test_outcomes_do_not_depend_on_whether_the_variables_exist(op):
    apply = getattr(operator, op)
    outcomes = []
    for state in ("flat", "looked", "eager"):
        _debug.eager(state == "eager")
        try:
            model = tarvopy.Model()
            x = model.addMVar((2, 2), name="x")
            model.update()
            others = operands(x, model)
            if state == "looked":
                x._vararr
            for receiver in (x, x[0], x.T, x[:, :1], x[0, 0], x[:0], MVar(x.tolist())):
                for other in others:
                    outcomes.append((state, described(lambda r=receiver, o=other: apply(r, o))))
                    outcomes.append((state, described(lambda r=receiver, o=other: apply(o, r))))
        finally:
            _debug.eager(False)
    by_state = [[outcome for state, outcome in outcomes if state == wanted] for wanted in ("flat", "looked", "eager")]
    assert by_state[0] == by_state[1]
    assert by_state[0] == by_state[2]


@pytest.mark.parametrize("two", [Fraction(2), Decimal(2), np.longdouble(2), np.float16(2)], ids=repr)
def test_every_kind_of_real_number_is_a_scalar(mode, model, two):
    for x in (model.addMVar(2), model.addMVar((2, 1, 2))):  # compact and full results
        for operand in (x, x + 1.0):
            constant = 0.0 if operand is x else 1.0
            forms = {
                (1.0, constant + 2): [operand + two, two + operand],
                (1.0, constant - 2): [operand - two],
                (-1.0, 2 - constant): [two - operand],
                (2.0, 2 * constant): [operand * two, two * operand],
                (0.5, constant / 2): [operand / two],
            }
            for (coefficient, rest), results in forms.items():
                for result in results:
                    assert {e.getConstant() for e in result[...]._learr.ravel()} == {rest}
                    assert {c for e in result[...]._learr.ravel() for c, _ in e.terms()} == {coefficient}
