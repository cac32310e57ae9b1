"""The type stubs of the native modules name what is there, all of it and nothing else."""

import ast
import importlib
import itertools
import re
from pathlib import Path

import pytest

import tarvopy

PACKAGE = Path(__file__).resolve().parents[1] / "python" / "tarvopy"
MODULES = sorted(path.stem for path in PACKAGE.glob("*.pyi"))
# Attributes that a handle or a model looks up in the model store, not in its class.
STORED = {"LB", "UB", "Obj", "VType", "VarName", "Start", "X", "RC"}
STORED |= {"RHS", "Sense", "Lower", "Upper", "ConstrName", "Pi", "Slack"}
STORED |= {"GenName", "GenType", "NLName", "NLSlack"}
STORED |= {"QRHS", "QSense", "QName", "QPi", "QSlack"}
STORED |= set(tarvopy.Model()._attributes())


def public(names):
    return {name for name in names if not name.startswith("_")}


def stated(body):
    """Names that statements of a stub define."""
    for statement in body:
        if isinstance(statement, ast.FunctionDef | ast.ClassDef):
            yield statement.name
        elif isinstance(statement, ast.AnnAssign):
            yield statement.target.id


def classes(tree):
    """{class: names it and its bases in the stub define}, bases resolved within the stub."""
    found = {}
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            inherited = (found.get(base.id, set()) for base in node.bases if isinstance(base, ast.Name))
            found[node.name] = set(stated(node.body)).union(*inherited)
    return found


@pytest.mark.parametrize("name", MODULES)
def test_stub_names_what_the_module_has(name):
    module = importlib.import_module(f"tarvopy.{name}")
    tree = ast.parse((PACKAGE / f"{name}.pyi").read_text())
    assert public(stated(tree.body)) <= set(dir(module))
    native = {key for key, value in vars(module).items() if getattr(value, "__module__", None) == module.__name__}
    assert public(native) <= set(stated(tree.body))


@pytest.mark.parametrize("name", ["_core", "_matrixapi", "_modelapi"])
def test_stub_names_the_members_of_each_class(name):
    module = importlib.import_module(f"tarvopy.{name}")
    for kind, names in classes(ast.parse((PACKAGE / f"{name}.pyi").read_text())).items():
        if not hasattr(module, kind):  # what several classes share stands in a class of the stub alone
            assert kind.startswith("_"), kind
            continue
        assert public(names) - STORED == public(dir(getattr(module, kind))) - STORED, kind
        operators = {member for member in names if member.startswith("__")}
        assert operators <= set(dir(getattr(module, kind))), kind


# What a type checker expects of expressions in these names is what they give when they are run.
PROGRAM = """
import numpy as np
import tarvopy
from tarvopy import nlfunc
m = tarvopy.Model()
m.params.LogLevel = 0
v, x = m.addVar(ub=1.0), m.addMVar((2, 2), ub=1.0)
m.optimize()
e, q, n = 2 * v + 1, v * v, nlfunc.exp(v)
E, Q, N = 2 * x + 1, x * x, nlfunc.exp(x)
number, array = 2.0, np.ones((2, 2))
"""
PAIRS = [*itertools.product("veqnxEQN", "veqnxEQN"), *itertools.product("veqnxEQN", ("number", "array"))]
MIRRORED = [pair[::-1] for pair in PAIRS[64:]]
EXPRESSIONS = [
    *(f"{left} {op} {right}" for op in ("+", "-", "*", "/", "**", "@", "<=", ">=") for left, right in PAIRS + MIRRORED),
    *(f"m.addConstr({left} {op} {right})" for op in ("<=", ">=", "==") for left, right in PAIRS),
    *(f"{of}{what}" for of in "xEQN" for what in ("[0]", "[:, 1]", ".sum(axis=0)", ".copy()", "[0, 0].item()")),
    *("v ** 0", "v ** 1", "v ** 2", "v ** 3", "x ** 2", "x ** 3", "E ** 1", "Q ** 2", "-v", "-Q"),
    *("v.X", "x.X", "v.VType"),
    *("tarvopy.hstack([x, x])", "tarvopy.vstack([x, E])", "tarvopy.concatenate([Q, x])", "tarvopy.vstack([N, array])"),
    *("tarvopy.quicksum([v, 1])", "tarvopy.quicksum([v, q])", "tarvopy.quicksum([v, n])", "tarvopy.quicksum(x)"),
    *(
        "m.addRange(e, 0, 1)",
        "m.addRange(E, 0, 1)",
        "m.addRange(n, 0, 9)",
        "m.addSOS(1, x)",
        "m.getVars()",
        "m.NumVars",
    ),
    *("m.ModelName", "m.getCoeff(m.getConstrs()[0], v)", "m.relax()", "tarvopy.genfunc.max(x, 1.0)"),
]


@pytest.mark.filterwarnings("ignore:Chained matrix multiplications")
def test_a_type_checker_expects_what_expressions_give(tmp_path, monkeypatch):
    mypy = pytest.importorskip("mypy.api")
    monkeypatch.setenv("MYPYPATH", str(PACKAGE.parent))
    program = tmp_path / "program.py"
    program.write_text(PROGRAM + "".join(f"reveal_type({expression})\n" for expression in EXPRESSIONS))
    options = ["--follow-imports=silent", "--ignore-missing-imports", "--no-error-summary", "--hide-error-context"]
    report, problems, _ = mypy.run([*options, f"--cache-dir={tmp_path}", str(program)])
    revealed, refused = {}, set()
    for line, kind, text in re.findall(r"program\.py:(\d+): (note|error): (.*)", report):
        expression = EXPRESSIONS[int(line) - PROGRAM.count("\n") - 1]
        if kind == "error":
            refused.add(expression)
        elif "Revealed type" in text:
            revealed[expression] = set(re.findall(r"(\w+)(?:\[[^|]*\])?(?= \||\"$)", text))
    assert len(revealed) == len(EXPRESSIONS), problems or report
    names = {}
    exec(PROGRAM, names)
    wrong = []
    for expression in EXPRESSIONS:
        try:
            given = type(eval(expression, names)).__name__
        except (TypeError, ValueError):
            given = None
        if given not in revealed[expression] if expression not in refused else given:
            wrong.append(f"{expression}: {given}, expected {revealed[expression]}")
    assert wrong == []
