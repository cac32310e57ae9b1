"""Each rule of MPS files: a line that follows it, a line that breaks it, and HiGHS' reader as the second opinion."""

import math

import pytest

from solver import mps_oracle
from solver.model_file import COLUMNS, SAME, SYNTAX, UNSUPPORTED, floats, mps, read, read_text, snapshot
from solver.store import StoreError

INF = math.inf
INTEGER = " m 'MARKER' 'INTORG'\n x obj 1 c 2\n m 'MARKER' 'INTEND'\n y c 3\n"


def bounded(line, integer=False):
    return mps(columns=INTEGER if integer else COLUMNS, bounds=f" {line}\n")


def ranged(kind, number):
    return mps(rows=f" N obj\n {kind} c\n", ranges=f" g c {number}\n")


def two_objectives(head):
    return mps(head, rows=" N o1\n N o2\n L c\n", columns=" x o2 7\n")


def x_is(lb, ub, vtype="C"):
    return {"lb": [lb, 0.0], "ub": [ub, INF], "vtype": vtype + "C"}


def row_is(lower, upper):
    return {"lower": [lower], "upper": [upper]}


# title: (text, what is expected of the snapshot)
VALID = {
    "plain": (
        mps(),
        {"name": "t", "vars": ["x", "y"], "rows": ["c"], "obj": [1.0, 0.0], "matrix": {(0, 0): 2.0, (0, 1): 3.0}},
    ),
    "name with blanks": (mps("NAME  a  b \n"), {"name": "a  b"}),
    "no name": (mps("NAME\n"), {"name": ""}),
    "no NAME section": (mps(""), {"name": ""}),
    "comments and empty lines": (mps("* first\nNAME t\n\n*\n   \n"), {"name": "t"}),
    "sense on the next line": (mps("OBJSENSE\n    MAX\n"), {"sense": -1}),
    "sense in the same line": (mps("OBJSENSE MAX\n"), {"sense": -1}),
    "sense without a blank": (mps("OBJSENSE\nMAXIMIZE\n"), {"sense": -1}),
    "sense min, small letters": (mps("OBJSENSE\n  minimize\n"), {"sense": 1}),
    "row types": (
        mps(rows=" N obj\n L c\n G g\n E e\n", rhs=" r c 4 g 5\n r e 6\n"),
        {"lower": [-INF, 5.0, 6.0], "upper": [4.0, INF, 6.0]},
    ),
    "constant": (mps(rhs=" r obj -7\n"), {"constant": 7.0, "upper": [0.0]}),
    "constant when maximizing": (mps("OBJSENSE MAX\n", rhs=" r obj 7\n"), {"constant": -7.0}),
    "infinite right-hand side": (mps(rhs=" r c 1e30\n"), row_is(-INF, INF)),
    "set name left out": (mps(rhs=" c 4\n"), row_is(-INF, 4.0)),
    "set name left out, two entries": (mps(rhs=" c 4 obj 3\n"), {"upper": [4.0], "constant": -3.0}),
    "range of L": (ranged("L", 3), row_is(1.0, 4.0)),
    "negative range of L": (ranged("L", -3), row_is(1.0, 4.0)),
    "range of G": (ranged("G", 3), row_is(4.0, 7.0)),
    "negative range of G": (ranged("G", -3), row_is(4.0, 7.0)),
    "range of E": (ranged("E", 3), row_is(4.0, 7.0)),
    "negative range of E": (ranged("E", -3), row_is(1.0, 4.0)),
    "range of zero": (ranged("L", 0), row_is(4.0, 4.0)),
    "infinite range": (ranged("L", "1e30"), row_is(-INF, 4.0)),
    "range of the objective": (mps(ranges=" g obj 3\n"), row_is(-INF, 4.0)),
    "UP": (bounded("UP b x 5"), x_is(0.0, 5.0)),
    "UP below zero": (bounded("UP b x -5"), x_is(0.0, -5.0)),
    "UP infinite": (bounded("UP b x 1e30"), x_is(0.0, INF)),
    "LO": (bounded("LO b x -5"), x_is(-5.0, INF)),
    "LO infinite": (bounded("LO b x -inf"), x_is(-INF, INF)),
    "LO and UP": (bounded("LO b x 5\n UP b x 3"), x_is(5.0, 3.0)),
    "FX": (bounded("FX b x 5"), x_is(5.0, 5.0)),
    "FR": (bounded("FR b x"), x_is(-INF, INF)),
    "MI": (bounded("MI b x"), x_is(-INF, INF)),
    "MI after UP": (bounded("UP b x 4\n MI b x"), x_is(-INF, 4.0)),
    "PL": (bounded("PL b x"), x_is(0.0, INF)),
    "BV": (bounded("BV b x"), x_is(0.0, 1.0, "B")),
    "BV with a number": (bounded("BV b x 1"), x_is(0.0, 1.0, "B")),
    "LI": (bounded("LI b x 2"), x_is(2.0, INF, "I")),
    "UI": (bounded("UI b x 7"), x_is(0.0, 7.0, "I")),
    "SC": (bounded("SC b x 9"), x_is(0.0, 9.0, "S")),
    "SC and LO": (bounded("SC b x 9\n LO b x 2"), x_is(2.0, 9.0, "S")),
    "SC infinite": (bounded("SC b x 1e30"), x_is(0.0, INF, "S")),
    "bound without a set": (bounded("UP x 5"), x_is(0.0, 5.0)),
    "bound without set and number": (bounded("FR x"), x_is(-INF, INF)),
    "number D exponent": (bounded("UP b x 1.5D+3"), x_is(0.0, 1500.0)),
    "number signs and points": (bounded("UP b x +.5\n LO b x -5."), x_is(-5.0, 0.5)),
    "number too large": (bounded("UP b x 1e400"), x_is(0.0, INF)),
    "number too small": (bounded("UP b x 1e-400"), x_is(0.0, 0.0)),
    "integer": (mps(columns=INTEGER), x_is(0.0, 1.0, "I")),
    "integer PL": (bounded("PL b x", integer=True), x_is(0.0, INF, "I")),
    "integer LO": (bounded("LO b x 2", integer=True), x_is(2.0, INF, "I")),
    "integer UP": (bounded("UP b x 5", integer=True), x_is(0.0, 5.0, "I")),
    "integer UP below zero": (bounded("UP b x -5", integer=True), x_is(0.0, -5.0, "I")),
    "integer MI": (bounded("MI b x", integer=True), x_is(-INF, INF, "I")),
    "integer FR": (bounded("FR b x", integer=True), x_is(-INF, INF, "I")),
    "integer BV": (bounded("BV b x", integer=True), x_is(0.0, 1.0, "B")),
    "integer block left open": (
        mps(columns=" y c 3\n m 'MARKER' 'INTORG'\n x c 1\n"),
        {"vtype": "CI", "ub": [INF, 1.0]},
    ),
    "zero coefficient": (mps(columns=" x obj 0 c 0\n"), {"vars": ["x"], "matrix": {}}),
    "comment behind a line": (mps(columns=" x obj 1 $ c 9\n"), {"matrix": {}, "obj": [1.0]}),
    "names with a dollar": (
        mps(columns=" $x $c 1\n", rows=" N obj\n L $c\n", rhs=" r $c 4\n"),
        {"vars": ["$x"], "rows": ["$c"]},
    ),
    "windows line ends": (mps().replace("\n", "\r\n"), {"vars": ["x", "y"], "upper": [4.0]}),
    "last line without an end": (mps(end="ENDATA"), {"vars": ["x", "y"]}),
    "behind ENDATA": (mps(end="ENDATA\n\x1a garbage\n"), {"vars": ["x", "y"]}),
    "tabs": (mps(columns="\tx\tobj\t1\tc\t2\n"), {"matrix": {(0, 0): 2.0}}),
    "no row at all": ("ROWS\nCOLUMNS\nENDATA\n", {"vars": [], "rows": []}),
    "no objective": (mps(rows=" L c\n", columns=" x c 1\n"), {"obj": [0.0], "rows": ["c"]}),
    "long line": (mps(columns=" x obj 1" + " " * 3_000_000 + "c 2\n"), {"matrix": {(0, 0): 2.0}}),
}

# What this package reads on purpose as HiGHS does not.
OTHERWISE = {
    "free rows": (
        mps(rows=" N obj\n L c\n N free\n", columns=" x free 5\n", rhs=" r c 4 free 9\n"),
        {"rows": ["c", "free"], "upper": [4.0, INF], "matrix": {(1, 0): 5.0}},
    ),
    "ranges before right-hand sides": (
        "ROWS\n N o\n G c\nCOLUMNS\n x c 1\nRANGES\n g c 3\nRHS\n r c 4\nENDATA\n",
        row_is(4.0, 7.0),
    ),
    "first set counts": (mps(bounds=" UP b x 5\n UP b2 y 6\n UP b2 x 7\n"), x_is(0.0, 5.0)),
    "objective by name": (two_objectives("OBJNAME\n o2\n"), {"obj": [7.0], "rows": ["o1", "c"]}),
    "objective by name, in line": (two_objectives("OBJSECT o2\n"), {"obj": [7.0], "rows": ["o1", "c"]}),
    "UTF-8 names": (mps("\ufeffNAME t\n", columns=" größe c 1\n"), {"vars": ["größe"]}),
    "sense in the same line, long": (mps("OBJSENSE MAXIMIZE\n"), {"sense": -1}),
    "BV keeps other sides": (bounded("FX b x 1\n BV b x"), x_is(1.0, 1.0, "B")),
    "BV before other sides": (bounded("BV b x\n LO b x 1"), x_is(1.0, 1.0, "B")),
    "digits beyond double in a range": (
        mps(rows=" N obj\n L c\n", rhs=" r c 1.0000000000000002\n", ranges=" g c 2.00000000000000022204\n"),
        row_is(-1.0, 1.0000000000000002),
    ),
}

PAIRS = "(column, row, number, row, number)"
SEMI = "semi-integer columns are not supported"
UNSUPPORTED_SECTIONS = [
    "SOS1",
    "SOS2",
    "QSECTION",
    "CSECTION k 0 QUAD",
]

# title: (text, line, what is said)
DAMAGED = {
    "empty file": ("", 1, "the file ends without ENDATA"),
    "no ENDATA": (mps(end=""), 9, "the file ends without ENDATA"),
    "unknown section": (mps("NAME t\nROW\n"), 2, "unknown section 'ROW' (lines of data begin with a blank)"),
    "data without a blank": (mps(rhs="r c 4\n"), 9, "unknown section 'r' (lines of data begin with a blank)"),
    "data named as a section": (mps(rhs="RHS c 4\n"), 9, "a second section RHS"),
    "section with data": (
        mps(end="ENDATA\n").replace("ROWS\n", "ROWS N x\n"),
        2,
        "'N x' behind ROWS (lines of data begin with a blank)",
    ),
    "data before a section": (" x c 1\n", 1, "data before the first section: 'x c 1'"),
    "data under NAME": (mps("NAME t\n x c 1\n"), 2, "data in section NAME: 'x c 1'"),
    "section twice": (mps(end="RHS\nENDATA\n"), 10, "a second section RHS"),
    "sections out of order": ("NAME\nCOLUMNS\n", 2, "COLUMNS without ROWS before it"),
    "no COLUMNS": ("ROWS\n N o\nENDATA\n", 3, "ENDATA without COLUMNS before it"),
    "sense unknown": (mps("OBJSENSE\n MOX\n"), 2, "the objective sense 'MOX' is neither MIN nor MAX"),
    "sense twice": (mps("OBJSENSE\n MAX\n MIN\n"), 3, "a second objective sense"),
    "sense of two words": (mps("OBJSENSE MAX MIN\n"), 1, "2 fields, expected 1: 'MAX MIN'"),
    "objective no N row": (mps("OBJNAME\n c\n"), 6, "the objective 'c' is not an N row"),
    "objective twice": (mps("OBJNAME a\n b\n"), 2, "a second name of the objective"),
    "row type": (mps(rows=" N obj\n D c\n"), 4, "the row type 'D' is none of N, E, L, G"),
    "row of one field": (mps(rows=" N obj\n L\n"), 4, "1 field, expected 2 (type, row): 'L'"),
    "row of three fields": (mps(rows=" N obj\n L c d\n"), 4, "3 fields, expected 2 (type, row): 'L c d'"),
    "row twice": (mps(rows=" N obj\n L c\n G c\n"), 5, "a second row 'c'"),
    "row with a broken name": (
        mps(rows=" N obj\n L c\n L z\n").encode().replace(b"z", b"z\xe9"),
        5,
        r"the name 'z\xe9' is not UTF-8",
    ),
    "unknown row": (mps(columns=" x d 1\n"), 6, "unknown row 'd'"),
    "column of two fields": (mps(columns=" x obj\n"), 6, f"2 fields, expected 3 or 5 {PAIRS}: 'x obj'"),
    "column of four fields": (mps(columns=" x obj 1 c\n"), 6, f"4 fields, expected 3 or 5 {PAIRS}: 'x obj 1 c'"),
    "column of many fields": (
        mps(columns=" x" + " c 1" * 9 + "\n"),
        6,
        f"7 fields, expected 3 or 5 {PAIRS}: 'x c 1 c 1 c 1 c 1 c 1 c 1 c 1 c 1 c 1'",
    ),
    "column torn apart": (
        mps(columns=" x obj 1\n y c 1\n x c 1\n"),
        8,
        "the column 'x' again (its lines must stand together)",
    ),
    "coefficient twice": (mps(columns=" x c 1\n x c 2\n"), 7, "a second coefficient of column 'x' in row 'c'"),
    "objective coefficient twice": (
        mps(columns=" x obj 1 obj 2\n"),
        6,
        "a second coefficient of column 'x' in row 'obj'",
    ),
    "coefficient a word": (mps(columns=" x c abc\n"), 6, "'abc' is not a number"),
    "coefficient with two points": (mps(columns=" x c 1.2.3\n"), 6, "'1.2.3' is not a number"),
    "coefficient nan": (mps(columns=" x c nan\n"), 6, "'nan' is not a number"),
    "coefficient hexadecimal": (mps(columns=" x c 0x10\n"), 6, "'0x10' is not a number"),
    "coefficient with two signs": (mps(columns=" x c +-1\n"), 6, "'+-1' is not a number"),
    "coefficient without exponent": (mps(columns=" x c 1e\n"), 6, "'1e' is not a number"),
    "coefficient infinite": (mps(columns=" x c 1e20\n"), 6, "the coefficient '1e20' is infinite"),
    "coefficient beyond double": (mps(columns=" x c -1e999\n"), 6, "the coefficient '-1e999' is infinite"),
    "marker unknown": (
        mps(columns=" m 'MARKER' 'SOSORG'\n"),
        6,
        "the marker ''SOSORG'' is neither 'INTORG' nor 'INTEND'",
    ),
    "marker opened twice": (
        mps(columns=" m 'MARKER' 'INTORG'\n" * 2),
        7,
        "the marker 'INTORG' inside of an integer block",
    ),
    "marker closed only": (mps(columns=" m 'MARKER' 'INTEND'\n"), 6, "the marker 'INTEND' outside of an integer block"),
    "rhs of one field": (mps(rhs=" r\n"), 9, "1 field, expected 2 to 5 (set, row, number, row, number): 'r'"),
    "rhs of an unknown row": (mps(rhs=" r d 4\n"), 9, "unknown row 'd'"),
    "rhs a word": (mps(rhs=" r c 4x\n"), 9, "'4x' is not a number"),
    "rhs twice": (mps(rhs=" r c 4\n r c 5\n"), 10, "a second right-hand side of row 'c'"),
    "rhs minus infinite": (mps(rhs=" r c -1e30\n"), 9, "the right-hand side '-1e30' of a row of type L is infinite"),
    "rhs equal infinite": (
        mps(rows=" N obj\n E c\n", rhs=" r c inf\n"),
        9,
        "the right-hand side 'inf' of a row of type E is infinite",
    ),
    "rhs infinite constant": (mps(rhs=" r obj 1e30\n"), 9, "the coefficient '1e30' is infinite"),
    "range of an unknown row": (mps(ranges=" g d 4\n"), 11, "unknown row 'd'"),
    "range a word": (mps(ranges=" g c 4,5\n"), 11, "'4,5' is not a number"),
    "range twice": (mps(ranges=" g c 4\n g c 5\n"), 12, "a second range of row 'c'"),
    "range of an infinite side": (
        mps(rhs=" r c inf\n", ranges=" g c 4\n"),
        12,
        "the sides of row 'c' from its right-hand side and range are infinite",
    ),
    "bound unknown": (bounded("XX b x 4"), 11, "unknown bound type 'XX'"),
    "bound of one field": (bounded("UP"), 11, "1 field, expected 2 to 4 (type, set, column, number): 'UP'"),
    "bound of five fields": (
        bounded("UP b x 4 5"),
        11,
        "5 fields, expected 2 to 4 (type, set, column, number): 'UP b x 4 5'",
    ),
    "bound of an unknown column": (bounded("UP b z 4"), 11, "unknown column 'z'"),
    "bound without number": (bounded("UP x"), 11, "the bound UP of column 'x' has no number"),
    "SC without number": (bounded("SC x"), 11, "the bound SC of column 'x' has no number"),
    "bound a word": (bounded("FX b x 1e5e"), 11, "'1e5e' is not a number"),
    "bound MI with a word": (bounded("MI b x word"), 11, "'word' is not a number"),
    "LO infinite": (bounded("LO b x 1e30"), 11, "the bound LO '1e30' of column 'x' is infinite"),
    "UP minus infinite": (bounded("UP b x -inf"), 11, "the bound UP '-inf' of column 'x' is infinite"),
    "upper bound twice": (bounded("UP b x 4\n SC b x 5"), 12, "a second upper bound of column 'x'"),
    "lower bound twice": (bounded("MI b x\n LI b x 5"), 12, "a second lower bound of column 'x'"),
    "bounds after FR": (bounded("FR b x\n UP b x 5"), 12, "a second upper bound of column 'x'"),
    "BV twice": (bounded("BV b x\n BV b x"), 12, "a second BV of column 'x'"),
    "semi-integer": (
        bounded("SC b x 5", integer=True),
        13,
        "the column 'x' is integer and semi-continuous: " + SEMI,
        UNSUPPORTED,
    ),
    "semi-integer by SI": (bounded("SI b x 5"), 11, SEMI, UNSUPPORTED),
    "second set, damaged all the same": (bounded("UP b x 4\n UP b2 x word"), 12, "'word' is not a number"),
    "zero byte": (
        mps(columns=" x\0 c 1\n"),
        6,
        r"control character '\x00' in the line (UTF-16? UTF-8 is read)",
    ),
    "zero byte in a header": (
        mps("NAME \0\n"),
        1,
        r"control character '\x00' in the line (UTF-16? UTF-8 is read)",
    ),
    "long text": (mps(columns=f" x c {'9a' * 99}\n"), 6, "'" + "9a" * 30 + "'... is not a number"),
    **{
        f"section {s}": (mps(end=s + "\nENDATA\n"), 10, f"section {s.split()[0]} is not supported yet", UNSUPPORTED)
        for s in UNSUPPORTED_SECTIONS
    },
}


@pytest.mark.parametrize("title", [*VALID, *OTHERWISE])
def test_a_rule_that_is_followed(title):
    text, expected = {**VALID, **OTHERWISE}[title]
    model = snapshot(read_text(text))
    found = {**floats(model), "vtype": model["vtype"]}
    assert {key: found[key] for key in expected} == expected


@pytest.mark.parametrize("title", VALID)
def test_highs_reads_the_same(title, tmp_path):
    path = tmp_path / "m.mps"
    path.write_text(VALID[title][0])
    found, oracle = floats(snapshot(read(path))), mps_oracle.read(path)
    assert {key: found[key] for key in SAME} == {key: oracle[key] for key in SAME}


@pytest.mark.parametrize("title", DAMAGED)
def test_a_rule_that_is_broken(title, tmp_path):
    text, line, said, *code = DAMAGED[title]
    path = tmp_path / "m.mps"
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    with pytest.raises(StoreError) as error:
        read(path)
    assert str(error.value) == f"{path}, line {line}: {said}"
    assert error.value.code == (code or [SYNTAX])[0]
