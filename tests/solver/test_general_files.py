"""Special ordered sets and indicators in model files: what is read, refused, written and what SCIP makes of it."""

import math
from collections import Counter

import pytest

from solver.model_file import SYNTAX, UNSUPPORTED, built, instances, mps, read, read_text, returned, snapshot, write
from solver.store import VAR, Store, StoreError
from solver.store_general import ABS, INDICATOR, SOS1, SOS2
from solver.test_lp import lp
from solver.test_mps_files import card

INF = math.inf
OBJ = " obj: x + y + z\n"


def sos(lines):
    return lp(OBJ, rest=f"SOS\n{lines}")


def member(*columns):
    return [({column: 1.0}, 0.0) for column in columns]


def condition(column, terms):
    return [({column: 1.0}, 0.0), (terms, 0.0)]


# ---- reading

LP = {
    "sets with and without names": (
        sos(" one: S1:: x:1 y : 2\n  z:-3.5\n s2::z:1 x:2\n S1::\n y:1\n"),
        [
            ("one", SOS1, member(0, 1, 2), [1.0, 2.0, -3.5]),
            ("G1", SOS2, member(2, 0), [1.0, 2.0]),
            ("G2", SOS1, member(1), [1.0]),
        ],
    ),
    "names that mean something in sets": (
        lp(" obj: S1 + S2\n", rows=" r: S1 >= 0\n", rest="SOS\n S1: S1:: S1:1 S2:2\n G0: S2:: S2:3\n S1:: S1:4\n"),
        [("S1", SOS1, member(0, 1), [1.0, 2.0]), ("G0", SOS2, member(1), [3.0]), ("G2", SOS1, member(0), [4.0])],
    ),
    "a section without sets": (sos(""), []),
    "indicators": (
        lp(OBJ, " i: x = 1 -> y - 2 z <= 3\n x = 0 -> z >= 1\n c: y <= 5\n j: x = 1 -> -1 <= y + 1 <= 4\n"),
        [
            ("i", INDICATOR, condition(0, {1: 1.0, 2: -2.0}), [1.0, -INF, 3.0]),
            ("G1", INDICATOR, condition(0, {2: 1.0}), [0.0, 1.0, INF]),
            ("j", INDICATOR, condition(0, {1: 1.0}), [1.0, -2.0, 3.0]),
        ],
    ),
    "indicator over lines": (
        lp(OBJ, " i:\n x\n = 1\n ->\n 3 =\n y\n c: x >= 0\n"),
        [("i", INDICATOR, condition(0, {1: 1.0}), [1.0, 3.0, 3.0])],
    ),
    "indicators, then sets": (
        lp(OBJ, " c: x = 1 -> y <= 3\n", rest="SOS\n c: S2:: x:1 y:2\n"),
        [("c", INDICATOR, condition(0, {1: 1.0}), [1.0, -INF, 3.0]), ("c", SOS2, member(0, 1), [1.0, 2.0])],
    ),
}
END = "ENDATA\n"
MPS = {
    "sets": (
        mps(end="SOS\n S1 one\n x 1\n y 2.5\n S2 two\n y -3\n" + END),
        [("one", SOS1, member(0, 1), [1.0, 2.5]), ("two", SOS2, member(1), [-3.0])],
    ),
    "fixed form": (
        mps(
            rows=" N  obj\n L  MY ROW\n",
            columns=card("", "MY COL", "MY ROW", "1") + card("", "S1", "obj", "2"),
            rhs="",
            end="SOS\n S2 THE SET\n"
            + card("", "S1", "", "7")
            + card("", "MY COL", "", "8")
            + "INDICATORS\n"
            + card("IF", "MY ROW", "S1", "0")
            + END,
        ),
        [
            ("MY ROW", INDICATOR, condition(1, {0: 1.0}), [0.0, -INF, 0.0]),
            ("THE SET", SOS2, member(1, 0), [7.0, 8.0]),
        ],
    ),
    "a blank in the name of a set alone": (
        mps(
            rows=" N  obj\n",
            columns=card("", "x", "obj", "1"),
            rhs="",
            end="SOS\n S2 SET $\n" + card("", "x", "", "7") + END,
        ),
        [("SET $", SOS2, member(0), [7.0])],
    ),
    "indicator of a range before the other rows": (
        mps(
            rows=" N obj\n L i\n L c\n",
            columns=" x i 1 c 2\n y i 3\n b obj 1\n",
            rhs=" r i 4\n",
            ranges=" r i 3\n",
            end="INDICATORS\n IF i b 1\n" + END,
        ),
        [("i", INDICATOR, condition(2, {0: 1.0, 1: 3.0}), [1.0, 1.0, 4.0])],
    ),
}


@pytest.mark.parametrize(("ending", "title"), [("lp", t) for t in LP] + [("mps", t) for t in MPS])
def test_what_is_read(ending, title):
    text, gens = {"lp": LP, "mps": MPS}[ending][title]
    assert snapshot(read_text(text, ending))["gens"] == gens


def test_rows_of_indicators_are_no_rows():
    model = snapshot(read_text(MPS["indicator of a range before the other rows"][0]))
    assert (model["rows"], model["matrix"]) == (["c"], {(0, 0): 2.0})
    model = snapshot(read_text(LP["indicators"][0], "lp"))
    assert (model["rows"], model["matrix"]) == (["c"], {(0, 1): 1.0})


UNKNOWN = "unknown variable '{}' (neither the objective nor a row names it)"
LABEL = "stands where S1:: or S2:: is expected"
ARROW = "has something else than a variable = 0 or 1 before ->"
BROKEN = {
    "a member before a set": ("lp", sos(" x:1\n"), 6, f"'x': {LABEL}"),
    "a name without a type": ("lp", sos(" one: x:1\n"), 6, f"'x': {LABEL}"),
    "a name at the end": ("lp", sos(" S1:: x:1\n one:\n"), 8, UNKNOWN.format("one")),
    "a member without a weight": (
        "lp",
        sos(" S1:: x\n"),
        6,
        "'x' stands where a set, a member with its weight or a section is expected",
    ),
    "no such type": ("lp", sos(" one: S3:: x:1\n"), 6, "the type 'S3' of a set is neither S1 nor S2"),
    "no such variable": (
        "lp",
        sos(" S1:: w:1\n"),
        6,
        UNKNOWN.format("w"),
    ),
    "a set twice": ("lp", sos(" s: S1:: x:1\n s: S2:: x:1\n"), 7, "a second set 's'"),
    "a variable twice": (
        "lp",
        sos(" s: S1:: x:1 y:2\n  x:3\n S2:: x:1\n"),
        8,
        "the set 's' has the variable 'x' twice",
    ),
    "a weight twice": ("lp", sos(" S1:: x:1 y:1\n"), 6, "the set has two members of weight 1"),
    "no members": ("lp", sos(" s: S1::\n"), 6, "the set 's' has no members"),
    "an infinite weight": ("lp", sos(" S1:: x:inf\n"), 6, "the weight of 'x' is infinite"),
    "two variables before ->": ("lp", lp(rows=" c: x + y = 1 -> y <= 3\n"), 4, f"the row 'c' {ARROW}"),
    "a coefficient before ->": ("lp", lp(rows=" c: 2 x = 1 -> y <= 3\n"), 4, f"the row 'c' {ARROW}"),
    "another sign before ->": ("lp", lp(rows=" c: x <= 1 -> y <= 3\n"), 4, f"the row 'c' {ARROW}"),
    "another value before ->": ("lp", lp(rows=" x = 2 -> y <= 3\n"), 4, f"the row {ARROW}"),
    "a product before ->": ("lp", lp(rows=" c: [ x^2 ] = 1 -> y <= 3\n"), 4, f"the row 'c' {ARROW}"),
    "nothing behind ->": ("lp", lp(rows=" c: x = 1 ->\n"), 5, "'End' stands where a row behind -> is expected"),
    "-> behind ->": (
        "lp",
        lp(rows=" c: x = 1 -> y = 1 -> y = 2\n"),
        4,
        "'->' stands where a row is expected",
    ),
    "products behind ->": (
        "lp",
        lp(rows=" c: x = 1 -> [ y^2 ] <= 3\n"),
        4,
        "the row 'c' has quadratic terms behind ->",
        UNSUPPORTED,
    ),
    "a member before a set in MPS": ("mps", mps(end="SOS\n x 1\n" + END), 11, "a member before the first set: 'x 1'"),
    "no such column": ("mps", mps(end="SOS\n S1 s\n z 1\n" + END), 12, "unknown column 'z'"),
    "a word as a weight": ("mps", mps(end="SOS\n S1 s\n x w\n" + END), 12, "'w' is not a number"),
    "a weight of 1e20": ("mps", mps(end="SOS\n S1 s\n x 1e20\n" + END), 12, "the weight '1e20' is infinite"),
    "a column twice": ("mps", mps(end="SOS\n S1 s\n x 1\n x 2\n" + END), 14, "the set 's' has the variable 'x' twice"),
    "three fields": (
        "mps",
        mps(end="SOS\n S1 SOS s\n" + END),
        11,
        "3 fields, expected 2 (type, set or column, weight): 'S1 SOS s'",
    ),
    "no such row": ("mps", mps(end="INDICATORS\n IF d y 1\n" + END), 11, "unknown row 'd'"),
    "not IF": ("mps", mps(end="INDICATORS\n OF c y 1\n" + END), 11, "the type 'OF' of an indicator is not IF"),
    "too few fields": (
        "mps",
        mps(end="INDICATORS\n IF c y\n" + END),
        11,
        "an indicator has 4 fields (IF, row, column, value): 'IF c y'",
    ),
    "a value of 2": (
        "mps",
        mps(end="INDICATORS\n IF c y 2\n" + END),
        11,
        "the value '2' of an indicator is neither 0 nor 1",
    ),
    "the objective": (
        "mps",
        mps(end="INDICATORS\n IF obj y 1\n" + END),
        11,
        "the objective 'obj' cannot be the row of an indicator",
    ),
    "a row twice": ("mps", mps(end="INDICATORS\n IF c y 1\n IF c x 1\n" + END), 12, "a second indicator of row 'c'"),
    "a quadratic row": (
        "mps",
        mps(end="INDICATORS\n IF c y 1\nQCMATRIX c\n x x 1\n" + END),
        14,
        "the row 'c' has quadratic terms and an indicator",
        UNSUPPORTED,
    ),
}


@pytest.mark.parametrize("title", BROKEN)
def test_what_is_broken_is_named_with_its_line(title, tmp_path):
    ending, text, line, said, *code = BROKEN[title]
    path, store = tmp_path / f"m.{ending}", Store("kept")
    path.write_text(text)
    with pytest.raises(StoreError) as error:
        store.call("TRVreadmodel", str(path).encode())
    assert str(error.value) == f"{path}, line {line}: {said}"
    assert error.value.code == (code or [SYNTAX])[0]
    assert store.idcount(VAR) == 0


# ---- writing

COLUMNS = [(f"x{i}", vtype, 0.0, 1.0, 0.0) for i, vtype in enumerate("CBICSB")]
EVERY = [
    ("up", INDICATOR, [1, ([(0, 2.0), (3, -1 / 3)], 0.0)], [1.0, -INF, 0.1]),
    ("low", INDICATOR, [5, ([(1, 1.0)], 0.0)], [0.0, -2.5, INF]),
    ("equal", INDICATOR, [1, ([(4, 1.0)], 0.0)], [1.0, 0.5, 0.5]),
    ("both", INDICATOR, [1, ([(0, 1.0), (2, 1.0)], 0.0)], [0.0, -1.0, 1 / 3]),
    ("free", INDICATOR, [1, ([(2, 1.0)], 0.0)], [1.0, -INF, INF]),
    ("empty", INDICATOR, [5, ([], 0.0)], [1.0, -1.0, INF]),
    ("s1", SOS1, [4, 0, 2], [0.1, -7.0, 1e-300]),
    ("s2", SOS2, list(range(6)), [1.0, 2.0, 3.0, 4.0, 5.0, 6.5]),
    ("s3", SOS1, [3], [0.0]),
]


@pytest.mark.parametrize("ending", ["lp", "mps"])
@pytest.mark.parametrize("blanks", [False, True])
def test_every_form_survives(ending, blanks, tmp_path):
    if blanks and ending == "lp":
        pytest.skip("LP files know no names with blanks")
    gens = [(f"{name} 1" if blanks else f"{name}[1]", *rest) for name, *rest in EVERY]
    rows = [("r", 0.0, INF, {3: 1.0, 0: 2.0})]
    qrows = [("q", "<", 1.0, [(1, 1.0)], [(1, 1, 2.0)])]
    store = built(COLUMNS, rows, gens=gens, qrows=qrows, qobj=[(0, 0, 1.0)])
    assert snapshot(returned(store, tmp_path / f"m.{ending}")) == snapshot(store)


@pytest.mark.parametrize("ending", ["lp", "mps"])
def test_constant_of_an_indicator_goes_to_its_sides(ending, tmp_path):
    store = built(COLUMNS, gens=[("i", INDICATOR, [1, ([(0, 1.0)], 2.0)], [1.0, -1.0, 4.0])])
    found = snapshot(returned(store, tmp_path / f"m.{ending}"))["gens"]
    assert found == [("i", INDICATOR, condition(1, {0: 1.0}), [1.0, -3.0, 2.0])]


@pytest.mark.parametrize("ending", ["lp", "mps"])
@pytest.mark.parametrize(
    ("gens", "said"),
    [
        (
            [("top", ABS, [0, 3], [])],
            "the general constraint 'top' is neither an indicator nor a special ordered set: "
            "MPS and LP files cannot say it",
        ),
        ([("s", SOS1, [0], [1.0])] * 2, "two general constraints are called 's'"),
        ([("r", SOS1, [0], [1.0])], "a row and a general constraint are called 'r'"),
        ([("s\t", SOS1, [0], [1.0])], "the name 's\\x09' of a general constraint has control characters"),
    ],
)
def test_what_files_cannot_say_is_refused_before_a_byte(ending, gens, said, tmp_path):
    store = built(COLUMNS, [("r", 0.0, 1.0, {0: 1.0})], gens=gens)
    with pytest.raises(StoreError) as error:
        write(store, tmp_path / f"m.{ending}")
    assert str(error.value).removeprefix(f"{ending.upper()}: ") == said
    assert error.value.code == UNSUPPORTED
    assert not list(tmp_path.iterdir())


def test_member_that_reads_as_a_type_of_sets_is_refused(tmp_path):
    store = built([("S2", "C", 0.0, 1.0, 0.0)], gens=[("s", SOS1, [0], [1.0])])
    with pytest.raises(StoreError, match="MPS: the variable 'S2' is a member of the set 's', where its name means"):
        write(store, tmp_path / "m.mps")
    assert snapshot(returned(store, tmp_path / "m.lp")) == snapshot(store)


# ---- another reader

INSTANCES = instances("scip_indicator", "scip_sos", pattern="*.lp")


def scip_counts(path):
    """How many special ordered sets and indicators SCIP finds, and how many members and weights."""
    scip = pytest.importorskip("pyscipopt")
    model = scip.Model()
    model.hideOutput()
    model.readProblem(str(path))
    return model, Counter(constraint.getConshdlrName() for constraint in model.getConss())


@pytest.mark.parametrize("path", INSTANCES, ids=lambda path: path.name)
def test_instances_have_scips_counts_and_survive(path, tmp_path):
    store = read(path)
    _, counts = scip_counts(path)
    kinds = Counter(kind for kind, _, _ in store.genmatrix())
    assert kinds == Counter({INDICATOR: counts["indicator"], SOS1: counts["SOS1"], SOS2: counts["SOS2"]})
    assert store.int("NumConstrs") == counts["linear"] - counts["indicator"]
    store.setstrs("GenName", range(len(store.genmatrix())), [f"g{i}" for i in range(len(store.genmatrix()))])
    for ending in ("lp", "mps"):
        assert snapshot(returned(store, tmp_path / f"m.{ending}")) == snapshot(store)


@pytest.mark.parametrize("ending", ["lp", "mps"])
def test_scip_reads_what_is_written(ending, tmp_path):
    """max x0 + 2 x1 + 3 x2 + 4 x3, all within 10: neighbours in the order 2 0 3 1, and what b says of x0 + x3."""
    both = ([(0, 1.0), (3, 1.0)], 0.0)
    gens = [
        ("low", INDICATOR, [4, both], [1.0, -INF, 7.0]),
        ("high", INDICATOR, [4, both], [0.0, 12.0, INF]),
        ("pair", SOS2, [0, 1, 2, 3], [2.0, 4.0, 1.0, 3.0]),
        ("one", SOS1, [0, 1, 2, 3], [2.0, 4.0, 1.0, 3.0]),
    ]
    path = tmp_path / f"m.{ending}"
    for b, chosen, best in (1.0, [2], 48), (0.0, [2], 50), (1.0, [], 78), (0.0, [], 100), (1.0, [3], 30):
        columns = [*((f"x{i}", "C", 0.0, 10.0, -(i + 1.0)) for i in range(4)), ("b", "B", b, b, 0.0)]
        write(built(columns, gens=gens[:2] + [gens[i] for i in chosen]), path)
        model, _ = scip_counts(path)
        model.optimize()
        assert model.getObjVal() == pytest.approx(-best), (b, chosen)
