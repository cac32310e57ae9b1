"""The type stubs of the native modules name what is there, all of it and nothing else."""

import ast
import importlib
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
