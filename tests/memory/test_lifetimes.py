"""Who may end before whom: handles, models, cycles, interpreters, processes. Each program runs in a process of its own,
which must end by itself, without a crash and soon."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).resolve().parents[1]

BEGIN = """
import gc, importlib, os, sys, threading, time, warnings, weakref
import numpy as np
import tarvopy as tv
from tarvopy import _core, nlfunc

warnings.simplefilter("ignore")  # forks beside threads
before = _core._counts()
def none_left():
    gc.collect()
    assert _core._counts() == before, (_core._counts(), before)
"""

HANDLES = """
def parts():
    m = tv.Model()
    x = m.addMVar(3, ub=2.0, name="x")
    row, quadratic = m.addConstr(x.sum() <= 3), m.addConstr(x * x <= 4.0)
    m.update()
    return [x, x[1], 2 * x + 1, (x * x).sum(), nlfunc.exp(x), row, quadratic, x <= 1, x[0] + x[1]]

kept = parts()  # the model's last holders
gc.collect()
assert kept[0].UB.tolist() == [2.0] * 3 and kept[5].RHS == 3.0 and kept[1].item().VarName == "x[1]"
texts = [str(each) for each in kept]
assert str(kept[0] + kept[2]) and str(kept[2] * kept[0]) and str(kept[4] + kept[3])
while kept:
    del kept[0], texts[0]
    gc.collect()
    assert [str(each) for each in kept] == texts
none_left()
m = tv.Model()  # and the model lives on without them
for _ in range(3):
    x = m.addMVar(4, name="x")
    m.addConstr(x.sum() + m.getVars().__len__() <= 9)
    m.update()
    del x
    gc.collect()
assert m.NumVars == 12 and m.getRow(m.getConstrs()[2]).size() == 4
del m
none_left()
"""

CYCLES = """
class Plant(tv.Model):
    def __init__(self):
        super().__init__()
        self._whole, self._listeners = self, [lambda: self]
class Vector(tv.MVar):
    pass
class Failure(Exception):
    pass

def make():
    plant = Plant()
    x = plant.addMVar(3)
    plant.update()
    v = Vector.fromlist(x.tolist())
    e, q, f = 2 * v, v * v, nlfunc.sin(v)
    rows = plant.addConstr(e <= 1)
    for each in (v, e, q, f, rows):
        each._mine, each._model, each._method = each, plant, each.__class__
    plant._parts = [v, e, q, f, rows, iter(v), plant.addVar, e <= 3]
    try:
        raise Failure(plant)
    except Failure as error:
        plant._error = error
    return weakref.ref(plant)

for _ in range(3):
    plant = make()
    gc.collect()
    assert plant() is None
none_left()
"""

COLLECTED = """
from memory.operands import outcome
from memory.python_operations import TABLE

gc.collect()
gc.freeze()  # what is there already makes no collection longer
for name, (prepare, operate, *_) in TABLE.items():
    operands = prepare()
    expected = outcome(operate(*operands), operands)
    operands = prepare()
    gc.set_threshold(1)
    result = operate(*operands)
    gc.set_threshold(700)
    assert outcome(result, operands) == expected, name
"""

# A solve that is under way, whatever the machine: Clarabel's iterations take a second each.
LONG = """
engine = sys.argv[1]
def silent():
    m = tv.Model()
    m.params.LogLevel, m.params.Engine, m.params.TimeLimit = 0, engine, 30
    return m
def long():
    m, rng = silent(), np.random.default_rng(1)
    A = rng.integers(0, 100, (5, 40))
    x = m.addMVar(40, ub=1.0, vtype="C" if engine == "clarabel" else "B")
    s, t = m.addMVar(5, lb=-1000.0), m.addMVar(5)
    m.addConstr(A @ x + s == A.sum(axis=1) // 2)
    m.addConstr(s <= t)
    m.addConstr(-s <= t)
    m.setObjective(t.sum() if engine == "highs" else t @ t)
    m.update()
    return m
def easy():
    m = silent()
    x = m.addMVar(3, ub=4.0)
    m.addConstr(x.sum() >= 3)
    m.setObjective(x.sum() if engine == "highs" else x @ x)
    m.optimize()
    assert abs(m.ObjVal - 3) < 1e-4
if engine == "clarabel":
    from tarvopy.engines.clarabel import ClarabelEngine
    after = ClarabelEngine._after_iteration
    ClarabelEngine._after_iteration = lambda self, info: time.sleep(seconds) or after(self, info)
seconds = 1.0
hard = long()
arrays = [hard.getVars(), 2 * tv.MVar.fromlist(hard.getVars()), hard.getA()]  # in the module's names at the end
thread = threading.Thread(target=hard.optimize, daemon=True)
thread.start()
while not (hard._engine and hard._engine.running):
    time.sleep(0.01)
time.sleep(0.2)
"""

EXIT = (
    LONG
    + """
assert thread.is_alive()
"""
)

FORK = (
    LONG
    + """
child = os.fork()
seconds = 0.0
if child == 0:
    for use in (hard.update, hard.optimize, lambda: hard.addVar(), hard.close):
        try:
            use()
        except tv.TarvoError as error:
            assert "the model is being solved" in str(error), error
        else:
            raise AssertionError("the child took the parent's running model")
    try:
        easy()
    except tv.TarvoError as error:
        assert engine == "scip" and "forked while SCIP was running" in str(error), error
    sys.exit(3)  # not os._exit: what the package does at the end must not wait for the parent's engine
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 3
assert thread.is_alive() or engine == "clarabel"
easy()
"""
)

# Large enough for the helper threads of Clarabel, which a child does not have.
HELPERS = """
def solve():
    m, rng = tv.Model(), np.random.default_rng(1)
    m.params.LogLevel, m.params.Engine, m.params.Threads = 0, "clarabel", 2
    m.params.EngineOptions = {"direct_solve_method": "faer"}
    x, Q = m.addMVar(200, lb=-1.0, ub=1.0), rng.normal(size=(200, 200))
    m.addConstr(rng.normal(size=(100, 200)) @ x <= 1)
    m.setObjective(x @ (Q @ Q.T) @ x + rng.normal(size=200) @ x)
    m.optimize()
    assert m.Status == tv.TRV.OPTIMAL

solve()
child = os.fork()
solve()
if child == 0:
    os._exit(3)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 3
"""

OTHER_INTERPRETERS = """
import _interpreters
refused = "does not support loading in subinterpreters"
def in_another(kind):
    other = _interpreters.create(kind)
    error = _interpreters.exec(other, "import tarvopy; tarvopy.Model()")
    _interpreters.destroy(other)
    return error and error.msg
"""

RELOADED = """
m = tv.Model()
x = m.addMVar(3)
importlib.reload(tv)
assert tv.MVar is type(x)
m.addConstr((x + tv.Model().addVar().LB).sum() <= 3)
for name in [name for name in sys.modules if name.startswith("tarvopy")]:
    del sys.modules[name]
try:
    import tarvopy
    tarvopy.Model()
except RuntimeError as error:  # the native types are there once
    assert "Re-initialisation is not supported" in str(error)
assert str(2 * x + 1) and x.LB.tolist() == [0.0] * 3
"""


def ends(program: str, *words: str, seconds: float = 120) -> None:
    code = f"import sys; sys.path.insert(0, {str(TESTS)!r})\n{program}\nprint('to the end')"
    command = [sys.executable, "-X", "faulthandler", "-c", code, *words]
    done = subprocess.run(command, capture_output=True, text=True, timeout=seconds, check=False)
    assert (done.returncode, done.stdout[-11:]) == (0, "to the end\n"), done.stdout[-3000:] + done.stderr[-3000:]


@pytest.mark.parametrize("program", [HANDLES, CYCLES, COLLECTED, RELOADED], ids=["handles", "cycles", "gc", "reload"])
def test_objects_live_as_long_as_they_are_held_and_no_longer(program):
    ends(BEGIN + program)


@pytest.mark.parametrize("first", ["", "import tarvopy; tarvopy.Model()"], ids=["alone", "beside"])
@pytest.mark.parametrize("kind", ["isolated", "legacy"])
def test_further_interpreters_are_refused_and_spoil_nothing(kind, first):
    check = f"{first}\nassert refused in in_another({kind!r})\nimport tarvopy\n"
    ends(OTHER_INTERPRETERS + check + "assert tarvopy.Model().addMVar(2).size == 2")


@pytest.mark.parametrize("program", [EXIT, FORK], ids=["exit", "fork"])
@pytest.mark.parametrize("engine", ["highs", "clarabel", "scip"])
def test_a_program_ends_and_forks_while_an_engine_runs(engine, program):
    pytest.importorskip({"highs": "highsbox", "clarabel": "clarabel", "scip": "pyscipopt"}[engine])
    if program is FORK and "asan" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("a child keeps the locks of the sanitizers' allocator that the engine's thread held")
    ends(BEGIN + program, engine, seconds=60)


def test_a_child_process_solves_without_the_helper_threads_of_its_parent():
    pytest.importorskip("clarabel")
    ends(BEGIN + HELPERS, seconds=60)
