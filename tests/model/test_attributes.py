"""Attributes of the model, its life, and the parameters."""

import copy
import math
import pickle
import subprocess
import sys
import traceback

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV, NoDataError, TarvoError


@pytest.fixture
def m():
    model = tarvopy.Model("diet")
    yield model
    model.close()


def test_attributes_read_and_write(m):
    assert (m.ModelName, m.ModelSense, m.ObjConstant, m.Status) == ("diet", 1, 0.0, TRV.NOT_SOLVED)
    m.ModelName, m.ModelSense, m.ObjConstant = "größer", TRV.MAXIMIZE, np.float64(2.5)
    assert (m.getAttr("ModelName"), m.getAttr("ModelSense"), m.getAttr("ObjConstant")) == ("größer", -1, 2.5)
    m.setAttr("ModelSense", np.int64(1))
    assert m.ModelSense == 1
    assert {"NumVars", "ObjVal", "optimize", "params"} <= set(dir(m))
    assert [m.NumQConstrs, m.NumGenConstrs, m.NumNLConstrs, m.NumNZs] == [0, 0, 0, 0]


def test_what_is_not_there_yet_says_what_to_do(m):
    with pytest.raises(NoDataError, match="optimize") as caught:
        m.ObjVal
    assert caught.value.code == TRV.Error.NO_DATA
    assert not hasattr(m, "ObjBound")


@pytest.mark.parametrize(
    ("name", "value", "error"),
    [
        ("Nothing", 1, AttributeError),
        ("X", 1, AttributeError),
        ("NumVars", 1, AttributeError),
        ("params", 1, AttributeError),
        ("why_engine", "x", AttributeError),
        ("ModelSense", 2, TarvoError),
        ("ModelSense", "1", TypeError),
        ("ModelSense", 2**40, OverflowError),
        ("ModelName", 3, TypeError),
        ("ModelName", "a\0", ValueError),
        ("ObjConstant", "3", TypeError),
        ("ObjConstant", math.nan, TarvoError),
        ("ObjConstant", math.inf, TarvoError),
    ],
)
def test_refused_attribute_writes(m, name, value, error):
    with pytest.raises(error):
        setattr(m, name, value)
    assert (m.ModelName, m.ModelSense, m.ObjConstant) == ("diet", 1, 0.0)


def test_unknown_names_are_attribute_errors(m):
    for name in ("Nothing", "X", "_nothing", "num_vars"):
        with pytest.raises(AttributeError, match=f"'Model' object has no attribute '{name}'"):
            getattr(m, name)
    m._mine = 3
    assert m._mine == 3
    with pytest.raises(TypeError):
        m.getAttr(3)


def test_repr_applies_nothing(m):
    x = m.addVar()
    assert repr(m) == "<tarvopy.Model 'diet': 0 variables, 0 constraints>"
    m.addConstr(x * x <= 1)
    m.update()
    assert repr(m) == "<tarvopy.Model 'diet': 1 variable, 0 constraints, 1 quadratic constraint>"
    m.close()
    assert repr(m) == str(m) == "<tarvopy.Model (closed)>"
    assert "removed" in repr(x) or "closed" in repr(x)


# ---- life


def test_a_closed_model_refuses_everything(mode):
    with tarvopy.Model() as m:
        x, X = m.addVar(), m.addMVar(2)
        c = m.addConstr(X <= 1)
        pending = x <= 1
    m.close()
    calls = [
        lambda: m.addVar(),
        lambda: m.addMVar(2),
        lambda: m.addConstr(pending),
        lambda: m.addRange(X, 0, 1),
        lambda: m.setObjective(1.0),
        lambda: m.update(),
        lambda: m.remove(x),
        lambda: m.getVars(),
        lambda: m.getVarByName("x"),
        lambda: m.getCoeff(c, X),
        lambda: m.getA(),
        lambda: m.NumVars,
        lambda: setattr(m, "ModelSense", 1),
        lambda: m.write("never.mps"),
        lambda: m.read("never.mps"),
        lambda: m.optimize(),
        lambda: m.prepare(),
    ]
    for call in calls:
        with pytest.raises(TarvoError) as caught:
            call()
        assert caught.value.code == TRV.Error.CLOSED


def test_models_are_neither_copied_nor_pickled(m):
    for call in (copy.copy, copy.deepcopy, pickle.dumps):
        with pytest.raises(TypeError, match="a Model cannot be"):
            call(m)


def test_derived_models_work_and_a_forgotten_init_is_an_error():
    class Named(tarvopy.Model):
        def __init__(self):
            super().__init__("named")
            self._extra = []

        @property
        def extra(self):
            return self._extra

        @extra.setter
        def extra(self, value):
            self._extra = value

    class Forgetful(tarvopy.Model):
        def __init__(self):
            pass

    named = Named()
    named.extra = [1]
    assert (named.ModelName, named.extra) == ("named", [1])
    with pytest.raises(AttributeError):
        named.addVar = None
    with pytest.raises(RuntimeError, match=r"must call Model.__init__"):
        Forgetful().addVar()
    with pytest.raises(RuntimeError, match="initialised once"):
        tarvopy.Model.__init__(Named())


def test_the_store_is_freed_with_its_last_holder():
    code = (
        "import resource, tarvopy\n"
        "def peak(): return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss\n"
        "def build():\n"
        "    m = tarvopy.Model(); x = m.addMVar(300_000); m.addConstr(2 * x <= 1); return x\n"
        "build(); first = peak()\n"
        "for _ in range(20): build()\n"
        "print(peak() - first)\n"
    )
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True).stdout
    assert int(out) < 40_000  # KB; each model holds about 25 MB


# ---- parameters


def test_parameters_keep_checked_values(m):
    p = m.params
    p.TimeLimit, p.Threads, p.NodeLimit, p.Engine, p.EngineOptions = 60, np.int32(4), 1e6, "highs", {"presolve": "off"}
    p.RelGap = np.float32(0.5)
    assert (p.TimeLimit, p.Threads, p.NodeLimit, p.RelGap) == (60.0, 4, 1_000_000, 0.5)
    assert "TimeLimit=60.0" in repr(p)
    p.EngineOptions["more"] = 1
    assert dict(p)["EngineOptions"] == {"presolve": "off", "more": 1}
    del p.TimeLimit
    assert p.TimeLimit == math.inf
    p.reset()
    assert dict(p) == dict(tarvopy.Model().params)
    assert repr(p) == "<Parameters all at their defaults>"


@pytest.mark.parametrize(
    ("name", "value", "error", "message"),
    [
        ("TimeLimit", -1, TarvoError, "between 0 and inf, not -1.0"),
        ("TimeLimit", math.nan, TarvoError, "nan"),
        ("TimeLimit", "60", TypeError, "a number, not 'str'"),
        ("TimeLimit", True, TypeError, "a number, not 'bool'"),
        ("TimeLimit", None, TypeError, "a number, not 'NoneType'"),
        ("Threads", 1.5, TypeError, "an integer, not 'float'"),
        ("Threads", -1, TarvoError, "between 0 and 1024, not -1"),
        ("Threads", math.inf, TypeError, "an integer"),
        ("LogLevel", 3, TarvoError, "between 0 and 2, not 3"),
        ("NodeLimit", 0.5, TypeError, "an integer or inf, not 'float'"),
        ("Engine", "simplex", TarvoError, "'auto', 'highs', 'clarabel', 'scip', not 'simplex'"),
        ("Engine", None, TypeError, "a string"),
        ("EngineOptions", [1], TypeError, "a dict, not 'list'"),
        ("EngineOptions", {1: 2}, TypeError, "keys of parameter EngineOptions are strings"),
        ("timelimit", 1, AttributeError, "no parameter 'timelimit'; did you mean TimeLimit?"),
        ("TimeLimt", 1, AttributeError, "did you mean TimeLimit?"),
        ("zzz", 1, AttributeError, "there is no parameter 'zzz'; there are TimeLimit, RelGap, AbsGap, "),
    ],
)
def test_refused_parameters_keep_their_values(m, name, value, error, message):
    with pytest.raises(error, match=message):
        setattr(m.params, name, value)
    assert repr(m.params) == "<Parameters all at their defaults>"


def test_parameters_copy_and_pickle_with_options_of_their_own(m):
    m.params.TimeLimit, m.params.EngineOptions = 10**400, {"presolve": "off"}
    for make in (copy.copy, copy.deepcopy, lambda params: pickle.loads(pickle.dumps(params))):
        made = make(m.params)
        assert repr(made) == repr(m.params) == "<Parameters TimeLimit=inf, EngineOptions={'presolve': 'off'}>"
        made.EngineOptions["presolve"] = "on"
    for name in ("_values", "reset"):
        with pytest.raises(AttributeError, match=f"there is no parameter '{name}'"):
            delattr(m.params, name)


def test_tracebacks_ask_whether_another_name_was_meant(m):
    x = m.addMVar(2)
    wrong = ((m, "modelsense", "ModelSense"), (m.params, "timelimit", "TimeLimit"), (x, "ub", "UB"))
    for owner, name, meant in (*wrong, (x[0].item(), "ub", "UB")):
        for act in (lambda: getattr(owner, name), lambda: setattr(owner, name, 1)):  # noqa: B023
            with pytest.raises(AttributeError) as error:
                act()
            text = "".join(traceback.format_exception_only(error.value))
            assert text.lower().count("did you mean") == 1
            assert meant in text
    with pytest.raises(AttributeError, match="'optimize' is a method of 'Model' and cannot be set"):
        m.optimize = 3


def test_parameters_are_documented():
    for name in dict(tarvopy.Model().params):
        assert getattr(type(tarvopy.Model().params), name).__doc__, name
