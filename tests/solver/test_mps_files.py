"""The two forms of MPS files told apart, what is no MPS file, and real instances against HiGHS' reader."""

import gzip
import math
import os

import pytest

from solver import mps_oracle
from solver.model_file import FILE, SAME, UNSUPPORTED, floats, instances, mps, read, read_text, snapshot
from solver.store import INVALID, VAR, Store, StoreError

INF = math.inf
PAIRS = "(column, row, number, row, number)"


def card(kind="", one="", two="", number="", three="", number2=""):
    """A line in fixed columns."""
    return f" {kind:2} {one:8}  {two:8}  {number:12}   {three:8}  {number2:12}".rstrip() + "\n"


FIXED = "".join(
    [
        "NAME          BLANKS\nROWS\n",
        card("N", "COST"),
        card("L", "LIM 1"),
        card("E", "MY EQN"),
        "COLUMNS\n",
        card("", "X ONE", "COST", "1", "LIM 1", "2.5"),
        "    M1        'MARKER'                 'INTORG'\n",
        card("", "Y 2", "MY EQN", "1.0"),
        "    M1                 'MARKER'                 'INTEND'\n",
        card("", "Z", "MY EQN", "-1", "$ a note", "0"),
        "RHS\n",
        card("", "RHS 1", "LIM 1", "4", "MY EQN", "7"),
        "RANGES\n",
        card("", "", "LIM 1", "2.5"),
        "BOUNDS\n",
        card("UP", "BND 1", "X ONE", "1234567890.1234567890"),
        card("FR", "", "Z"),
        "ENDATA\n",
    ]
)


def test_fixed_form_reads_names_with_blanks():
    found = floats(snapshot(read_text(FIXED)))
    expected = {
        "name": "BLANKS",
        "vars": ["X ONE", "Y 2", "Z"],
        "rows": ["LIM 1", "MY EQN"],
        "lb": [0.0, 0.0, -INF],
        "ub": [1234567890.1234568, 1.0, INF],
        "obj": [1.0, 0.0, 0.0],
        "vtype": "CIC",
        "lower": [1.5, 7.0],
        "upper": [4.0, 7.0],
        "constant": 0.0,
        "sense": 1,
        "matrix": {(0, 0): 2.5, (1, 1): 1.0, (1, 2): -1.0},
    }
    assert {key: found[key] for key in expected} == expected


def fixed_with(old, new):
    assert old in FIXED
    return FIXED.replace(old, new, 1)


@pytest.mark.parametrize(
    ("old", "new", "line", "said"),
    [
        (
            "    X ONE ",
            "   XX ONE ",
            7,
            "'X' at column 4 stands outside of the fixed fields: 'XX ONE     COST      1              LIM 1     2.5'",
        ),
        (
            "    X ONE     COST",
            "    X ONE    !COST",
            7,
            "'!' at column 14 stands outside of the fixed fields: 'X ONE    !COST      1              LIM 1     2.5'",
        ),
        ("COST      1  ", "COST      one", 7, "'one' is not a number"),
        ("COST      1  ", "COST      1 1", 7, "'1 1' is not a number"),
        (
            "COST      1  ",
            "COST         ",
            7,
            f"4 fields, expected 3 or 5 {PAIRS}: 'X ONE     COST                     LIM 1     2.5'",
        ),
        ("    Z         MY", "\tZ         MY", 11, r"control character '\x09' in the line"),
        (
            "    Z         MY",
            " C  Z         MY",
            11,
            "'C' stands in a field that this section leaves empty: 'C  Z         MY EQN    -1             $ a note  0'",
        ),
        (
            "    Z         MY",
            "              MY",
            11,
            "no column's name in columns 5 to 12: 'MY EQN    -1             $ a note  0'",
        ),
        (" UP BND 1     X ONE", " UP BND 1     X TWO", 17, "unknown column 'X TWO'"),
        (
            "RHS 1     LIM 1     4",
            "RHS 1     LIM 1      ",
            13,
            "4 fields, expected 2 to 5 (set, row, number, row, number): "
            "'RHS 1     LIM 1                    MY EQN    7'",
        ),
        (" E  MY EQN", " E        MY EQN", 5, "'E' at column 14 stands outside of the fixed fields: 'E        MY EQN'"),
        ("ENDATA", "QSECTION", 19, "section QSECTION is not supported yet"),
    ],
)
def test_damaged_fixed_form(old, new, line, said):
    with pytest.raises(StoreError) as error:
        read_text(fixed_with(old, new))
    assert f"m.mps, line {line}: {said}" in str(error.value)


def test_a_line_that_both_forms_read_is_taken_by_its_columns():
    """Nothing but its place tells that "A R1 5" is one name."""
    rows = "ROWS\n N  COST\n E  R1\n E  R2\nCOLUMNS\n"
    fixed = rows + card("", "A R1 5", "R2", "3.0") + "ENDATA\n"
    assert snapshot(read_text(fixed))["vars"] == ["A R1 5"]
    free = rows + " A R1 5 R2 3.0\nENDATA\n"
    assert snapshot(read_text(free))["matrix"] == {(0, 0): 5.0, (1, 0): 3.0}
    later_free = rows + card("", "A R1 5", "R2", "3.0") + "BOUNDS\n UP B A 7\nENDATA\n"
    assert floats(snapshot(read_text(later_free)))["ub"] == [7.0]


def test_fixed_form_without_blanks_in_names_is_the_same_in_free_form():
    text = FIXED.replace("LIM 1", "LIM1 ").replace("MY EQN", "MYEQN ").replace("X ONE", "XONE ").replace("Y 2", "Y2 ")
    free = "\n".join(line if not line.startswith(" ") else " " + " ".join(line.split()) for line in text.splitlines())
    free = free.replace("RHS 1", "RHS1").replace("BND 1", "BND1")
    assert snapshot(read_text(text)) == snapshot(read_text(free + "\n"))


# ---- files ----------------------------------------------------------------------------------------------------------


def test_reading_wants_an_empty_model(tmp_path):
    path = tmp_path / "m.mps"
    path.write_text(mps())
    store = Store("")
    store.addvars(1)
    with pytest.raises(StoreError) as error:
        store.call("TRVreadmodel", str(path).encode())
    assert (error.value.code, str(error.value)) == (INVALID, "a model file is read into an empty model only")
    store.remove(VAR, [0])
    store.call("TRVreadmodel", str(path).encode())
    assert snapshot(store)["vars"] == ["x", "y"]


def test_a_damaged_file_changes_nothing(tmp_path):
    path = tmp_path / "m.mps"
    path.write_text(mps("NAME other\nOBJSENSE MAX\n", end=""))
    store = Store("kept")
    before = snapshot(store)
    with pytest.raises(StoreError):
        store.call("TRVreadmodel", str(path).encode())
    assert snapshot(store) == before
    assert store.idcount(VAR) == 0


@pytest.mark.parametrize(
    ("name", "code", "said"),
    [
        ("none.mps", FILE, "cannot open '{}': No such file or directory"),
        ("folder.mps", FILE, "cannot open '{}': Is a directory"),
        ("pipe.mps", FILE, "cannot open '{}': it is a pipe or a device, not a file"),
        ("zero.mps", FILE, "cannot open '{}': it is a pipe or a device, not a file"),
        (
            "m.xyz",
            UNSUPPORTED,
            "the ending of '{}' is none of .mps, .qps, .sif, .lp (models), .sol (solutions), each also with .gz",
        ),
        (".mps", UNSUPPORTED, None),
    ],
)
def test_files_that_cannot_be_read(name, code, said, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    (tmp_path / "folder.mps").mkdir()
    os.mkfifo(tmp_path / "pipe.mps")
    (tmp_path / "zero.mps").symlink_to("/dev/zero")
    with pytest.raises(StoreError) as error:
        read(name)
    assert error.value.code == code
    assert said is None or str(error.value) == said.format(name)


def test_a_path_that_is_no_text(tmp_path):
    path = tmp_path / os.fsdecode(b"\xff\n.mps")
    path.write_text(mps(end=""))
    with pytest.raises(StoreError) as error:
        read(path)
    assert str(error.value) == rf"{tmp_path}/\xff\x0a.mps, line 9: the file ends without ENDATA"


def test_compressed_files(tmp_path):
    plain, packed = tmp_path / "m.mps", tmp_path / "m.mps.gz"
    text = mps(columns="".join(f" x{i} c {i}.25\n" for i in range(20_000))).encode()
    plain.write_bytes(text)
    packed.write_bytes(gzip.compress(text))
    assert snapshot(read(plain)) == snapshot(read(packed))
    whole = packed.read_bytes()
    packed.write_bytes(whole[:-5])
    with pytest.raises(StoreError) as error:
        read(packed)
    assert (error.value.code, str(error.value)) == (FILE, f"cannot read '{packed}': unexpected end of file")
    packed.write_bytes(whole[:-8] + bytes([whole[-8] ^ 1]) + whole[-7:])
    with pytest.raises(StoreError) as error:
        read(packed)
    assert (error.value.code, str(error.value)) == (FILE, f"cannot read '{packed}': incorrect data check")
    packed.write_bytes(gzip.compress(b"\n" * 80_000_000))
    with pytest.raises(StoreError, match="it unpacks to more than 250 times its size"):
        read(packed)


@pytest.mark.parametrize("path", instances("netlib", "miplib", "infeasible"), ids=lambda path: path.name)
def test_instances_as_highs_reads_them(path):
    found, oracle = floats(snapshot(read(path))), mps_oracle.read(path)
    for key in SAME:
        assert found[key] == oracle[key], key
