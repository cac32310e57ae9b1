"""Products of variables and linear expressions: their states, their order of terms, their cost.

That they stand for what NumPy gives is the business of tests/programs.
"""

import itertools
import operator
import tracemalloc
import warnings

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point, looked, terms, variables
from quadratic_values import entries, everything, quad_terms, value
from tarvopy import _debug
from tarvopy._core import LinExpr
from tarvopy._matrixapi import MLinExpr, MQuadExpr, MVar

CHAINED = "Chained matrix multiplications of MVars is inefficient"


@pytest.fixture
def model():
    return tarvopy.Model()


def affine(x, scale=2.0, shift=1.0):
    return scale * x + shift * (np.arange(x.size).reshape(x.shape) % 3 - 1.0)


@pytest.mark.parametrize("exponent", [2, 2.0, np.array(2), np.array([2.0])])
def test_squares_are_products(mode, model, exponent):
    x = variables(model, (2, 3))
    point = Point(model)
    q = x**exponent
    assert quad_terms(q) == [[(1.0, i, i)] for i in range(6)]
    e = 2.0 * x - 1.0
    assert everything(e**exponent) == everything(e * e)
    np.testing.assert_allclose(value(point, e**exponent), point.value(e) ** 2)
    assert (x ** np.array([[[2.0]]])).shape == (1, 2, 3)


# ---- order of terms, and what is merged ----------------------------------------------------------------------------


def test_terms_stand_left_major(mode, model):
    a, b, c, d = (variables(model, (2,)) for _ in range(4))  # indices 0 2 4 6 for the first elements
    q = (a + b) * (3.0 * c + d)
    assert quad_terms(q)[0] == [(3.0, 0, 4), (1.0, 0, 6), (3.0, 2, 4), (1.0, 2, 6)]
    grid = (a.reshape(2, 1) + b.reshape(1, 2)) * (c + d)
    assert quad_terms(grid)[1] == [(1.0, 0, 5), (1.0, 0, 7), (1.0, 3, 5), (1.0, 3, 7)]


def test_linear_half_has_left_terms_first_and_merges_equal_variables(mode, model):
    x, y = variables(model, (2, 2)), variables(model, (2, 2))
    q = (x + 2.0) * (y + x + 3.0)
    assert terms(q._ndle)[0] == (6.0, [(5.0, 0), (2.0, 4)])
    zero_in_places = (x + np.array([[0.0, 1.0], [0.0, 0.0]])) * y
    assert [row for _, row in terms(zero_in_places._ndle)] == [[], [(1.0, 5)], [], []]
    assert terms((x * y)._ndle) == [(0.0, [])] * 4


def test_many_summands_keep_the_order_of_few(model):
    x = variables(model, (1, 4, 4))
    many, few = x + 0.0, x + 0.0
    for i in range(9):
        many += float(i) * x[:, ::-1]
    for i in range(3):
        few += float(i) * x[:, ::-1]
    product = many * many
    assert product.shape == (1, 4, 4)
    flat = quad_terms(product)
    assert flat == quad_terms(looked(many) * looked(many))
    assert quad_terms(few * few) == quad_terms(looked(few) * looked(few))


# ---- states --------------------------------------------------------------------------------------------------------


def test_one_element_of_variables_stays_compact(model):
    x = variables(model, (3,))
    e = np.arange(6.0).reshape(2, 3).T @ variables(model, (2,)) + 1.0
    for q in (x @ x, x @ e, e @ x, e @ e, x[0] * x[1], x[:1] ** 2):
        assert q._is_compact()
        assert len(q._quadparts) == 1
    for q in (e * x, e[:1] * x[:1], x * x, x.reshape(1, 3) @ x.reshape(3, 1) + x):
        assert not q._is_compact()


def test_compact_switches_are_obeyed(model, monkeypatch):
    x = variables(model, (3,))
    expected = Point(model).of(x) @ Point(model).of(x)
    for cls in (MLinExpr, MQuadExpr):
        monkeypatch.setattr(cls, "_keep_compact", 0)
        q = x @ x
        assert not q._is_compact()
        assert value(Point(model), q) == expected
        monkeypatch.setattr(cls, "_keep_compact", 1)


def test_product_of_compact_expressions_merges_pairs(model):
    x, y = variables(model, (3,)), variables(model, (2,))
    point = Point(model)
    a, b = np.arange(12.0).reshape(4, 3) - 5.0, np.array([[1.0, 0.0], [2.0, 1.0], [0.0, 0.0], [1.0, -1.0]])
    e, f = a @ x + 1.0, b @ y - np.arange(4.0)
    q = e @ f
    dense = np.zeros((3, 2))
    for (i, j), c in entries(q).items():
        dense[i, j - 3] += c
    np.testing.assert_allclose(dense, a.T @ b)
    assert q._quadparts[0][1].nnz <= 6
    np.testing.assert_allclose(value(point, q), point.value(e) @ point.value(f))
    assert len(q._ndle._matmulparts) == 1


@pytest.mark.parametrize("convert", [sp.csr_matrix, sp.csc_matrix, sp.coo_matrix, sp.csr_array, np.asarray])
def test_quadratic_form_is_one_part_with_the_entries_of_the_matrix(mode, model, convert):
    matrix = np.array([[1.0, 2.0, 0.0], [0.0, -3.0, 0.5], [4.0, 0.0, 0.0]])
    x, y = variables(model, (3,)), variables(model, (3,))
    given = convert(matrix)
    expected = {(i, 3 + j): matrix[i, j] for i, j in zip(*matrix.nonzero(), strict=True)}
    left_first, right_first = (x @ given) @ y, x @ (given @ y)
    given *= 0
    assert entries(left_first) == entries(right_first) == expected
    assert left_first._ndle._matmulparts == []


def stored_in_every_way(dense, rng):
    """The same matrix in every format, with entries out of order and at one place twice."""
    coo = sp.coo_matrix(dense)
    shuffled = rng.permutation(2 * coo.nnz) % coo.nnz
    doubled = sp.coo_matrix((coo.data[shuffled] / 2, (coo.row[shuffled], coo.col[shuffled])), shape=coo.shape)
    backwards = sp.csr_matrix(dense)
    for begin, end in itertools.pairwise(backwards.indptr):
        backwards.indices[begin:end] = backwards.indices[begin:end][::-1].copy()
        backwards.data[begin:end] = backwards.data[begin:end][::-1].copy()
    columns = sp.csr_matrix(backwards.T.tocsr()).T  # a csc_matrix
    wide = sp.coo_array((coo.data, (coo.row.astype(np.int64), coo.col.astype(np.int64))), shape=coo.shape)
    return [doubled, backwards, columns, wide, coo.tocsc(), coo.tolil(), sp.csr_array(coo), dense]


def test_terms_that_cancelled_leave_no_entries(model):
    x, v = model.addMVar(3), model.addVar()
    A = np.arange(9.0).reshape(3, 3)
    inner = A @ (x + v)  # room for one term more than there are: A[0, 0] is 0
    for product in (x @ inner, inner @ x, x @ (inner + 3)):
        ((_, Q, _),) = product._quadparts
        assert (Q.nnz, Q.sum(), Q.row.max(), sorted(Q.shape)) == (11, 2 * A.sum(), Q.shape[0] - 1, [3, 4])


@pytest.mark.parametrize(
    "form",
    [
        lambda x, q, y: x @ q @ y,
        lambda x, q, y: (q @ y) @ x,
        lambda x, q, y: (x @ q + 1.0) @ y + x @ (q @ y),
        lambda x, q, y: 2.0 * (x @ q @ y) - y @ y,
        lambda x, q, y: (x @ q) @ (q.T @ x),
    ],
)
def test_entries_have_one_order_whenever_somebody_looks(model, form):
    dense = np.array([[0.0, 2.0, 0.5], [1.0, 0.0, 3.0], [0.25, 4.0, 0.0], [0.0, 0.0, 7.0]])
    x, y = variables(model, (4,)), variables(model, (3,))
    for matrix in stored_in_every_way(dense, np.random.default_rng(0)):
        seen = set()
        for mode in (False, True):
            _debug.eager(mode)
            try:
                result = form(x, matrix, y)
                _, q, _ = result.copy()._quadparts[0]
                seen.add((str(np.array([q.row, q.col, q.data])), str(result.copy()), str(quad_terms(result))))
            finally:
                _debug.eager(False)
        assert len(seen) == 1
        assert entries(result) == entries(form(x, dense, y))


def test_doubled_entries_of_a_matrix_add_up(model):
    x = variables(model, (2,))
    q = x @ sp.coo_matrix(([1.0, 2.0], ([0, 0], [1, 1])), shape=(2, 2)) @ x
    assert entries(q) == {(0, 1): 3.0}


def test_large_sparse_form_makes_no_object_an_entry_and_no_dense_matrix(model):
    n = 100_000
    x = variables(model, (n,))
    places = np.random.default_rng(1).integers(0, n, (2, 2 * n))
    q = sp.csr_matrix((np.ones(2 * n), places), shape=(n, n))
    tracemalloc.start()
    form = x @ q @ x
    _, peak = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    assert form._is_compact()
    assert peak < 40 * q.nnz
    assert form._quadparts[0][1].nnz == q.nnz


# ---- warnings ------------------------------------------------------------------------------------------------------


def test_only_full_expression_products_warn(model):
    x, y = variables(model, (3, 3)), variables(model, (3,))
    with pytest.warns(UserWarning, match=CHAINED) as caught:
        (x + 1.0) @ (y + 1.0)
    assert len(caught) == 1
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        x @ x, x @ y, (x + 1.0) @ y, y @ (x + 1.0), (y + 1.0) @ (y + 1.0), x * x, (x + 1.0) * (y + 1.0)
        with pytest.raises(UserWarning, match=CHAINED):
            (x + 1.0) @ (x + 1.0)


# ---- hostile operands ----------------------------------------------------------------------------------------------


@pytest.mark.parametrize("op", [operator.mul, operator.matmul])
def test_shapes_that_do_not_fit_are_named(mode, model, op):
    x, y = variables(model, (3,)), variables(model, (2,))
    for a, b in ((x, y), (x + 1.0, y), (x, y + 1.0), (x + 1.0, y + 1.0)):
        with pytest.raises(ValueError, match=r"3.*2"):
            op(a, b)


def test_several_models_never_mix_silently():
    first, second = tarvopy.Model(), tarvopy.Model()
    x, y = variables(first, (2, 2)), variables(second, (2, 2))
    q = (x + 1.0) * y
    found = [[(c, a.index, b.index) for c, a, b in qe.terms()] for qe in q._qearr.flat]
    assert found == [[(1.0, i, i)] for i in range(4)]
    assert q._qearr[0, 1].terms().__next__()[1] is x._vararr[0, 1]
    assert q._qearr[0, 1].terms().__next__()[2] is y._vararr[0, 1]


def test_elements_that_are_no_variables_are_refused(model):
    x = variables(model, (2,))
    foreign = MVar(np.array([x._vararr[1], x._vararr[0]], dtype=object))
    foreign._vararr[0] = None
    for product in (lambda: x * foreign, lambda: foreign @ x, lambda: (x + 1.0) * foreign, lambda: (x + 1.0) @ foreign):
        with pytest.raises((TypeError, ValueError, AttributeError)):
            product()


def test_constant_beyond_doubles_is_refused(mode, model):
    x = variables(model, (2, 2))
    huge = x + 1e200
    with pytest.raises(tarvopy.TarvoError, match="Constant is infinite or NaN"):
        huge * huge
    row = x[0] + 1e200
    with pytest.raises(tarvopy.TarvoError, match="Constant is infinite or NaN"):
        (np.eye(2) @ x[0] + 1e200) @ (np.eye(2) @ x[0] + 1e200)
    assert terms(row)[0][0] == 1e200


def test_split_moves_linear_parts_out_of_the_objects(model):
    x = variables(model, (2,))
    le = LinExpr(1.0)
    le += x._vararr[0]
    le -= x._vararr[0]
    le += 2.0 * x._vararr[1]
    products = np.array([le * le, le * x._vararr[0]], dtype=object)
    ndle, qearr = MLinExpr._split_lin_quad(products)
    assert qearr is products
    assert terms(ndle) == [(1.0, [(4.0, 1)]), (0.0, [(1.0, 0)])]
    assert all(qe.getLinExpr().size() == 0 and qe.getLinExpr().getConstant() == 0.0 for qe in products)


@pytest.mark.filterwarnings("ignore:Chained matrix multiplications")
def test_a_matrix_product_with_an_array_of_linear_expressions_is_quadratic(mode, model):
    x = variables(model, (2,))
    linear = np.array([2.0 * x._vararr[1] + 1.0, 3.0], dtype=object)
    point = Point(model)
    at = point.of(x)
    for e in (x + 1.0, (x + 1.0)._to_full()):
        for q in (e @ linear, linear @ e):
            assert isinstance(q, MQuadExpr)
            np.testing.assert_allclose(value(point, q), (at + 1.0) @ [2.0 * at[1] + 1.0, 3.0])


# ---- joins ---------------------------------------------------------------------------------------------------------


def test_joins_with_a_quadratic_member_are_quadratic(mode, model):
    x = variables(model, (3,))
    point = Point(model)
    members = [x * x, x, 2.0 * x + 1.0, np.arange(3.0), x[0] * x[1:2]]
    q = tarvopy.concatenate(members)
    at = point.of(x)
    np.testing.assert_allclose(
        value(point, q), np.concatenate([at**2, at, 2 * at + 1, np.arange(3.0), at[0] * at[1:2]])
    )
    assert isinstance(q, MQuadExpr)
    q[0] = 5.0
    np.testing.assert_allclose(value(point, members[0]), at**2)
    stacked = tarvopy.vstack([x * x, x])
    np.testing.assert_allclose(value(point, stacked), np.vstack([at**2, at]))
    with pytest.raises(ValueError, match="must match exactly"):
        tarvopy.vstack([x * x, x[:2]])


def test_copied_arrays_share_no_element(model):
    from tarvopy._matrixapi import _copy_learr_qearr

    x = variables(model, (2,))
    q = x * x + x
    learr, qearr = _copy_learr_qearr(q)
    assert learr.shape == qearr.shape == (2,)
    assert qearr[0] is not q._qearr[0]
    q._ndle._convert_to_full()
    assert learr[0] is not q._ndle._learr[0]
    learr, qearr = _copy_learr_qearr(np.ones(2))
    assert [le.getConstant() for le in learr] == [1.0, 1.0]
    assert [qe.size() for qe in qearr] == [0, 0]
    with pytest.raises(AssertionError):
        _copy_learr_qearr("x")
