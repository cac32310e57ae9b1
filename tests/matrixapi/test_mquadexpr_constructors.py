"""MQuadExpr: the class methods that make one, from variables, arrays and other expressions."""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point, variables
from quadratic_values import MATRIX, coo, everything, function, quad_terms, value, with_foreign_elements
from tarvopy import TRV, _debug
from tarvopy._matrixapi import MQuadExpr


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def x(model):
    return variables(model, 3)


# ---- products of variables -----------------------------------------------------------------------------------------


def test_a_product_of_one_element_is_a_part_with_a_one(mode, model):
    a, b = variables(model, (1, 1)), variables(model, 1)
    q = MQuadExpr._from_mvar_times_mvar(a, b)
    ((x, matrix, y),) = q._quadparts
    assert q.shape == (1, 1)
    assert matrix.format == "coo"
    assert matrix.toarray().tolist() == [[1.0]]
    assert (x.shape, y.shape) == ((1,), (1,))
    assert (x._vararr[0], y._vararr[0]) == (a._vararr[0, 0], b._vararr[0])
    assert not MQuadExpr._from_mvar_times_mvar(a, b, force_full=True)._is_compact()


def test_a_product_without_elements_has_no_parts(mode, model):
    empty, one = variables(model, 0), variables(model, 1)
    q = MQuadExpr._from_mvar_times_mvar(empty, one)
    assert (q.shape, q._is_compact(), q._quadparts) == ((0,), True, [])


@pytest.mark.parametrize(("a", "b"), [((2, 3), (3,)), ((3,), (2, 3)), ((2, 1), (1, 3)), ((), (4,)), ((2, 0), (1,))])
def test_products_broadcast_and_hold_one_term_an_element(mode, model, a, b):
    left, right = variables(model, a), variables(model, b)
    point = Point(model)
    q = MQuadExpr._from_mvar_times_mvar(left, right)
    np.testing.assert_array_equal(value(point, q), point.of(left) * point.of(right))
    assert [len(row) for row in quad_terms(q)] == [1] * q.size


def test_products_name_both_shapes_that_do_not_fit(x, model):
    with pytest.raises(ValueError, match=r"\(3,\).*\(2,\)"):
        MQuadExpr._from_mvar_times_mvar(x, variables(model, 2))


def test_products_over_two_models_go_element_by_element(x):
    other = variables(tarvopy.Model(), 3)
    q = MQuadExpr._from_mvar_times_mvar(x, other)
    assert [(a, b) for qe in q._qearr for _, a, b in qe.terms()] == list(zip(x._vararr, other._vararr, strict=True))
    one = MQuadExpr._from_mvar_times_mvar(x[:1], other[:1])
    assert one._is_compact()
    assert list(one.copy().item().terms()) == [(1.0, x._vararr[0], other._vararr[0])]


def test_foreign_elements_are_refused_as_the_scalar_objects_do(x):
    strange = with_foreign_elements(x)
    for use in (lambda: MQuadExpr._from_mvar_times_mvar(x, strange), lambda: function(strange, MATRIX)._to_full()):
        with pytest.raises(TypeError):
            use()


# ---- quadratic functions from arrays -------------------------------------------------------------------------------


@pytest.mark.parametrize("make", [np.asarray, sp.coo_matrix, sp.csr_matrix, sp.csc_array, sp.lil_matrix])
def test_quadratic_functions_are_their_matrix_products(mode, x, model, make):
    q = MQuadExpr._from_quadfun(x, make(MATRIX), x, np.array([1.0, 0.0, 2.0]), x, 5.0)
    assert q._is_compact()
    point = Point(model)
    n = point.of(x)
    assert value(point, q) == pytest.approx(n @ MATRIX @ n + n @ [1.0, 0.0, 2.0] + 5.0)
    assert q.getValue() == pytest.approx(n @ MATRIX @ n + n @ [1.0, 0.0, 2.0] + 5.0)
    assert q._quadparts[0][1].nnz == 6


@pytest.mark.parametrize(("a", "q", "b"), [((1, 3), (3, 3), (3, 1)), ((3,), (3, 2), (2,)), ((1, 3), (3, 2), (2,))])
def test_vectors_may_lie_or_stand(mode, model, a, q, b):
    left, right = variables(model, a), variables(model, b)
    point, matrix = Point(model), np.arange(np.prod(q), dtype=float).reshape(q)
    expr = MQuadExpr._from_quadfun(left, matrix, right, None, None, None)
    expected = point.of(left) @ matrix @ point.of(right)
    assert (expr.shape, expr._is_compact()) == (np.shape(expected), True)
    np.testing.assert_allclose(value(point, expr), expected)


def test_the_callers_matrix_is_copied(mode, x):
    matrix = coo(MATRIX)
    q = function(x, matrix)
    before = everything(q.copy())
    matrix.data[:] = 0.0
    assert everything(q) == before


@pytest.mark.parametrize("bad", [np.nan, np.inf, -np.inf])
@pytest.mark.parametrize("make", [np.asarray, sp.csr_matrix])
def test_a_matrix_that_is_not_finite_is_refused_by_name(x, bad, make):
    matrix = MATRIX.copy()
    matrix[1, 1] = bad
    with pytest.raises(tarvopy.TarvoError, match="An entry of Q is infinite or NaN") as caught:
        function(x, make(matrix))
    assert caught.value.code == TRV.Error.INVALID_ARGUMENT


def test_shapes_that_do_not_fit_are_named(x):
    for matrix in (np.ones((2, 3)), np.ones((3, 2)), sp.csr_matrix((2, 2)), np.array(1.0)):
        with pytest.raises(ValueError, match=r"\("):
            function(x, matrix)
    for wrong in (np.array([["a"] * 3] * 3), "Q", None):
        with pytest.raises((TypeError, ValueError, AttributeError)):
            function(x, wrong)


def test_a_product_over_nothing_is_zero(mode, model):
    empty = variables(model, 0)
    q = MQuadExpr._from_quadfun(empty, np.ones((0, 0)), empty, None, None, 4.0)
    assert (q.shape, q._quadparts) == ((), [])
    Point(model)
    assert q.getValue() == 4.0


def test_a_large_sparse_matrix_makes_no_object_and_stays_sparse(model):
    x = model.addMVar(100_000)
    model.update()
    columns = np.arange(1_000_000) * 7919 % 100_000
    matrix = sp.coo_matrix((np.ones(1_000_000), (np.arange(1_000_000) % 100_000, columns)), shape=(100_000, 100_000))
    before = _debug.counts()
    q = function(x, matrix)
    q.copy()
    assert _debug.counts() == before
    assert q._quadparts[0][1].row.dtype == np.int32


# ---- from other expressions ----------------------------------------------------------------------------------------


def test_a_scalar_expression_is_copied_and_split(mode, x):
    qe = 2 * x[0].item() * x[1].item() + 3 * x[2].item() - 1
    q = MQuadExpr._from_quad_expr(qe)
    assert (q.shape, q._is_compact()) == ((), False)
    assert everything(q) == ((), [[(2.0, 0, 1)]], [(-1.0, [(3.0, 2)])])
    assert q._qearr.item().getLinExpr().size() == 0
    qe.clear()
    assert quad_terms(q) == [[(2.0, 0, 1)]]
    with pytest.raises(TypeError):
        MQuadExpr._from_quad_expr(x[0].item())


@pytest.mark.parametrize("shape", [(), (1,), (2, 2), (0, 3)])
def test_a_linear_expression_is_copied(mode, model, shape):
    y = variables(model, shape)
    e = 2.0 * y + 1.0
    q, full = MQuadExpr._from_mlinexpr(e), MQuadExpr._from_mlinexpr(e, force_full=True)
    assert q._is_compact() == MQuadExpr._allows_compact(shape)
    assert not full._is_compact()
    point = Point(model)
    e.clear()
    for expr in (q, full):
        np.testing.assert_array_equal(value(point, expr), 2.0 * point.of(y) + 1.0)
