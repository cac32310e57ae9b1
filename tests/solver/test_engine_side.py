"""What an engine reads: the matrix by columns and by rows, and the lists of what changed."""

import ctypes

import numpy as np
import pytest
from scipy.sparse import csr_matrix
from scipy.sparse import random as random_matrix

from solver.store import CONSTR, INF, SIZE_LIMIT, VAR, Store, StoreError, lib


def same(m, expected):
    """The matrix of the model is this one, by columns (rows ascending) and by rows."""
    csc = expected.tocsc()
    csc.sort_indices()
    for got, want in zip(m.matrix(csc=1), (csc.indptr, csc.indices, csc.data), strict=True):
        assert np.array_equal(got, want)
    for got, want in zip(m.matrix(csc=0), (expected.indptr, expected.indices, expected.data), strict=True):
        assert np.array_equal(got, want)


def test_matrices_from_many_blocks_of_all_sizes():
    """More terms in small blocks than one shared chunk takes, with large blocks in between."""
    m, n = Store(), 3000
    m.addvars(n)
    blocks = []
    for nrows in [700] * 30 + [1, 60_000, 1, 0, 20_000, 5] + [700] * 20:
        a = random_matrix(nrows, n, density=10 / n, format="csr", rng=len(blocks))
        m.addcsr(a.indptr, a.indices, a.data)
        blocks.append(a)
    m.update()
    indptr = np.concatenate(
        [[0]] + [b.indptr[1:] + s for b, s in zip(blocks, np.cumsum([0] + [b.nnz for b in blocks]), strict=False)]
    )
    whole = csr_matrix(
        (np.concatenate([b.data for b in blocks]), np.concatenate([b.indices for b in blocks]), indptr),
        (indptr.size - 1, n),
    )
    same(m, whole)

    gone_rows, gone_vars = np.arange(3, whole.shape[0], 7), np.arange(0, n, 5)
    m.remove(CONSTR, gone_rows)
    m.remove(VAR, gone_vars)
    same(m, whole)
    m.update()
    kept = whole[np.delete(np.arange(whole.shape[0]), gone_rows)][:, np.delete(np.arange(n), gone_vars)]
    same(m, kept)
    assert m.int("NumNZs") == kept.nnz


def test_empty_models_have_empty_matrices():
    m = Store()
    assert [a.tolist() for a in m.matrix(1)] == [[0], [], []]
    m.addvars(2)
    m.addrows([{}])
    m.update()
    assert [a.tolist() for a in m.matrix(1)] == [[0, 0, 0], [], []]
    assert [a.tolist() for a in m.matrix(0)] == [[0, 0], [], []]


def test_impossible_sizes_are_errors():
    m = Store()
    for arguments, code in (((1, 2**31), SIZE_LIMIT), ((1, 2**60), SIZE_LIMIT), ((2**63 - 1, 0), SIZE_LIMIT)):
        with pytest.raises(StoreError) as caught:
            m.openrows(*arguments)
        assert caught.value.code == code
    assert m.addvars(1) == 0


def test_calls_without_a_model_fail():
    assert lib.TRVupdatemodel(None) == 2
    assert lib.TRVgetintattr(None, b"NumVars", ctypes.byref(ctypes.c_int())) == 2
    assert lib.TRVgeterrormsg(None) == b"there is no model"


# ---- changes -------------------------------------------------------------------------------------------------------


@pytest.fixture
def loaded():
    """An engine has loaded three variables and two rows."""
    m = Store()
    m.addvars(3, ub=9.0)
    m.addrows([{0: 1.0, 1: 2.0}, {1: 3.0, 2: 4.0}], upper=8.0)
    m.update()
    m.clearchanges()
    return m


NOTHING = {
    "structure": False,
    "quadratic": False,
    "objconstant": False,
    "sense": False,
    "bounds": [],
    "costs": [],
    "sides": [],
    "coefs": [],
}


def test_everything_is_new_until_an_engine_has_loaded_it():
    m = Store()
    assert m.changes() == NOTHING | {"structure": True}
    m.addvars(1)
    m.update()
    m.setdbls("LB", [0], 1.0)
    assert m.changes() == NOTHING | {"structure": True}
    m.clearchanges()
    assert m.changes() == NOTHING


def test_changed_elements_are_listed_once(loaded):
    m = loaded
    m.setdbls("LB", [2, 0, 2], [1.0, 1.0, 2.0])
    m.setdbls("UB", [0, 1], [5.0, 9.0])  # the second is what it was
    m.setdbls("Obj", [1, 1], [1.0, 2.0])
    m.setdbls("RHS", [1], 1.0)
    m.setchars("Sense", [1], "=")
    m.setcoefs([1, 0, 1, 0], [0, 1, 0, 0], [7.0, 5.0, 8.0, 1.0])
    m.setdbls("Start", [0], 1.0)
    assert m.changes() == NOTHING | {"bounds": [2, 0], "costs": [1], "sides": [1], "coefs": [(0, 1), (1, 0)]}
    m.clearchanges()
    assert m.changes() == NOTHING
    m.setobjective([(1, 2.0), (2, 3.0)], constant=1.0, sense=-1)
    m.setdbls("LB", [2], 3.0)
    assert m.changes() == NOTHING | {"objconstant": True, "sense": True, "costs": [2], "bounds": [2]}


@pytest.mark.parametrize(
    "change",
    [
        lambda m: m.addvars(1),
        lambda m: m.addrows([{}]),
        lambda m: m.remove(VAR, [1]),
        lambda m: m.remove(CONSTR, [0]),
        lambda m: m.setchars("VType", [0], "I"),
    ],
)
def test_structure_means_loading_anew(loaded, change):
    loaded.setdbls("LB", [0], 1.0)
    change(loaded)
    loaded.update()
    assert loaded.changes() == NOTHING | {"structure": True}


def test_what_comes_and_goes_between_updates_is_no_change(loaded):
    v = loaded.addvars(1)
    loaded.setdbls("LB", [v], 1.0)
    r = loaded.addrows([{v: 1.0}])
    loaded.setcoefs([0], [v], [1.0])
    loaded.remove(VAR, [v])
    loaded.remove(CONSTR, [r])
    loaded.update()
    assert loaded.changes() == NOTHING
    assert loaded.row(0) == [(0, 1.0), (1, 2.0)]


def test_positions_are_those_of_now():
    m = Store()
    m.addvars(5)
    m.addrows([{v: 1.0} for v in range(5)])
    m.update()
    m.remove(VAR, [0, 2])
    m.remove(CONSTR, [1])
    m.update()
    m.clearchanges()
    m.setdbls("LB", [3, 4], 1.0)
    m.setdbls("Upper", [4], 1.0)
    m.setcoefs([3], [4], [2.0])
    assert m.changes() == NOTHING | {"bounds": [1, 2], "sides": [3], "coefs": [(2, 2)]}


def test_many_changed_coefficients_mean_loading_anew():
    m, n = Store(), 8000
    m.addvars(n)
    m.addcsr(np.arange(n + 1), np.arange(n), np.ones(n), upper=INF)
    m.update()
    m.clearchanges()
    for value in (2.0, 3.0, 4.0, 5.0):  # the same ones over and over
        m.setcoefs(range(1000), range(1000), [value] * 1000)
    assert m.changes() == NOTHING | {"coefs": [(i, i) for i in range(1000)]}
    m.setcoefs(range(4000), range(4000), [6.0] * 4000)
    assert m.changes() == NOTHING | {"structure": True}
