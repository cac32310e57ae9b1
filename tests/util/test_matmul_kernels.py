"""The matrix products of tarvopy._util with callables for product and sum: NumPy is the oracle."""

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given
from hypothesis import strategies as st

from tarvopy._util import _dense_matmul_kernel, _sparse_left_matmul_kernel, _sparse_right_matmul_kernel

ARITHMETIC = {"f_multiply": lambda a, b: a * b, "f_sum": sum}
FORMATS = ["csr", "csc", "coo", "lil", "dok", "dia", "bsr"]
shapes = st.lists(st.integers(0, 3), max_size=4).map(tuple)


def numbers(shape, start=1):
    return np.arange(start, start + np.prod(shape, dtype=int)).reshape(shape).astype(object)


def outcome(function, *args):
    try:
        result = function(*args)
    except ValueError:
        return ValueError
    return np.shape(result), np.asarray(result, float).tolist()


@given(shapes, shapes)
def test_dense_product_is_numpys(a, b):
    A, B = numbers(a), numbers(b, 100)
    kernel = outcome(lambda: _dense_matmul_kernel(A, B, **ARITHMETIC))
    assert kernel == outcome(np.matmul, A.astype(float), B.astype(float))


@given(shapes, st.integers(0, 4), st.integers(0, 4), st.sampled_from(FORMATS), st.integers(0, 9))
def test_sparse_products_are_numpys(shape, rows, columns, form, seed):
    dense = np.random.default_rng(seed).integers(0, 3, (rows, columns)).astype(float)
    sparse = sp.csr_matrix(dense).asformat(form) if dense.size or form not in ("bsr", "dia") else sp.csr_matrix(dense)
    A = numbers(shape)
    right = outcome(lambda: _sparse_right_matmul_kernel(A, sparse, **ARITHMETIC))
    assert right == outcome(np.matmul, A.astype(float), dense)
    left = outcome(lambda: _sparse_left_matmul_kernel(sparse, A, **ARITHMETIC))
    assert left == outcome(np.matmul, dense, A.astype(float))


def listed(kernel, left, right):
    """What the callables were asked, as nested tuples."""
    return kernel(left, right, f_multiply=lambda a, b: (a, b), f_sum=tuple).tolist()


def test_factors_keep_their_order_and_sums_that_of_the_contracted_index():
    A, B = np.array([["a", "b"]], object), np.array([["c"], ["d"]], object)
    assert listed(_dense_matmul_kernel, A, B) == [[(("a", "c"), ("b", "d"))]]
    assert listed(_dense_matmul_kernel, A[0], B[:, 0]) == (("a", "c"), ("b", "d"))
    unsorted = sp.csr_array((np.array([2.0, 1.0, 5.0]), np.array([1, 0, 1]), np.array([0, 2, 3])), shape=(2, 2))
    doubled = sp.coo_array(([1.0, 3.0, 2.0], ([0, 1, 0], [0, 0, 0])), shape=(2, 1))
    assert listed(_sparse_left_matmul_kernel, unsorted, B) == [[((1.0, "c"), (2.0, "d"))], [((5.0, "d"),)]]
    assert listed(_sparse_right_matmul_kernel, A, doubled) == [[(("a", 3.0), ("b", 3.0))]]
    assert unsorted.indices.tolist() == [1, 0, 1]  # the caller's own matrix keeps its order


def test_only_stored_entries_are_multiplied_and_rows_without_any_are_summed():
    calls, sums = [], []
    sparse = sp.csr_array(([4.0, 0.0], ([0, 2], [1, 1])), shape=(3, 2))

    def multiply(a, b):
        calls.append((a, b))

    _sparse_left_matmul_kernel(sparse, np.array(["c", "d"], object), f_multiply=multiply, f_sum=sums.append)
    assert calls == [(4.0, "d"), (0.0, "d")]
    assert [len(terms) for terms in sums] == [1, 0, 1]
    assert listed(_dense_matmul_kernel, np.empty((1, 0), object), np.empty((0, 1), object)) == [[()]]


def test_shapes_that_do_not_fit_are_named():
    with pytest.raises(ValueError, match=r"\(2,\) \(3,\): the inner dimensions 2 and 3 differ"):
        _dense_matmul_kernel(numbers(2), numbers(3), **ARITHMETIC)
    with pytest.raises(ValueError, match=r"\(2,\) \(3,1\): the inner"):
        _sparse_right_matmul_kernel(numbers(2), sp.csr_array((3, 1)), **ARITHMETIC)
    with pytest.raises(ValueError, match=r"\(1,3\) \(\): each operand"):
        _sparse_left_matmul_kernel(sp.csr_array((1, 3)), np.array(None), **ARITHMETIC)
    with pytest.raises(TypeError, match=r"_dense_matmul_kernel\(\) missing required argument 'f_sum' \(pos 4\)"):
        _dense_matmul_kernel(numbers(2), numbers(2), f_multiply=max)


def broken(**arrays):
    """A compressed matrix of shape (2, 2) that does not hold what it says."""
    matrix = sp.csr_array(np.ones((2, 2)))
    matrix.sum_duplicates()
    for name, values in arrays.items():
        setattr(matrix, name, np.array(values))
    matrix.tocsr = lambda: matrix
    return matrix


@pytest.mark.parametrize(
    "arrays",
    [
        {"indices": [0, 1, 0, 7]},
        {"indices": [0, -1, 0, 1]},
        {"indptr": [0, 2, 9]},
        {"indptr": [0, 3, 2]},
        {"indptr": [0]},
        {"indptr": [-4, 2, 4]},
        {"data": [1.0]},
    ],
)
def test_broken_matrices_are_refused(arrays):
    with pytest.raises(ValueError, match="fit its shape"):
        _sparse_left_matmul_kernel(broken(**arrays), numbers((2, 2)), **ARITHMETIC)


def test_callables_may_do_anything():
    A, B = numbers((2, 3)), numbers((3, 2))

    def multiply(a, b):
        A.resize((0,), refcheck=False)
        B[:] = None
        return a * b

    assert _dense_matmul_kernel(A, B, f_multiply=multiply, f_sum=sum).tolist() == [[22, 28], [49, 64]]
    with pytest.raises(ZeroDivisionError):
        _dense_matmul_kernel(numbers(2), numbers(2), f_multiply=lambda a, b: a // 0, f_sum=sum)
    with pytest.raises(TypeError, match="not callable"):
        _dense_matmul_kernel(numbers(2), numbers(2), f_multiply=None, f_sum=sum)
