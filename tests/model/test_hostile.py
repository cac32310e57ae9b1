"""Objects that misbehave while the model reads them end in exceptions; each program runs in a process of its own."""

import subprocess
import sys

import pytest

PRELUDE = """
import gc, numpy as np, scipy.sparse as sp, tarvopy
from tarvopy import TempConstr
m = tarvopy.Model()
x, X = m.addVar(), m.addMVar(4)
m.update()

class Evil:
    def __init__(self, act, value): self.act, self.value = act, value
    def __array__(self, dtype=None, copy=None): self.act(); return np.array(self.value)
    def __index__(self): self.act(); return self.value
    def __float__(self): self.act(); return float(self.value)

def fails(call):
    try:
        call()
    except Exception as error:
        print(type(error).__name__)
    else:
        raise SystemExit("no error")
"""

PROGRAMS = {
    "closing while bounds are read": "fails(lambda: m.addMVar(4, lb=Evil(m.close, [0.0] * 4)))",
    "closing while a shape is read": "fails(lambda: m.addMVar((2, Evil(m.close, 2))))",
    "closing while a side is read": "fails(lambda: m.addConstr(TempConstr(X, '<', Evil(m.close, [0.0] * 4))))",
    "closing while a coefficient is read": (
        "c = m.addConstr(X <= 1); fails(lambda: m.setCoeff(c, X, Evil(m.close, [1.0] * 4)))"
    ),
    "closing while names are read": "fails(lambda: m.addMVar(4, name=Evil(m.close, list('abcd'))))",
    "a list that empties itself": (
        "shape = [2]; shape.append(Evil(shape.clear, 2)); m.addMVar(shape); assert m.NumVars == 9; print('fine')"
    ),
    "an array that shrinks under its reader": (
        "lb = np.zeros(4); fails(lambda: m.addMVar(4, lb=lb, ub=Evil(lambda: lb.resize(2, refcheck=False), [1.0] * 4)))"
    ),
    "an array that raises": "fails(lambda: m.addMVar(4, lb=Evil(lambda: 1 / 0, [0.0] * 4)))",
    "a broken sparse matrix": (
        "A = sp.csr_matrix(np.eye(4)); A.indices[:] = 99\n"
        "fails(lambda: m.addConstr(A @ X <= 1)); assert m.NumConstrs == 0"
    ),
    "a negative index in a sparse matrix": (
        "A = sp.csr_matrix(np.eye(4)); A.indices[:] = -1\n"
        "fails(lambda: m.addConstr(A @ X <= 1)); assert m.NumConstrs == 0"
    ),
    "decreasing row pointers": (
        "A = sp.csr_matrix(np.eye(4)); A.indptr[2] = 0; A.indptr[1] = 4\n"
        "fails(lambda: m.addConstr(A @ X <= 1)); assert m.NumConstrs == 0"
    ),
    "arrays that disagree in length": (
        "A = sp.csr_matrix(np.eye(4)); A.data = A.data[:2]\n"
        "fails(lambda: m.addConstr(A @ X <= 1)); assert m.NumConstrs == 0"
    ),
    "a handle of a dead model": (
        "v = tarvopy.Model().addVar(); gc.collect(); fails(lambda: m.addConstr(v <= 1)); assert m.NumConstrs == 0"
    ),
    "views of a closed model": (
        "A = (m.addConstr(X <= 1), m.update(), m.getA())[2]; m.close(); assert A.sum() == 4; print('fine')"
    ),
    "comparison that adds to its own model": (
        "m.addConstr(TempConstr(X, '<', Evil(lambda: m.addConstr(X >= 0), [1.0] * 4)))\n"
        "assert m.NumConstrs == 8; print('fine')"
    ),
}


@pytest.mark.parametrize("name", PROGRAMS)
def test_hostile_objects_end_in_exceptions(name):
    code = PRELUDE + PROGRAMS[name] + "\nif not m._cmodel._closed: assert m.addVar().index == -1\n"
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr + done.stdout
    assert done.stdout.strip()
