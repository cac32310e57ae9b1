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


def in_place(m):
    return Problem.of(m._cmodel).rows_in_place()


def held(m):
    """The engine's matrix after a new hand-over, dense."""
    m._engine = None
    counts = m.prepare()
    raw = m._engine._solver.model()
    assert counts == {"vars": m.NumVars, "rows": m.NumConstrs, "nz": m.NumNZs, "qnz": 0}
    assert raw["ub"].tolist() == [v.UB for v in m.getVars()]
    assert raw["upper"].tolist() == [r.Upper for r in m.getConstrs()]
    return sp.csc_array((raw["value"], raw["index"], raw["start"]), shape=(m.NumConstrs, m.NumVars)).toarray()


def test_one_block_of_rows_is_handed_over_without_a_copy(m):
    start, index, value = in_place(m)
    assert not index.flags.owndata
    assert not index.flags.writeable
    assert np.shares_memory(value, in_place(m)[2])
    expected = m.getA().toarray()
    assert (sp.csr_array((value, index, start), shape=(7, 10)).toarray() == expected).all()
    assert (held(m) == expected).all()


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
    rows = in_place(m)
    if rows is not None:
        assert (sp.csr_array(rows[::-1], shape=expected.shape).toarray() == expected).all()


def test_the_views_outlive_the_model(m):
    expected = m.getA().toarray()
    start, index, value = in_place(m)
    del m
    assert (sp.csr_array((value, index, start), shape=(7, 10)).toarray() == expected).all()
