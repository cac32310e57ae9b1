"""Sums, values and assignment of MLinExpr, with NumPy on the variables' numbers as the oracle, flat and eager."""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point, looked, terms, variables
from tarvopy import TRV
from tarvopy._core import LinExpr
from tarvopy._exception import NoDataError, TarvoError
from tarvopy._matrixapi import MLinExpr


@pytest.fixture
def model():
    return tarvopy.Model()


# ---- sums ----------------------------------------------------------------------------------------------------------

SHAPES = [(), (1,), (4,), (1, 3), (2, 3), (2, 3, 4), (0,), (0, 3), (2, 0, 3)]


def all_axes(ndim):
    return [None, *range(-ndim, ndim), tuple(range(ndim)), [-1, 0][: min(ndim, 2)]]


@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_sum_gives_what_numpy_gives_in_logical_order(mode, model, shape):
    x = variables(model, shape)
    indices = np.arange(x.size).reshape(shape)
    for axis in all_axes(x.ndim):
        for e in (x * 2.0 + 1.0, looked(x * 2.0 + 1.0)):
            total = e.sum(axis) if axis is not None else e.sum()
            expected = np.sum(np.ones(shape), axis=tuple(axis) if isinstance(axis, list) else axis)
            assert not total._is_compact()
            assert not e._is_compact()
            assert total.shape == np.shape(expected)
            assert total.getConstant() == pytest.approx(expected)
            kept = [d for d in range(x.ndim) if axis is not None and d not in np.atleast_1d(axis) % x.ndim]
            rows = indices.transpose([*kept, *(d for d in range(x.ndim) if d not in kept)]).reshape(
                (*np.shape(expected), -1) if x.size else -1
            )
            if x.size:
                got = [[i for _, i in row] for _, row in terms(total)]
                assert got == rows.reshape(len(got), -1).tolist()


def test_sum_joins_all_terms_of_an_element_before_those_of_the_next(mode, model):
    x, y = variables(model, 2), variables(model, 2, "y")
    assert terms((x + 3 * y).sum()) == [(0.0, [(1.0, 0), (3.0, 2), (1.0, 1), (3.0, 3)])]


@pytest.mark.parametrize("axis", [2, -3, (0, 5), (0, 0), "a", 1.5])
def test_sum_refuses_what_is_no_axis(mode, model, axis):
    e = variables(model, (2, 3)) + 1
    with pytest.raises(TarvoError) as error:
        e.sum(axis)
    assert str(error.value) == f"Invalid axis specifications: {axis}"
    assert error.value.code == -1


def test_sum_over_two_models_goes_element_by_element(mode, model):
    x, y = variables(model, 2), variables(tarvopy.Model(), 2)
    e = MLinExpr(np.array([x[0].item() + 1.0, y[1].item() + 2.0], dtype=object))
    assert e.sum(axis=0).getConstant() == 3.0
    assert e._learr[0].size() == 1


# ---- values --------------------------------------------------------------------------------------------------------


def test_values_are_those_of_the_solution(mode, model):
    x, y = variables(model, 4), variables(model, (2, 3), "y")
    point = Point(model)
    matrix = np.array([[1.0, 0.0, -2.0, 0.5], [0.0, 0.0, 0.0, 0.0]])
    cases = [
        (matrix @ x + np.array([1.0, 2.0]), matrix @ point.of(x) + [1.0, 2.0]),
        (sp.csr_matrix(matrix) @ x + (x[0] - 1.0), matrix @ point.of(x) + point.of(x[0]) - 1.0),
        (2 * y - x[3] + np.arange(6.0).reshape(2, 3), 2 * point.of(y) - point.of(x[3]) + np.arange(6.0).reshape(2, 3)),
        (MLinExpr.zeros((1, 4)) + 3, np.full((1, 4), 3.0)),
        (x.sum(), point.of(x).sum()),
        (MLinExpr._zeros_full((0, 3)), np.zeros((0, 3))),
        (y.T @ np.ones(2) + y.sum(0), 2 * point.of(y).sum(0)),
    ]
    for expr, expected in cases:
        compact = expr._is_compact()
        got = expr.getValue()
        assert type(got) is np.ndarray
        assert got.dtype == np.float64
        assert got.shape == np.shape(expected)
        np.testing.assert_allclose(got, expected, atol=1e-12)
        assert expr._is_compact() == compact
        np.testing.assert_allclose(looked(expr).getValue(), expected, atol=1e-12)
        np.testing.assert_allclose(expr.getConstant(), looked(expr).getConstant())


def test_values_over_two_models_and_of_unusual_parts(mode, model):
    x, other = variables(model, 2), tarvopy.Model()
    y = variables(other, 2)
    Point(model), Point(other)
    e = MLinExpr(matmulparts=[(sp.csr_matrix(np.eye(2)), x), (sp.csr_matrix(2 * np.eye(2)), y)], b=np.ones(2))
    assert e.getValue().tolist() == [-23.0, -2.0]
    assert e._to_full().getValue().tolist() == [-23.0, -2.0]


def test_values_without_a_solution_raise_its_own_error(mode, model):
    x = variables(model, 2)
    for e in (x + 1, (x + 1)._to_full()):
        with pytest.raises(NoDataError):
            e.getValue()
    assert (MLinExpr.zeros(2) + 5).getValue().tolist() == [5.0, 5.0]


def test_constants_are_copies(mode, model):
    e = variables(model, 2) + 1
    e.getConstant()[:] = 9.0
    f = e._to_full()
    f.getConstant()[:] = 9.0
    assert e.getConstant().tolist() == f.getConstant().tolist() == [1.0, 1.0]
    assert MLinExpr._zeros_full(()).getConstant().shape == ()


# ---- clearing and tidying ------------------------------------------------------------------------------------------


def test_clear_keeps_shape_state_and_elements(mode, model):
    x = variables(model, 3)
    e = x + 1
    constant = e._const
    e.clear()
    assert e._is_compact()
    assert e._const is constant
    assert (e._matmulparts, constant.tolist()) == ([], [0.0, 0.0, 0.0])
    f = (x + 1)._to_full()
    element = f[1].item
    shared = f[1]
    f.clear()
    assert terms(f) == [(0.0, [])] * 3
    assert terms(shared) == [(0.0, [])]
    assert element().size() == 0
    frozen = x + 1
    frozen._const.flags.writeable = False
    with pytest.raises(ValueError, match="read-only"):
        frozen.clear()
    assert terms(frozen)[0] == (1.0, [(1.0, 0)])


def test_normalize_merges_and_flatten_keeps(mode, model):
    x, y = variables(model, (2, 2)), variables(model, (2, 2), "y")
    e = x + y - x + 2 * y
    before = terms(e)
    e._flatten()
    assert terms(e) == before
    e._normalize()
    assert terms(e) == [(0.0, [(3.0, 4 + i)]) for i in range(4)]
    c = x[0] - x[0]
    c._normalize()
    assert c._is_compact()
    MLinExpr._zeros_full((0, 2))._normalize()


# ---- assignment ----------------------------------------------------------------------------------------------------


def test_what_was_assigned_does_not_leak(mode, model):
    x = variables(model, 3)
    e, le = x + 0, LinExpr(x[0].item())
    e[:] = le
    e[0] += 5
    view = e[1:]
    view += 7
    assert e.getConstant().tolist() == [5.0, 7.0, 7.0]
    assert le.getConstant() == 0.0
    source = x + 1
    e[:] = source
    e += 1
    assert source.getConstant().tolist() == [1.0, 1.0, 1.0]


def test_assignment_reaches_everything_that_shares_the_element(mode, model):
    e = variables(model, 4) + 0
    row, elements = e[1:3], list(e._learr)
    e[[2, 1]] = np.array([8.0, 9.0])
    assert row.getConstant().tolist() == [9.0, 8.0]
    e[1:] = e[:-1]
    assert all(a is b for a, b in zip(e._learr, elements, strict=True))
    assert terms(e) == [(0.0, [(1.0, 0)]), (0.0, [(1.0, 0)]), (9.0, []), (8.0, [])]
    e[[0, 3]] = e[[3, 0]]
    assert terms(e)[0] == (8.0, [])
    assert terms(e)[3] == (0.0, [(1.0, 0)])


MISFITS = [
    "a", None, [1.0], 1j, {}, np.nan, np.inf, np.array(["a"] * 3), np.ones(3) * 1j, np.array([1.0, np.nan, 2.0]),
    np.array([object()] * 3), sp.csr_matrix(np.ones((1, 3))),
]  # fmt: skip


@pytest.mark.parametrize("value", MISFITS)
def test_values_that_do_not_fit_leave_everything_as_it_was(mode, model, value):
    e = looked(variables(model, 3) + 1)
    before, elements = terms(e), list(e._learr)
    with pytest.raises((ValueError, TypeError, TarvoError)) as error:
        e[:] = value
    if isinstance(value, str | None | dict | list) or sp.issparse(value):
        assert type(error.value) is ValueError
        assert str(error.value) == f"Cannot assign {value} to MLinExpr"
    assert terms(e) == before
    assert all(a is b for a, b in zip(e._learr, elements, strict=True))


def test_assignment_between_models_is_refused_only_by_the_model(mode, model):
    x, y = variables(model, 2), variables(tarvopy.Model(), 2)
    e = x + 0
    e[0] = y[1].item()
    assert [v.index for le in e._learr for _, v in le.terms()] == [1, 1]
    e[:] = MLinExpr(np.array([x[0].item() + 1, y[0].item() + 2], dtype=object))
    assert e.getConstant().tolist() == [1.0, 2.0]
    with pytest.raises(TarvoError) as error:
        model.addConstr(e <= 0)
    assert error.value.code == TRV.Error.NOT_IN_MODEL
