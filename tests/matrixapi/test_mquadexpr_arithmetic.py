"""The operators of quadratic expressions: values against NumPy, states, failures that change nothing."""

import operator

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point, terms, variables
from quadratic_values import entries, everything, quad_terms, value
from tarvopy import TRV
from tarvopy._matrixapi import MLinExpr, MQuadExpr, MVar

SHAPES = [(), (1,), (1, 1), (3,), (2, 3)]
CONSTANTS = ["array", "integers", "sparse", "scalar", "int"]
EXPRESSIONS = ["MVar", "MLinExpr", "MQuadExpr", "Var", "LinExpr", "QuadExpr"]


@pytest.fixture
def model():
    return tarvopy.Model()


def quadratic(model, shape):
    """Quadratic, linear and constant terms; compact where one element allows it."""
    x, y = variables(model, shape), variables(model, shape)
    q = x * y + 2.0 * x
    q += 3.0
    return q


def looked(q):
    """The same, with its objects or parts made."""
    q._quadparts if q._is_compact() else q._qearr
    q._ndle._matmulparts if q._ndle._is_compact() else q._ndle._learr
    return q


def operand(model, kind, shape):
    numbers = np.arange(np.prod(shape, dtype=int)).reshape(shape) - 1.0
    x, v = variables(model, shape), model.addVar()
    model.update()
    return {
        "MVar": lambda: x,
        "MLinExpr": lambda: 2.0 * x - 1.0,
        "MQuadExpr": lambda: x * x + 1.0,
        "array": lambda: numbers,
        "integers": lambda: numbers.astype(np.int32),
        "sparse": lambda: sp.csr_matrix(np.atleast_2d(numbers)),
        "scalar": lambda: np.float64(2.5),
        "int": lambda: -3,
        "Var": lambda: v,
        "LinExpr": lambda: 2.0 * v + 1.0,
        "QuadExpr": lambda: v * v + 2.0 * v + 1.0,
    }[kind]()


def numbers_of(point, thing):
    if isinstance(thing, MQuadExpr):
        return value(point, thing)
    if isinstance(thing, MLinExpr):
        return point.value(thing)
    if isinstance(thing, MVar):
        return point.of(thing)
    if sp.issparse(thing):
        return thing.toarray()
    if isinstance(thing, np.ndarray | float | int):
        return thing
    return value(point, MQuadExpr.zeros(()) + thing).item()


# ---- values --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("op", [operator.iadd, operator.isub])
@pytest.mark.parametrize("kind", EXPRESSIONS + CONSTANTS)
@pytest.mark.parametrize("shape", SHAPES)
def test_sums_in_place_keep_the_object(mode, model, op, kind, shape):
    if kind == "sparse" and len(shape) < 2:
        return
    for see in (False, True):
        q, other = quadratic(model, shape), operand(model, kind, shape)
        point = Point(model)
        expected, number = np.array(value(point, q)), numbers_of(point, other)
        expected = op(expected, number)
        q = looked(q) if see else q
        state, held = q._is_compact(), q
        q = op(q, other)
        assert q is held
        np.testing.assert_allclose(value(point, q), expected)
        np.testing.assert_array_equal(numbers_of(point, other), number)
        full_operand = kind == "QuadExpr" or (kind == "MQuadExpr" and not other._is_compact())
        assert q._is_compact() == (state and not full_operand)


@pytest.mark.parametrize("op", [operator.mul, operator.truediv, operator.imul, operator.itruediv])
@pytest.mark.parametrize("kind", CONSTANTS)
@pytest.mark.parametrize("shape", SHAPES)
def test_products_with_numbers(mode, model, op, kind, shape):
    in_place = op in (operator.imul, operator.itruediv)
    if kind == "sparse" and in_place and len(shape) < 2:
        return
    for see in (False, True):
        q, other = quadratic(model, shape), operand(model, kind, shape)
        point = Point(model)
        before, number = value(point, q), np.asarray(numbers_of(point, other), dtype=float)
        if op in (operator.truediv, operator.itruediv) and kind not in ("scalar", "int"):
            continue
        q = looked(q) if see else q
        held, compact = q, q._is_compact()
        result = op(q, other)
        assert (result is held) == in_place
        assert result._is_compact() == (compact and np.size(number) <= 1)
        plain = {operator.imul: operator.mul, operator.itruediv: operator.truediv}.get(op, op)
        np.testing.assert_allclose(value(point, result), plain(before, number))
        if not in_place:
            np.testing.assert_array_equal(value(point, q), before)
        if op is operator.mul:
            np.testing.assert_allclose(value(point, other * q), plain(before, number))


MATRICES = [((3,), (3,)), ((3,), (3, 2)), ((2, 3), (3,)), ((2, 3), (3, 2)), ((1,), (1,)), ((1, 1), (1, 1))]
MATRICES += [((1, 1), (1, 3)), ((2, 3), (2, 3, 2)), ((0,), (0,)), ((2, 0), (0, 3)), ((1, 0), (0, 1)), ((0, 3), (3, 2))]


@pytest.mark.filterwarnings("ignore:Chained:UserWarning")
@pytest.mark.parametrize(("shape", "matrix"), MATRICES)
@pytest.mark.parametrize("sparse", [False, True])
def test_matrix_products_with_numbers(mode, model, shape, matrix, sparse):
    numbers = np.arange(np.prod(matrix, dtype=int)).reshape(matrix) % 3 - 1.0
    if sparse and numbers.ndim != 2:
        return
    for see in (False, True):
        q = quadratic(model, shape)
        point = Point(model)
        before = value(point, q)
        q = looked(q) if see else q
        given = sp.csc_matrix(numbers) if sparse else numbers
        right = q @ given
        assert right.shape == (before @ numbers).shape
        np.testing.assert_allclose(value(point, right), before @ numbers)
        if len(shape) == 1:
            turned = sp.csr_matrix(numbers.T) if sparse else numbers.T
            np.testing.assert_allclose(value(point, turned @ q), numbers.T @ before)
        elif numbers.ndim == 2 and numbers.shape[1] == shape[0]:
            np.testing.assert_allclose(value(point, given @ q), numbers @ before)


@pytest.mark.filterwarnings("ignore:Chained:UserWarning")
def test_matrix_products_merge_equal_pairs(mode, model):
    x, y = variables(model, (2,)), variables(model, (2,))
    q = x.reshape(2, 1) * y.reshape(1, 2) + (y.reshape(1, 2) * x.reshape(2, 1))[::-1]
    summed = np.ones(2) @ q
    assert quad_terms(summed) == [[(2.0, 0, 2), (2.0, 2, 1)], [(2.0, 0, 3), (2.0, 3, 1)]]
    gone = np.array([1.0, -1.0]) @ (x * y + 0.0 * x * x - np.array([1.0, 1.0]))
    assert quad_terms(gone) == [[(1.0, 0, 2), (-1.0, 1, 3)]]


# ---- shapes --------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("left", "right"), [((3,), (1,)), ((1,), (3,)), ((2, 1), (3,)), ((), (2, 3)), ((1,), (0,)), ((1, 1), (1,))]
)
def test_a_smaller_operand_is_spread(mode, model, left, right):
    q, e, r = quadratic(model, left), 2.0 * variables(model, right) + 1.0, quadratic(model, right)
    point = Point(model)
    at_q, at_e, at_r = value(point, q), point.value(e), value(point, r)
    for result, expected in ((q + e, at_q + at_e), (e + q, at_e + at_q), (q - e, at_q - at_e), (e - q, at_e - at_q)):
        np.testing.assert_allclose(value(point, result), expected)
    np.testing.assert_allclose(value(point, q + r), at_q + at_r)
    np.testing.assert_allclose(value(point, r - q), at_r - at_q)
    np.testing.assert_allclose(value(point, q * np.ones(right)), at_q * np.ones(right))
    assert (q + e).shape == at_e.shape or (q + e).shape == (at_q + at_e).shape


def test_spread_elements_are_distinct(mode, model):
    x = variables(model, (3,))
    q = x[:1] * x[:1]
    spread = q + x
    assert not spread._is_compact()
    assert quad_terms(spread) == [[(1.0, 0, 0)]] * 3
    spread[0] = 0.0
    assert quad_terms(spread) == [[], [(1.0, 0, 0)], [(1.0, 0, 0)]]
    assert q._is_compact()


@pytest.mark.parametrize("shape", [(1,), (3,)])
def test_in_place_operators_never_enlarge(mode, model, shape):
    q = quadratic(model, shape)
    q = looked(q) if mode == "eager" else q
    before = everything(q)
    large = (2, 3)
    for other in (np.ones(large), quadratic(model, large), variables(model, large), sp.csr_matrix(np.ones(large))):
        with pytest.raises(ValueError, match=r"\(2, ?3\)"):
            q += other
        with pytest.raises(ValueError, match=r"\(2, ?3\)"):
            q -= other
    with pytest.raises(ValueError, match=r"\(2, ?3\)"):
        q *= np.ones(large)
    assert everything(q) == before


# ---- states and parts ----------------------------------------------------------------------------------------------


def test_compact_sums_merge_parts_and_keep_the_operands(model):
    x, y = variables(model, (2,)), variables(model, (3,))
    q, r = x @ x, y @ np.diag([1.0, 2.0, 3.0]) @ y
    total = q - r
    assert total._is_compact()
    assert len(total._quadparts) == len(q._quadparts) == len(r._quadparts) == 1
    assert entries(total) == {(0, 0): 1.0, (1, 1): 1.0, (2, 2): -1.0, (3, 3): -2.0, (4, 4): -3.0}
    assert total._quadparts[0][1] is not q._quadparts[0][1]
    alone = q + MQuadExpr.zeros(())
    assert alone._quadparts[0][1] is not q._quadparts[0][1]


def test_one_part_more_for_each_sum_in_place(mode, model):
    x = variables(model, (3,))
    q, r = x[:2] @ x[:2], x @ x
    q += r
    q -= r
    assert len(q._quadparts) == 3
    held = q._quadparts
    q += r
    assert q._quadparts is held
    assert len(held) == 4
    q *= 2.0
    assert len(q._quadparts) == 1
    assert entries(q) == {(0, 0): 4.0, (1, 1): 4.0, (2, 2): 2.0}
    q *= 0
    assert len(q._quadparts) == 1
    assert set(entries(q).values()) == {0.0}


def test_operands_keep_the_joined_parts_where_their_full_value_was_read(mode, model):
    x, wide = variables(model, (1,)), variables(model, (3, 3))

    def linear():
        e = x + 1
        e += x[0].item()
        return e

    def quadratic():
        q = x * x
        q += x * x
        return q

    joining = [
        lambda e: wide + e, lambda e: wide - e, lambda e: (wide + 1) + e, lambda e: e - wide,
        lambda e: e + np.ones((3, 3)), lambda e: np.ones((3, 3)) - e, lambda e: operator.iadd(wide + 1, e),
        lambda e: wide * wide + e, lambda e: e - wide * wide, lambda e: operator.isub(wide * wide, e),
    ]  # fmt: skip
    for use in joining:
        use(e := linear())
        assert len(e._matmulparts) == 1
    with pytest.warns(UserWarning, match="Chained"):
        np.ones((3, 3, 1)) @ (e := linear())
    assert len(e._matmulparts) == 1
    for use in [*joining, lambda q: x - q, lambda q: x * x - q, lambda q: (x + 1) + q]:
        use(q := quadratic())
        assert len(q._quadparts) == 1
    for use in (lambda q: x * x + q, lambda q: q + x * x, lambda q: q <= 1):
        use(q := quadratic())
        assert len(q._quadparts) == 2


def test_compact_results_share_no_part_with_their_operands(mode, model):
    x = variables(model, (3,))
    q = x @ x
    for result in (q + np.ones(()), q + x[0], 2.0 * q, q * np.ones(1), q.copy(), q + MQuadExpr.zeros(()), +q):
        (x1, q1, y1), (x2, q2, y2) = q._quadparts[0], result._quadparts[0]
        for own, other in ((x1, x2), (q1, q2), (y1, y2)):
            assert own is not other
        assert not np.shares_memory(x1._vararr, x2._vararr)
        assert not np.shares_memory(q1.data, q2.data)
    part = q._quadparts[0]
    assert q._extract_xQy()[1] is not part[1]  # one part is merged as several are
    assert repr(q + q).splitlines()[0] == "<MQuadExpr ()  >"


def test_full_route_converts_the_receiver_for_good(model, monkeypatch):
    x = variables(model, (2,))
    q = x @ x
    monkeypatch.setattr(MQuadExpr, "_keep_compact", 0)
    assert not (q + 1.0)._is_compact()
    assert not q._is_compact()


@pytest.mark.parametrize("shape", [(), (1,), (3,), (2, 3)])
def test_operators_meet_themselves(mode, model, shape):
    for see in (False, True):
        q = quadratic(model, shape)
        q = looked(q) if see else q
        point = Point(model)
        expected = value(point, q)
        q += q
        np.testing.assert_allclose(value(point, q), 2 * expected)
        q -= q
        np.testing.assert_allclose(value(point, q), 0 * expected, atol=1e-9)
        if shape:
            q = quadratic(model, shape)
            point = Point(model)
            expected = value(point, q)
            q += q[::-1]
            np.testing.assert_allclose(value(point, q), expected + expected[::-1])


def test_element_objects_grow_where_they_stand(model):
    x = variables(model, (3,))
    q = x * x
    held = list(q._qearr)
    q += x * x[::-1]
    q *= np.arange(3.0)
    assert all(a is b for a, b in zip(q._qearr, held, strict=True))
    assert [[c for c, _, _ in qe.terms()] for qe in held] == [[0.0, 0.0], [1.0, 1.0], [2.0, 2.0]]
    r = q + x
    assert all(a is not b for a, b in zip(r._qearr, held, strict=True))


def test_linear_terms_inside_the_objects_stay_there(model):
    x = variables(model, (2,))
    q = x * x
    for qe in q._qearr:
        qe += 2.0 * x._vararr[0] + 1.0
    point = Point(model)
    at = point.of(x)
    expected = at**2 + 2 * at[0] + 1
    for result, factor in ((q + 0.0, 1), (q * 3.0, 3), (q + x * 0.0, 1), (-q, -1), (q + q, 2)):
        np.testing.assert_allclose(value(point, result), factor * expected)
    q += x[:1] * x[:1]
    q *= 2.0
    np.testing.assert_allclose(value(point, q), 2 * (expected + at[0] ** 2))


def test_signs(mode, model):
    q = quadratic(model, (2, 2))
    point = Point(model)
    np.testing.assert_allclose(value(point, -q), -value(point, q))
    assert everything(+q) == everything(q)
    assert +q is not q


# ---- refusals ------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("bad", [np.inf, -np.inf, np.nan])
@pytest.mark.parametrize("shape", [(1,), (3,), (2, 3)])
def test_multipliers_that_are_no_numbers_change_nothing(mode, model, bad, shape):
    q = quadratic(model, shape)
    for _ in range(2):
        before = everything(q)
        for other in (bad, np.full(shape, bad), np.array([bad])):
            for op in (operator.mul, operator.imul):
                with pytest.raises(tarvopy.TarvoError, match="Multiplier is infinite or NaN") as error:
                    op(q, other)
                assert error.value.code == TRV.Error.INVALID_ARGUMENT
        with pytest.raises(tarvopy.TarvoError, match="infinite or NaN"):
            np.full((shape[0],), bad) @ q
        assert everything(q) == before
        looked(q)


@pytest.mark.parametrize("other", ["text", None, object(), [1.0, 2.0], 1j])
def test_strangers_are_refused(mode, model, other):
    q = quadratic(model, (2,))
    before = everything(q)
    for op in (operator.add, operator.sub, operator.mul, operator.truediv, operator.matmul, operator.pow):
        for a, b in ((q, other), (other, q)):
            with pytest.raises(TypeError):
                op(a, b)
    for op in (operator.iadd, operator.isub, operator.imul, operator.itruediv):
        with pytest.raises(TypeError):
            op(q, other)
    assert everything(q) == before


def test_division_by_zero_is_an_error_and_changes_nothing(mode, model):
    q = quadratic(model, (2,))
    before = everything(q)
    with pytest.raises(ZeroDivisionError):
        q / 0
    with pytest.raises(ZeroDivisionError):
        q /= 0.0
    with np.errstate(divide="ignore"), pytest.raises(tarvopy.TarvoError, match="Multiplier is infinite"):
        q /= np.array([0.0, 1.0])
    assert everything(q) == before


def test_comparisons_hold_both_sides_as_given(model):
    q = quadratic(model, (2,))
    for compare, sense in ((operator.le, "<"), (operator.ge, ">"), (operator.eq, "=")):
        made = compare(q, 1.0)
        assert made.lhs is q
        assert (made.sense, made.rhs) == (sense, 1.0)
    with pytest.raises(tarvopy.TarvoError, match=r"^Inequality constraints not supported$") as error:
        q != 1.0
    assert error.value.code == 0


# ---- workers by name -----------------------------------------------------------------------------------------------


def test_workers_assert_the_state_and_do_the_work(mode, model):
    x = variables(model, (3,))
    compact, full = x @ x, x * x
    point = Point(model)
    at = point.of(x)
    np.testing.assert_allclose(value(point, compact._add_compact_mlinexpr(other=x)), at @ at + at)
    np.testing.assert_allclose(value(point, full._add_full_mlinexpr(x)), at**2 + at)
    np.testing.assert_allclose(value(point, compact._add_compact_mquadexpr(compact)), 2 * (at @ at))
    np.testing.assert_allclose(value(point, full._add_full_mquadexpr(compact)), at**2 + at @ at)
    np.testing.assert_allclose(value(point, compact._mul_compact_ndarray(np.arange(3.0))), at @ at * np.arange(3.0))
    compact = x @ x
    np.testing.assert_allclose(value(point, full._mul_full_ndarray(np.arange(3.0))), at**2 * np.arange(3.0))
    np.testing.assert_allclose(value(point, full._matmul_full_ndarray_or_spmatrix(np.ones(3))), at @ at)
    np.testing.assert_allclose(value(point, full._rmatmul_full_ndarray_or_spmatrix(np.ones((1, 3)))), [at @ at])
    assert compact._imul_compact_scalar(2.0) is None
    assert compact._imul_compact_ndarray(np.array(0.5)) is None
    assert compact._iadd_compact_mquadexpr(x @ x) is None
    np.testing.assert_allclose(value(point, compact), 2 * (at @ at))
    assert full._imul_full_scalar(2.0) is None
    assert full._imul_full_ndarray(np.array([0.5, 0.5, 1.0])) is None
    assert full._iadd_full_mquadexpr(x[:1] * x[:1]) is None
    np.testing.assert_allclose(value(point, full), at**2 * [1, 1, 2] + at[0] ** 2)
    for wrong in (compact._add_full_mquadexpr, full._add_compact_mquadexpr):
        with pytest.raises(AssertionError):
            wrong(full)
    with pytest.raises(TypeError, match="_add_full_mquadexpr"):
        full._add_full_mquadexpr()


def test_nothing_is_left_of_an_element_but_its_halves(mode, model):
    x = variables(model, (2,))
    q = (x * x)[0]
    assert q.shape == ()
    q += x[0]
    assert terms(q._ndle) == [(0.0, [(1.0, 0)])]
    assert quad_terms(q) == [[(1.0, 0, 0)]]


def test_objects_in_arrays_of_no_dimension_are_single_operands(mode, model):
    x = variables(model, (3,))
    v = model.addVar()
    expected = [[(1.0, i, i)] for i in range(3)]
    for zero_dimensional in (np.array(v), np.array(2.0 * v)):
        result = x * x - zero_dimensional
        assert quad_terms(result) == expected
        assert [e.size() for e in (2.0 * x - zero_dimensional)._learr] == [2, 2, 2]
