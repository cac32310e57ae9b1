"""Nonlinear scalar expressions: operators and functions against Python's floats, text against Python's parser, trees as
documented, and structures as deep as they are long."""

import copy
import ctypes
import gc
import math
import operator
import pickle
import sys
import tracemalloc
import weakref
from ctypes import py_object
from fractions import Fraction

import numpy as np
import pytest
from hypothesis import assume, given
from hypothesis import strategies as st

import native
from native import NativeModel
from tarvopy import genfunc, nlfunc
from tarvopy._core import LinExpr, NLExpr, QuadExpr, TempConstr, _counts, _ExprTree, _quicksum
from tarvopy._exception import NoDataError, TarvoError

POINT = [3.0, -5.0, 2.0]
MODEL = NativeModel(3)
X, Y, Z = MODEL.vars
MODEL.solve_with(POINT)

UNARY = {
    "exp": math.exp,
    "log": math.log,
    "log2": math.log2,
    "log10": math.log10,
    "sqrt": math.sqrt,
    "sin": math.sin,
    "cos": math.cos,
    "tan": math.tan,
    "tanh": math.tanh,
    "logistic": lambda u: 1 / (1 + math.exp(-u)),
    "abs": abs,
}
ENVIRONMENT = UNARY | {f"C{i}": value for i, value in enumerate(POINT)}


def shape_of(tree):
    """A tree as nested tuples; leaves are numbers and variable names."""
    if tree.op == "constant":
        return tree.data
    return str(tree.data) if tree.op == "variable" else (tree.op, *map(shape_of, tree.args))


def shape(expr):
    return shape_of(expr._root)


# ---- values and text -------------------------------------------------------------------------------------------------


BINARY = [operator.add, operator.sub, operator.mul, operator.truediv]
IN_PLACE = [operator.iadd, operator.isub, operator.imul, operator.itruediv]
LEAVES = st.sampled_from(
    [
        *((v, value) for v, value in zip(MODEL.vars, POINT, strict=True)),
        (2 * X - Y + 1, 12.0),
        (X * Z + Y * Y - 2, 29.0),
        (NLExpr(-X), -3.0),
        (2.5, 2.5),
        (np.float64(-1.5), -1.5),
        (3, 3.0),
    ]
)


@st.composite
def operations(draw, operands):
    """One operation on drawn operands, each a pair of an expression (or number) and its value."""
    (a, x), (b, y) = draw(operands), draw(operands)
    kind = draw(st.sampled_from(["binary", "in place", "power", "negative", "function"]))
    if kind == "negative":
        return -a, -x
    if kind == "power":
        exponent = draw(st.sampled_from([0, 1, 2, 3, -1, np.int64(2)] + [0.5, Z, NLExpr(Y)] * (x > 0)))
        assume(abs(x) > 0.1 and abs(x) < 1e3)
        base = float(a) if isinstance(a, np.integer) else a  # NumPy's integers refuse negative exponents
        return base**exponent, x ** float(ENVIRONMENT.get(str(exponent), 0) or exponent)
    if kind == "function":
        name = draw(st.sampled_from(sorted(UNARY)))
        assume((x > 1e-3 or name not in ("log", "log2", "log10", "sqrt")) and abs(x) < 10)
        assume(name != "tan" or abs(math.cos(x)) > 0.1)
        return getattr(nlfunc, name)(a), UNARY[name](x)
    op = draw(st.integers(0, 3))
    assume(op < 3 or abs(y) > 0.1)
    if kind == "in place" and isinstance(a, LinExpr | QuadExpr | NLExpr):
        return IN_PLACE[op](a.copy(), b), BINARY[op](x, y)
    return BINARY[op](a, b), BINARY[op](x, y)


PROGRAMS = st.recursive(LEAVES, operations, max_leaves=12)


@given(PROGRAMS)
def test_values_and_text_are_those_of_python(program):
    expr, value = program
    assume(math.isfinite(value) and abs(value) < 1e6)
    nonlinear = NLExpr(expr)
    assert nonlinear.getValue() == pytest.approx(value, rel=1e-6, abs=1e-6)
    assert eval(str(nonlinear), dict(ENVIRONMENT)) == pytest.approx(value, rel=1e-6, abs=1e-6)


def test_text_has_no_brackets_beyond_the_meaning():
    x, y, z = (NLExpr(v) for v in (X, Y, Z))
    cases = {
        "C0 + C1 + C2": x + (y + z),
        "C0 + C1 - C2": x + (y - z),
        "C0 - (C1 + C2)": x - (y + z),
        "C0 - (C1 - C2)": x - (y - z),
        "C0 * C1 / C2": x * (y / z),
        "C0 / (C1 * C2)": x / (y * z),
        "C0 / C1 / C2": x / y / z,
        "(C0 + 1.0) * (C1 - C2)": (x + 1) * (y - z),
        "-C0": -x,
        "--C0": -(-x),  # noqa: B002
        "-(C0 + C1)": -(x + y),
        "-C0 * C1": -(x * y),
        "C2 / (-C0 * C1)": z / -(x * y),
        "C0 / -C1": x / -y,
        "(-C0) ** 2": (-x) ** 2,
        "-C0 ** 2": -(x**2),
        "(-2.0) ** C0": NLExpr(-2) ** x,
        "C0 ** C1 ** C2": x ** (y**z),
        "(C0 ** C1) ** C2": (x**y) ** z,
        "(C0 ** 2) ** 2": (x**2) ** 2,
        "C0 ** -C1": x**-y,
        "C0 / -(-C1 * C2)": x / -operator.neg(y * z),
        "C0 ** (-C1 * C2)": x ** -(y * z),
        "C0 ** (C1 / C2)": x ** (y / z),
        "C0 - C1": x + -y,
        "C0 + C1 + C2 - 2.0": x - -(y + z) + -2,
        "C0 - (C1 + C2) - 2.0 * C1": x + -(y + z) + -2 * y,
        "exp(C0 + C1) * abs(-C2)": nlfunc.exp(x + y) * nlfunc.abs(-z),
        "1e+16 - 0.1 * C0": 1e16 - 0.1 * x,
    }
    for text, expr in cases.items():
        assert str(expr) == text
        assert eval(text, dict(ENVIRONMENT)) == pytest.approx(expr.getValue(), nan_ok=True)
    assert repr(x / y) == "<NLExpr: C0 / C1>"
    assert (str((x / y)._root), repr((x / y)._root)) == ("C0 / C1", "<_ExprTree divide>")


def test_values_outside_a_domain_are_not_finite():
    assert math.isnan(nlfunc.log(NLExpr(-1)).getValue())
    assert math.isnan((NLExpr(Y) ** 0.5).getValue())
    assert (NLExpr(1) / 0).getValue() == math.inf
    assert nlfunc.logistic(NLExpr(-1000)).getValue() == 0.0
    assert nlfunc.logistic(-800.0 + X * 0).getValue() == 0.0


def test_a_value_needs_a_solution():
    x = NativeModel(1).vars[0]
    with pytest.raises(NoDataError):
        nlfunc.exp(x).getValue()
    assert (NLExpr(2) ** 3).getValue() == 8.0


# ---- trees -----------------------------------------------------------------------------------------------------------


def test_operators_make_one_node_over_the_operands_in_their_order():
    x = NLExpr(X)
    cases = {
        ("plus", 2.0, "C0"): 2 + x,
        ("minus", 2.0, "C0"): 2 - x,
        ("minus", "C0", 2.0): x - 2,
        ("multiply", "C1", "C0"): Y * x,
        ("divide", ("plus", "C1", 1.0), "C0"): (Y + 1) / x,
        ("square", "C0"): x ** np.float32(2),
        ("pow", "C0", 3.0): x**3,
        ("pow", "C0", 1.0): x**1,
        ("pow", 2.0, "C0"): 2**x,
        ("pow", "C0", "C1"): x**Y,
        ("uminus", "C0"): -x,
        ("sqrt", ("multiply", "C0", "C1")): nlfunc.sqrt(X * Y),
        ("exp", 1.0): nlfunc.exp(1),
        ("multiply", ("multiply", "C0", "C1"), "C2"): X * Y * Z,
        ("square", ("multiply", "C0", "C1")): (X * Y) ** 2,
    }
    for tree, expr in cases.items():
        assert (type(expr), shape(expr)) == (NLExpr, tree)
    assert (x + Y)._root.args[0] is x._root
    assert (+x)._root is x._root
    assert +x is not x
    assert (X + x)._root.args[1].data is None or (X + x)._root.args[1].data is X


def test_linear_and_quadratic_expressions_become_their_terms():
    cases = [
        (0.0, LinExpr()),
        (-2.5, LinExpr(-2.5)),
        ("C0", X + 0),
        (("multiply", 2.0, "C0"), 2 * X),
        (("plus", "C0", ("multiply", 0.0, "C1"), 3.0), X + 0 * Y + 3),
        (0.0, QuadExpr()),
        (("square", "C0"), X * X),
        (("multiply", 2.0, ("multiply", "C0", "C1")), 2 * X * Y),
        (("plus", "C2", -1.0, ("multiply", "C0", "C1"), ("multiply", 3.0, ("square", "C1"))), X * Y + 3 * Y**2 + Z - 1),
    ]
    for tree, expr in cases:
        assert shape(NLExpr(expr)) == tree
        convert, terms = (
            (_ExprTree._from_linexpr, _ExprTree._linexpr_terms)
            if type(expr) is LinExpr
            else (_ExprTree._from_quadexpr, _ExprTree._quadexpr_terms)
        )
        assert shape_of(convert(expr)) == tree
        expected = tree[1:] if isinstance(tree, tuple) and tree[0] == "plus" else [tree]
        assert [shape_of(term) for term in terms(expr)] == ([] if tree == 0.0 else list(expected))
    expr = X * Y
    before = NLExpr(expr)
    expr += X * X
    assert shape(before) == ("multiply", "C0", "C1")


def test_builders_take_trees_only_and_as_many_as_they_need():
    x, two = _ExprTree._from_var(X), _ExprTree._from_constant(np.int8(2))
    assert shape_of(_ExprTree._from_plus(x, two, x)) == ("plus", "C0", 2.0, "C0")
    assert shape_of(_ExprTree._from_plus()) == 0.0
    assert _ExprTree._from_plus(x) is x
    assert shape_of(_ExprTree._from_square(_ExprTree._from_pow(x, two))) == ("square", ("pow", "C0", 2.0))
    refused = [
        lambda: _ExprTree._from_minus(x),
        lambda: _ExprTree._from_exp(),
        lambda: _ExprTree._from_exp(x, x),
        lambda: _ExprTree._from_plus(x, 2.0),
        lambda: _ExprTree._from_multiply(x, X),
        lambda: _ExprTree._from_uminus(NLExpr(X)),
        lambda: _ExprTree._from_var(NLExpr(X)),
        lambda: _ExprTree._from_constant("2"),
        lambda: _ExprTree._from_constant(1j),
        lambda: _ExprTree._from_linexpr(X),
        lambda: _ExprTree._quadexpr_terms(LinExpr()),
        lambda: _ExprTree(),
        lambda: NLExpr("x"),
        lambda: NLExpr(np.ones(2)),
        lambda: NLExpr._from_var(1),
        lambda: type("Mine", (NLExpr,), {}),
        lambda: setattr(NLExpr(X), "_root", X),
        lambda: hash(NLExpr(X)),
    ]
    for use in refused:
        with pytest.raises(TypeError):
            use()
    for value in (math.inf, math.nan):
        for use in (_ExprTree._from_constant, NLExpr, NLExpr._from_constant, nlfunc.exp, NLExpr(X).__add__, pow_of_x):
            with pytest.raises(TarvoError):
                use(value)


def pow_of_x(exponent):
    return NLExpr(X) ** exponent


def test_trees_never_change_and_are_equal_only_to_themselves():
    tree = nlfunc.sin(X)._root
    for name in ("op", "args", "data", "note"):
        with pytest.raises(AttributeError):
            setattr(tree, name, None)
    assert tree == tree
    assert tree != nlfunc.sin(X)._root
    assert len({tree, nlfunc.sin(X)._root}) == 2
    assert copy.copy(tree) is tree
    assert copy.deepcopy(tree) is tree
    for thing in (tree, NLExpr(tree)):
        with pytest.raises(TypeError, match="cannot pickle"):
            pickle.dumps(thing)


def test_the_holder_changes_in_place_and_copies_are_independent():
    expr = alias = NLExpr(X)
    first = expr._root
    other = expr.copy(), copy.deepcopy(expr)
    expr += Y
    expr *= 2 * Z
    expr -= np.float64(1)
    expr /= X * Y
    expr **= 2
    expr **= expr
    assert expr is alias
    inside = ("divide", ("minus", ("multiply", ("plus", "C0", "C1"), ("multiply", 2.0, "C2")), 1.0), "C0*C1")
    inside = (*inside[:2], ("multiply", "C0", "C1"))
    assert shape(expr) == ("pow", ("square", inside), ("square", inside))
    assert all(one._root is first for one in other)
    expr._root = first
    assert str(expr) == "C0"
    with pytest.raises(AttributeError):
        del expr._root
    linear = X + 1
    linear += nlfunc.exp(Y)
    assert shape(linear) == ("plus", ("plus", "C0", 1.0), ("exp", "C1"))


def test_comparisons_are_constraints():
    expr = nlfunc.exp(X)
    made = (expr <= 1, expr >= X, expr == expr, operator.eq(X, expr), operator.le(X, expr))
    for constraint, sense in zip(made, "<>==<", strict=True):
        assert (type(constraint), constraint.sense) == (TempConstr, sense)
    assert operator.le(2 * X, expr).rhs is expr
    assert str(expr <= 2) == "<TempConstr: exp(C0) <= 2>"
    with pytest.raises(TarvoError, match="Inequality"):
        expr != 1
    with pytest.raises(TarvoError):
        bool(expr == expr)
    for use in (lambda: expr < 1, lambda: expr <= "a"):
        with pytest.raises(TypeError):
            use()


def test_quicksum_of_nonlinear_expressions_is_one_node():
    total = _quicksum([nlfunc.exp(X), 2, Y, nlfunc.log(X), X * Y])
    assert shape(total) == ("plus", "C1", 2.0, ("multiply", "C0", "C1"), ("exp", "C0"), ("log", "C0"))
    single = nlfunc.exp(X)
    assert _quicksum([single])._root is single._root


def test_functions_know_their_names_and_refuse_what_is_no_expression():
    assert {name: getattr(nlfunc, name).__name__ for name in nlfunc.__all__} == {name: name for name in UNARY}
    assert pickle.loads(pickle.dumps(nlfunc.exp)) is nlfunc.exp
    for bad in ("a", None, [X], np.ones(2), 1j, object(), nlfunc.exp(X)._root):
        with pytest.raises(TypeError, match=r"nlfunc\.exp\(\) takes numbers and expressions"):
            nlfunc.exp(bad)
    for array in ([X], (X, 1), np.ones(2), np.array([X])):
        with pytest.raises(TypeError, match=r"NumPy's functions take arrays of numbers; tarvopy.hstack\(\[array\]\)"):
            nlfunc.exp(array)
    with pytest.raises(TypeError, match=r"add a variable v with addConstr\(v == genfunc"):
        nlfunc.exp(genfunc.max(X, 1))


def test_foreign_operands_are_declined():
    class Reflecting:
        def __radd__(self, other):
            return "reflected"

    expr = nlfunc.exp(X)
    assert expr + Reflecting() == "reflected"
    for bad in ("a", None, [1], 1j, expr._root):
        for op in (operator.add, operator.mul, operator.truediv, operator.pow, operator.iadd, operator.ipow):
            with pytest.raises(TypeError):
                op(expr, bad)
            with pytest.raises(TypeError):
                op(bad, expr)
    with pytest.raises(TypeError):
        pow(expr, 2, 3)
    assert str(expr) == "exp(C0)"


def test_a_number_whose_conversion_changes_the_expression_meets_it_whole():
    class Meddling(Fraction):
        def __float__(self):
            target._root = nlfunc.sin(Y)._root
            return 4.0

    for op in (operator.add, operator.pow, operator.iadd, operator.ipow, operator.truediv):
        target = nlfunc.exp(X)
        result = op(target, Meddling(4))
        assert result._root.args[1].data == 4.0
        assert str(result._root.args[0]) in ("exp(C0)", "sin(C1)")

    class Failing(Fraction):
        def __float__(self):
            raise KeyError("no")

    target = nlfunc.exp(X)
    with pytest.raises(KeyError):
        target += Failing(1)
    assert str(target) == "exp(C0)"


# ---- size ------------------------------------------------------------------------------------------------------------


def test_depth_costs_no_stack():
    n = 100_000
    start = _counts()
    total, signs, tower = NLExpr(0), NLExpr(X), NLExpr(X)
    for _ in range(n):
        total += nlfunc.abs(Y)
        signs = -signs
        tower = 1 ** (tower / 1)
    right = NLExpr(X)
    for _ in range(n):
        right = Y - right
    assert total.getValue() == 5.0 * n
    assert signs.getValue() == 3.0
    assert tower.getValue() == 1.0
    assert right.getValue() == 3.0
    assert str(total) == "0.0" + " + abs(C1)" * n
    assert str(signs) == "-" * n + "C0"
    assert str(right).startswith("C1 - (C1 - (C1")
    assert len(str(tower.copy())) > n
    wide = _quicksum(nlfunc.sin(X) for _ in range(n))
    assert len(wide._root.args) == n
    assert wide.getValue() == pytest.approx(n * math.sin(3.0))
    del total, signs, tower, right, wide
    assert _counts() == start


def test_what_is_shared_is_computed_once():
    expr = NLExpr(X)
    for _ in range(60):
        expr = expr + expr
    assert expr.getValue() == 3.0 * 2**60
    shared = nlfunc.sin(X * Y)
    expr = shared * shared - nlfunc.exp(shared) / shared
    s = math.sin(-15.0)
    assert expr.getValue() == pytest.approx(s * s - math.exp(s) / s)
    big = nlfunc.exp(NLExpr(X))
    for _ in range(40):
        big = big * big
    with pytest.raises(OverflowError, match="text of the expression"):
        str(big)


def test_a_node_is_small():
    x, y = _ExprTree._from_var(X), _ExprTree._from_constant(1)
    for tree, limit in ((x, 40), (y, 40), (_ExprTree._from_exp(x), 40), (_ExprTree._from_pow(x, y), 48)):
        assert sys.getsizeof(tree) == limit
    assert sys.getsizeof(_ExprTree._from_plus(*[x] * 10)) == 32 + 80
    assert not gc.is_tracked(x)
    expr, n = NLExpr(X), 2000
    tracemalloc.start()
    before = tracemalloc.get_traced_memory()[0]
    for _ in range(n):
        expr += Y
    taken = tracemalloc.get_traced_memory()[0] - before
    tracemalloc.stop()
    assert taken < n * (48 + 40) + 1000  # a sum and a leaf each


def test_nothing_is_left_behind():
    gc.collect()
    before, references = _counts(), sys.getrefcount(X)
    for _ in range(20):
        expr = nlfunc.exp(X) * Y + (X * Y) ** 2 - _quicksum([NLExpr(X), X, X * X])
        expr /= expr
        expr = -expr + expr * expr
        str(expr), expr.getValue(), expr._root.args, NLExpr(expr._root)
        for failing in (lambda e=expr: e + "a", lambda e=expr: e**math.nan, lambda e=expr: nlfunc.log(None)):
            with pytest.raises((TypeError, TarvoError)):
                failing()
    del expr, failing
    gc.collect()
    assert _counts() == before
    assert abs(sys.getrefcount(X) - references) <= 1


def test_the_end_of_a_tree_may_end_its_model_and_run_code():
    seen = []
    model = NativeModel(1)
    inner = NLExpr(model.vars[0])
    for _ in range(5):
        inner = nlfunc.sin(inner) + inner
    weakref.finalize(model.handle, lambda: seen.append(str(nlfunc.exp(X) + _counts()["_ExprTree"])))
    del model
    assert inner.copy()._root is inner._root
    del inner
    assert len(seen) == 1


# ---- the functions that siblings call --------------------------------------------------------------------------------

OPS = ["constant", "plus", "minus", "multiply", "divide", "pow", "uminus", "square", "sqrt", "exp", "log"]
OPS += ["log2", "log10", "sin", "cos", "tan", "tanh", "logistic", "abs"]


def objects(items):
    return (py_object * len(items))(*items)


def call(function, *args, count):
    out = (ctypes.c_void_p * count)()
    function(*args, ctypes.addressof(out))
    return native._taken(ctypes.cast(out, ctypes.POINTER(py_object * count)).contents)


def test_trees_are_made_in_bulk():
    ids = np.array([2, 0, 1], np.int32)
    leaves = call(native.api.tree_variables, MODEL.handle, 3, ids.ctypes.data, 1, count=3)
    assert [leaf.data for leaf in leaves] == [Z, X, Y]
    pairs = objects([leaves[0], leaves[1], leaves[1], leaves[2]])
    powers = call(native.api.tree_nodes, OPS.index("pow"), 2, 2, ctypes.addressof(pairs), count=2)
    assert [str(tree) for tree in powers] == ["C2 ** C0", "C0 ** C1"]
    trees = objects(powers)
    holders = call(native.api.nlexprs, 2, ctypes.addressof(trees), count=2)
    assert [type(holder) for holder in holders] == [NLExpr, NLExpr]
    assert holders[1]._root is powers[1]
    native.api.nlexpr_set_root(holders[0], leaves[0])
    value = ctypes.c_double()
    native.api.tree_value(powers[1], ctypes.byref(value))
    assert value.value == 3.0**-5
    assert shape_of(native.api.tree_of(2 * X)) == ("multiply", 2.0, "C0")
    assert [shape_of(t) for t in native.api.linexpr_terms(X + 1)] == ["C0", 1.0]
    for number, name in enumerate(OPS[2:], 2):
        children = objects(leaves[:2])
        arity = 2 if name in ("minus", "multiply", "divide", "pow") else 1
        assert native.api.tree_node(number, arity, ctypes.addressof(children)).op == name
    mixed = objects([leaves[0], leaves[1], leaves[0], X])
    bad_ids = np.array([0, 99], np.int32)
    first = leaves[0]
    failures = [
        lambda: call(native.api.tree_nodes, 1, 2, 2, ctypes.addressof(mixed), count=2),
        lambda: call(native.api.nlexprs, 4, ctypes.addressof(mixed), count=4),
        lambda: call(native.api.tree_variables, MODEL.handle, 2, bad_ids.ctypes.data, 1, count=2),
        lambda: native.api.tree_node(2, 1, ctypes.addressof(mixed)),
        lambda: native.api.tree_constant(math.nan),
        lambda: native.api.nlexpr_set_root(X, first),
    ]
    for failing in failures:
        with pytest.raises((TypeError, TarvoError)):
            failing()


def test_bulk_functions_leave_nothing_behind():
    gc.collect()
    before = _counts()
    test_trees_are_made_in_bulk()
    gc.collect()
    assert _counts() == before
