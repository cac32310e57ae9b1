"""Blocks of rows for a conic engine come out as SciPy stacks them, and what does not fit is refused."""

import numpy as np
import pytest
import scipy.sparse as sp

from tarvopy import _modelapi


def random_block(rng, n):
    """A block, and the same as a matrix."""
    sign = rng.choice([1.0, -1.0])
    if rng.random() < 0.4:
        chosen = rng.random(n) < 0.5
        return (None, None, None, chosen, sign), sign * sp.eye_array(n).tocsr()[chosen]
    m = sp.random_array((int(rng.integers(0, 6)), n), density=0.4, format="csr", rng=rng)
    arrays = m.indptr.astype(np.int32), m.indices.astype(np.int32), m.data
    chosen = None if rng.random() < 0.3 else rng.random(m.shape[0]) < 0.6
    return (*arrays, chosen, sign), sign * (m if chosen is None else m[chosen])


def test_blocks_are_stacked_as_by_scipy():
    rng = np.random.default_rng(1)
    for _ in range(300):
        n = int(rng.integers(1, 7))
        blocks, matrices = zip(*(random_block(rng, n) for _ in range(rng.integers(1, 6))), strict=True)
        start, index, value = _modelapi.stacked_columns(n, blocks)
        wanted = sp.vstack(matrices, format="csc")
        wanted.sort_indices()
        got = (start.tolist(), index.tolist(), value.tolist())
        assert got == (wanted.indptr.tolist(), wanted.indices.tolist(), wanted.data.tolist())


START, INDEX, VALUE = np.array([0, 1, 2], np.int32), np.array([0, 1], np.int32), np.ones(2)


@pytest.mark.parametrize(
    ("block", "error"),
    [
        ((START[::-1].copy(), INDEX, VALUE, None, 1.0), ValueError),
        ((START + np.int32(1), INDEX, VALUE, None, 1.0), ValueError),
        ((START, INDEX + np.int32(1), VALUE, None, 1.0), ValueError),
        ((START, INDEX, VALUE[:1], None, 1.0), ValueError),
        ((START[:0], INDEX, VALUE, None, 1.0), ValueError),
        ((START, INDEX, VALUE, np.ones(3, bool), 1.0), ValueError),
        ((START.astype(np.int64), INDEX, VALUE, None, 1.0), TypeError),
        ((START, INDEX, [1.0, 1.0], None, 1.0), TypeError),
        ((START, INDEX, VALUE, None), TypeError),
    ],
)
def test_a_block_that_does_not_fit_is_refused(block, error):
    with pytest.raises(error):
        _modelapi.stacked_columns(2, [block])
