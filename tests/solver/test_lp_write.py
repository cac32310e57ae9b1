"""Models written as LP files and read back are the same to the bit; what LP files cannot say is refused in advance."""

import gzip
import math
import os
import re

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from solver import mps_oracle
from solver.model_file import SAME, UNSUPPORTED, built, floats, instances, read, returned, snapshot, write
from solver.model_strategies import models
from solver.store import CONSTR, QCONSTR, VAR, Store, StoreError
from solver.test_mps_write import BOUNDS, SIDES

INF = math.inf


def whole(store):
    """The snapshot, and the terms of all rows in their order."""
    rows = [store.row(i) for i in store.idsat(CONSTR, range(store.data()["nrows"]))]
    qrows = [store.qrow(i) for i in store.idsat(QCONSTR, range(store.data()["nqrows"]))]
    return snapshot(store), rows, qrows


@pytest.mark.parametrize("ending", ["lp", "LP.gz"])
def test_every_type_bound_side_and_product_survives(ending, tmp_path):
    columns = [(f"{vtype}[{i},0]", vtype, lb, ub, (i - 5) / 7) for vtype in "CIBS" for i, (lb, ub) in enumerate(BOUNDS)]
    rows = [
        (f"R#{i}", lower, upper, {i + 1: 0.1, i: -2e-7, 40: 123456789.123456789})
        for i, (lower, upper) in enumerate([*SIDES, (3.0, 1.0)])
    ]
    products = [(0, 1, 1 / 3), (2, 2, -0.1), (1, 2, 5e-324), (0, 0, 9e19)]
    qrows = [
        ("q1", "<", 4.0, [(2, 1.0), (0, -1.0)], products),
        ("q2", ">", -INF, [], [(1, 1, 1.0)]),
        ("q3", "=", 0.0, [(5, 1.0)], []),
    ]
    store = built(columns, rows, name="all of it", sense=-1, constant=-0.1, qobj=products, qrows=qrows)
    path = tmp_path / f"m.{ending}"
    assert whole(returned(store, path)) == whole(store)
    data = path.read_bytes()
    text = (gzip.decompress(data) if ending.endswith("gz") else data).decode()
    assert text.startswith("\\Problem name: all of it\nMaximize\n obj: - 0.7142857142857143 C[0,0]")
    assert max(map(len, text.splitlines())) <= 140


def test_highs_reads_what_is_written(tmp_path):
    """But for brackets in names, rows of two sides, free rows, binaries within [0, 1] and zeros below it."""
    bounds = [pair for pair in BOUNDS if repr(pair) not in ("(-0.0, inf)", "(-0.0, 0.0)")]
    columns = [(f"{vtype}{i}", vtype, lb, ub, i / 7) for vtype in "CIS" for i, (lb, ub) in enumerate(bounds)]
    columns += [("B1", "B", 0.0, 1.0, 0.0)]
    rows = [(f"R{i}", *sides, {i: 0.1, 40: 1 / 3}) for i, sides in enumerate(SIDES[1:6])]
    store = built(columns, rows, sense=-1, constant=3.5)
    write(store, tmp_path / "m.lp")
    found, oracle = floats(snapshot(store)), mps_oracle.read(tmp_path / "m.lp")
    assert {key: found[key] for key in SAME} == {key: oracle[key] for key in SAME}


@pytest.mark.parametrize("ending", ["lp", "mps"])
def test_scip_gives_quadratic_models_the_same_value(ending, tmp_path):
    """The halves of both formats: -5 at x = 2, y = 1, where the row q is 2 x y + y^2 <= 5 and the objective 2.5 off."""
    scip = pytest.importorskip("pyscipopt")
    columns = [("x", "I", 0.0, 9.0, -1.0), ("y", "I", 1.0, 9.0, 0.0)]
    store = built(
        columns,
        constant=2.5,
        qobj=[(0, 0, -0.5), (0, 1, -2.0), (1, 1, 0.5)],
        qrows=[("q", "<", 5.0, [], [(0, 1, 2.0), (1, 1, 1.0)])],
    )
    write(store, tmp_path / f"m.{ending}")
    model = scip.Model()
    model.hideOutput()
    model.readProblem(str(tmp_path / f"m.{ending}"))
    model.optimize()
    assert model.getObjVal() == pytest.approx(-2 - 2 - 4 + 0.5 + 2.5)


ALL = ["netlib", "miplib", "infeasible", "scip_minlp"]
SPEAKABLE = re.compile(r"(?![eE][0-9]|SOS)[^-+*/^<>=:\\ .,;0-9][^-+*/^<>=:\\ ]*\Z")
FILES = [*instances(*ALL), *instances("maros_meszaros", pattern="*.SIF"), *instances("scip_mip", pattern="*.lp")]


@pytest.mark.parametrize("path", FILES, ids=lambda path: path.name)
def test_instances_survive(path, tmp_path):
    """Each with its own names, and where LP files cannot say them, with the default ones."""
    store = read(path)
    for attribute, kind in (("VarName", VAR), ("ConstrName", CONSTR), ("QName", QCONSTR)):
        if any(not SPEAKABLE.match(name) for name in store.strs(attribute, range(store.idcount(kind)))):
            store.setstrs(attribute, range(store.idcount(kind)), [""] * store.idcount(kind))
    assert whole(returned(store, tmp_path / "m.lp")) == whole(store)


@pytest.mark.parametrize(
    ("obj", "rows", "listed"),
    [
        ([0, 0, 0], [{0: 1.0, 1: 1.0}, {1: 1.0, 2: 1.0}], ""),
        ([0, 0, 0], [{1: 1.0, 2: 1.0}, {0: 1.0}], " + 0 x0"),
        ([0, 0, 0], [{0: 1.0, 2: 1.0}, {1: 1.0}], " + 0 x0 + 0 x1"),
        ([0, 0, 0], [{0: 1.0, 1: 1.0}], " + 0 x0 + 0 x1 + 0 x2"),
        ([0, 5, 0], [{2: 1.0}], " + 0 x0 + 5 x1"),
        ([0, 0, 0], [], " + 0 x0 + 0 x1 + 0 x2"),
    ],
)
def test_the_objective_lists_what_the_rows_do_not_bring_in_order(obj, rows, listed, tmp_path):
    columns = [(f"x{i}", "C", 0.0, INF, float(value)) for i, value in enumerate(obj)]
    store = built(columns, [(f"r{i}", 0.0, INF, terms) for i, terms in enumerate(rows)])
    assert whole(returned(store, tmp_path / "m.lp")) == whole(store)
    assert (tmp_path / "m.lp").read_text().splitlines()[1] == f" obj:{listed}"


def test_rows_without_terms_and_models_without_anything(tmp_path):
    rows = [(f"r{i}", *sides, {}) for i, sides in enumerate(SIDES)]
    for columns in ([], [("x", "C", 0.0, 1.0, 0.0)]):
        store = built(columns, rows, qrows=[("q", "<", 1.0, [], [])])
        assert whole(returned(store, tmp_path / "m.lp")) == whole(store)
    assert whole(returned(Store(""), tmp_path / "m.lp")) == whole(Store(""))


def test_names_that_mean_something_elsewhere(tmp_path):
    names = [
        "obj",
        "obj1",
        "energy[0]",
        "e",
        "ex9",
        "x.1",
        "#",
        "$x!",
        "ü",
        "x[[1],{2}]",
        "MARKER",
        "minx",
        "st1",
    ]
    columns = [(name, "CIBS"[i % 4], 0.0, 1.0, 0.0) for i, name in enumerate(names)]
    columns += [(name, "I", 0.0, 1.0, 0.0) for name in ["subject", "to", "user", "cuts"]]  # side by side: a section
    rows = [(name, -1.0, 1.0, {i: 1.0}) for i, name in enumerate(names)]
    store = built(columns, rows)
    assert whole(returned(store, tmp_path / "m.lp")) == whole(store)


OPERATOR = "has one of + - * / ^ < > = : \\"
BEGIN = "begins with a digit or one of . , ; ) } ["
FLAWS = [
    ("a b", "has blanks"),
    ("a\tb", "has control characters"),
    ("x[-1]", OPERATOR),
    ("a\\b", OPERATOR),
    ("1x", BEGIN),
    (".x", BEGIN),
    (",x", BEGIN),
    ("[x]", BEGIN),
    ("x]", "has brackets that do not match"),
    ("x[1", "has brackets that do not match"),
    ("E9", "reads as the exponent of a number"),
    ("e1[0]", "reads as the exponent of a number"),
    ("Bounds", "is a keyword"),
    ("s.t.", "is a keyword"),
    ("free", "is a keyword"),
    ("Infinity", "is a keyword"),
    ("nan", "is a keyword"),
]


def refused(store, path):
    path.write_text("old")
    with pytest.raises(StoreError) as error:
        write(store, path)
    assert error.value.code == UNSUPPORTED
    assert path.read_text() == "old"
    assert os.listdir(path.parent) == [path.name]
    return str(error.value)


@pytest.mark.parametrize(("name", "flaw"), FLAWS)
def test_names_that_lp_files_cannot_say_are_refused(name, flaw, tmp_path):
    path = tmp_path / "m.lp"
    shown = name.replace("\t", "\\x09")
    assert refused(built([(name, "C", 0.0, 1.0, 1.0)]), path) == f"LP: the name '{shown}' of a variable {flaw}"
    row = built([("x", "C", 0.0, 1.0, 1.0)], qrows=[(name, "<", 1.0, [], [])])
    assert refused(row, path) == f"LP: the name '{shown}' of a row {flaw}"


def test_doubled_names_and_titles_are_refused(tmp_path):
    path = tmp_path / "m.lp"
    one = ("x", "C", 0.0, 1.0, 1.0)
    assert refused(built([one, one]), path) == "LP: two variables are called 'x'"
    rows = built([one], [("r", 0.0, 1.0, {})], qrows=[("r", "<", 1.0, [], [])])
    assert refused(rows, path) == "LP: a linear and a quadratic row are called 'r'"
    title = "LP: the model's name 'a\\x0ab' has control characters, or blanks at an end"
    assert refused(built([one], name="a\nb"), path) == title


plain_name = st.from_regex(r"\A[a-df-z_#!$%&(ü][a-z0-9_.,#()!~]{0,8}(\[[0-9,a-z]{0,4}\])?\Z").filter(
    lambda name: name not in ("free", "inf", "nan", "min", "max", "bin", "gen", "gens", "int", "st", "sos", "semi")
)


@given(models(plain_name))
@settings(max_examples=300, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
def test_any_model_survives(tmp_path, store):
    assert whole(returned(store, tmp_path / "m.lp")) == whole(store)
