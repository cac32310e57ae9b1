"""General constraints: what comes back, what arrives in the store, what is refused.

The oracle puts a number for each variable: the arguments that the store holds must have the values that NumPy computes
from the operands' values.
"""

# ruff: noqa: SIM300  (X == function and function == X are two different things here)

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import tarvopy
from tarvopy import TRV, GenConstr, GenExpr, LinExpr, MGenConstr, TarvoError, TempConstr, _debug, genfunc, nlfunc
from tarvopy._core import _counts
from tarvopy.problem import Problem

INF = float("inf")


def stored(m):
    """(type, [(terms by position, constant) of each argument], numbers) of each general constraint."""
    m.update()
    kind, argptr, ptr, index, value, constant, dataptr, data = Problem.of(m._cmodel).gens()
    terms = [
        dict(zip(index[begin:end].tolist(), value[begin:end].tolist(), strict=True))
        for begin, end in zip(ptr, ptr[1:], strict=False)  # noqa: RUF007
    ]
    args = list(zip(terms, constant.tolist(), strict=True))
    return [
        (kind[g], args[argptr[g] : argptr[g + 1]], data[dataptr[g] : dataptr[g + 1]].tolist()) for g in range(len(kind))
    ]


def values(m, point):
    """Each constraint as the list of its arguments' values at a point."""
    return [
        [constant + sum(c * point[v] for v, c in terms.items()) for terms, constant in args] for _, args, _ in stored(m)
    ]


# ---- scalars


def test_scalar_constraints_by_hand(m):
    x, y = m.addVar(name="x"), m.addVar(name="y")
    a, b = m.addVar(vtype="B"), m.addVar(vtype="B")
    rows = [
        m.addConstr(y == genfunc.max(x, 2 * x + y - 1, 3.0), name="peak"),
        m.addConstr(genfunc.min([x, y]) == y + 1),
        m.addConstr(y == genfunc.abs(x - y)),
        m.addConstr(a == genfunc.all(a, b, True)),
        m.addConstr(1 == genfunc.any(a, b)),
        m.addConstr(y == genfunc.pwl(x, [0, 1, 1, 2], (0, 1, 3, 4))),
        m.addConstr(genfunc.indicator(a, 1, x + 1 <= 2 * y)),
        m.addConstr(genfunc.indicator(b, False, x >= 3)),
        m.addConstr(genfunc.indicator(b, np.float64(1), x == y - 1)),
        m.addSOS(1, [x, y], name="set"),
        m.addSOS(2, [y, [a, (b,)]], [3, 1, 2]),
    ]
    X, Y, A, B = (({i: 1.0}, 0.0) for i in range(4))
    assert [type(row) for row in rows] == [GenConstr] * len(rows)
    assert stored(m) == [
        (TRV.GEN_MAX, [Y, X, ({0: 2.0, 1: 1.0}, -1.0), ({}, 3.0)], []),
        (TRV.GEN_MIN, [({1: 1.0}, 1.0), X, Y], []),
        (TRV.GEN_ABS, [Y, ({0: 1.0, 1: -1.0}, 0.0)], []),
        (TRV.GEN_AND, [A, A, B, ({}, 1.0)], []),
        (TRV.GEN_OR, [({}, 1.0), A, B], []),
        (TRV.GEN_PWL, [Y, X], [0, 1, 1, 2, 0, 1, 3, 4]),
        (TRV.GEN_INDICATOR, [A, ({0: 1.0, 1: -2.0}, 0.0)], [1, -INF, -1]),
        (TRV.GEN_INDICATOR, [B, X], [0, 3, INF]),
        (TRV.GEN_INDICATOR, [B, ({0: 1.0, 1: -1.0}, 0.0)], [1, -1, -1]),
        (TRV.GEN_SOS1, [X, Y], [1, 2]),
        (TRV.GEN_SOS2, [Y, A, B], [3, 1, 2]),
    ]
    assert m.getGenConstrs() == rows
    assert [row.GenName for row in rows[:2]] + [rows[9].GenName] == ["peak", "G1", "set"]
    assert [row.GenType for row in rows] == [0, 1, 2, 3, 4, 5, 6, 6, 6, 7, 8]
    assert repr(m) == "<tarvopy.Model '': 4 variables, 0 constraints, 11 general constraints>"


# ---- arrays


SHAPES = st.sampled_from([(), (3,), (2, 3), (1, 3), (2, 1), (4, 2, 3)])


@st.composite
def operands(draw, m, point):
    """An operand and its value: variables, expressions in either state, object arrays, numbers."""
    shape = draw(SHAPES)
    kind = draw(st.sampled_from(["mvar", "compact", "full", "objects", "scalar", "array", "number"]))
    if kind == "number":
        return 1.5, 1.5
    if kind == "array":
        array = np.arange(np.prod(shape), dtype=float).reshape(shape) - 2
        return array, array
    X = m.addMVar(shape if kind != "scalar" else ())
    m.update()
    size = int(np.prod(X.shape))
    point.extend(np.random.default_rng(len(point)).integers(-9, 9, size).tolist())
    value = np.array(point[-size:], dtype=float).reshape(X.shape)
    if kind == "scalar":
        return 2 * X.item() + 1, float(2 * value + 1)
    if kind == "compact" and X.ndim == 1:
        A = np.arange(2.0 * size).reshape(2, 1, size)[0] - 1
        return A @ X + 1, A @ value + 1
    if kind == "full":
        return 3 * X - X[..., ::-1] if X.ndim else 3 * X, 3 * value - value[..., ::-1] if X.ndim else 3 * value
    if kind == "objects":
        return np.array(X.tolist(), dtype=object), value
    return X, value


def broadcast_rows(*arrays):
    return [list(row) for row in zip(*(a.ravel() for a in np.broadcast_arrays(*arrays)), strict=True)]


def fits(*arrays):
    try:
        return np.broadcast_shapes(*(np.shape(a) for a in arrays))
    except ValueError:
        return None


@pytest.mark.parametrize("eager", [False, True])
@given(data=st.data())
def test_elementwise_arguments_broadcast_as_in_numpy(eager, data):
    _debug.eager(eager)
    try:
        with tarvopy.Model() as m:
            check_elementwise(m, data.draw)
    finally:
        _debug.eager(False)


def check_elementwise(m, draw):
    point = [4.0]
    y = m.addVar()
    pairs = [draw(operands(m, point)) for _ in range(draw(st.integers(1, 3)))]
    side, side_value = draw(operands(m, point))
    if np.isscalar(side) or isinstance(side, np.ndarray):
        side, side_value = y, 4.0
    if len(pairs) == 1:
        pairs.append((7, 7))  # one array would go over its axes
    args, numbers = zip(*pairs, strict=True)
    shape = fits(side_value, *numbers)
    equation = side == genfunc.max(*args)
    if shape is None:
        with pytest.raises(ValueError, match="do not broadcast"):
            m.addConstr(equation)
        assert stored(m) == []
        return
    handle = m.addConstr(equation)
    assert np.allclose(values(m, point), broadcast_rows(side_value, *map(np.asarray, numbers)))
    scalar = all(np.isscalar(operand) or not hasattr(operand, "shape") for operand in (side, *args))
    assert (type(handle) is GenConstr) == scalar
    assert getattr(handle, "shape", ()) == shape


@pytest.mark.parametrize("axis", [None, 0, 1, -1, (0, 2), (2, 1, 0), ()])
@pytest.mark.parametrize("name", ["max", "all"])
def test_one_array_goes_over_its_axes_as_in_numpy(mode, m, name, axis):
    X = m.addMVar((4, 2, 3), vtype="B")
    point = np.random.default_rng(3).integers(0, 9, 24).astype(float).tolist()
    value = np.array(point).reshape(X.shape)
    result = np.max(value, axis=axis)
    Y = m.addMVar(result.shape, vtype="B") if result.ndim else m.addVar(vtype="B")
    point += [99.0] * result.size
    handle = m.addConstr(Y == getattr(genfunc, name)(X, axis=axis))
    rows = values(m, point)
    assert [max(row[1:]) for row in rows] == result.ravel().tolist()
    assert {row[0] for row in rows} == {99.0}
    assert {len(row) for row in rows} == {1 + value.size // result.size}
    if result.ndim:
        assert (type(handle), handle.shape) == (MGenConstr, result.shape)
    else:
        assert type(handle) is GenConstr
    assert set(np.ravel(handle.GenType)) == {TRV.GEN_MAX if name == "max" else TRV.GEN_AND}


def test_lists_stand_for_their_elements_and_nested_ones_are_arrays(mode, m):
    x, X = m.addVar(), m.addMVar(2)
    one = ({0: 1.0}, 0.0), ({1: 1.0}, 0.0), ({2: 1.0}, 0.0)
    assert type(m.addConstr(x == genfunc.max([x, 3]))) is GenConstr
    assert m.addConstr(x == genfunc.max([X, 3])).shape == (2,)
    assert type(m.addConstr(x == genfunc.max([[x, 1], [2, x]]))) is GenConstr
    assert m.addConstr(x == genfunc.max([[x, 1], [2, x]], axis=0)).shape == (2,)
    assert m.addConstr(X == genfunc.min([x, 1], [2, x])).shape == (2,)
    assert m.addConstr([x, 1] == genfunc.abs(X)).shape == (2,)
    three, two = ({}, 3.0), ({}, 2.0)
    assert [args for _, args, _ in stored(m)] == [
        [one[0], one[0], three],
        *([one[0], v, three] for v in one[1:]),
        [one[0], one[0], ({}, 1.0), two, one[0]],
        [one[0], one[0], two],
        [one[0], ({}, 1.0), one[0]],
        [one[1], one[0], two],
        [one[2], ({}, 1.0), one[0]],
        [one[0], one[1]],
        [({}, 1.0), one[2]],
    ]


def test_indicators_and_functions_of_points_go_over_arrays(mode, m):
    b, X = m.addMVar(3, vtype="B"), m.addMVar((2, 3))
    handle = m.addConstr(genfunc.indicator(b, [[0], [1]], X + 1 >= np.arange(3)), name="on")
    m.update()
    assert (handle.shape, handle.GenName.tolist()[1]) == ((2, 3), ["on[1,0]", "on[1,1]", "on[1,2]"])
    pieces = m.addConstr(X == genfunc.pwl(b, [0, 1], [0, 5]))
    rows = stored(m)
    assert rows[:6] == [
        (TRV.GEN_INDICATOR, [({j: 1.0}, 0.0), ({3 + 3 * i + j: 1.0}, 0.0)], [i, j - 1.0, INF])
        for i in range(2)
        for j in range(3)
    ]
    assert rows[6:] == [
        (TRV.GEN_PWL, [({3 + 3 * i + j: 1.0}, 0.0), ({j: 1.0}, 0.0)], [0, 1, 0, 5]) for i in range(2) for j in range(3)
    ]
    assert pieces.shape == (2, 3)
    scalar = m.addVar(vtype="B")
    assert m.addConstr(genfunc.indicator(scalar, np.array(1), scalar <= 2)).shape == ()
    assert m.addConstr(genfunc.indicator(scalar, 1, X.sum() <= 2)).shape == ()
    assert m.addConstr(genfunc.indicator(scalar, 1, m.addMVar((0, 2)) <= 2)).shape == (0, 2)


def test_empty_arrays_give_empty_handles_and_no_elements_are_refused(m):
    assert m.addConstr(m.addMVar((0, 3)) == genfunc.abs(m.addMVar(3))).shape == (0, 3)
    assert m.addConstr(m.addMVar(0) == genfunc.max(m.addMVar((0, 3)), axis=1)).shape == (0,)
    for make in (lambda: genfunc.max([]), lambda: genfunc.any(m.addMVar((0, 3))), lambda: genfunc.max([[]])):
        with pytest.raises(ValueError, match="of no elements"):
            make()
    with pytest.raises(ValueError, match=r"an array of shape \(0, 3\), axis 0"):
        genfunc.min(m.addMVar((0, 3)), axis=0)
    with pytest.raises(TypeError, match="takes one argument at least"):
        genfunc.min()
    assert stored(m) == []


def test_arguments_are_taken_as_they_are_when_the_function_is_called(mode, m):
    x, X = m.addVar(), m.addMVar(2)
    linear, matrix, numbers = LinExpr(x), 2 * X, np.ones(2)
    objects = np.array([linear, 1.0], dtype=object)
    g = genfunc.max(linear, matrix, numbers, objects)
    h = genfunc.indicator(x, numbers, TempConstr(linear, "<", matrix))
    linear += 5
    matrix += 5
    numbers[:] = 9
    objects[:] = 9
    m.addConstr(x == g)
    m.addConstr(h)
    one = ({0: 1.0}, 0.0)
    assert stored(m) == [
        (TRV.GEN_MAX, [one, one, ({1: 2.0}, 0.0), ({}, 1.0), one], []),
        (TRV.GEN_MAX, [one, one, ({2: 2.0}, 0.0), ({}, 1.0), ({}, 1.0)], []),
        (TRV.GEN_INDICATOR, [one, ({0: 1.0, 1: -2.0}, 0.0)], [1, -INF, 0]),
        (TRV.GEN_INDICATOR, [one, ({0: 1.0, 2: -2.0}, 0.0)], [1, -INF, 0]),
    ]


def test_bulk_makes_no_objects(m):
    X, y, b = m.addMVar((1000, 50)), m.addMVar(1000), m.addMVar(1000, vtype="B")
    A = np.ones((1000, 1000))
    before = _counts()
    m.addConstr(y == genfunc.max(X, axis=1))
    m.addConstr(X == genfunc.abs(X - 1))
    m.addConstr(genfunc.indicator(b, 1, A @ y <= 3))
    m.addSOS(2, X)
    assert m.NumGenConstrs == 1000 + 50_000 + 1000 + 1
    assert {kind: n for kind, n in _counts().items() if n > before[kind] + 1} == {}


# ---- life


def test_removal_names_and_pending_ones(m):
    x, X = m.addVar(name="x"), m.addMVar(3)
    a = m.addConstr(x == genfunc.max(X), name="a")
    rows = m.addConstr(X == genfunc.abs(X), name="rows")
    assert repr(rows) == "<MGenConstr (3,) *awaiting model update*>"
    with pytest.raises(TarvoError, match="has not yet been added"):
        _ = rows.GenName
    with pytest.raises(TarvoError, match="stands in the general constraint a; remove that first"):
        m.remove(x)
    assert m.NumGenConstrs == 4
    rows.GenName = np.array(["u", "v", "w"])
    a.GenName = "new"
    with pytest.raises(AttributeError):
        a.GenType = 1
    m.remove([rows[1], a])
    m.update()
    assert [c.GenName for c in m.getGenConstrs()] == ["u", "w"]
    assert repr(rows) == "<MGenConstr (3,) (some removed)>"
    m.remove(rows)
    m.remove(X)
    m.remove(x)
    m.update()
    assert (m.NumGenConstrs, m.NumVars) == (0, 0)
    with pytest.raises(TarvoError, match="removed from the model"):
        m.addConstr(x == genfunc.abs(x))


# ---- refusals


def test_arguments_that_are_not_linear_are_refused_when_the_function_is_called(m):
    x, X = m.addVar(), m.addMVar(2)
    quadratic = (x * x, X * X, nlfunc.exp(x), x / (1 + x), np.array([x, x * x]), [x, x * x])
    for expr in quadratic:
        for call in (genfunc.max, genfunc.abs, lambda e: genfunc.pwl(e, [0, 1], [0, 1])):
            with pytest.raises(TypeError, match=r"takes variables, linear expressions and numbers, not '.*add a varia"):
                call(expr)
        with pytest.raises(TypeError, match=r"genfunc.indicator\(\) takes variables"):
            genfunc.indicator(x, 1, TempConstr(expr, "<", 1))
    for foreign in ("x", None, object(), {x}, x <= 1, 1j):
        with pytest.raises(TypeError, match=r"genfunc.max\(\) takes variables, linear expressions and numbers"):
            genfunc.max(x, foreign)
    with pytest.raises(TypeError, match=r"add a variable v with addConstr\(v == genfunc.min"):
        genfunc.max(x, genfunc.min(x, 1))
    with pytest.raises(TypeError, match="takes lists of scalars, not of 'MVar'"):
        genfunc.max([X, X], axis=0)
    with pytest.raises(TypeError, match="takes an axis beside one array"):
        genfunc.max(X, X, axis=0)
    with pytest.raises(TypeError, match="takes an axis beside one array"):
        genfunc.max(x, axis=0)
    with pytest.raises(ValueError, match="axis 2 is out of bounds"):
        genfunc.max(X, axis=2)
    with pytest.raises(ValueError, match="as many xpts as ypts, not 2 and 3"):
        genfunc.pwl(x, [0, 1], [0, 1, 2])
    with pytest.raises(ValueError, match=r"one sequence of numbers, not of shape \(2, 2\)"):
        genfunc.pwl(x, np.ones((2, 2)), np.ones(4))
    with pytest.raises(ValueError, match="nested lists of one length"):
        genfunc.max([[x, 1], [2]])
    for wrong in ("1", 1j, None, x, X, ["0", "1"], [0, 1j], np.array([0, 1j]), [x, 1], iter([0, 1])):
        for name, call in (
            ("xpts", lambda e: genfunc.pwl(x, e, [0, 1])),
            ("ypts", lambda e: genfunc.pwl(x, [0, 1], e)),
            ("value", lambda e: genfunc.indicator(x, e, x <= 1)),
        ):
            with pytest.raises(TypeError, match=rf"takes numbers as {name}, not '"):
                call(wrong)
    with pytest.raises(ValueError, match="takes value as a sequence of numbers, not of unlike sequences"):
        genfunc.indicator(x, [[0, 1], [1]], x <= 1)
    with pytest.raises(TypeError, match="takes a comparison as its third argument, not 'bool': it was evaluated"):
        genfunc.indicator(x, 1, x is X)


def test_the_model_refuses_what_is_no_general_constraint(m):
    x, y, X = m.addVar(), m.addVar(), m.addMVar(2)
    g = genfunc.max(x, 3.0)
    cases = [
        (X <= g, TypeError, r"takes genfunc.max\(\) as one side of an equation"),
        (TempConstr(g, "=", genfunc.min(x, y)), TypeError, "one side of an equation"),
        (g, TypeError, "one side of an equation"),
        (X == genfunc.indicator(x, 1, y <= 1), TypeError, "is a constraint already"),
        (y * y == g, TypeError, r"the other side of an equation with genfunc.max\(\) must be a variable"),
        (g == "y", TypeError, "takes expressions, numbers and arrays, not 'str'"),
        (3.0 == genfunc.max(1, 2), TypeError, "not of numbers"),
        (genfunc.indicator(x, 1, TempConstr(1, "<", 2)), TypeError, "not of two numbers"),
        (X == genfunc.abs(m.addMVar(3)), ValueError, r"shapes \(2,\) and \(3,\) do not broadcast"),
        (m.addMVar((1 << 17, 1)) == genfunc.abs(m.addMVar(1 << 17)), ValueError, r"\(131072, 1\) and \(131072,\)"),
        (genfunc.indicator(X, [0, 1, 1], x <= 1), ValueError, "do not broadcast"),
        (y == genfunc.max(x, float("nan")), TarvoError, "the constant of argument 2 is nan"),
        (y == genfunc.max(x, INF), TarvoError, r"general constraint G0 \(MAX\)"),
        (y == genfunc.all(x, 0.5), TarvoError, r"G0 \(AND\): argument 2 is neither a variable nor the number 0 or 1"),
        (y == genfunc.any(X, 1 - x), TarvoError, r"argument 2 is neither"),
        (2 * y == genfunc.any(x, y), TarvoError, "argument 0 is neither"),
        (y == genfunc.pwl(x, [0, 2, 1], [0, 1, 2]), TarvoError, "decrease"),
        (y == genfunc.pwl(x, [0, 0, 1], [0, 1, 2]), TarvoError, "jump"),
        (y == genfunc.pwl(x, [0], [0]), TarvoError, "two points"),
        (genfunc.indicator(1 - x, 1, y <= 1), TarvoError, "argument 0 is not one variable"),
        (genfunc.indicator(x, 2, y <= 1), TarvoError, "not 0 or 1"),
        (genfunc.indicator(x, 1, y <= -INF), TarvoError, "its upper side is -inf"),
        (GenExpr("pwl", (x,)), TypeError, "one side of an equation"),
        (y == GenExpr("pwl", (x,)), TypeError, "has 3 arguments, not 1"),
        (y == GenExpr("pwl", (x, [0, 1, 2], [1])), ValueError, "as many xpts as ypts, not 3 and 1"),
        (y == GenExpr("abs", ()), TypeError, "has 1 arguments, not 0"),
        (y == GenExpr("max", (X,), (3,)), ValueError, r"axis 3 is none of an array of shape \(2,\)"),
        (y == GenExpr("max", ()), TarvoError, "at least 2 arguments"),
        (y == GenExpr("max", ("text",)), TypeError, "'str'"),
        (GenExpr("indicator", (x, 1, 5)), TypeError, "takes a comparison"),
        (GenExpr("indicator", (x, "a", y <= 1)), (TypeError, ValueError), "a number|float"),
    ]
    for constraint, error, text in cases:
        with pytest.raises(error, match=text):
            m.addConstr(constraint)
    for call in (m.setObjective, lambda e: m.addRange(e, 0, 1)):
        with pytest.raises(TypeError, match="takes no general function: add a variable v"):
            call(g)
    assert stored(m) == []


def test_two_models_never_meet(m):
    with tarvopy.Model() as other:
        x, z, Z = m.addVar(), other.addVar(), other.addMVar(2)
        for constraint in (
            x == genfunc.max(z, 1),
            x == genfunc.max(x, Z),
            z == genfunc.max(x, 1),
            z == genfunc.abs(Z),
            x == genfunc.max([x, z]),
            genfunc.indicator(z, 1, x <= 1),
            genfunc.indicator(x, 1, z <= 1),
        ):
            with pytest.raises(TarvoError) as caught:
                m.addConstr(constraint)
            assert caught.value.code == TRV.Error.NOT_IN_MODEL
        for members in ([x, z], Z):
            with pytest.raises(TarvoError) as caught:
                m.addSOS(1, members)
            assert caught.value.code == TRV.Error.NOT_IN_MODEL
    assert stored(m) == []


def test_sets_take_variables_of_any_shape_and_refuse_the_rest(mode, m):
    X, y = m.addMVar((2, 2)), m.addVar(name="y")
    m.addSOS(kind=2, vars=X.T, weights=[[4, 3], [2, 1]])
    m.addSOS(1, np.array([y, X[0, 0].item()], dtype=object))
    assert stored(m) == [
        (TRV.GEN_SOS2, [({i: 1.0}, 0.0) for i in (0, 2, 1, 3)], [4, 3, 2, 1]),
        (TRV.GEN_SOS1, [({4: 1.0}, 0.0), ({0: 1.0}, 0.0)], [1, 2]),
    ]
    own = []
    own.append(own)
    cases = [
        ((3, X), ValueError, "is 1 or 2, not 3"),
        (("1", X), ValueError, "is 1 or 2, not '1'"),
        ((1, []), ValueError, "one variable at least"),
        ((1, X, [1, 2]), ValueError, "2 weights for 4 variables"),
        ((1, [y, y]), TarvoError, "the variable y stands in it more than once"),
        ((1, X, np.ones(4)), TarvoError, "two of its weights are 1"),
        ((1, X, [1, 2, 3, INF]), TarvoError, "inf"),
        ((1, [y + 1]), TypeError, "takes variables, their arrays and lists of them, not 'tarvopy.LinExpr'"),
        ((1, X + 1), TypeError, "takes variables"),
        ((1, "xy"), TypeError, "takes variables"),
        ((1, own), RecursionError, "does one hold itself"),
        ((1, X, None, ["a", "b"]), ValueError, "names of shape"),
    ]
    for args, error, text in cases:
        with pytest.raises(error, match=text):
            m.addSOS(*args)
    assert len(stored(m)) == 2
