"""Loading: what the engine holds is the model, whichever way its matrix went over."""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from tarvopy.problem import Problem


@pytest.fixture
def m():
    """One block of rows over ten variables, in no order within a row."""
    model = tarvopy.Model()
    model.params.LogLevel = 0
    x = model.addMVar(10, ub=np.arange(1.0, 11.0), obj=-1.0)
    A = sp.random_array((7, 10), density=0.4, rng=np.random.default_rng(2), format="csr")
    model.addConstr(A[:, ::-1] @ x[::-1] <= 1.0)
    model.update()
    return model


def handed(m):
    return Problem.of(m._cmodel).cheapest_matrix()


def columns(m):
    *arrays, by_columns = handed(m)
    assert by_columns
    return arrays


def dense(m):
    start, index, value, by_columns = handed(m)
    form = sp.csc_array if by_columns else sp.csr_array
    return form((value, index, start), shape=(m.NumConstrs, m.NumVars)).toarray()


def test_one_block_of_rows_is_handed_over_without_a_copy(m):
    first, second = handed(m), handed(m)
    assert not first[3]
    for array, again in zip(first[:3], second[:3], strict=True):
        assert not array.flags.writeable
        assert np.shares_memory(array, again)
    expected = m.getA().toarray()
    assert (dense(m) == expected).all()
    assert (held(m) == expected).all()


def held(m):
    """The engine's matrix after a new hand-over, dense."""
    m._engine = None
    counts = m.prepare()
    raw = m._engine._solver.model()
    assert counts == {"vars": m.NumVars, "rows": m.NumConstrs, "nz": m.NumNZs, "qnz": 0}
    for attribute, elements in [
        ("LB", m.getVars()),
        ("UB", m.getVars()),
        ("Lower", m.getConstrs()),
        ("Upper", m.getConstrs()),
    ]:
        assert raw[attribute.lower()].tolist() == [getattr(element, attribute) for element in elements]
    return sp.csc_array((raw["value"], raw["index"], raw["start"]), shape=(m.NumConstrs, m.NumVars)).toarray()


def ascending(picked, ends):
    """A model whose rows hold the picked variables one after the other, each row up to one of the ends."""
    model = tarvopy.Model()
    x = model.addMVar(20_000)
    A = sp.csr_array((np.arange(1.0, len(picked) + 1), picked, [0, *ends]), shape=(len(ends), 20_000))
    model.addConstr(A @ x <= 1.0)
    model.update()
    return model, A


EVERY, SOME = np.arange(20_000), np.arange(5, 19_990, 2)


@pytest.mark.parametrize(
    ("picked", "ends"),
    [(EVERY, [20_000]), (EVERY, [0, 7, 7, 12_000, 20_000]), (SOME, [len(SOME)]), (SOME, [1, len(SOME), len(SOME)])],
    ids=["one row", "rows", "one row with gaps", "rows with gaps"],
)
def test_values_in_the_order_of_columns_are_handed_over_without_a_copy(picked, ends):
    m, A = ascending(picked, ends)
    start, index, value = columns(m)
    assert not any(array.flags.writeable for array in (start, index, value))
    assert np.shares_memory(value, columns(m)[2])
    wanted = A.tocsc()
    for got, want in zip((start, index, value), (wanted.indptr, wanted.indices, wanted.data), strict=True):
        assert np.array_equal(got, want)
    m.setCoeff(m.getConstrs()[-1], m.getVars()[0], 5.0)
    m.update()
    assert (dense(m) == m.getA().toarray()).all()


@pytest.mark.parametrize("removed", [0, 3])
def test_entries_far_apart_stand_in_their_columns_in_the_order_of_rows(removed):
    rng = np.random.default_rng(4)
    nrows, ncols, width = 40_000, 3_001, 30
    index = np.sort(rng.integers(0, ncols, (nrows, width)), axis=1)
    value = rng.uniform(1, 2, (nrows, width))
    A = sp.csr_array((value.ravel(), index.ravel(), np.arange(0, nrows * width + 1, width)), shape=(nrows, ncols))
    A.sum_duplicates()
    m = tarvopy.Model()
    x = m.addMVar(ncols)
    m.addConstr(A @ x <= 1.0)
    m.update()
    m.remove(x[:removed])
    m.update()
    wanted = A[:, removed:].tocsc()
    for got, want in zip(columns(m), (wanted.indptr, wanted.indices, wanted.data), strict=True):
        assert np.array_equal(got, want)


CHANGES = {
    "second block": lambda m: m.addConstr(np.eye(10)[:, ::-1] @ tarvopy.MVar.fromlist(m.getVars()) >= 0),
    "row removed": lambda m: m.remove(m.getConstrs()[2]),
    "variable removed": lambda m: m.remove(m.getVars()[3]),
    "coefficient added": lambda m: [m.setCoeff(m.getConstrs()[0], v, 5.0) for v in m.getVars()[:3]],
    "coefficient taken": lambda m: [m.setCoeff(m.getConstrs()[0], v, 0.0) for v in m.getVars()],
    "variable added": lambda m: m.addVar(ub=3.0),
}


@pytest.mark.parametrize("kind", CHANGES)
def test_the_engine_holds_the_model_after_every_kind_of_change(m, kind):
    was = held(m)
    CHANGES[kind](m)
    m.update()
    expected = m.getA().toarray()
    assert expected.shape != was.shape or (expected != was).any()
    assert (held(m) == expected).all()
    assert (dense(m) == expected).all()


def test_the_views_outlive_the_model():
    m, A = ascending(SOME, [len(SOME)])
    start, index, value = columns(m)
    del m
    assert (sp.csc_array((value, index, start), shape=A.shape) != A).nnz == 0


MANY = 20_001  # of rows, whose sides go over in pieces


@pytest.mark.parametrize("vtype", ["C", "I", "S"])
@pytest.mark.parametrize("terms", [1, 5])
def test_bounds_and_sides_of_one_value_reach_the_engine(terms, vtype):
    rng = np.random.default_rng(terms)
    sides = rng.uniform(1, 2, MANY)
    for add in (
        lambda row: row <= sides,
        lambda row: row >= sides,
        lambda row: row <= 1.0,
        lambda row: row == 0.0,
        lambda row: row >= -np.inf,
    ):
        m = tarvopy.Model()
        x = m.addMVar(30, ub=7.0, vtype=vtype)
        index = np.sort(rng.permuted(np.tile(np.arange(30, dtype=np.int32), (MANY, 1)), axis=1)[:, :terms])
        value = rng.uniform(1, 2, MANY * terms)
        A = sp.csr_array((value, index.ravel(), np.arange(0, terms * MANY + 1, terms)), shape=(MANY, 30))
        m.addConstr(add(A @ x))
        m.update()
        assert (held(m) == A.toarray()).all()
        assert (m._engine._solver.model()["integrality"] == "CIS".index(vtype)).all()


@pytest.mark.parametrize("shape", [(3, MANY), (MANY, 3)])
def test_an_infinity_that_few_and_many_have_in_common(shape):
    m = tarvopy.Model()
    x = m.addMVar(shape[1], lb=-np.inf)
    A = sp.csr_array((np.ones(shape[0]), np.arange(shape[0]) % shape[1], np.arange(shape[0] + 1)), shape=shape)
    m.addConstr(A @ x <= 7.0)
    m.update()
    assert (held(m) == A.toarray()).all()


def test_types_of_many_variables_reach_the_engine():
    m, vtype = tarvopy.Model(), np.full(110_000, "C")
    vtype[[5, 70_000, 109_999]] = "I"  # far from each other: they go over in pieces, some of which hold none
    x = m.addMVar(vtype.size, vtype=vtype)
    m.addConstr(x[:3].sum() <= 1)
    m.prepare()
    assert np.array_equal(m._engine._solver.model()["integrality"] == 1, vtype == "I")
