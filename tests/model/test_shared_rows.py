"""Large blocks of rows whose terms the store keeps where the expression has them: nobody may notice."""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy

ROWS, COLS = 300, 200


def matrix(seed=3):
    """Enough entries that they are not copied."""
    A = sp.random_array((ROWS, COLS), density=0.3, format="csr", rng=np.random.default_rng(seed))
    A.sort_indices()
    assert A.nnz > 10_000
    return A


def parts(expr):
    """(dense coefficients, constant) of a compact expression."""
    A, _, b = expr._extract_Axb()
    return A.toarray(), b


@pytest.fixture(params=[0, 7], ids=["first variables", "others before"])
def built(request):
    model = tarvopy.Model()
    if request.param:
        model.addMVar(request.param)
    x, A = model.addMVar(COLS), matrix()
    expr = A @ x
    rows = model.addConstr(expr <= np.arange(ROWS))
    model.update()
    return model, x, A.toarray(), expr, rows


def stored(model, x):
    return model.getA().toarray()[:, x._idxarr()]


def test_changed_coefficients_do_not_reach_the_expression(built):
    model, x, A, expr, rows = built
    np.testing.assert_array_equal(stored(model, x), A)
    model.setCoeff(rows[5], x[3].item(), 9.0)
    model.setCoeff(rows[6], x[:].tolist()[4], 0.0)
    model.update()
    changed = A.copy()
    changed[5, 3], changed[6, 4] = 9.0, 0.0
    np.testing.assert_array_equal(stored(model, x), changed)
    np.testing.assert_array_equal(parts(expr)[0], A)


def test_scaled_and_freed_expressions_do_not_reach_the_rows(built):
    model, x, A, expr, _ = built
    expr *= 3.0
    expr += 1.0
    np.testing.assert_array_equal(stored(model, x), A)
    np.testing.assert_allclose(parts(expr)[0], 3.0 * A)
    del expr
    trash = [np.full(ROWS * COLS, np.nan) for _ in range(4)]  # whoever gets the memory next
    np.testing.assert_array_equal(stored(model, x), A)
    assert len(trash) == 4


def test_removals_leave_the_expression(built):
    model, x, A, expr, rows = built
    model.remove(rows[::3])
    model.remove(x[1::4])
    model.update()
    kept_rows, kept = np.arange(ROWS) % 3 != 0, np.arange(COLS) % 4 != 1
    np.testing.assert_array_equal(stored(model, x[np.flatnonzero(kept)]), A[kept_rows][:, kept])
    np.testing.assert_array_equal(parts(expr)[0], A)


@pytest.mark.parametrize("fault", ["zero", "double", "unsorted", "nan"])
def test_terms_that_need_tidying_are_tidied(fault):
    model = tarvopy.Model()
    x, A = model.addMVar(COLS), matrix(5)
    expected = A.toarray()
    if fault == "zero":
        A.data[10], expected[A.nonzero()[0][10], A.indices[10]] = 0.0, 0.0
    if fault == "nan":
        A.data[10] = np.nan
    if fault == "double":
        A = sp.csr_array((np.tile(A.data, 1), A.indices, A.indptr), shape=A.shape)
        A.indices[1] = A.indices[0]
        expected = A.toarray()
    if fault == "unsorted":
        for array in (A.indices, A.data):
            array[[0, 1]] = array[[1, 0]]
    if fault == "nan":
        with pytest.raises((ValueError, tarvopy.TarvoError)):
            model.addConstr(A @ x <= 1)
        expected = expected[:0]
    else:
        model.addConstr(A @ x <= 1)
    model.update()
    np.testing.assert_allclose(model.getA().toarray(), expected)


def test_writing_into_the_documented_matrix_does_not_reach_the_rows(built):
    model, x, A, expr, _ = built
    expr._matmulparts[0][0].data[:] = -1.0
    np.testing.assert_array_equal(stored(model, x), A)


@pytest.mark.parametrize("factor", [1.0, 2.0])  # of the expression alone, whose variables are still those of the rows
@pytest.mark.parametrize("step", [1, 2])
@pytest.mark.parametrize("shape", [(300, 300), (1, 90_000)])
def test_a_model_that_goes_to_its_engine_leaves_the_expression(shape, step, factor):
    """The engine is given columns, which the store makes in the memory of the rows where nobody else looks at it."""
    model, A = tarvopy.Model(), np.random.default_rng(1).integers(1, 10, shape).astype(float)
    x = model.addMVar(step * shape[1])[::step]
    expr = A @ x
    model.addConstr(expr <= 1)
    expr *= factor
    model.prepare()
    np.testing.assert_array_equal(parts(expr)[0], factor * A)
    np.testing.assert_array_equal(expr._matmulparts[0][1]._idxarr(), step * np.arange(shape[1]))
    np.testing.assert_array_equal(stored(model, x), A)
