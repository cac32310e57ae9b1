"""Operators of Var and LinExpr with numbers, NumPy scalars and each other; the oracle puts numbers for variables."""

import math
import operator
import sys
from decimal import Decimal
from fractions import Fraction

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from native import NativeModel
from tarvopy import TRV
from tarvopy._core import LinExpr, NLExpr, TempConstr, _quicksum
from tarvopy._exception import TarvoError

POINT = [3.0, -5.0, 7.0]
MODEL = NativeModel(3)
X, Y, Z = MODEL.vars
OTHER = NativeModel(1)

NUMBERS = [
    2,
    -0.5,
    True,
    np.float64(2.5),
    np.float32(0.5),
    np.int32(-3),
    np.uint8(4),
    np.bool_(True),
    np.longdouble(1.5),
    Fraction(1, 4),
    Decimal("0.75"),
]
LINEAR = [operator.add, operator.sub]


def value(expr) -> float:
    if isinstance(expr, LinExpr):
        return sum((c * POINT[v.index] for c, v in expr.terms()), expr.getConstant())
    return POINT[expr.index] if expr in (X, Y, Z) else float(expr)


def number(operand):
    return float(operand) if not isinstance(operand, LinExpr | type(X)) else value(operand)


@pytest.mark.parametrize("scalar", NUMBERS, ids=lambda n: type(n).__name__)
@pytest.mark.parametrize("make", [lambda: X, lambda: 2 * X - 3 * Y + 1], ids=["Var", "LinExpr"])
def test_numbers_work_on_both_sides(make, scalar):
    expr = make()
    cases = [(op, pair) for op in [*LINEAR, operator.mul] for pair in ((expr, scalar), (scalar, expr))]
    cases.append((operator.truediv, (expr, scalar)))
    for op, (a, b) in cases:
        result = op(a, b)
        assert type(result) is LinExpr
        assert value(result) == pytest.approx(op(number(a), number(b)), rel=1e-15)
    assert value(expr) == value(make())


@pytest.mark.parametrize("scalar", NUMBERS, ids=lambda n: type(n).__name__)
def test_comparisons_with_numbers_keep_both_sides(scalar):
    expr = 2 * X + 1
    for side in (X, expr):
        for compare, sense in ((operator.le, "<"), (operator.ge, ">"), (operator.eq, "=")):
            constraint = compare(side, scalar)
            assert type(constraint) is TempConstr
            assert (constraint.lhs is side, constraint.sense, constraint.rhs is scalar) == (True, sense, True)
    assert operator.le(np.float64(1), X).sense == TRV.GREATER_EQUAL
    assert operator.ge(1, expr).sense == TRV.LESS_EQUAL
    assert type(operator.eq(np.int32(1), X)) is TempConstr


def test_comparisons_between_expressions():
    expr = X + Y
    constraint = operator.le(X, expr)
    assert constraint.lhs is X
    assert constraint.rhs is expr
    assert type(expr == X) is TempConstr
    assert operator.le(X, math.inf).rhs == math.inf
    with pytest.raises(TypeError, match="'<' not supported"):
        X < 1


def test_what_is_no_operand_is_left_to_python():
    for wrong in ("a", None, 1j, np.complex64(1), [1], object(), np.timedelta64(1, "s")):
        with pytest.raises(TypeError):
            X + wrong
        with pytest.raises(TypeError):
            wrong * (X + Y)
        with pytest.raises(TypeError):
            wrong >= X
    assert (X == None) is False  # noqa: E711
    assert (X == "a") is False
    assert (X != None) is True  # noqa: E711


def test_variables_in_containers():
    assert X in [Y, X]
    assert X not in [Y, Z]
    assert [Y, X].index(X) == 1
    assert (X != Y, X != X) == (True, False)
    assert len({X, Y, X}) == 2


def test_terms_stand_in_order_with_duplicates_and_zeros():
    expr = 2 * X + 0 * Y - X + 3
    assert list(expr.terms()) == [(2.0, X), (0.0, Y), (-1.0, X)]
    assert (expr.size(), expr.getConstant()) == (3, 3.0)
    expr._flatten()
    expr._normalize()
    assert list(expr.terms()) == [(1.0, X)]
    assert list((X + Y - Z).terms()) == [(1.0, X), (1.0, Y), (-1.0, Z)]


def test_normalize_of_long_expressions_keeps_first_places():
    model = NativeModel(40)
    expr = LinExpr([float(i % 3) for i in range(80)], [model.vars[(7 * i) % 40] for i in range(80)])
    before = {}
    for c, v in expr.terms():
        before[v] = before.get(v, 0.0) + c
    expr._normalize()
    assert list(expr.terms()) == [(c, v) for v, c in before.items() if c != 0.0]


def test_division_is_exact_division():
    assert list((X / 3).terms()) == [(1.0 / 3.0, X)]
    assert list(((X * 7) / 49).terms()) == [(7.0 / 49.0, X)]
    with pytest.raises(ZeroDivisionError):
        X / 0


def test_signs():
    assert +X is X
    expr = X - 2
    same = +expr
    assert same is not expr
    assert str(same) == str(expr)
    assert value(-expr) == -value(expr)


@pytest.mark.parametrize("bad", [float("nan"), float("inf"), np.float64("-inf"), Decimal("NaN")])
def test_numbers_that_are_not_finite_are_refused_and_change_nothing(bad):
    expr = X + 1
    before = str(expr)
    uses = [
        lambda: X + bad,
        lambda: bad - expr,
        lambda: X * bad,
        lambda: bad * expr,
        lambda: expr / bad,
        lambda: LinExpr(bad),
        lambda: LinExpr([1.0, bad], [X, Y]),
        lambda: operator.iadd(expr, bad),
        lambda: operator.imul(expr, bad),
        lambda: expr.add(Y, bad),
        lambda: expr.addTerms([1.0, bad], [X, Y]),
        lambda: expr._mul(bad),
    ]
    for use in uses:
        with pytest.raises(TarvoError, match="is infinite or NaN") as caught:
            use()
        assert caught.value.code == TRV.ERROR_INVALID_ARGUMENT
    assert str(expr) == before


def test_constants_that_overflow_are_refused():
    expr = LinExpr(1e308)
    with pytest.raises(TarvoError):
        expr *= 10
    with pytest.raises(TarvoError):
        expr += 1e308
    assert expr.getConstant() == 1e308
    with pytest.raises(OverflowError):
        X + 10**400


def test_what_is_beyond_degree_two_is_nonlinear():
    product = X * Y
    uses = {
        "C0 * C1 * C0": product * X,
        "(C0 + 1.0) * C0 * C1": (X + 1) * product,
        "(C0 * C1) ** 2": product**2,
        "C0 ** 3.0": X**3,
        "C0 ** -1.0": X**-1,
        "C0 ** C1": X**Y,
        "2.0 ** C0": 2**X,
        "1.0 / C0": 1 / X,
        "C0 / (C1 + 1.0)": X / (Y + 1),
        "C0 * C1 / (C0 * C1)": product / product,
    }
    for text, result in uses.items():
        assert (type(result), str(result)) == (NLExpr, text)


def test_inequality_is_refused():
    for use in (lambda: X != 1, lambda: X + 1 != Y, lambda: (X + 1).__ne__(2)):
        with pytest.raises(TarvoError, match=r"^Inequality constraints not supported$"):
            use()


def test_truth_values():
    assert bool(X == X) is True
    assert bool(X == Y) is False
    for use in (lambda: bool(X <= 1), lambda: 0 <= X <= 1, lambda: bool(X == 1), lambda: bool(X + 0 == Y)):
        with pytest.raises(TarvoError, match="addRange"):
            use()


def test_in_place_operators_change_the_object_and_alias_safely():
    expr = alias = X + 1
    expr += Y
    expr -= 2 * Z
    expr *= np.float64(2)
    expr /= 4
    assert expr is alias
    assert value(expr) == (POINT[0] + POINT[1] - 2 * POINT[2] + 1) / 2
    expr += expr
    expr -= expr
    assert (expr.size(), value(expr)) == (12, 0.0)
    term = X
    term += 1
    assert type(term) is LinExpr
    assert str(X) == "C0"


def test_object_arrays_work_element_by_element():
    array = np.array([X, 2 * Y + 1], dtype=object)
    results = [array * 2.0, array + array, 1 - array, -array, array / 2]
    expected = [[2.0 * v for v in (3.0, -9.0)], [6.0, -18.0], [-2.0, 10.0], [-3.0, 9.0], [1.5, -4.5]]
    assert [[value(e) for e in row] for row in results] == expected
    assert value(array.sum()) == -6.0


@pytest.mark.parametrize("operation", [operator.add, operator.sub, operator.mul])
def test_arrays_make_matrix_expressions(operation):
    from scipy import sparse

    numbers = np.array([1.0, 2.0, 4.0])
    for expr in (X, 2 * X + 1):
        for a, b in ((numbers, expr), (expr, numbers), (expr, np.array(2.0))):
            result = operation(a, b)
            assert type(result).__name__ == "MLinExpr"
            shape = np.broadcast_shapes(np.shape(numbers if a is numbers or b is numbers else 0))
            assert result.shape == shape
            wanted = operation(*(number(s) if s is expr else s for s in (a, b)))
            result._convert_to_full()
            assert [value(e) for e in result._learr.flat] == np.ravel(wanted).tolist()
    matrix = sparse.csr_array(np.array([[1.0, 0.0, 2.0]]))
    assert operation(X, matrix).shape == (1, 3)
    assert operation(matrix, X).shape == (1, 3)
    assert operator.le(X, numbers).lhs is X
    assert type(numbers <= X) is TempConstr


def test_quicksum_is_one_expression():
    total = _quicksum(2.0 * v for v in MODEL.vars)
    assert list(total.terms()) == [(2.0, X), (2.0, Y), (2.0, Z)]
    part = X + 1
    assert value(_quicksum([part, 2, Y, part])) == 2 * 4.0 + 2 - 5.0
    assert part.size() == 1
    assert _quicksum([]).size() == 0
    with pytest.raises(TypeError):
        _quicksum([X, "a"])
    with pytest.raises(TypeError):
        _quicksum(3)


def test_expressions_of_two_models_can_stand_side_by_side():
    mixed = X + OTHER.vars[0]
    assert [v._cmodel for _, v in mixed.terms()] == [MODEL.handle, OTHER.handle]


programs = st.lists(
    st.tuples(st.sampled_from(["+", "-", "*", "/", "r-", "+=", "-=", "*=", "/=", "self", "neg"]), st.integers(0, 8)),
    max_size=12,
)


@given(programs)
def test_programs_of_operators_have_the_value_of_the_numbers(program):
    operands = [X, Y, Z, 2, 0.5, np.float64(-3), X + 2 * Y - 1, LinExpr(4.0), np.int32(3)]
    plain = {"+": operator.add, "-": operator.sub, "*": operator.mul, "/": operator.truediv}
    inplace = {"+=": operator.iadd, "-=": operator.isub, "*=": operator.imul, "/=": operator.itruediv}
    expr, expected = X + 1, POINT[0] + 1
    for name, k in program:
        if name[0] in "*/":
            k = (3, 4, 5, 8)[k % 4]  # numbers
        other = operands[k]
        if name == "self":
            expr, expected = operator.iadd(expr, expr), expected + expected
        elif name == "neg":
            expr, expected = -expr, -expected
        elif name == "r-":
            expr, expected = other - expr, number(other) - expected
        else:
            expr = {**plain, **inplace}[name](expr, other)
            expected = plain[name[0]](expected, number(other))
    scale = sum(abs(c * POINT[v.index]) for c, v in expr.terms()) + abs(expr.getConstant()) + 1
    assert abs(value(expr) - expected) <= 1e-12 * scale


def test_nothing_here_needs_numpy():
    import subprocess

    code = "import sys, tarvopy._core, tarvopy._util, tarvopy._attrutil; assert 'numpy' not in sys.modules"
    assert subprocess.run([sys.executable, "-c", code], check=False).returncode == 0
