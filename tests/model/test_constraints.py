"""addConstr and addRange: rows and sides, broadcasting, infinite sides, names, and what is refused."""

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given
from hypothesis import strategies as st

import tarvopy
from model_arrays import arrays, shape_of
from tarvopy import TRV, LinExpr, TarvoError, genfunc, nlfunc
from tarvopy._debug import counts

inf = tarvopy.inf


def test_scalar_rows_by_hand(m):
    x, y = m.addVar(name="x"), m.addVar(name="y")
    first = m.addConstr(2 * x + 3 * y + 1 <= 5, name="first")
    m.addConstr(x >= 4 - y)
    m.addConstr(x - x + y == 0)
    m.addConstr(y <= 7)
    a = arrays(m)
    assert a.A.tolist() == [[2, 3], [1, 1], [0, 1], [0, 1]]
    assert a.lower.tolist() == [-inf, 4, 0, -inf]
    assert a.upper.tolist() == [4, inf, 0, 7]
    assert isinstance(first, tarvopy.Constr)
    assert m.getConstrByName("first") is first
    assert [str(c) for c in m.getConstrs()] == ["first", "R1", "R2", "R3"]
    assert not np.signbit(a.lower[2])


def test_matrix_rows_by_hand(mode, m):
    x = m.addMVar(3)
    A = np.array([[1.0, 0, 2], [0, 3, 0]])
    c = m.addConstr(A @ x <= [4, 5], name="cap")
    m.addConstr(x[0] + x[1] >= 1)
    a = arrays(m)
    assert isinstance(c, tarvopy.MConstr)
    assert c.shape == (2,)
    assert a.A.tolist() == [[1, 0, 2], [0, 3, 0], [1, 1, 0]]
    assert a.lower.tolist() == [-inf, -inf, 1]
    assert a.upper.tolist() == [4, 5, inf]
    assert str(c[1]) == "cap[1]"


def test_what_comes_back_tells_scalars_from_arrays(mode, m):
    x, X, Z = m.addVar(), m.addMVar(3), m.addMVar(())
    assert isinstance(m.addConstr(x <= 1), tarvopy.Constr)
    assert isinstance(m.addConstr(x + X.tolist()[0] <= LinExpr(x)), tarvopy.Constr)
    assert m.addConstr(X <= 1).shape == (3,)
    assert isinstance(m.addConstr(Z <= 1), tarvopy.MConstr)
    assert m.addConstr(Z == 1).shape == ()
    assert m.addConstr(X.sum() >= 1).shape == ()
    assert m.addConstr(X.reshape(3, 1) <= X).shape == (3, 3)
    assert m.addConstr(X[:0] <= 1).shape == (0,)


@given(st.data())
def test_rows_equal_numpys(data):
    rng = np.random.default_rng(data.draw(st.integers(0, 2**32 - 1)))
    nrows, ncols = data.draw(st.integers(0, 6)), data.draw(st.integers(1, 6))
    dense = rng.integers(-2, 3, (nrows, ncols)).astype(float)
    form = data.draw(st.sampled_from([np.asarray, sp.csr_matrix, sp.csc_array, sp.coo_array]))
    shape = data.draw(st.sampled_from([(), (nrows,), (1,)]))
    b = rng.normal(size=shape)
    sense = data.draw(st.sampled_from("<>="))
    m = tarvopy.Model()
    x = m.addMVar(ncols, lb=-1)
    left, right = form(dense) @ x + 0.5, b if data.draw(st.booleans()) else b + 0 * x.sum()
    compare = {"<": lambda: left <= right, ">": lambda: left >= right, "=": lambda: left == right}[sense]
    m.addConstr(compare())
    a = arrays(m)
    side = np.broadcast_to(b, (nrows,)) - 0.5
    np.testing.assert_array_equal(a.A, dense)
    np.testing.assert_allclose(a.lower, np.full(nrows, -inf) if sense == "<" else side)
    np.testing.assert_allclose(a.upper, np.full(nrows, inf) if sense == ">" else side)
    m.close()


def test_sides_broadcast_against_each_other(mode, m):
    x = m.addMVar(3)
    c = m.addConstr(x >= np.arange(6.0).reshape(2, 3))
    a = arrays(m)
    assert c.shape == (2, 3)
    np.testing.assert_array_equal(a.A, np.vstack([np.eye(3)] * 2))
    np.testing.assert_array_equal(a.lower, np.arange(6.0))


def test_a_list_is_a_side(mode, m):
    x, X = m.addVar(), m.addMVar(2)
    m.addConstr([x, 2 * x + 1] >= X)
    m.addConstr(tarvopy.TempConstr((1, 2), ">", X))
    a = arrays(m)
    assert a.A.tolist() == [[-1, 1, 0], [-2, 0, 1], [0, -1, 0], [0, 0, -1]]
    assert (a.lower.tolist(), a.upper.tolist()) == ([-inf, -inf, -1, -2], [0, 1, inf, inf])


def test_a_sparse_matrix_in_any_order_gives_the_same_rows(mode, m):
    X = m.addMVar(3)
    indptr, indices, data = np.array([0, 3, 4]), np.array([2, 0, 2, 1]), np.array([1.0, 2, 4, 8])
    for index in (np.int32, np.int64):
        A = sp.csr_matrix((data, indices.astype(index), indptr.astype(index)), shape=(2, 3))
        A.indices, A.indptr = A.indices.astype(index), A.indptr.astype(index)
        m.addConstr(A @ X <= 1)
    assert arrays(m).A.tolist() == [[2, 0, 5], [0, 8, 0]] * 2


def test_whole_arrays_make_no_object_per_element(m):
    before = counts()
    X = m.addMVar((50, 40), ub=np.ones(40), name="x")
    m.addConstr(sp.eye_array(50).tocsr() @ X <= np.arange(40.0), name="rows")
    m.addRange(X, 0, np.ones(40))
    m.setObjective(X.sum())
    m.update()
    assert m.NumConstrs == 4000
    assert counts() == before


def test_infinite_sides_mean_none(mode, m):
    x = m.addVar()
    X = m.addMVar(3)
    m.addConstr(x <= inf)
    m.addConstr(2 * x + 1 >= -1e20)
    m.addConstr([1, inf, 1e30] >= X)
    a = arrays(m)
    assert a.lower.tolist() == [-inf] * 5
    assert a.upper.tolist() == [inf, inf, 1, inf, inf]


def test_rows_without_a_bound_keep_the_sense_they_were_written_with(m):
    x = m.addMVar(3, ub=9)
    below, above = m.addConstr(x <= [1, inf, 1e20]), m.addConstr(x >= [1, -inf, -1e20])
    single = m.addConstr(x[0].item() >= -inf)
    assert (below.Sense.tolist(), above.Sense.tolist(), single.Sense) == (["<"] * 3, [">"] * 3, ">")
    assert above.RHS.tolist() == [1, -inf, -inf]
    above.RHS = 2
    single.RHS = 3
    assert (above.Lower.tolist(), above.Upper.tolist()) == ([2] * 3, [inf] * 3)
    assert (single.Lower, single.Upper) == (3, inf)


@pytest.mark.parametrize(
    "make",
    [
        lambda x, X: x <= -inf,
        lambda x, X: x >= inf,
        lambda x, X: x == inf,
        lambda x, X: x == -1e20,
        lambda x, X: [1, -inf, 2] >= X,
        lambda x, X: np.array([1, inf, 2]) <= X,
        lambda x, X: np.array([1, inf, 2]) == X,
        lambda x, X: np.array([1, np.nan, 2]) >= X,
        lambda x, X: x <= float("nan"),
    ],
)
def test_sides_that_can_never_hold_are_refused(m, make):
    x, X = m.addVar(), m.addMVar(3)
    with pytest.raises(TarvoError, match=r"no value meets it|nan"):
        m.addConstr(make(x, X))
    assert shape_of(m) == (4, 0, 0)


@pytest.mark.parametrize(
    ("make", "error", "message"),
    [
        (lambda x, X: True, TypeError, "not the bool True: the comparison was evaluated"),
        (lambda x, X: np.ones(3) <= np.ones(3), TypeError, "NumPy has evaluated the comparison already"),
        (lambda x, X: np.bool_(True), TypeError, "addConstr"),
        (lambda x, X: None, TypeError, "takes a comparison, not 'NoneType'"),
        (lambda x, X: x + 1, TypeError, "an expression alone is no constraint"),
        (lambda x, X: X + 1, TypeError, "an expression alone is no constraint"),
        (lambda x, X: [x <= 1, x >= 0], TypeError, "one at a time"),
        (lambda x, X: "x <= 1", TypeError, "takes a comparison, not 'str'"),
        (lambda x, X: tarvopy.TempConstr(1, "<", 2), TypeError, "not of two numbers"),
        (lambda x, X: tarvopy.TempConstr(x, "!", 2), ValueError, "sense"),
        (lambda x, X: tarvopy.TempConstr(x, None, 2), ValueError, "sense"),
        (lambda x, X: tarvopy.TempConstr(x, "<", "2"), TypeError, "takes expressions, numbers and arrays, not 'str'"),
        (lambda x, X: tarvopy.TempConstr(x, "<", None), TypeError, "addConstr"),
        (lambda x, X: tarvopy.TempConstr(X, "<", np.ones(2)), ValueError, r"\(3,\).*\(2,\)"),
        (
            lambda x, X: tarvopy.TempConstr(X, "<", np.array([1, 2j, 3])),
            TypeError,
            "arrays of them, not of dtype complex128",
        ),
    ],
)
def test_what_is_no_comparison_is_refused_with_the_reason(m, make, error, message):
    x, X = m.addVar(), m.addMVar(3)
    with pytest.raises(error, match=message):
        m.addConstr(make(x, X))
    assert shape_of(m) == (4, 0, 0)


def test_chains_say_what_to_write_instead(m):
    x = m.addVar()
    with pytest.raises(TarvoError):
        m.addConstr(0 <= x <= 1)
    assert shape_of(m) == (1, 0, 0)


def test_a_refused_size_names_both_shapes(m):
    x = m.addMVar((1 << 17, 1))
    with pytest.raises(ValueError, match=r"\(131072, 1\).*\(131072,\)|\(131072,\).*\(131072, 1\)"):
        m.addConstr(x <= np.zeros(1 << 17))
    assert m.NumConstrs == 0


def test_a_view_larger_than_memory_is_refused_before_it_is_copied(m):
    v = m.addVar()
    view = np.broadcast_to(1.0, (2**16, 2**16))
    sides = (v, v * v, nlfunc.exp(v))
    for make in (*(lambda side=side: m.addConstr(side <= view) for side in sides), lambda: genfunc.max(v, view)):
        with pytest.raises(ValueError, match=r"\(65536, 65536\)"):
            make()


def test_two_models_never_mix(mode, m):
    other = tarvopy.Model()
    x, y, X, Y = m.addVar(), other.addVar(), m.addMVar(2), other.addMVar(2)
    for make in (lambda: y <= 1, lambda: x + y <= 1, lambda: Y <= 1, lambda: X <= Y, lambda: np.eye(2) @ Y <= 1):
        with pytest.raises(TarvoError) as caught:
            m.addConstr(make())
        assert caught.value.code == TRV.Error.NOT_IN_MODEL
    assert (shape_of(m), shape_of(other)) == ((3, 0, 0), (3, 0, 0))


def test_removed_variables_are_refused_and_marked_ones_until_the_update(m):
    x, y = m.addVar(), m.addVar()
    m.update()
    m.remove(x)
    m.update()
    with pytest.raises(TarvoError) as caught:
        m.addConstr(x + y <= 1)
    assert caught.value.code == TRV.Error.NOT_IN_MODEL
    assert shape_of(m) == (1, 0, 0)


def test_duplicates_are_summed_and_zeros_dropped(mode, m):
    x, X = m.addVar(), m.addMVar(2)
    m.addConstr(x + 2 * x - 3 * x <= 1)
    m.addConstr(X + 2 * X + 0 * x <= 1)
    assert shape_of(m) == (3, 3, 2)
    assert arrays(m).A.tolist() == [[0, 0, 0], [0, 3, 0], [0, 0, 3]]


def test_the_expression_can_be_used_again(mode, m):
    X = m.addMVar(2)
    e = 2 * X + 1
    m.addConstr(e <= 5)
    e += X
    m.addConstr(e <= 7)
    a = arrays(m)
    assert a.A.tolist() == [[2, 0], [0, 2], [3, 0], [0, 3]]
    assert a.upper.tolist() == [4, 4, 6, 6]


def test_names_of_rows(mode, m):
    X = m.addMVar((2, 2))
    m.addConstr(X <= 1, name="r")
    m.addConstr(X <= 2, name=[["a", "b"], ["c", "d"]])
    m.addConstr(X.sum() <= 3, name="total")
    m.update()
    names = [str(c) for c in m.getConstrs()]
    assert names == ["r[0,0]", "r[0,1]", "r[1,0]", "r[1,1]", "a", "b", "c", "d", "total"]
    with pytest.raises(ValueError, match=r"names of shape \(2,\) do not name elements of shape \(2, 2\)"):
        m.addConstr(X <= 1, name=["a", "b"])
    assert m.NumConstrs == 9


# ---- ranges


def test_ranges_by_hand(mode, m):
    x, X = m.addVar(), m.addMVar(2)
    r = m.addRange(2 * x + 1, np.float32(0), np.int64(5), name="r")
    R = m.addRange(X, [1, -inf], inf)
    m.addRange(x, 3, 2)
    a = arrays(m)
    assert isinstance(r, tarvopy.Constr)
    assert R.shape == (2,)
    assert a.lower.tolist() == [-1, 1, -inf, 3]
    assert a.upper.tolist() == [4, inf, inf, 2]
    assert (r.Sense, r.RHS) == ("R", 4)


def test_range_sides_broadcast_the_expression(mode, m):
    x, X = m.addVar(), m.addMVar(3)
    assert m.addRange(X, 0, np.ones((2, 1))).shape == (2, 3)
    assert m.addRange(x, np.zeros(2), 1).shape == (2,)
    assert m.addRange(x, np.array(0.0), 1).shape == ()
    assert shape_of(m) == (4, 9, 9)


@pytest.mark.parametrize(
    ("arguments", "error"),
    [
        ((0, np.nan), TarvoError),
        ((inf, inf), TarvoError),
        ((-inf, -inf), TarvoError),
        ((np.zeros(2), 1), ValueError),
        ((np.zeros(3), np.ones(4)), ValueError),
        ((None, 1), TypeError),
        (("0", 1), TypeError),
    ],
)
def test_refused_ranges(m, arguments, error):
    X = m.addMVar(3)
    with pytest.raises(error):
        m.addRange(X, *arguments)
    with pytest.raises(TypeError):
        m.addRange(3.0, 0, 1)
    with pytest.raises(TypeError):
        m.addRange(X <= 1, 0, 1)
    assert shape_of(m) == (3, 0, 0)
