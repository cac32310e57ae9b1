"""Each rule of LP files: a text that follows it, a text that breaks it, and HiGHS' reader as the second opinion."""

import math

import pytest

from solver import mps_oracle
from solver.model_file import SAME, SYNTAX, UNSUPPORTED, floats, instances, read, read_text, snapshot
from solver.store import VAR, Store, StoreError

INF = math.inf


def lp(objective=" obj: x + y\n", rows=" c: x + y >= 1\n", rest="", head="Minimize\n", end="End\n"):
    """A small model with one section exchanged; the rows begin in line 4, the rest in line 5."""
    return f"{head}{objective}Subject To\n{rows}{rest}{end}"


def bounds(lines):
    return lp(rest=f"Bounds\n{lines}")


def x_is(lb, ub, vtype="C"):
    return {"lb": [lb, 0.0], "ub": [ub, INF], "vtype": vtype + "C"}


def row_is(lower, upper, terms=(1.0, 1.0)):
    return {"lower": [lower], "upper": [upper], "matrix": {(0, j): v for j, v in enumerate(terms)}}


# title: (text, what is expected of the snapshot); HiGHS reads the same.
VALID = {
    "plain": (lp(), {"vars": ["x", "y"], "rows": ["c"], "obj": [1.0, 1.0], "sense": 1, **row_is(1.0, INF)}),
    "maximize": (lp(head="MAXIMIZE\n"), {"sense": -1}),
    "short keywords": ("max\n x\nst\n c: x + y <= 1\ngen\n x\nend\n", {"sense": -1, "vtype": "IC", "obj": [1.0, 0.0]}),
    "keywords and data in one line": ("min obj: x\nst c: x + y <= 1\nend\n", {"rows": ["c"], "upper": [1.0]}),
    "such that": (lp().replace("Subject To", "such   that"), {"rows": ["c"]}),
    "s.t.": (lp().replace("Subject To", "s.t."), {"rows": ["c"]}),
    "comments": (lp(rows="\\ a: x >= 1\n\n c: x \\ + 7 x\n + y >= 1\n"), row_is(1.0, INF)),
    "windows line ends": (lp().replace("\n", "\r\n"), row_is(1.0, INF)),
    "tabs": (lp(rows="\tc:\tx\t+\ty\t>=\t1\n"), row_is(1.0, INF)),
    "nothing in the objective": (lp(" obj:\n"), {"obj": [0.0, 0.0]}),
    "constant of the objective": (lp(" obj: x + 3.5 + y\n"), {"constant": 3.5, "obj": [1.0, 1.0]}),
    "coefficients": (
        lp(" obj: 3x - .5 y\n", " c: 2e1 x +1.e-1y >= 1\n"),
        {"obj": [3.0, -0.5], **row_is(1, INF, (20, 0.1))},
    ),
    "signs add up": (lp(" obj: + - 3 x - - y\n"), {"obj": [-3.0, 1.0]}),
    "zero coefficients": (lp(" obj: 0 x + y\n", " c: 0 x + y <= 1\n"), {"obj": [0.0, 1.0], "matrix": {(0, 1): 1.0}}),
    "rows over lines": (lp(rows=" c:\n x\n +\n y\n >= 1\n"), row_is(1.0, INF)),
    "equality": (lp(rows=" c: x + y = 1\n"), row_is(1.0, 1.0)),
    "hash in names": (lp(" o#: x#1\n", " c#1: x#1 + y >= 1\n"), {"vars": ["x#1", "y"], "rows": ["c#1"]}),
    "a name like an exponent": (lp(" obj: 3 e9 + x\n"), {"vars": ["e9", "x", "y"], "obj": [3.0, 1.0, 0.0]}),
    "bounds on both sides": (bounds(" -1.5 <= x <= 5\n"), x_is(-1.5, 5.0)),
    "lower bound": (bounds(" x >= -5\n"), x_is(-5.0, INF)),
    "upper bound": (bounds(" x <= 5\n"), x_is(0.0, 5.0)),
    "upper bound below zero": (bounds(" x <= -5\n"), x_is(0.0, -5.0)),
    "number first": (bounds(" 4 <= x\n"), x_is(4.0, INF)),
    "fixed": (bounds(" x = 3\n"), x_is(3.0, 3.0)),
    "free": (bounds(" x FREE\n"), x_is(-INF, INF)),
    "no lower bound": (bounds(" -inf <= x <= 5\n"), x_is(-INF, 5.0)),
    "infinity written out": (bounds(" x >= -Infinity\n"), x_is(-INF, INF)),
    "general": (lp(rest="General\n x\n"), x_is(0.0, INF, "I")),
    "binary": (lp(rest="Binaries\n x\n"), x_is(0.0, 1.0, "B")),
    "semi-continuous": (lp(rest="Bounds\n 1 <= x <= 5\nSemi-Continuous\n x\n"), x_is(1.0, 5.0, "S")),
    "several names in a line": (lp(rest="Generals\n x y\n"), {"vtype": "II"}),
}

# What this package reads on purpose as HiGHS does not.
OTHERWISE = {
    "strict signs": (lp(rows=" c: x + y < 1\n"), row_is(-INF, 1.0)),
    "names with brackets": (
        lp(" obj: x[1,2]\n", " c[0]: x[1,2] + 2x[1,3]>=1\n"),
        {"vars": ["x[1,2]", "x[1,3]"], "rows": ["c[0]"], **row_is(1.0, INF, (1.0, 2.0))},
    ),
    "two sides": (lp(rows=" c: -1 <= x + y <= 5\n"), row_is(-1.0, 5.0)),
    "two sides, the larger first": (lp(rows=" c: 5 >= x + y >= -1\n"), row_is(-1.0, 5.0)),
    "number first in a row": (lp(rows=" c: 5 >= x + y\n"), row_is(-INF, 5.0)),
    "number first in an equality": (lp(rows=" c: 5 = x + y\n"), row_is(5.0, 5.0)),
    "free row": (lp(rows=" c: -inf <= x + y <= inf\n"), row_is(-INF, INF)),
    "free row by one side": (lp(rows=" c: x + y >= -1e30\n"), row_is(-INF, INF)),
    "row over lines between its sides": (lp(rows=" c: -1 <=\n x\n + y\n <=\n 5\n"), row_is(-1.0, 5.0)),
    "constant among the terms": (lp(rows=" c: x + 2 + y >= 1\n"), row_is(-1.0, INF)),
    "constant between two sides": (lp(rows=" c: -1 <= x + y - 3 <= 5\n"), row_is(2.0, 8.0)),
    "repeated terms": (
        lp(" obj: x + x - 3 y\n", " c: x + y + x + 2 >= 1\n"),
        {"obj": [2.0, -3.0], **row_is(-1.0, INF, (2.0, 1.0))},
    ),
    "row without terms": (lp(rows=" c: 0 <= 5\n"), row_is(-5.0, INF, ())),
    "all signs": (lp(rows=" a: x =< 1\n b: x => 1\n c: x == 1\n"), {"lower": [-INF, 1, 1], "upper": [1, INF, 1]}),
    "times": (lp(" obj: 3 * x\n"), {"obj": [3.0, 0.0]}),
    "rows without names": (lp(rows=" x <= 1\n R0: x <= 2\n y <= 3\n"), {"rows": ["R0_1", "R0", "R2"]}),
    "bounds of a binary": (lp(rest="Bounds\n 0.5 <= x <= 7\nBinary\n x\n"), x_is(0.5, 1.0, "B")),
    "general and binary": (lp(rest="General\n x\nBinary\n x\n"), x_is(0.0, 1.0, "B")),
    "sections in any order": (
        lp(rest="General\n x\nBounds\n x <= 4\nGeneral\n y\n"),
        {"ub": [4.0, INF], "vtype": "II"},
    ),
    "keywords as names": (
        lp(" free: 2 bounds\n + max - binary\n", " st: max + bounds\n - end <= 1\n", "Bounds\n free free\n").replace(
            "- end", "- free"
        ),
        {"vars": ["bounds", "max", "binary", "free"], "rows": ["st"], "lb": [0.0, 0.0, 0.0, -INF]},
    ),
    "title": ("\\ a comment\n\\   Problem name  : diet 7 \n" + lp(), {"name": "diet 7"}),
    "no rows": ("min\n obj: x\nend\n", {"vars": ["x"], "rows": []}),
    "byte order mark": ("\ufeff" + lp(" obj: größe\n"), {"vars": ["größe", "x", "y"]}),
    "behind End": (lp() + "garbage \0\n", {"vars": ["x", "y"]}),
    "last line without an end": (lp(end="End"), {"vars": ["x", "y"]}),
    "half of products in the objective": (
        lp(" obj: x + [ 2 x ^2 + 3 x * y - y^2 ] / 2 + y\n"),
        {"obj": [1.0, 1.0], "qobj": [(0, 0, 1.0), (0, 1, 1.5), (1, 1, -0.5)]},
    ),
    "products in the objective as they stand": (lp(" obj: -[x^2-3*x*y]+x\n"), {"qobj": [(0, 0, -1.0), (0, 1, 3.0)]}),
    "quadratic row": (
        lp(rows=" a: y <= 2\n q: 2 x + [ z * x + z[1]^2 ] <= 4\n b: z >= 1\n", rest="Bounds\n z free\n"),
        {
            "vars": ["x", "y", "z", "z[1]"],
            "rows": ["a", "b"],
            "qrows": ["q"],
            "qsense": "<",
            "qrhs": [4.0],
            "qlinear": [{0: 2.0}],
            "qterms": [[(0, 2, 1.0), (3, 3, 1.0)]],
        },
    ),
    "quadratic rows of every sign": (
        lp(rows=" [ x^2 ] >= -inf\n 3 >= [ x^2 ] / 2\n q: [ ] + 3 = 1\n"),
        {
            "qrows": ["Q0", "Q1", "q"],
            "qsense": "><=",
            "qrhs": [-INF, 3.0, -2.0],
            "qterms": [[(0, 0, 1)], [(0, 0, 0.5)], []],
        },
    ),
}

SIGN = "<=, >= or ="
# title: (text, line, what is said)
DAMAGED = {
    "empty file": ("", 1, "the file ends where Minimize or Maximize is expected"),
    "no objective": ("Subject To\n c: x <= 1\nEnd\n", 1, "'Subject To' stands where Minimize or Maximize is expected"),
    "no end": (lp(end=""), 4, "the file ends where a section or End is expected"),
    "cut in a row": (lp(rows=" c: x +\n", end=""), 4, "the file ends where a term is expected"),
    "two objectives": (lp(" a: x\n b: y\n"), 3, "'b:' stands where a sign or a section is expected"),
    "second rows": (lp(rest="st\n d: x <= 1\n"), 5, "a second section 'st'"),
    "second objective": (lp(rest="Maximize\n d: x\n"), 5, "a second section 'Maximize'"),
    "no sign between terms": (lp(rows=" c: x y <= 1\n"), 4, f"'y' stands where {SIGN} is expected"),
    "two numbers": (lp(rows=" c: 2 3 x <= 1\n"), 4, f"'3' stands where {SIGN} is expected"),
    "number with two points": (lp(rows=" c: 1.2.3 x <= 1\n"), 4, f"'.3' stands where {SIGN} is expected"),
    "decimal comma": (lp(rows=" c: x <= 4,5\n"), 4, "',5' is neither a number nor a name"),
    "no sense": (lp(rows=" c: x\n d: y <= 1\n"), 5, f"'d:' stands where {SIGN} is expected"),
    "no number": (lp(rows=" c: x <=\n d: y <= 1\n"), 5, "'d:' stands where a number is expected"),
    "a word for a number": (lp(rows=" c: x <= abc\n"), 4, "'abc' stands where a number is expected"),
    "variables on both sides": (lp(rows=" c: x <= y\n"), 4, "'y' stands where a number is expected"),
    "nan": (lp(rows=" c: x <= nan\n"), 4, "'nan' stands where a number is expected"),
    "nan as a variable": (lp(rows=" c: nan x <= 1\n"), 4, "'nan' stands where a variable is expected"),
    "row without anything": (lp(rows=" c: <= 1\n"), 4, "'<=' stands where a row is expected"),
    "nothing between two sides": (lp(rows=" c: 1 <= <= 2\n"), 4, "'<=' stands where an expression is expected"),
    "signs that disagree": (lp(rows=" c: 1 <= x >= 2\n"), 4, "the two signs of the row 'c' do not agree"),
    "two equalities": (lp(rows=" 1 = x = 2\n"), 4, "the two signs of the row do not agree"),
    "three sides": (lp(rows=" c: 1 <= x <= 2 <= 3\n"), 4, "'<=' stands where a row is expected"),
    "row twice": (lp(rows=" c: x <= 1\n c: y <= 1\n"), 5, "a second row 'c'"),
    "infinite coefficient": (
        lp(rows=" c: 1e20 x <= 1\n"),
        4,
        "the coefficient 1e+20 of 'x' is infinite (from 1e20 on)",
    ),
    "infinite sum": (lp(" o: 9e19 x + 9e19 x\n"), 2, "the coefficients of 'x' add up to infinity"),
    "infinite sum in a row": (
        lp(rows=" c: 6e19 x + 9e19 y\n + 6e19 x <= 1\n d: x <= 1\n"),
        5,
        "the coefficients of 'x' add up to infinity",
    ),
    "infinite sum of products": (
        lp(rows=" c: [ 6e19 x * y + 9e19 x^2 ] + [ 6e19 y * x ] <= 1\n"),
        4,
        "the coefficients of 'y' * 'x' add up to infinity",
    ),
    "infinite sum of squares": (lp(" o: [ 6e19 x^2 + 6e19 x^2 ]\n"), 2, "the coefficients of 'x' add up to infinity"),
    "number without an exponent": (lp(rows=" c: x >= 1e\n + y <= 3\n"), 4, "'1e' is not a number"),
    "coefficient without an exponent": (lp(rows=" c: 1E x <= 3\n"), 4, "'1E' is not a number"),
    "infinity times x": (lp(rows=" c: inf x <= 1\n"), 4, f"'x' stands where {SIGN} is expected"),
    "infinite constant": (lp(" obj: x + inf\n"), 2, "the constant of the objective is infinite"),
    "infinite constant in a row": (
        lp(rows=" c: x + inf <= 1\n d: x <= 1\n"),
        4,
        "the row 'c' has an infinite constant",
    ),
    "side that nothing meets": (
        lp(rows=" c: 1e30 <= x\n d: x <= 1\n"),
        4,
        "the row 'c' has an infinite side that nothing meets",
    ),
    "infinite equality": (lp(rows=" c: x = inf\n"), 4, "the row 'c' has an infinite side that nothing meets"),
    "control character": (
        lp(rows=" c: x\0 <= 1\n"),
        4,
        r"control character '\x00' in the line (UTF-16? UTF-8 is read)",
    ),
    "name that is not UTF-8": (
        lp().encode().replace(b"c: x", b"c: x\xe9"),
        4,
        r"the name 'x\xe9' is not UTF-8",
    ),
    "lone colon": (lp(rows=" : x <= 1\n"), 4, "':' without a name before it"),
    "unknown variable in bounds": (
        bounds(" z <= 1\n"),
        6,
        "unknown variable 'z' (neither the objective nor a row names it)",
    ),
    "unknown variable in general": (
        lp(rest="General\n z\n"),
        6,
        "unknown variable 'z' (neither the objective nor a row names it)",
    ),
    "bound without a sense": (bounds(" x 5\n"), 6, f"'5' stands where {SIGN} is expected"),
    "bound with a coefficient": (bounds(" 2 x <= 5\n"), 6, f"'x' stands where {SIGN} is expected"),
    "bound a word": (bounds(" x <= five\n"), 6, "'five' stands where a bound is expected"),
    "bound of a number": (bounds(" 3 <= 5\n"), 6, "'5' stands where a variable is expected"),
    "bound twice": (bounds(" x <= 5\n 1 <= x <= 5\n"), 7, "a second upper bound of 'x'"),
    "bound after free": (bounds(" x free\n x >= 1\n"), 7, "a second lower bound of 'x'"),
    "bound that nothing meets": (bounds(" x <= -inf\n"), 6, "no value of 'x' meets its infinite bound"),
    "bounds that disagree": (bounds(" 1 <= x >= 2\n"), 6, "the two signs of the bounds of 'x' do not agree"),
    "number in general": (lp(rest="General\n 3\n"), 6, "'3' stands where a variable is expected"),
    "semi-integer": (
        lp(rest="General\n x\nSemi\n x\n"),
        8,
        "the variable 'x' is integer and semi-continuous: semi-integer variables are not supported",
        UNSUPPORTED,
    ),
    "general constraints": (
        lp(rest="General Constraints\n g: x = MAX ( y , 3 )\n"),
        5,
        "section General Constraints is not supported yet",
        UNSUPPORTED,
    ),
    "lazy constraints": (
        lp(rest="Lazy Constraints\n"),
        5,
        "section Lazy Constraints is not supported yet",
        UNSUPPORTED,
    ),
    "open bracket": (lp(" obj: [ x^2 + \n"), 3, "'Subject To' stands where a variable is expected"),
    "linear term in a bracket": (
        lp(" obj: [ x + y^2 ]\n"),
        2,
        "'+' stands where ^ 2 or * and a variable (linear terms stand outside of the bracket) is expected",
    ),
    "cube": (lp(" obj: [ x^3 ]\n"), 2, "'3' stands where the exponent 2 is expected"),
    "product of three": (lp(" obj: [ x*y*z ]\n"), 2, "'*' stands where a sign or ] is expected"),
    "bracket over three": (lp(" obj: [ x^2 ]/3\n"), 2, "'3' stands where 2 is expected"),
    "bracket with a coefficient": (lp(" obj: 3 [ x^2 ]\n"), 2, "'[' stands where a variable is expected"),
    "product outside of a bracket": (lp(rows=" c: x * y <= 1\n"), 4, f"'*' stands where {SIGN} is expected"),
    "infinite product": (lp(" obj: [ 1e20 x^2 ]\n"), 2, "the coefficient 1e+20 of 'x' is infinite (from 1e20 on)"),
    "quadratic row with two sides": (
        lp(rows=" q: 1 <= [ x^2 ] <= 4\n d: x <= 1\n"),
        4,
        "the row 'q' has quadratic terms and two sides: write it as two rows",
        UNSUPPORTED,
    ),
}


@pytest.mark.parametrize("title", [*VALID, *OTHERWISE])
def test_a_rule_that_is_followed(title):
    text, expected = {**VALID, **OTHERWISE}[title]
    model = snapshot(read_text(text, "lp"))
    found = {**floats(model), "vtype": model["vtype"], "qrhs": [float(v) for v in model["qrhs"]]}
    assert {key: found[key] for key in expected} == expected


@pytest.mark.parametrize("title", VALID)
def test_highs_reads_the_same(title, tmp_path):
    path = tmp_path / "m.lp"
    path.write_text(VALID[title][0])
    found, oracle = floats(snapshot(read(path))), mps_oracle.read(path)
    assert {key: found[key] for key in SAME} == {key: oracle[key] for key in SAME}


@pytest.mark.parametrize("title", DAMAGED)
def test_a_rule_that_is_broken(title, tmp_path):
    text, line, said, *code = DAMAGED[title]
    path = tmp_path / "m.lp"
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    store = Store("kept")
    with pytest.raises(StoreError) as error:
        store.call("TRVreadmodel", str(path).encode())
    assert str(error.value) == f"{path}, line {line}: {said}"
    assert error.value.code == (code or [SYNTAX])[0]
    assert store.idcount(VAR) == 0
    assert store.str("ModelName") == "kept"


@pytest.mark.parametrize("path", instances("scip_mip", pattern="*.lp"), ids=lambda path: path.name)
def test_instances_as_highs_reads_them(path):
    found, oracle = floats(snapshot(read(path))), mps_oracle.read(path)
    for key in SAME:
        assert found[key] == oracle[key], key
