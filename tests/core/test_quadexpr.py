"""QuadExpr and the operators that make it; the oracle puts numbers for variables."""

import copy
import ctypes
import math
import operator
import pickle
from decimal import Decimal
from fractions import Fraction

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

from native import VAR, NativeModel, api
from tarvopy import TRV
from tarvopy._core import LinExpr, QuadExpr, TempConstr, Var, _counts, _quicksum
from tarvopy._exception import NoDataError, TarvoError

POINT = [3.0, -5.0, 7.0, 2.0]
MODEL = NativeModel(4)
X, Y, Z, W = MODEL.vars


@pytest.fixture
def model():
    return NativeModel(4)


def terms_of(expr):
    """(coefficients and values of all terms, the constant)."""
    if isinstance(expr, Var):
        return [POINT[expr.index]], 0.0
    if isinstance(expr, LinExpr):
        return [c * POINT[v.index] for c, v in expr.terms()], expr.getConstant()
    if isinstance(expr, QuadExpr):
        linear, constant = terms_of(expr.getLinExpr())
        return [c * POINT[v.index] * POINT[w.index] for c, v, w in expr.terms()] + linear, constant
    return [], float(expr)


def value(expr) -> float:
    terms, constant = terms_of(expr)
    return sum(terms, constant)


def names(expr):
    return [(c, str(v), str(w)) for c, v, w in expr.terms()]


# ---- operators


def test_products_have_the_terms_of_the_left_side_in_turn():
    product = (X + 2 * Y + 3) * (Z - W + 2)
    assert names(product) == [(1.0, "C0", "C2"), (-1.0, "C0", "C3"), (2.0, "C1", "C2"), (-2.0, "C1", "C3")]
    assert str(product.getLinExpr()) == "2.0 C0 + 4.0 C1 + 3.0 C2 - 3.0 C3 + 6.0"
    assert names(Y * X) == [(1.0, "C1", "C0")]
    assert names((2 * X + 1) * Y) == [(2.0, "C0", "C1")]
    assert str(((2 * X + 1) * Y).getLinExpr()) == "1.0 C1"
    assert str((X * (Y - 4)).getLinExpr()) == "-4.0 C0"
    constants = LinExpr(2.0) * LinExpr(-3.0)
    assert (type(constants), constants.size(), str(constants)) == (QuadExpr, 0, "-6.0")
    assert str(LinExpr(0.0) * (X + 1)) == "0.0"


def test_squares_and_powers():
    expr = X - 2
    square = expr**2
    assert str(square) == str(expr * expr) == "1.0 C0^2 - 2.0 C0 - 2.0 C0 + 4.0"
    assert names(X**2) == names(X ** np.float32(2)) == names(X ** Fraction(2)) == [(1.0, "C0", "C0")]
    quadratic = X * Y
    for base in (X, expr, quadratic):
        one = base**0
        assert (type(one), str(one)) == (LinExpr, "1.0")
        same = base**1.0
        assert type(same) is type(base)
        assert (same is base) == (base is X)
        assert value(same) == value(base)
    with pytest.raises(TypeError):
        pow(X, 2, 3)
    with pytest.raises(TarvoError, match=r"^Exponent is infinite or NaN$"):
        X**math.inf


NUMBERS = [
    2,
    -0.5,
    True,
    np.float64(2.5),
    np.float32(0.5),
    np.int8(-3),
    np.bool_(True),
    Fraction(1, 4),
    Decimal("0.75"),
]


@pytest.mark.parametrize("scalar", NUMBERS, ids=lambda n: type(n).__name__)
def test_numbers_work_on_both_sides(scalar):
    expr = X * Y + 2 * Z - 1
    cases = [
        (op, pair) for op in (operator.add, operator.sub, operator.mul) for pair in ((expr, scalar), (scalar, expr))
    ]
    cases.append((operator.truediv, (expr, scalar)))
    for op, (a, b) in cases:
        result = op(a, b)
        assert type(result) is QuadExpr
        assert value(result) == pytest.approx(op(value(a), value(b)), rel=1e-15)
    assert str(expr) == "1.0 C0*C1 + 2.0 C2 - 1.0"
    for compare, sense in ((operator.le, "<"), (operator.ge, ">"), (operator.eq, "=")):
        constraint = compare(expr, scalar)
        assert (constraint.lhs is expr, constraint.sense, constraint.rhs is scalar) == (True, sense, True)


def test_sums_put_left_terms_first():
    quadratic = X * Y + Z
    assert str(quadratic - 2 * X) == "1.0 C0*C1 + 1.0 C2 - 2.0 C0"
    assert str(X - quadratic) == "-1.0 C0*C1 + 1.0 C0 - 1.0 C2"
    assert str((X + 1) + quadratic) == "1.0 C0*C1 + 1.0 C0 + 1.0 C2 + 1.0"
    assert str(quadratic - Y * X) == "1.0 C0*C1 - 1.0 C1*C0 + 1.0 C2"
    assert str(-quadratic) == "-1.0 C0*C1 - 1.0 C2"
    assert [c for c, _, _ in (7 * X * Y / 49).terms()] == [7.0 / 49.0]
    with pytest.raises(ZeroDivisionError):
        quadratic / 0


def test_comparisons_and_truth():
    quadratic = X * Y
    for a, b in ((quadratic, X), (X, quadratic), (X + 1, quadratic), (quadratic, quadratic)):
        for compare, sense in ((operator.le, "<"), (operator.ge, ">"), (operator.eq, "=")):
            constraint = compare(a, b)
            assert type(constraint) is TempConstr
            assert (constraint.lhs is a, constraint.sense, constraint.rhs is b) == (True, sense, True)
    assert operator.le(np.float64(1), quadratic).sense == TRV.GREATER_EQUAL
    with pytest.raises(TarvoError, match=r"^Inequality constraints not supported$"):
        quadratic != X
    with pytest.raises(TarvoError, match="addRange"):
        bool(quadratic <= 1)
    with pytest.raises(TypeError, match="unhashable"):
        hash(quadratic)
    for wrong in ("a", None, 1j, [1], object()):
        with pytest.raises(TypeError):
            quadratic + wrong
        with pytest.raises(TypeError):
            wrong * quadratic


def test_in_place_operators_change_the_object_where_it_can_hold_the_result():
    expr = alias = X * Y
    expr += Z
    expr -= 2 * X * X
    expr *= np.float64(4)
    expr /= 2
    expr += 1
    expr -= X * 3 + 2
    assert expr is alias
    assert str(expr) == "2.0 C0*C1 - 4.0 C0^2 + 2.0 C2 - 3.0 C0 - 1.0"
    linear = other = X + 1
    linear += X * Y
    assert (str(linear), str(other)) == ("1.0 C0*C1 + 1.0 C0 + 1.0", "1.0 C0 + 1.0")
    other -= QuadExpr(5.0)
    other = X + 1
    other *= Y
    other **= 1
    assert str(other) == "1.0 C0*C1 + 1.0 C1"
    other *= X
    assert str(other) == "(C1 + C0 * C1) * C0"


def test_an_expression_can_be_added_to_itself_and_to_its_linear_part():
    expr = X * Y + 2 * Z + 1
    start = value(expr)
    expr += expr
    expr.add(expr, -3.0)
    assert value(expr) == 2 * start - 6 * start
    expr += expr.getLinExpr()
    linear_part = expr.getLinExpr()
    linear_part += linear_part
    linear_part.add(linear_part, 2)
    assert value(expr) == -4 * (start - value(X * Y)) * 12 - 4 * value(X * Y)
    expr -= expr
    assert value(expr) == 0.0


def test_object_arrays_work_element_by_element():
    array = np.array([X * Y, X + 1, Y], dtype=object)
    assert [value(e) for e in array * 2.0 + array] == [-45.0, 12.0, -15.0]
    assert value(array.sum()) == -15.0 + 4.0 - 5.0
    assert [value(e) for e in array[1:] * array[1:]] == [16.0, 25.0]


def test_quicksum_goes_quadratic_in_one_pass():
    part = X * Y
    total = _quicksum([part, 2, X, 2 * Y + 1, part, X * X])
    assert str(total) == "1.0 C0*C1 + 1.0 C0*C1 + 1.0 C0^2 + 1.0 C0 + 2.0 C1 + 3.0"
    assert part.size() == 1
    assert str(_quicksum([X, 3, part])) == "1.0 C0*C1 + 1.0 C0 + 3.0"
    with pytest.raises(TypeError):
        _quicksum([part, "a"])


OPERATIONS = ["+", "-", "r+", "r-", "*", "/", "+=", "-=", "*=", "/=", "self", "neg", "copy", "sum", "linear", "tidy"]
steps = st.lists(st.tuples(st.sampled_from(OPERATIONS), st.integers(0, 9)), max_size=14)


@given(st.integers(0, 4), steps)
def test_programs_of_operators_have_the_value_of_the_numbers(first, program):
    operands = [X, Y, X * Y, 2, np.float64(-3), X + 2 * Y - 1, LinExpr(4.0), (X - 1) * (Y + 2), Z**2 - X, QuadExpr()]
    before = [str(o) for o in operands]
    binary = {"+": operator.add, "-": operator.sub, "*": operator.mul, "/": operator.truediv}
    inplace = {"+=": operator.iadd, "-=": operator.isub, "*=": operator.imul, "/=": operator.itruediv}
    starts = [X, X + 1, X * Y, (X + 1) * (Z - 2), QuadExpr(X)]
    expr = starts[first]
    expected, size = value(expr), sum(map(abs, terms_of(expr)[0])) + 10.0
    for name, k in program:
        other = operands[k]
        if name[0] in "*/":
            linear = not isinstance(expr, QuadExpr) and k < 2 and name[0] == "*"
            other = operands[k] if linear else (3, 4, 5, 8)[k % 4]
        size += abs(value(other)) * (size if name[0] == "*" else 1) + 100.0
        if name == "self":
            expr, expected, size = operator.iadd(expr, expr), expected + expected, 2 * size
        elif name == "neg":
            expr, expected = -expr, -expected
        elif name == "copy":
            expr = copy.deepcopy(expr) if not isinstance(expr, Var) else +expr
        elif name == "sum":
            expr, expected = _quicksum([expr, other, 2, other]), expected + 2 * value(other) + 2
        elif name == "linear" and isinstance(expr, QuadExpr):
            expr.getLinExpr().add(Y, 2)
            expected += 2 * value(Y)
        elif name == "tidy" and not isinstance(expr, Var):
            expr._normalize()
        elif name in ("r+", "r-"):
            expr, expected = binary[name[1]](other, expr), binary[name[1]](value(other), expected)
        elif name in binary or name in inplace:
            expr = {**binary, **inplace}[name](expr, other)
            expected = binary[name[0]](expected, value(other))
        size = max(size, sum(map(abs, terms_of(expr)[0])))
    assert abs(value(expr) - expected) <= 1e-11 * size
    assert [str(o) for o in operands[:3]] == before[:3]


# ---- construction, terms, text


def test_construction_copies():
    source = X * Y + 3
    for given_, text in ((2, "2.0"), (X, "1.0 C0"), (2 * X + 1, "2.0 C0 + 1.0"), (source, "1.0 C0*C1 + 3.0")):
        made = QuadExpr(given_)
        assert str(made) == text
        made += X * X + 1
        assert str(QuadExpr(arg=given_)) == text
    assert (str(QuadExpr()), QuadExpr().size()) == ("0.0", 0)
    for wrong in ("x", None, [X], np.ones(2), 1j, X <= 1):
        with pytest.raises(TypeError):
            QuadExpr(wrong)
    with pytest.raises(TypeError):
        QuadExpr([1.0], [X])


def test_text_shows_squares_signs_and_the_constant_last(model):
    x, y = model.vars[:2]
    assert repr(-2 * x * y + x**2 - 3 * y - 1) == "<QuadExpr: -2.0 C0*C1 + 1.0 C0^2 - 3.0 C1 - 1.0>"
    assert str(0 * x * x) == "0.0 C0^2"
    expr = x * y + y
    model.remove(VAR, 0)
    model.update()
    assert str(expr) == "1.0 (removed)*C1 + 1.0 C1"


def test_linear_part_is_the_expressions_own():
    expr = X * Y
    linear = expr.getLinExpr()
    assert (str(linear), linear is expr.getLinExpr()) == ("0.0", True)
    linear += 2 * Z
    assert str(expr) == "1.0 C0*C1 + 2.0 C2"
    twin = QuadExpr(expr)
    twin.getLinExpr().clear()
    assert (str(twin), str(expr)) == ("1.0 C0*C1", "1.0 C0*C1 + 2.0 C2")
    expr += 5
    expr *= 2
    assert str(linear) == "4.0 C2 + 10.0"
    expr.clear()
    assert (str(linear), expr.size(), str(expr)) == ("0.0", 0, "0.0")
    api.quadexpr_assign(expr, X + Y * Y)
    assert (str(linear), str(expr)) == ("1.0 C0", "1.0 C1^2 + 1.0 C0")
    api.quadexpr_assign(expr, expr)
    del expr
    assert str(linear) == "1.0 C0"


def test_a_factor_keeps_its_own_contents():
    linear = X + 1
    expr = linear * Y
    total = expr + linear
    linear.clear()
    assert (str(expr), str(total)) == ("1.0 C0*C1 + 1.0 C1", "1.0 C0*C1 + 1.0 C1 + 1.0 C0 + 1.0")
    quick = _quicksum([X, expr])
    quick.getLinExpr().clear()
    assert str(expr) == "1.0 C0*C1 + 1.0 C1"


def test_normalize_merges_pairs_in_either_order_at_their_first_place():
    expr = Y * X + 2 * Z * Z - X * W + 3 * X * Y - 2 * Z * Z + X - X + Y + 1
    expr._flatten()
    expr._normalize()
    assert names(expr) == [(4.0, "C1", "C0"), (-1.0, "C0", "C3")]
    assert str(expr.getLinExpr()) == "1.0 C1 + 1.0"
    rng = np.random.default_rng(3)
    model = NativeModel(30)
    pairs = rng.integers(0, 30, (600, 2))
    coefs = rng.integers(-1, 2, 600).astype(float)
    long = QuadExpr()
    long.addTerms(coefs, *([model.vars[i] for i in column] for column in pairs.T))
    merged = {}
    for c, (i, j) in zip(coefs, pairs, strict=True):
        first, total = merged.get((min(i, j), max(i, j)), ((i, j), 0.0))
        merged[min(i, j), max(i, j)] = (first, total + c)
    long._normalize()
    assert [(c, v.index, w.index) for c, v, w in long.terms()] == [(c, *p) for p, c in merged.values() if c != 0.0]


@pytest.mark.parametrize(
    ("coeffs", "first", "second", "text"),
    [
        ([1, 2], [X, Y], (Y, Y), "1.0 C0*C1 + 2.0 C1^2"),
        (3, [X, Y], np.array([[Z], [W]], dtype=object), "3.0 C0*C2 + 3.0 C1*C3"),
        (np.float32(2), X, Y, "2.0 C0*C1"),
        (iter([1.0, np.int8(2)]), iter([X, X]), [X, Y], "1.0 C0^2 + 2.0 C0*C1"),
        ([], [], [], "0.0"),
    ],
)
def test_add_terms(coeffs, first, second, text):
    expr = QuadExpr(Z)
    expr.addTerms(coeffs, vars1=first, vars2=second)
    expr -= Z
    expr._normalize()
    assert str(expr) == text


@pytest.mark.parametrize(
    ("coeffs", "first", "second", "error", "text"),
    [
        ([1.0], [X, Y], [X, Y], ValueError, "1 coefficients for 2 pairs of variables"),
        (1.0, [X, Y], [X], ValueError, "2 first variables for 1 second ones"),
        (1.0, X, [X, Y], ValueError, "1 first variables for 2 second ones"),
        ([1.0], [X], [2.0], TypeError, "variables must be Var objects, not 'float'"),
        ([1.0], [X + 1], [X], TypeError, "variables must be Var objects"),
        ("1", X, Y, TypeError, "coefficients cannot be given as a string"),
        (1j, X, Y, TypeError, "complex"),
        ([1.0, math.nan], [X, X], [Y, Y], TarvoError, "Coefficient is infinite or NaN"),
        (math.inf, X, Y, TarvoError, "Coefficient is infinite or NaN"),
    ],
)
def test_add_terms_changes_nothing_on_an_error(coeffs, first, second, error, text):
    expr = X * Y + 1
    with pytest.raises(error, match=text):
        expr.addTerms(coeffs, first, second)
    assert str(expr) == "1.0 C0*C1 + 1.0"


def test_add_copy_and_pickling():
    expr = X * Y
    expr.add(X + X * X + 1, mult=-2)
    expr.add(X)
    expr.add(3, 2)
    assert str(expr) == "1.0 C0*C1 - 2.0 C0^2 - 2.0 C0 + 1.0 C0 + 4.0"
    for twin in (expr.copy(), copy.copy(expr), copy.deepcopy(expr)):
        assert (str(twin), twin is expr) == (str(expr), False)
        twin.clear()
    assert expr.size() == 2
    with pytest.raises(TypeError, match=r"cannot pickle 'tarvopy\.QuadExpr'"):
        pickle.dumps(expr)
    with pytest.raises(TypeError, match=r"^add\(\) takes a number, a Var, a LinExpr or a QuadExpr, not 'str'$"):
        expr.add("x")
    with pytest.raises(TypeError, match=r"takes a number, a Var or a LinExpr, not 'tarvopy\.QuadExpr'"):
        (X + 1).add(expr)
    with pytest.raises(TypeError, match="not an acceptable base type"):
        type("Mine", (QuadExpr,), {})


def test_value_comes_from_the_solution_and_takes_all_in(model):
    x, y = model.vars[:2]
    expr = 2 * x * y - x * x + 4 * y + 1
    with pytest.raises(NoDataError):
        expr.getValue()
    model.solve_with([3.0, 5.0, 0.0, 0.0])
    assert expr.getValue() == 30.0 - 9.0 + 20.0 + 1.0
    assert QuadExpr(5.0).getValue() == 5.0
    other = NativeModel(1)
    other.solve_with([10.0])
    mixed = x * other.vars[0] + other.vars[0] * y
    assert mixed.getValue() == 80.0
    assert [v._cmodel for _, v, _ in mixed.terms()] == [model.handle, other.handle]
    other.handle._close()
    with pytest.raises(TarvoError, match=r"^the model is closed$"):
        mixed.getValue()


# ---- native functions


def test_rows_in_bulk(model):
    exprs = model.quadexprs([0, 2, 2, 3], [0, 1, 3], [1, 1, 2], [1.0, 2.0, -3.0])
    assert [str(e) for e in exprs] == ["1.0 C0*C1 + 2.0 C1^2", "0.0", "-3.0 C3*C2"]
    assert [str(e) for e in model.quadexprs([5, 6, 7], [0, 1], [0, 3], scale=-2.0)] == ["-2.0 C0^2", "-2.0 C1*C3"]
    assert next(exprs[0].terms())[1] is model.vars[0]
    before = _counts()
    for ids in (([0, 4], [0, 1]), ([0, 1], [0, -1])):
        with pytest.raises(TarvoError) as caught:
            model.quadexprs([0, 1, 2], *ids)
        assert caught.value.code == TRV.Error.NOT_IN_MODEL
    assert _counts() == before
    coefs = np.tile([1.0, -2.0, 0.5], 100)
    (long,) = model.quadexprs([0, 300], [0] * 300, [1] * 300, coefs)
    assert [c for c, _, _ in long.terms()] == coefs.tolist()
    assert len({id(c) for c, _, _ in long.terms()}) == 3


def test_rows_in_bulk_stay_within_their_memory():
    import tracemalloc

    model = NativeModel(2000)
    n, width = 2000, 5
    ids = np.arange(n * width) % 2000
    tracemalloc.start()
    start = tracemalloc.get_traced_memory()[0]
    exprs = model.quadexprs(np.arange(n + 1) * width, ids, ids[::-1], np.arange(n * width) + 0.5)
    used = tracemalloc.get_traced_memory()[0] - start
    tracemalloc.stop()
    assert len(exprs) == n
    assert used <= n * (320 + 64 * width)


def test_native_functions_refuse_foreign_objects(model):
    x, y = model.vars[:2]
    expr = x * y + 1
    for use in (
        lambda: api.quadexpr_add(x + 1, expr, 1.0),
        lambda: api.quadexpr_add(expr, "a", 1.0),
        lambda: api.quadexpr_scale(x, 2.0),
        lambda: api.quadexpr_copy(None),
        lambda: api.quadexpr_clear(object()),
        lambda: api.quadexpr_normalize(3),
        lambda: api.quadexpr_linear(x + 1),
        lambda: api.linexpr_add(x + 1, expr, 1.0),
    ):
        with pytest.raises(TypeError):
            use()
    with pytest.raises(TarvoError, match=r"^Multiplier is infinite or NaN$"):
        api.quadexpr_add(expr, x, math.nan)
    linear = ctypes.cast(api.quadexpr_linear(expr), ctypes.py_object).value
    assert linear is expr.getLinExpr()
    api.quadexpr_add(expr, expr, -0.5)
    api.quadexpr_normalize(expr)
    api.quadexpr_scale(expr, 4.0)
    assert (str(expr), str(api.quadexpr_copy(expr))) == ("2.0 C0*C1 + 2.0",) * 2
    api.quadexpr_clear(expr)
    assert str(api.quadexpr_new()) == str(expr) == "0.0"
