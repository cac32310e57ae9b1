"""A second solve: the engine's model is kept, only changes are sent, and the answer is that of a model made anew."""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from tarvopy import TRV

N = 30


def model(seed=0, vtype="C"):
    rng = np.random.default_rng(seed)
    m = tarvopy.Model()
    m.params.LogLevel = 0
    A = sp.random_array((20, N), density=0.3, rng=rng, format="csr")
    x = m.addMVar(N, ub=5.0, obj=rng.uniform(1, 2, N), vtype=vtype)
    rows = m.addConstr(A @ x >= rng.uniform(0.1, 1, 20))
    return m, x, rows


def held(m):
    """What the engine holds, as one dictionary of plain values; the order within a column means nothing."""
    raw = m._engine._solver.model()
    shape = (len(raw["lower"]), len(raw["lb"]))
    raw["matrix"] = sp.csc_array((raw.pop("value"), raw.pop("index"), raw.pop("start")), shape=shape).toarray()
    raw["nz"] = m._engine.counts()["nz"]
    return {k: v.tolist() if isinstance(v, np.ndarray) else v for k, v in raw.items()}


def sent(m, change):
    """(whole models handed over, calls with changes) that one change and a re-solve cost."""
    engine = m._engine
    loads, calls = engine.loads, engine.changes_sent
    change()
    m.optimize()
    assert m._engine is engine
    return engine.loads - loads, engine.changes_sent - calls


def only(array, position, value):
    array = np.array(array)
    array[position] = value
    return array


CHANGES = {
    "bound": lambda m, x, rows: setattr(x, "LB", only(x.LB, 3, 1.0)),
    "cost": lambda m, x, rows: setattr(x, "Obj", only(x.Obj, 4, -1.0)),
    "side": lambda m, x, rows: setattr(rows, "RHS", only(rows.RHS, 5, 2.0)),
    "coefficient": lambda m, x, rows: m.setCoeff(rows.tolist()[0], x.tolist()[1], 7.0),
    "sense": lambda m, x, rows: setattr(m, "ModelSense", TRV.MAXIMIZE),
    "constant": lambda m, x, rows: setattr(m, "ObjConstant", 9.0),
}


@pytest.mark.parametrize(("kind", "vtype"), [*((kind, "C") for kind in CHANGES), ("bound", "I")])
def test_one_change_is_one_call_and_no_new_hand_over(kind, vtype):
    m, x, rows = model(vtype=vtype)
    m.optimize()
    assert m._engine.loads == 1
    assert sent(m, lambda: CHANGES[kind](m, x, rows)) == (0, 1)
    fresh, y, fresh_rows = model(vtype=vtype)
    CHANGES[kind](fresh, y, fresh_rows)
    fresh.optimize()
    assert held(m) == held(fresh)
    assert m.ObjVal == pytest.approx(fresh.ObjVal, rel=1e-9)
    assert m.Status == fresh.Status == TRV.OPTIMAL


def test_nothing_changed_sends_nothing():
    m, _, _ = model()
    assert m.prepare() == {"vars": N, "rows": 20, "nz": m.NumNZs, "qnz": 0}
    assert m.Status == TRV.NOT_SOLVED
    assert sent(m, lambda: None) == (0, 0)  # what prepare() loaded is what optimize() runs
    assert sent(m, lambda: None) == (0, 0)
    m.prepare()
    assert m._engine.loads == 1


def test_changes_of_structure_load_anew():
    m, x, rows = model()
    m.optimize()
    structural = (
        lambda: m.addConstr(x.sum() >= 3),
        lambda: m.addVar(lb=1.0, obj=2.0),
        lambda: m.remove(rows[2:4]),
        lambda: setattr(x, "VType", np.array(["I"] * N)),
        lambda: m.remove(x[5]),
    )
    for change in structural:
        assert sent(m, change) == (1, 0)
        fresh = tarvopy.Model()
        fresh.params.LogLevel = 0
        y = fresh.addMVar(m.NumVars, lb=[v.LB for v in m.getVars()], ub=[v.UB for v in m.getVars()])
        y.Obj, y.VType = [v.Obj for v in m.getVars()], [v.VType for v in m.getVars()]
        fresh.addRange(m.getA() @ y, [r.Lower for r in m.getConstrs()], [r.Upper for r in m.getConstrs()])
        fresh.optimize()
        assert held(m) == held(fresh)
        assert m.ObjVal == pytest.approx(fresh.ObjVal, rel=1e-9)


def test_a_failed_hand_over_is_made_good_by_the_next(monkeypatch):
    m, x, _ = model()
    m.optimize()
    x.LB = only(x.LB, 3, 1.0)
    m.params.EngineOptions = {"no_such": 1}
    with pytest.raises(tarvopy.TarvoError):
        m.optimize()
    m.params.EngineOptions = {}
    m.optimize()
    assert held(m)["lb"][3] == 1.0
    assert x.X[3] >= 1.0 - 1e-9


def test_an_lp_goes_on_from_its_last_basis():
    m, x, _ = model()
    m.optimize()
    first = m.IterCount
    assert first > 0
    m.ObjConstant = 1.0
    m.optimize()
    assert m.IterCount == 0
    x.Obj = only(x.Obj, 0, x.Obj[0] + 1e-9)
    m.optimize()
    assert m.IterCount < first


def test_random_sequences_of_changes_agree_with_a_fresh_engine():
    rng = np.random.default_rng(11)
    m, x, rows = model(1)
    for _ in range(12):
        for _ in range(rng.integers(1, 4)):
            j, i = rng.integers(0, N), rng.integers(0, 20)
            kind = rng.integers(0, 5)
            if kind == 0:
                x.UB = only(x.UB, j, rng.uniform(2, 6))
            elif kind == 1:
                x.Obj = only(x.Obj, j, rng.uniform(0, 2))
            elif kind == 2:
                rows.RHS = only(rows.RHS, i, rng.uniform(0, 1))
            elif kind == 3:
                m.setCoeff(rows.tolist()[i], x.tolist()[j], float(rng.integers(0, 3)))
            else:
                m.addConstr(x[: j + 1].sum() <= 100.0)
        m.optimize()
        warm, status, engine = m.ObjVal, m.Status, m._engine
        was = held(m)
        m._engine = None
        m.ObjConstant = 0.0
        m.optimize()
        assert (m.Status, held(m)) == (status, was)
        assert m.ObjVal == pytest.approx(warm, rel=1e-9)
        assert m._engine is not engine
