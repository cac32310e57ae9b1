"""MQuadExpr: sums, values of a solution, assignment, clearing and tidying; quadratic rows as the model reads them."""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point, variables
from quadratic_values import everything, quad_terms, value
from tarvopy import _debug
from tarvopy._core import QuadExpr
from tarvopy._matrixapi import MLinExpr, MQuadExpr

MATRIX = np.array([[2.0, 0.0, -1.0], [0.5, 1.0, 0.0], [0.0, 3.0, -2.0]])


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def y(model):
    return variables(model, (2, 3), "y")


@pytest.fixture
def square(y):
    """y * y + (2 y + 1), with a linear half."""
    q = y * y
    q._ndle = 2.0 * y + 1.0
    return q


def numbers(point, y):
    return point.of(y) ** 2 + 2.0 * point.of(y) + 1.0


def function(x):
    return MQuadExpr._from_quadfun(x, MATRIX, x, np.ones(3), x, 2.0)


# ---- sums ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("axis", [None, 0, 1, -1, (0, 1), ()])
def test_sums_are_numpys(mode, model, y, square, axis):
    point = Point(model)
    total = square.sum(axis)
    expected = numbers(point, y).sum(axis=axis)
    assert not total._is_compact()
    assert total.shape == expected.shape
    np.testing.assert_allclose(value(point, total), expected)


def test_sums_append_in_the_order_of_the_elements(mode, model, y):
    q = y * y
    assert quad_terms(q.sum()) == [[(1.0, i, i) for i in range(6)]]
    assert quad_terms(q.sum(axis=0)) == [[(1.0, j, j), (1.0, j + 3, j + 3)] for j in range(3)]


def test_sums_over_nothing_are_zero_and_a_compact_receiver_becomes_full(mode, model):
    empty, x = variables(model, (2, 0)), variables(model, 3)
    assert everything((empty * empty).sum(axis=1)) == ((2,), [[], []], [(0.0, []), (0.0, [])])
    q = function(x)
    assert len(quad_terms(q.sum())[0]) == 6
    assert not q._is_compact()


def test_linear_terms_inside_the_objects_are_summed_too(mode, model, y):
    q = y * y
    q._qearr[1, 2].add(y[0, 0].item(), 5.0)
    point = Point(model)
    np.testing.assert_array_equal(value(point, q.sum(axis=0)), value(point, q).sum(axis=0))


@pytest.mark.parametrize("axis", [2, -3, (0, 0), "a", 1.5, [[0]]])
def test_an_axis_that_is_none_is_named(square, axis):
    with pytest.raises(tarvopy.TarvoError, match="Invalid axis specifications: ") as caught:
        square.sum(axis)
    assert str(caught.value) == f"Invalid axis specifications: {axis}"


# ---- values --------------------------------------------------------------------------------------------------------


def test_values_are_those_of_the_solution(mode, model, y, square):
    x = variables(model, 3)
    point = Point(model)
    np.testing.assert_allclose(square.getValue(), numbers(point, y))
    n = point.of(x)
    for q in (function(x), function(x)._to_full()):
        got = q.getValue()
        assert (type(got), got.shape) == (np.ndarray, ())
        assert got == pytest.approx(n @ MATRIX @ n + n.sum() + 2.0)
    empty = MQuadExpr.zeros((0, 2)).getValue()
    assert (empty.shape, empty.dtype) == ((0, 2), np.float64)


def test_the_whole_value_counts_linear_terms_wherever_they_stand(mode, model, y, square):
    square._qearr[0, 1].add(y[1, 1].item() + 4.0, 3.0)
    point = Point(model)
    expected = numbers(point, y)
    expected[0, 1] += 3.0 * (point.of(y)[1, 1] + 4.0)
    np.testing.assert_allclose(square.getValue(), expected)
    np.testing.assert_allclose(value(point, square), expected)


def test_parts_and_elements_over_two_models(model):
    x, other_model = variables(model, 3), tarvopy.Model()
    other = variables(other_model, 3)
    here, there = Point(model), Point(other_model)
    product = here.of(x) * there.of(other)
    np.testing.assert_allclose((x * other).getValue(), product)
    eye = sp.coo_matrix(np.eye(3))
    q = MQuadExpr(quadparts=[(x, eye, other), (other, eye, x)], ndle=MLinExpr.zeros(()))
    assert q.getValue() == pytest.approx(2.0 * product.sum())
    np.testing.assert_allclose((x * other).sum().getValue(), product.sum())


def test_without_a_solution_there_is_no_value(mode, model, square):
    for q in (square, function(variables(model, 3))):
        with pytest.raises(AttributeError, match="solution"):
            q.getValue()


# ---- assignment ----------------------------------------------------------------------------------------------------

KEYS = [0, (1, 2), slice(None), (slice(None), 1), ([0, 1], [2, 0]), [1, 0], ..., np.array([[True, False, True]] * 2)]


def values_to_assign(model, y):
    x = variables(model, 3)
    return [
        (lambda n: 5.0, 5.0),
        (lambda n: n(x[0]), x[0].item()),
        (lambda n: 2.0 * n(x[1]) + 1.0, 2.0 * x[1].item() + 1.0),
        (lambda n: n(x[0]) * n(x[1]) + n(x[2]) - 1, x[0].item() * x[1].item() + x[2].item() - 1),
        (lambda n: n(x[2]), x[2]),
        (lambda n: n(x[0]) + 2.0, x[0] + 2.0),
        (lambda n: n(x[0]) * n(x[1]), x[0] * x[1]),
        (lambda n: n(x[2]) ** 2, (x * x)[2]),
    ]


@pytest.mark.parametrize("key", KEYS, ids=str)
@pytest.mark.parametrize("which", range(8))
@pytest.mark.parametrize("look", [False, True])
def test_assignment_is_numpys(mode, model, y, square, key, which, look):
    expected, given = values_to_assign(model, y)[which]
    if look:
        square._qearr
    point = Point(model)
    array = numbers(point, y)
    array[key] = expected(point.of)
    square[key] = given
    np.testing.assert_allclose(value(point, square), array)
    np.testing.assert_allclose(square.getValue(), array)


def test_assignment_reaches_who_shares_the_elements_and_keeps_no_tie_to_its_source(mode, model, y, square):
    view, source = square[1], y[0] * y[1]
    element = square._qearr[1, 0]
    square[1] = source
    assert square._qearr[1, 0] is element
    assert quad_terms(view) == quad_terms(source)
    source.clear()
    assert quad_terms(view) == [[(1.0, j, j + 3)] for j in range(3)]


@pytest.mark.parametrize("shift", [(slice(1, None), slice(None, -1)), (slice(None, -1), slice(1, None))])
def test_an_overlapping_source_is_read_first(mode, model, shift):
    x = variables(model, 4)
    q, (to, start) = x * x, shift
    point = Point(model)
    array = point.of(x) ** 2
    array[to] = array[start].copy()
    q[to] = q[start]
    np.testing.assert_array_equal(value(point, q), array)
    q[:] = q[::-1]
    np.testing.assert_array_equal(value(point, q), array[::-1])


def test_of_repeated_indices_the_last_wins(mode, model, y):
    q = y[0] * y[0]
    q[[0, 0]] = (y[1] * y[1])[:2]
    assert quad_terms(q)[0] == [(1.0, 4, 4)]


def test_a_linear_part_that_somebody_holds_follows_its_expression(mode, model, y):
    q = y * y
    held = q._qearr[0, 0].getLinExpr()
    q._qearr[0, 0].add(y[0, 1].item(), 3.0)
    q[0, 0] = 5.0
    assert held.size() == 0
    assert q._qearr[0, 0].getLinExpr() is held


@pytest.mark.parametrize("bad", ["text", object(), [1, "a"], QuadExpr, 1j])
def test_a_value_that_is_no_expression_is_named(square, bad):
    before = everything(square)
    with pytest.raises((ValueError, TypeError)) as caught:
        square[0] = bad
    if isinstance(bad, str):
        assert str(caught.value) == "Cannot assign <class 'str'> to MQuadExpr"
    assert everything(square) == before


@pytest.mark.parametrize("bad", [np.nan, np.inf, np.ones(4), np.array([1.0, np.nan, 2.0])])
def test_what_cannot_be_assigned_changes_nothing(mode, model, y, square, bad):
    before = everything(square)
    with pytest.raises((tarvopy.TarvoError, ValueError)):
        square[0] = bad
    for wrong in (y * y, (y * y)[:, :2]):
        with pytest.raises(ValueError, match="broadcast"):
            square[0] = wrong
    with pytest.raises(ValueError, match="sequence"):
        square[0, 0] = (y * y)[0]
    with pytest.raises(IndexError):
        square[7] = 1.0
    assert everything(square) == before


def test_elements_that_are_no_expressions_are_not_written_to(y, square):
    square._qearr[0, 0] = None
    for value_given in (5.0, y[0] * y[0]):
        with pytest.raises(TypeError, match="no QuadExpr but 'NoneType'"):
            square[0] = value_given
    assert square._qearr[0, 1].size() == 1


# ---- clearing and tidying ------------------------------------------------------------------------------------------


@pytest.mark.parametrize("look", [False, True])
def test_clearing_keeps_shape_and_state(mode, model, y, square, look):
    q = function(variables(model, 3))
    if look:
        array, parts = square._qearr, q._quadparts
    for expr, compact in ((square, False), (q, True)):
        expr.clear()
        assert expr._is_compact() == compact
        assert not any(quad_terms(expr))
        assert all(item == (0.0, []) for item in everything(expr)[2])
    assert square.shape == y.shape
    if look:
        assert square._qearr is array
        assert q._quadparts is not parts


@pytest.mark.parametrize("look", [False, True])
def test_normalizing_merges_pairs_in_either_order_and_drops_zeros(mode, model, look):
    x = variables(model, 3)
    a, b, c = x._vararr
    q = MQuadExpr.zeros((2,))
    q[0] = 2 * a * b + b * a + c * c - c * c + a * a
    q[1] = b * c + 0.5 * c * b
    if not look:
        q = q.copy()
    q._ndle = MLinExpr._zeros_full(2) + x[0] + x[0]
    q._normalize()
    q._flatten()
    assert everything(q) == ((2,), [[(3.0, 0, 1), (1.0, 0, 0)], [(1.5, 1, 2)]], [(0.0, [(2.0, 0)])] * 2)


# ---- rows for the model --------------------------------------------------------------------------------------------


def stored_rows(model, constr):
    """Of each quadratic row: linear terms, quadratic terms and right-hand side as the model keeps them."""
    model.update()
    rows = []
    for row in np.asarray(constr._qconstrarr, dtype=object).flat:
        expr = model.getRow(row)
        linear = sorted((v.index, c) for c, v in expr.getLinExpr().terms())
        rows.append((linear, sorted((a.index, b.index, c) for c, a, b in expr.terms()), row.QRHS))
    return rows


def added(model, lhs, rhs):
    return stored_rows(model, model.addConstr(lhs <= rhs))


@pytest.mark.parametrize("look", [False, True])
def test_rows_have_the_terms_of_both_halves_and_both_sides(mode, model, y, square, look):
    if look:
        square._qearr[0, 0].add(y[0, 1].item() - 2.0, 1.0)
    else:
        square._ndle[0, 0] += y[0, 1].item() - 2.0
    rows = added(model, y[0], square)
    assert len(rows) == 6
    # y0 - y0^2 - 2 y0 - y1 + 1 <= 0
    assert rows[0] == ([(0, -1.0), (1, -1.0)], [(0, 0, -1.0)], -1.0)
    assert rows[4] == ([(1, 1.0), (4, -2.0)], [(4, 4, -1.0)], 1.0)


def test_any_pair_of_sides_with_a_quadratic_one_makes_rows(mode, model):
    x = variables(model, 2)
    a, b = x._vararr
    product, q = a * b, x * x
    elements = np.array([a * b, a + 1.0], dtype=object)
    linear = 2.0 * x + 1.0
    expected = [
        (x, product, [([(0, 1.0)], [(0, 1, -1.0)], 0.0), ([(1, 1.0)], [(0, 1, -1.0)], 0.0)]),
        (x, q, [([(0, 1.0)], [(0, 0, -1.0)], 0.0), ([(1, 1.0)], [(1, 1, -1.0)], 0.0)]),
        (linear, q, [([(0, 2.0)], [(0, 0, -1.0)], -1.0), ([(1, 2.0)], [(1, 1, -1.0)], -1.0)]),
        (linear[0], q, [([(0, 2.0)], [(0, 0, -1.0)], -1.0), ([(0, 2.0)], [(1, 1, -1.0)], -1.0)]),
        (x, elements, [([(0, 1.0)], [(0, 1, -1.0)], 0.0), ([(0, -1.0), (1, 1.0)], [], 1.0)]),
    ]
    for lhs, rhs, rows in expected:
        assert added(model, lhs, rhs) == rows
    constr = model.addConstr(a * b <= a)
    assert stored_rows(model, constr_array(constr)) == [([(0, -1.0)], [(0, 1, 1.0)], 0.0)]


def test_rows_make_no_object_and_cost_no_more_than_their_terms(model):
    r, s = variables(model, (40, 50, 2)), variables(model, (40, 50))
    before = _debug.counts()
    constr = model.addConstr(r[..., 0] * r[..., 0] + r[..., 1] * r[..., 1] <= s * s)
    model.setObjective((s * s).sum())
    model.update()
    assert _debug.counts() == before
    assert (constr.shape, model.NumQConstrs) == ((40, 50), 2000)


class constr_array:
    """A scalar handle where rows of arrays are read."""

    def __init__(self, constr):
        self._qconstrarr = constr


def test_a_compact_side_is_read_from_its_parts(mode, model):
    x, one = variables(model, 3), variables(model, 1)
    q = function(x)
    q._add_quadpart(x, np.eye(3), x)
    ((linear, quadratic, rhs),) = added(model, one, q)
    assert linear == [(0, -1.0), (1, -1.0), (2, -1.0), (3, 1.0)]
    assert quadratic == [(0, 0, -3.0), (0, 1, -0.5), (0, 2, 1.0), (1, 1, -2.0), (1, 2, -3.0), (2, 2, 1.0)]
    assert rhs == 2.0
    assert q._is_compact()


def test_sides_that_cannot_meet_are_refused_and_nothing_is_added(mode, model, y, square):
    other = variables(tarvopy.Model(), (2, 3))
    cases = [
        (lambda: y <= other * other, tarvopy.TarvoError, "two models"),
        (lambda: y[:, :2] <= square, ValueError, r"\(2, ?2\).*\(2, ?3\)"),
    ]
    for make, error, text in cases:
        with pytest.raises(error, match=text):
            model.addConstr(make())
    for bad in (np.full((2, 3), np.nan), np.array([np.nan])):
        with pytest.raises(tarvopy.TarvoError, match=r"right-hand side of the quadratic row Q0 .* is nan"):
            model.addConstr(square <= bad)
    square._qearr[0, 0] = None
    with pytest.raises(TypeError):
        model.addConstr(y <= square)
    model.update()
    assert model.NumQConstrs == 0
