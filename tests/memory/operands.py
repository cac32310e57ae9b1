"""What the operations of the tables work on, and texts that say what they are: built(), ... make operands, a list;
state(operands) and outcome(result, operands) are what must be equal, see failing.py."""

import gzip
import tempfile
from pathlib import Path

import numpy as np
import scipy.sparse as sp

import tarvopy as tv
from tarvopy import TRV, _modelapi, genfunc, nlfunc
from tarvopy.problem import Problem

N = 6
NUMBERS = np.arange(N) + 0.5
MATRIX = np.arange(float(N * N)).reshape(N, N) % 5
SPARSE = sp.csr_array(MATRIX)


def fresh():
    m = tv.Model("a model")
    m.params.LogLevel = 0
    return m


def scalars():
    """A model, three variables, a linear, a quadratic and a nonlinear expression."""
    m = fresh()
    x, y, z = (m.addVar(name=f"variable {i}") for i in range(3))
    m.update()
    return [m, x, y, z, 2 * x + y + 1, x * y + 2 * z * z + y, nlfunc.sin(x * y) + z]


def arrays():
    """A model, its variables, linear, quadratic and nonlinear arrays of one shape."""
    m = fresh()
    x = m.addMVar(N, name="x")
    m.update()
    return [m, x, 2 * x + 1, x * x + x, nlfunc.exp(x) + x]


def used():
    """The same after their element objects were looked at."""
    operands = arrays()
    for array in operands[1:]:
        list(array)
    return operands


def compact():
    """The same with expressions in their compact state, the quadratic ones of one element."""
    m, x, *_ = arrays()
    return [m, x, SPARSE @ x + 1, x @ MATRIX @ x + 3 * x.sum(), 2 * (x @ x) + x[0]]


def built():
    """A model, its variables, linear rows and a quadratic one."""
    m = fresh()
    x = m.addMVar(N, ub=5.0, name="x")
    rows = m.addConstr(MATRIX @ x <= NUMBERS, name="rows")
    quadratic = m.addConstr(x[0] * x[0] + x[1] <= 4, name="a_quadratic_row_of_some_length")
    m.setObjective(x @ x - x.sum())
    m.update()
    return [m, x, rows, quadratic]


def general():
    """A model with rows of each kind, its variables (the last two are binary) and general constraints."""
    m, x, *_ = built()
    m.setAttr("ModelSense", TRV.MAXIMIZE)
    x[N - 2 :].VType = "B"
    x[2].VType = "S"
    rows = [
        m.addConstr(x[0] == genfunc.max(x[1:4], 3.0), name="a maximum, whose name is long"),
        m.addConstr(x[:2] == genfunc.pwl(x[2:4], [0, 1, 2], [0, 1, 4])),
        m.addConstr(genfunc.indicator(x[N - 2 :], [0, 1], x[:2] <= 3)),
        m.addSOS(2, x[:3]),
    ]
    m.addConstr(nlfunc.exp(x[3]) + x[0] * x[1] <= 40.0, name="nonlinear")
    m.update()
    return [m, x, rows]


def answered(operands):
    """The same with a solution, as an engine would write it."""
    m = operands[0]
    m.update()
    x, *multipliers = _modelapi.open_solution(m._cmodel)
    x[:] = np.arange(N) % 2
    for values in multipliers:
        values.fill(0.5)
    figures = {"objval": 1.0, "bound": 0.5, "gap": 0.5, "runtime": 0.25, "engine": "an engine of some name"}
    duals = not m.NumGenConstrs
    _modelapi.commit_solution(m._cmodel, status=TRV.OPTIMAL, has_x=True, has_duals=duals, **figures)
    return operands


FOLDER = tempfile.TemporaryDirectory(prefix="tarvopy-")


def files():
    """A model that can be written and has a solution, an empty one, and a folder with files of the first."""
    m, x, *_ = built()
    x[N - 1].VType = "I"
    answered([m])
    folder = Path(FOLDER.name)
    for old in folder.iterdir():
        old.unlink()
    for name in ("bad.mps", "bad.lp"):
        (folder / name).write_text("nonsense that goes on for a while")
    for name in ("old.mps", "old.lp", "old.sol", "old.mps.gz", "old.lp.gz", "old.sol.gz"):
        m.write(folder / name)
    empty = fresh()
    empty.setAttr("ModelName", "an empty model")  # neither is the file's
    empty.setAttr("ModelSense", TRV.MAXIMIZE)
    return [m, empty, folder]


# ---- texts


def _model(m):
    """Reading an attribute brings the model up to date first."""
    figures = {name: m.getAttr(name) for name in ("ModelName", "Status", "NumNLConstrs", "NumGenConstrs", "ModelSense")}
    problem = Problem.of(m._cmodel)
    matrices = (problem.csr(), problem.hessian(), problem.qmatrix(), problem.gens())
    rows = [(c.RHS, c.Sense, c.ConstrName) for c in m.getConstrs()]
    rows += [c.QName for c in m.getQConstrs()] + [c.GenName for c in m.getGenConstrs()]
    columns = [(v.VarName, v.LB, v.UB, v.Obj, v.VType, v.index) for v in m.getVars()]
    tapes = (problem.nnlcodes, problem.nnlobj, problem.nllower.tolist(), problem.nlupper.tolist())
    return f"{figures} {_solution(m)} {columns} {rows} {tapes} {[[a.tolist() for a in arrays] for arrays in matrices]}"


def _solution(m):
    try:
        return [round(m.ObjVal, 3), *(round(v.X, 1) + 0.0 for v in m.getVars())]
    except tv.NoDataError:
        return None


def _folder(path):
    read = {True: lambda file: gzip.decompress(file.read_bytes()), False: Path.read_bytes}
    return str([(file.name, read[file.suffix == ".gz"](file)) for file in sorted(path.iterdir())])


def said(value):
    """Text that tells values apart: of an array its elements, of a model what it holds, of a folder its files."""
    if isinstance(value, tv.Model):
        return _model(value)
    if isinstance(value, Path):
        return _folder(value)
    if isinstance(value, (list, tuple)):
        return [said(item) for item in value]
    if sp.issparse(value):
        return repr(value.toarray().tolist())
    return f"{type(value).__name__} {value}".replace("  >", ">")  # two blanks: the compact form, which may become full


def state(operands):
    return str([said(value) for value in operands])


def outcome(result, operands):
    before = state(operands)
    operands[0].update()
    return f"{said(result)} {before} {said(operands[0])}"
