"""Quadratic sections of MPS files: what each entry means, what is refused, and real instances."""

import math

import pytest

from solver.model_file import SYNTAX, UNSUPPORTED, built, instances, mps, read, read_text, returned, snapshot, write
from solver.store import QCONSTR, VAR, Store, StoreError

INF = math.inf


def quadratic(lines, rows=" N obj\n L c\n", **sections):
    return mps(rows=rows, end=lines + "ENDATA\n", **sections)


def qobjective(lines, **sections):
    return snapshot(read_text(quadratic(lines, **sections)))["qobj"]


@pytest.mark.parametrize("line", [" x y 3\n", " y x 3\n"])
def test_quadobj_is_either_triangle_of_twice_the_objective(line):
    assert qobjective("QUADOBJ\n x x 8\n" + line + " y y -2\n") == [(0, 0, 4.0), (0, 1, 3.0), (1, 1, -1.0)]


def test_qmatrix_is_both_triangles_of_twice_the_objective():
    assert qobjective("QMATRIX\n y y 5\n x y 3\n x x 8\n y x 3\n") == [(0, 0, 4.0), (0, 1, 3.0), (1, 1, 2.5)]


def test_two_entries_in_a_line_and_zeros():
    assert qobjective("QUADOBJ\n x x 8 y 3\n y y 0\n") == [(0, 0, 4.0), (0, 1, 3.0)]


def test_largest_coefficients_are_those_of_the_model():
    assert qobjective("QUADOBJ\n x x 1.9e20\n") == [(0, 0, 0.95e20)]


def test_qcmatrix_makes_its_row_quadratic_and_keeps_the_order_of_both_kinds():
    text = quadratic(
        "QCMATRIX b\n y y 7\nQCMATRIX d\n x y 1\n x x 2\n y x 1\n",
        rows=" N obj\n L a\n G d\n L c\n E b\n N f\n",
        columns=" x a 1 d 2\n x f 9\n y c 3 b 4\n",
        rhs=" r a 1 d 5\n r b 6\n",
    )
    found = snapshot(read_text(text))
    expected = {
        "rows": ["a", "c", "f"],
        "matrix": {(0, 0): 1.0, (1, 1): 3.0, (2, 0): 9.0},
        "qrows": ["d", "b"],
        "qsense": ">=",
        "qrhs": ["5.0", "6.0"],
        "qlinear": [{0: 2.0}, {1: 4.0}],
        "qterms": [[(0, 1, 2.0), (0, 0, 2.0)], [(1, 1, 7.0)]],
    }
    assert {key: found[key] for key in expected} == expected


def test_a_qcmatrix_without_entries_and_an_infinite_side():
    found = snapshot(read_text(quadratic("QCMATRIX c\n", rhs=" r c 1e30\n")))
    assert (found["qrows"], found["qsense"], found["qrhs"], found["qterms"]) == (["c"], "<", ["inf"], [[]])


BOTH = "it holds both triangles of a symmetric matrix"
# title: (text, line, what is said)
DAMAGED = {
    "no column": (quadratic("QUADOBJ\n x z 1\n"), 11, "unknown column 'z'"),
    "no number": (quadratic("QUADOBJ\n x y one\n"), 11, "'one' is not a number"),
    "nan": (quadratic("QUADOBJ\n x y nan\n"), 11, "'nan' is not a number"),
    "infinite": (quadratic("QUADOBJ\n x y 1e20\n"), 11, "the coefficient '1e20' is infinite"),
    "infinite sum of two": (quadratic("QCMATRIX c\n x y 6e19\n"), 11, "the coefficient '6e19' is infinite"),
    "two fields": (
        quadratic("QUADOBJ\n x y\n"),
        11,
        "2 fields, expected 3 or 5 (column, row, number, row, number): 'x y'",
    ),
    "both triangles in QUADOBJ": (
        quadratic("QUADOBJ\n x y 1\n y x 1\n"),
        12,
        "a second coefficient of 'y' and 'x' in section QUADOBJ, which holds one triangle",
    ),
    "square twice": (
        quadratic("QMATRIX\n x x 1\n x x 1\n"),
        12,
        "a second coefficient of 'x' and 'x' in section QMATRIX",
    ),
    "same entry twice": (
        quadratic("QMATRIX\n x y 1\n x y 1\n"),
        12,
        "a second coefficient of 'x' and 'y' in section QMATRIX",
    ),
    "not symmetric": (
        quadratic("QCMATRIX c\n x y 1\n y x 2\n"),
        12,
        "the two coefficients of 'y' and 'x' in section QCMATRIX differ: it holds a symmetric matrix",
    ),
    "one triangle in QMATRIX": (
        quadratic("QMATRIX\n x y 1\n x x 1\n"),
        13,
        f"section QMATRIX ends with one coefficient of 'x' and 'y': {BOTH}",
    ),
    "one triangle in QCMATRIX": (
        quadratic("QCMATRIX c\n x y 1\nQUADOBJ\n x x 1\n"),
        12,
        f"section QCMATRIX ends with one coefficient of 'x' and 'y': {BOTH}",
    ),
    "QUADOBJ and QMATRIX": (
        quadratic("QUADOBJ\n x x 1\nQMATRIX\n x x 1\n"),
        12,
        "QUADOBJ and QMATRIX in one file",
    ),
    "marker": (quadratic("QUADOBJ\n m 'MARKER' 'INTORG'\n"), 11, "a marker in section QUADOBJ"),
    "QCMATRIX without a row": (quadratic("QCMATRIX\n x x 1\n"), 10, "unknown row ''"),
    "QCMATRIX of no row": (quadratic("QCMATRIX d\n x x 1\n"), 10, "unknown row 'd'"),
    "QCMATRIX of the objective": (
        quadratic("QCMATRIX obj\n x x 1\n"),
        10,
        "quadratic terms of row 'obj', which is of type N",
    ),
    "QCMATRIX twice": (
        quadratic("QCMATRIX c\n x x 1\nQCMATRIX c\n y y 1\n"),
        12,
        "a second section QCMATRIX of row 'c'",
    ),
    "range of a quadratic row": (
        quadratic("QCMATRIX c\n x x 1\n", ranges=" g c 2\n"),
        14,
        "the row 'c' has quadratic terms and a range: a quadratic row has one side",
    ),
    "behind nothing": ("ROWS\n N o\nQUADOBJ\n x x 1\n", 3, "QUADOBJ without COLUMNS before it"),
}


@pytest.mark.parametrize("title", DAMAGED)
def test_a_damaged_quadratic_section(title):
    text, line, said = DAMAGED[title]
    with pytest.raises(StoreError) as error:
        read_text(text)
    assert (str(error.value).split("m.mps, ")[1], error.value.code) == (f"line {line}: {said}", SYNTAX)


# ---- files ----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("ending", ["qps", "QPS.gz", "SIF", "mps"])
def test_quadratic_models_survive_in_fixed_form_too(ending, tmp_path):
    columns = [(name, "C", 0.0, INF, 1.0) for name in ("A R 5", "B 2", "C")]
    products = [(0, 1, 1 / 3), (2, 2, -0.1), (1, 2, 5e-324), (0, 0, 9e19)]
    store = built(
        columns,
        [("l 1", 0.0, INF, {1: 2.0})],
        qobj=products,
        qrows=[("q 1", "<", 4.0, [(2, 1.0)], [(0, 1, 0.3)]), ("q 2", ">", -INF, [], [(1, 1, 1.0)])],
    )
    assert snapshot(returned(store, tmp_path / f"m.{ending}")) == snapshot(store)


@pytest.mark.parametrize(
    ("qrows", "said"),
    [
        ([("r", "<", 1.0, [], [])], "a linear and a quadratic row are called 'r'"),
        (
            [("q", "<", 1.0, [], [(0, 1, 5e-324)])],
            "the quadratic row 'q' has the coefficient 5e-324, which has no half",
        ),
    ],
)
def test_what_mps_cannot_say_of_quadratic_rows_is_refused(qrows, said, tmp_path):
    columns = [("x", "C", 0.0, 1.0, 0.0), ("y", "C", 0.0, 1.0, 0.0)]
    with pytest.raises(StoreError) as error:
        write(built(columns, [("r", 0.0, 1.0, {})], qrows=qrows), tmp_path / "m.mps")
    assert (error.value.code, str(error.value)) == (UNSUPPORTED, f"MPS: {said}")


@pytest.mark.parametrize(
    "path",
    instances("maros_meszaros", pattern="*.SIF") + instances("scip_minlp"),
    ids=lambda path: path.name,
)
def test_quadratic_instances_survive(path, tmp_path):
    store = read(path)
    found = snapshot(store)
    assert found["qobj"] or found["qterms"]
    assert snapshot(returned(store, tmp_path / "m.mps")) == found


@pytest.mark.parametrize("ending", ["mps", "lp"])
def test_ids_that_are_no_positions(ending, tmp_path):
    """On the way out a variable and a row were removed before, on the way in the ids do not begin with 0."""
    columns = [(name, "C", 0.0, INF, 1.0) for name in "xyz"]
    rows = [(name, "<", 1.0, [(2, 3.0)], [(1, 2, 5.0), (0, 1, 9.0)]) for name in ("gone", "q")]
    store = built(columns, qobj=[(0, 0, 7.0), (1, 2, 2.0)], qrows=rows)
    store.remove(VAR, [0])
    store.remove(QCONSTR, [0])
    path = tmp_path / f"m.{ending}"
    write(store, path)
    back = Store("")
    for kind, add in ((VAR, lambda: back.addvars(2)), (QCONSTR, lambda: back.addqrows([([], [])]))):
        back.remove(kind, [add()])
    back.remove(VAR, [1])
    back.call("TRVreadmodel", str(path).encode())
    found = snapshot(back)
    assert found == snapshot(store)
    assert (found["vars"], found["qobj"], found["qterms"]) == (["y", "z"], [(0, 1, 2.0)], [[(0, 1, 5.0)]])
