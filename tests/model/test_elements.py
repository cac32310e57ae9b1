"""Update, removal, lists in model order, look-up by name, coefficients."""

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given
from hypothesis import strategies as st

import tarvopy
from model_arrays import arrays, shape_of
from tarvopy import TRV, TarvoError


def test_lists_are_in_model_order_and_objects_are_unique(m):
    x = m.addVar()
    X = m.addMVar(2)
    c = m.addConstr(x <= 1)
    C = m.addConstr(X <= 1)
    m.update()
    assert [v is w for v, w in zip(m.getVars(), [x, *X.tolist()], strict=True)] == [True] * 3
    assert [v is w for v, w in zip(m.getConstrs(), [c, *C.tolist()], strict=True)] == [True] * 3
    assert m.getQConstrs() == m.getGenConstrs() == m.getNLConstrs() == []


def test_removal_acts_at_update_and_at_once_on_pending_elements(mode, m):
    x, X = m.addVar(), m.addMVar(3)
    C = m.addConstr(X <= 1)
    m.update()
    late = m.addVar()
    m.remove([X[1], (C[:2], late)])
    assert (late.index, x.index, C[0].index) == (-2, 0, 0)
    m.update()
    assert (x.index, [v.index for v in X.tolist()]) == (0, [1, -2, 2])
    assert [c.index for c in C.tolist()] == [-2, -2, 0]
    m.remove([X, x])
    m.remove(X)
    assert shape_of(m) == (0, 1, 0)


@pytest.mark.parametrize("what", [None, 3, "x", np.ones(2), 1.5, [None], {}])
def test_what_cannot_be_removed(m, what):
    x = m.addVar()
    with pytest.raises(TypeError, match=r"remove\(\) takes variables, constraints"):
        m.remove([x, what])
    assert m.NumVars == 1


def test_remove_refuses_foreign_elements_and_endless_lists(mode, m):
    x, other = m.addVar(), tarvopy.Model()
    for foreign in (other.addVar(), other.addMVar(2)):
        with pytest.raises(TarvoError) as caught:
            m.remove([x, foreign])
        assert caught.value.code == TRV.Error.NOT_IN_MODEL
    endless = [x]
    endless.append(endless)
    with pytest.raises(RecursionError):
        m.remove(endless)
    assert (m.NumVars, other.NumVars) == (1, 3)


def test_look_up_by_name(m):
    x = m.addVar(name="x")
    c = m.addConstr(x <= 1, name="x")
    assert m.getVarByName("x") is x
    assert m.getConstrByName("x") is c
    assert m.getVarByName("") is None
    m.remove(x)
    assert m.getVarByName("x") is None
    for bad in (None, 3, b"x"):
        with pytest.raises(TypeError, match="takes a name"):
            m.getVarByName(bad)


# ---- coefficients


@given(st.integers(0, 2**32 - 1), st.integers(0, 5), st.integers(1, 5))
def test_getA_getRow_and_getCoeff_equal_the_matrix(seed, nrows, ncols):
    rng = np.random.default_rng(seed)
    A = rng.integers(-1, 2, (nrows, ncols)).astype(float)
    m = tarvopy.Model()
    x = m.addMVar(ncols)
    c = m.addConstr(sp.csr_array(A) @ x == rng.normal(size=nrows))
    np.testing.assert_array_equal(m.getCoeff(c[:, None], x), A)
    assert m.getA().shape == (0, 0)
    m.update()
    assert isinstance(m.getA(), sp.csr_matrix)
    np.testing.assert_array_equal(m.getA().toarray(), A)
    for i, row in enumerate(c.tolist()):
        terms = {v.index: coef for coef, v in m.getRow(row).terms()}
        assert terms == {j: A[i, j] for j in np.flatnonzero(A[i])}
    m.close()


def test_coefficients_change_at_once(mode, m):
    x, X = m.addVar(), m.addMVar(2)
    c = m.addConstr(x + X.sum() <= 1)
    pending = m.addConstr(x >= 0)
    m.setCoeff(pending, x, 5)
    m.update()
    C = m.addConstr(X <= 1)
    m.setCoeff(c.item(), x, 0)
    m.setCoeff(C, x, [7, 8])
    m.setCoeff(C, X, -1)
    assert m.getCoeff(pending, x) == 5.0
    assert m.getCoeff(C, x).tolist() == [7, 8]
    assert arrays(m).A.tolist() == [[0, 1, 1], [5, 0, 0], [7, -1, 0], [8, 0, -1]]


def test_getRow_takes_one_row(mode, m):
    X = m.addMVar(2)
    assert str(m.getRow(m.addConstr(X.sum() + 3 <= 1))) == "1.0 C0 + 1.0 C1"
    for bad, error in ((m.addConstr(X <= 1), ValueError), (X, TypeError), (None, TypeError)):
        with pytest.raises(error):
            m.getRow(bad)


def test_getA_is_the_callers_own(m):
    X = m.addMVar(2)
    m.addConstr(X <= 1)
    m.update()
    A = m.getA()
    A.data[:] = 9
    assert m.getA().toarray().tolist() == [[1, 0], [0, 1]]
    m.close()
    assert A.toarray().tolist() == [[9, 0], [0, 9]]


@pytest.mark.parametrize(
    ("make", "error"),
    [
        (lambda c, x, C, X, other: (c, x, float("nan")), TarvoError),
        (lambda c, x, C, X, other: (c, x, float("inf")), TarvoError),
        (lambda c, x, C, X, other: (C, X, [1, 2, 3]), ValueError),
        (lambda c, x, C, X, other: (x, c, 1), TypeError),
        (lambda c, x, C, X, other: (c, x, "1"), TypeError),
        (lambda c, x, C, X, other: (c, None, 1), TypeError),
        (lambda c, x, C, X, other: (c, other, 1), TarvoError),
        (lambda c, x, C, X, other: (C, X, [1, np.nan]), TarvoError),
    ],
)
def test_refused_coefficients_change_nothing(m, make, error):
    x, X = m.addVar(), m.addMVar(2)
    c, C = m.addConstr(2 * x <= 1), m.addConstr(X <= 1)
    before = arrays(m).A
    with pytest.raises(error):
        m.setCoeff(*make(c, x, C, X, tarvopy.Model().addVar()))
    np.testing.assert_array_equal(arrays(m).A, before)


def test_a_removed_row_has_no_coefficients(m):
    x = m.addVar()
    c = m.addConstr(x <= 1)
    m.remove(c)
    for call in (lambda: m.getRow(c), lambda: m.getCoeff(c, x), lambda: m.setCoeff(c, x, 1)):
        with pytest.raises(TarvoError) as caught:
            call()
        assert caught.value.code == TRV.Error.NOT_IN_MODEL
