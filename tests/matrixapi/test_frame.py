"""The module's frame: what its import pulls in, what it refuses, and what its classes are."""

import subprocess
import sys

import pytest

from tarvopy import _matrixapi


def run(code):
    """Runs code in a fresh interpreter and gives what it printed; a crash or an exception fails the test."""
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return done.stdout.strip()


def test_import_brings_neither_numpy_nor_scipy():
    assert run("import sys, tarvopy._matrixapi; print(sorted({'numpy', 'scipy'} & set(sys.modules)))") == "[]"


def test_a_second_initialisation_is_refused_also_after_the_module_was_forgotten():
    text = run(
        "import sys, importlib\n"
        "import tarvopy._matrixapi as first\n"
        "import tarvopy._matrixapi as again\n"
        "assert again is first\n"
        "del sys.modules['tarvopy._matrixapi']\n"
        "try: importlib.import_module('tarvopy._matrixapi')\n"
        "except RuntimeError as error: print(error)"
    )
    assert text == "'_matrixapi' has already been imported. Re-initialisation is not supported."


@pytest.mark.parametrize(
    ("change", "error"),
    [
        ("del _util._matmul_shape", "ImportError: cannot import name '_matmul_shape' from 'tarvopy._util'"),
        ("del _attrutil._attrlist", "ImportError: cannot import name '_attrlist' from 'tarvopy._attrutil'"),
        ("del _util.__capi__", "ImportError: tarvopy._util does not export expected C function _ptr"),
        ("_util.__capi__.clear()", "ImportError: tarvopy._util does not export expected C function _ptr"),
        (
            "_util.__capi__['_ptr'] = 3",
            "TypeError: C function tarvopy._util._ptr has wrong signature (expected void *(PyObject *), got no capsule)",
        ),
        ("_core.LinExpr = object", "ValueError: tarvopy._core.LinExpr size changed"),
        ("sys.modules['tarvopy._trv'] = None", "ModuleNotFoundError: import of tarvopy._trv halted"),
    ],
)
def test_a_missing_or_changed_sibling_stops_the_import(change, error):
    text = run(
        "import sys\n"
        "from tarvopy import _util, _attrutil, _core\n"
        "assert 'tarvopy._matrixapi' not in sys.modules\n"
        f"{change}\n"
        "try: import tarvopy._matrixapi\n"
        "except Exception as error: print(f'{type(error).__name__}: {error}')\n"
        "assert 'tarvopy._matrixapi' not in sys.modules"
    )
    assert text.startswith(error)


def test_classes_are_ordinary_and_made_in_order():
    classes = [name for name, value in vars(_matrixapi).items() if isinstance(value, type)]
    assert classes == ["MVar", "MLinExpr", "MQuadExpr", "MConstr", "MQConstr", "MGenConstr", "MNLExpr", "MNLConstr"]
    members = list(vars(_matrixapi))
    assert (
        members.index("MGenConstr") < members.index("vstack") < members.index("concatenate") < members.index("MNLExpr")
    )
    for name in classes:
        cls = getattr(_matrixapi, name)
        assert (cls.__module__, cls.__qualname__) == ("tarvopy._matrixapi", name)
        assert all(isinstance(vars(cls).get(p, property()), type(vars(cls)["shape"])) for p in ("ndim", "size"))
        assert not hasattr(cls, "__len__")
        cls._anything = 1  # ordinary classes can be given attributes
        del cls._anything
    assert _matrixapi.MVar.__doc__.startswith(
        "\n    Matrix variable handle, acting as an array of Var objects.\n    You create"
    )
    assert _matrixapi.MVar.__doc__.endswith("refer you to the NumPy documentation.\n    ")
    for cls in (_matrixapi.MVar, _matrixapi.MLinExpr, _matrixapi.MQuadExpr, _matrixapi.MNLExpr):
        assert cls.__array_priority__ == 100
    for cls in (_matrixapi.MLinExpr, _matrixapi.MQuadExpr):
        assert cls._keep_compact == 1
        assert type(cls._keep_compact) is int


def test_hostile_use_ends_in_exceptions_and_leaves_the_model_alone():
    text = run(
        "import gc, weakref\n"
        "import numpy as np\n"
        "import tarvopy\n"
        "from tarvopy._matrixapi import MVar, MConstr, MLinExpr\n"
        "m = tarvopy.Model(); x = m.addMVar((3, 4)); m.update()\n"
        "class Key:\n"
        "    def __init__(self, handle): self.handle = handle\n"
        "    def __index__(self): self.handle._vararr = None; gc.collect(); return 1\n"
        "class Array(np.ndarray):\n"
        "    def __getitem__(self, key): raise KeyError(key)\n"
        "    def reshape(self, *a, **k): return 'no array'\n"
        "class Liar:\n"
        "    def __array__(self, *a, **k): raise RuntimeError('no')\n"
        "    def __iter__(self): raise RuntimeError('no')\n"
        "def attempt(f):\n"
        "    try: f()\n"
        "    except Exception: return 1\n"
        "    return 0\n"
        "tries = [lambda: x[1:][Key(x[1:])], lambda: (lambda v: v[Key(v), 0])(x[:, 1:]),\n"
        "    lambda: (lambda v: v.reshape(Key(v), -1))(x[:]), lambda: (lambda v: v.sum(Key(v)))(x[:]),\n"
        "    lambda: (lambda v: v.diagonal(Key(v)))(x[:]), lambda: (lambda v: v.transpose(Key(v), 0))(x[:]),\n"
        "    lambda: x.__setattr__('LB', Liar()), lambda: MVar(Liar()), lambda: MVar.fromlist(Liar()), lambda: MVar(None),\n"
        "    lambda: MVar.__new__(MVar).shape, lambda: MVar.__new__(MVar) + 1, lambda: repr(MVar.__new__(MVar)),\n"
        "    lambda: MConstr.__new__(MConstr)[0], lambda: MLinExpr.__new__(MLinExpr).shape, lambda: object.__new__(MVar),\n"
        "    lambda: MVar.sum(3), lambda: MVar._vararr.__get__(3), lambda: MVar.__dict__['shape'].__get__(MLinExpr.zeros(2)),\n"
        "    lambda: tarvopy.vstack(Liar()), lambda: tarvopy.vstack([Liar()]), lambda: x[10 ** 30], lambda: x[-10 ** 30],\n"
        "    lambda: x.__init__(), lambda: x.__setattr__(3, 4), lambda: x.__getattr__(3), lambda: x.__setattr__('', 1)]\n"
        "failures = sum(map(attempt, tries))\n"
        "y = MVar(x.tolist()); y._vararr = y._vararr.view(Array)\n"
        "for f in (lambda: y[0], lambda: y.reshape(-1), lambda: y.LB, lambda: y + 1, lambda: y._idxarr(), lambda: y.sum()): attempt(f)\n"
        "for junk in (None, 3, 'text', [1], np.array([None, None], dtype=object), np.empty((2, 2), dtype=object)):\n"
        "    z = x.copy(); z._vararr = junk\n"
        "    for f in (lambda: z[0], lambda: z.T, lambda: z.LB, lambda: z + 1, lambda: 2 * z, lambda: z.sum(), lambda: repr(z), lambda: z.tolist(),\n"
        "              lambda: z._idxarr(), lambda: np.ones((2, 2)) @ z, lambda: m.addConstr(z <= 1), lambda: list(z), lambda: m.remove(z),\n"
        "              lambda: setattr(z, 'LB', 1.0), lambda: tarvopy.hstack([z, x]), lambda: dir(z), lambda: m.addConstr(z.sum() <= 1)): attempt(f)\n"
        "loop = x[:]; loop._self = loop; dead = weakref.ref(loop); del loop; gc.collect()\n"
        "assert dead() is None\n"
        "m.update()\n"
        "print(failures >= 20, m.NumVars, m.NumConstrs, x.shape)"
    )
    assert text == "True 12 0 (3, 4)"
