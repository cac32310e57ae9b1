"""What engines read and write: the frozen problem, changes, solutions."""

import dataclasses

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from tarvopy import TRV, NoDataError, TarvoError, _modelapi
from tarvopy.problem import Changes, Problem


@pytest.fixture
def small(m):
    """max x0 + 2 x1 + 3: x0 + x1 <= 4, x0 - x1 >= -2, 0 <= x <= (3, inf): optimum (1, 3), 10."""
    x = m.addMVar(2, ub=[3, np.inf], obj=[1, 2], name="x")
    rows = m.addConstr(np.array([[1.0, 1], [1, -1]]) @ x <= [4, np.inf])
    m.update()
    rows.Lower = [-np.inf, -2]
    m.ModelSense, m.ObjConstant = -1, 3
    m.update()
    return m, x, rows


def test_problem_shows_the_store_without_copies(small):
    m, x, _ = small
    p = Problem.of(m._cmodel)
    assert (p.nvars, p.nrows, p.nnz, p.sense, p.objconstant, p.nintegral) == (2, 2, 4, -1, 3.0, 0)
    assert (p.lb.tolist(), p.ub.tolist(), p.obj.tolist()) == ([0, 0], [3, np.inf], [1, 2])
    assert (p.lower.tolist(), p.upper.tolist()) == ([-np.inf, -2], [4, np.inf])
    assert p.vtype.tolist() == [b"C", b"C"]
    assert p.start is None
    x.Obj = 1
    assert p.obj.tolist() == [1, 1]
    assert p.lb.strides == (0,)  # one value throughout stands once
    assert p.obj.strides == p.ub.strides == (8,)
    for name in ("lb", "ub", "obj", "vtype", "lower", "upper"):
        assert not getattr(p, name).flags.writeable
    with pytest.raises(dataclasses.FrozenInstanceError):
        p.nvars = 3


def test_matrix_by_rows(small):
    m, _, _ = small
    p = Problem.of(m._cmodel)
    start, index, value = p.csr()
    assert (start.dtype, index.dtype, value.dtype) == (np.int32, np.int32, np.float64)
    assert sp.csr_array((value, index, start), shape=(2, 2)).toarray().tolist() == [[1, 1], [1, -1]]
    del p, m
    value[:] = 1  # the caller's own


def test_an_empty_model_is_a_problem_too(m):
    p = Problem.of(m._cmodel)
    assert (p.nvars, p.nrows, p.lb.size, [a.tolist() for a in p.csr()]) == (0, 0, 0, [[0], [], []])


def test_starts_show_with_nan_for_none(m):
    x = m.addMVar(3, vtype="I")
    m.update()
    x[1].Start = 2.0
    p = Problem.of(m._cmodel)
    np.testing.assert_array_equal(p.start, [np.nan, 2, np.nan])
    assert p.nintegral == 3


def test_changes_list_what_an_engine_must_be_told(small):
    m, x, rows = small
    for _ in range(3):
        m.addMVar(10)
        m.addConstr(m.addMVar(10) <= 1)
    m.update()
    assert Changes.of(m._cmodel).structure
    Changes.clear(m._cmodel)
    x[0].LB = 1
    x[1].Obj = 5
    rows[1].Upper = 7
    m.setCoeff(rows[0], x[1], 4)
    m.ObjConstant = 1
    m.update()
    c = Changes.of(m._cmodel)
    assert (c.structure, c.objconstant, c.sense) == (False, True, False)
    assert (c.bounds.tolist(), c.costs.tolist(), c.sides.tolist()) == ([0], [1], [1])
    assert (c.coefrows.tolist(), c.coefvars.tolist(), c.coefs.tolist()) == ([0], [1], [4.0])
    Changes.clear(m._cmodel)
    assert Changes.of(m._cmodel).bounds.size == 0


def test_a_committed_solution_is_what_attributes_read(small):
    m, x, rows = small
    values, reduced, duals, _ = _modelapi.open_solution(m._cmodel)
    values[:], reduced[:], duals[:] = [1, 3], [0, 0], [1.5, -0.5]
    assert _modelapi.evaluate_objective(m._cmodel, values) == 10.0
    residuals = _modelapi.residuals(m._cmodel, True)
    assert max(residuals[k] for k in ("row", "bound", "integral", "dual", "complementarity")) < 1e-12
    with pytest.raises(NoDataError):
        x.X
    _modelapi.commit_solution(
        m._cmodel, status=TRV.OPTIMAL, has_x=True, has_duals=True, objval=10.0, bound=10.0, runtime=0.5, engine="test 1"
    )
    assert (m.Status, m.ObjVal, m.Gap, m.Runtime, m.EngineName) == (TRV.OPTIMAL, 10.0, 0.0, 0.5, "test 1")
    assert (x.X.tolist(), rows.Pi.tolist(), rows.Slack.tolist()) == ([1, 3], [1.5, -0.5], [0.0, 0.0])
    x[0].UB = 0.5
    assert m.Status == TRV.NOT_SOLVED
    np.testing.assert_array_equal(Problem.of(m._cmodel).start, [1, 3])


def test_residuals_name_the_worst_offender(small):
    m, _, _ = small
    values, *_ = _modelapi.open_solution(m._cmodel)
    values[:] = [3.5, 3]
    r = _modelapi.residuals(m._cmodel, False)
    assert (r["row"], r["worstrow"], r["bound"], r["worstbound"]) == (2.5, 0, 0.5, 0)


def test_calls_are_refused_while_solving_but_the_engines(small):
    m, x, _ = small
    _modelapi.set_solving(m._cmodel, True)
    for call in (lambda: m.addVar(), lambda: m.NumVars, lambda: m.close(), lambda: x.X, lambda: m.optimize()):
        with pytest.raises(TarvoError, match="solved"):
            call()
    assert repr(m) == "<tarvopy.Model (being solved)>"
    assert Problem.of(m._cmodel).nvars == 2
    assert _modelapi.is_solving(m._cmodel)
    _modelapi.set_solving(m._cmodel, False)
    assert m.NumVars == 2


@pytest.mark.parametrize("bad", [None, 3, "m", object()])
def test_engine_functions_want_a_handle(bad):
    for name in ("problem", "matrix", "changes", "clear_changes", "open_solution", "is_solving"):
        with pytest.raises(TypeError, match="expected a model handle"):
            getattr(_modelapi, name)(bad)


def test_leaving_the_context_while_an_engine_runs_raises_nothing():
    with tarvopy.Model() as m:
        _modelapi.set_solving(m._cmodel, True)
    _modelapi.set_solving(m._cmodel, False)
    assert m.NumVars == 0


def test_views_outlive_the_memory_they_show():
    """The store gives back what views still point into only when the last of them goes: no crash, and old values."""
    m = tarvopy.Model()
    x = m.addMVar(20_000, ub=np.arange(20_000.0))
    m.addConstr(x[::2] + x[1::2] <= 1)
    m.update()
    p = Problem.of(m._cmodel)
    shown = [p.lb, p.ub, p.obj, p.vtype, p.lower, p.upper, *p.cheapest_matrix()[:3]]
    before = [a.copy() for a in shown]
    opened = _modelapi.open_solution(m._cmodel)
    del p
    for step in (lambda: m.addMVar((30, 20_000)), m.update, lambda: _modelapi.open_solution(m._cmodel), m.close):
        step()
        junk = [bytearray(b"\xff" * a.nbytes) for a in shown]
        for now, then in zip(shown, before, strict=True):
            assert np.array_equal(now, then)
        for a in opened:
            a.fill(7.0)
        assert all(set(block) <= {255} for block in junk)
