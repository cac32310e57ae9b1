"""The module's frame: what its import pulls in, what it refuses, and what its classes are."""

import inspect
import subprocess
import sys
from operator import attrgetter

import numpy as np
import pytest

import tarvopy
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
            "TypeError: C function tarvopy._util._ptr has wrong signature (expected void *(PyObject *), got",
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
        for member in ("shape", "ndim", "size", "T", "nl", "_typename", "_typeenum"):
            made = vars(cls).get(member)
            assert type(made) is property or (made is None and member not in ("shape", "ndim", "size"))
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


def test_classes_tell_their_signatures():
    class Child(_matrixapi.MVar):
        def __init__(self, first, second=2):
            pass

    expected = {_matrixapi.MVar: "(arr)", _matrixapi.MQuadExpr: "(qearr=None, quadparts=None, ndle=None)"}
    expected |= {_matrixapi.MNLConstr: "(constrarr)", Child: "(first, second=2)"}
    assert {cls: str(inspect.signature(cls)) for cls in expected} == expected


HOSTILE = """
import gc, weakref
import numpy as np
import tarvopy
from tarvopy._matrixapi import MConstr, MLinExpr, MVar

m = tarvopy.Model()
x = m.addMVar((3, 4))
m.update()

class Key:  # an index that takes the elements away while it is asked
    def __init__(self, handle): self.handle = handle
    def __index__(self):
        self.handle._vararr = None
        gc.collect()
        return 1

class Array(np.ndarray):
    def __getitem__(self, key): raise KeyError(key)
    def reshape(self, *a, **k): return "no array"

class Liar:
    def __array__(self, *a, **k): raise RuntimeError("no")
    def __iter__(self): raise RuntimeError("no")

def attempt(use):
    try:
        use()
    except Exception:
        return 1
    return 0

def on_part(use):
    part = x[:, 1:]
    return lambda: use(part, Key(part))

bare = MVar.__new__(MVar)
tries = [
    on_part(lambda v, k: v[k]), on_part(lambda v, k: v[k, 0]), on_part(lambda v, k: v.reshape(k, -1)),
    on_part(lambda v, k: v.sum(k)),
    on_part(lambda v, k: v.diagonal(k)), on_part(lambda v, k: v.transpose(k, 0)), on_part(lambda v, k: v[k:]),
    lambda: x.__setattr__("LB", Liar()), lambda: MVar(Liar()), lambda: MVar.fromlist(Liar()), lambda: MVar(None),
    lambda: bare.shape, lambda: bare + 1, lambda: repr(bare), lambda: bare[0], lambda: bare.LB,
    lambda: m.addConstr(bare <= 1),
    lambda: MConstr.__new__(MConstr)[0], lambda: MLinExpr.__new__(MLinExpr).shape,
    lambda: MVar.sum(3), lambda: MVar._vararr.__get__(3), lambda: MVar.__dict__["shape"].__get__(MLinExpr.zeros(2)),
    lambda: tarvopy.vstack(Liar()), lambda: tarvopy.vstack([Liar()]), lambda: x[10**30], lambda: x[-(10**30)],
    lambda: x.__init__(), lambda: x.__setattr__(3, 4), lambda: x.__getattr__(3), lambda: x.__setattr__("", 1),
]
refused = [attempt(use) for use in tries]

def uses(z):
    return [
        lambda: z[0], lambda: z.T, lambda: z.reshape(-1), lambda: z.LB, lambda: z + 1, lambda: 2 * z,
        lambda: z.sum(), lambda: repr(z),
        lambda: z.tolist(), lambda: z.item(), lambda: z._idxarr(), lambda: np.ones((2, 2)) @ z,
        lambda: m.addConstr(z <= 1),
        lambda: list(z), lambda: m.remove(z), lambda: setattr(z, "LB", 1.0), lambda: tarvopy.hstack([z, x]),
        lambda: dir(z),
        lambda: m.addConstr(z.sum() <= 1), lambda: z * np.ones((2, 2)), lambda: z.copy(), lambda: z.diagonal(),
    ]

y = MVar(x.tolist())
y._vararr = y._vararr.view(Array)
for use in uses(y)[:6]:
    attempt(use)
for junk in (None, 3, "text", [1], np.array([None, None], dtype=object), np.empty((2, 2), dtype=object), np.array("a")):
    z = x.copy()
    z._vararr = junk
    for use in uses(z):
        attempt(use)

loop = x[:]
loop._self = loop
dead = weakref.ref(loop)
del loop
gc.collect()
m.update()
print(all(refused[7:]))  # the first seven may also give what the elements were before
print(dead() is None, m.NumVars, m.NumConstrs, x.shape)
"""


def test_hostile_use_ends_in_exceptions_and_leaves_the_model_alone():
    assert run(HOSTILE) == "True\nTrue 12 0 (3, 4)"


def test_numpy_functions_are_methods_or_refused():
    """NumPy takes what it does not know for one element: numpy.sum(x) <= 1 would be a row for each variable."""
    x = tarvopy.Model().addMVar((2, 3))
    for e in (x, x + 1, x * x, tarvopy.nlfunc.exp(x)):
        assert (np.shape(e), np.ndim(e), np.size(e), np.size(e, 1)) == ((2, 3), 2, 6, 3)
        assert [np.sum(e).shape, np.sum(e, axis=0).shape, np.sum(e, 1).shape] == [(), (3,), (2,)]
        refused = {
            **{"max": "genfunc.max", "mean": "x.sum\\(\\) / x.size", "prod": "operators", "linalg.norm": "x \\* x"},
            **{"cumsum": "tolist", "ravel": "reshape\\(-1\\)", "where": "operators", "zeros_like": "operators"},
        }
        for name, advice in refused.items():
            function = attrgetter(name)(np)
            with pytest.raises(TypeError, match=rf"numpy\.{name} does not work on an {type(e).__name__}: .*{advice}"):
                function(e)
        with pytest.raises(TypeError, match=r"numpy\.dot .*: use @"):
            np.dot(np.eye(2), e)
        with pytest.raises(TypeError, match=r"numpy\.hstack .*: use tarvopy\.hstack"):
            np.hstack([np.eye(2), e])
    assert (np.transpose(x).shape, np.reshape(x, -1).shape, np.diagonal(x).shape) == ((3, 2), (6,), (2,))
    with pytest.raises(TypeError, match=r"numpy\.transpose does not work on an MLinExpr"):
        np.transpose(x + 1)
