"""Solution files: written from X, read into Start."""

import gzip
import math
import os

import pytest

from solver.model_file import FILE, SYNTAX, UNSUPPORTED
from solver.store import INVALID, NO_DATA, Store, StoreError

NAMES = ["x[0,1]", "a name with blanks", "5", "ü", "'#'"]
VALUES = [0.1, -1e-300, 123456789.12345679, -0.0, 1e19]


def solved(names=NAMES, values=VALUES):
    store = Store("")
    store.addvars(len(names), names=names)
    store.update()
    store.solved(values, objval=0.1)
    return store


def write(store, path):
    store.call("TRVwritesolution", os.fsencode(path))


def read(store, path):
    store.call("TRVreadsolution", os.fsencode(path))


def starts(store):
    return [repr(v) for v in store.dbls("Start", range(len(NAMES))).tolist()]


@pytest.mark.parametrize("ending", ["sol", "sol.gz"])
def test_values_survive(ending, tmp_path):
    path = tmp_path / f"m.{ending}"
    write(solved(), path)
    text = gzip.decompress(path.read_bytes()) if ending.endswith("gz") else path.read_bytes()
    assert text.decode().splitlines()[:3] == ["# Objective value = 0.1", "x[0,1] 0.1", "a name with blanks -1e-300"]
    store = Store("")
    store.addvars(len(NAMES), names=NAMES)
    read(store, path)
    assert starts(store) == [repr(v) for v in VALUES]


def test_order_blanks_comments_and_missing_names_do_not_matter(tmp_path):
    path = tmp_path / "m.sol"
    path.write_bytes(b"# begun\r\n\r\n  5\t\t2D1 \r\n#x[0,1] 7\n \n  a name with blanks   +3.")
    store = solved()
    store.setdbls("Start", [0], [9.0])
    read(store, path)
    assert starts(store) == ["9.0", "3.0", "20.0", "nan", "nan"]


@pytest.mark.parametrize(
    ("text", "line", "said"),
    [
        ("# a\ny 3\n", 2, "unknown variable 'y'"),
        ("5 2\n5 2\n", 2, "a second value of '5'"),
        ("5\n", 1, "no value behind the name: '5'"),
        ("5 two\n", 1, "'two' is not a number"),
        ("5 nan\n", 1, "'nan' is not a number"),
        ("5 inf\n", 1, "the value 'inf' is infinite (from 1e20 on)"),
        ("5 -1e20\n", 1, "the value '-1e20' is infinite (from 1e20 on)"),
        ("5 1e400\n", 1, "the value '1e400' is infinite (from 1e20 on)"),
        ("ü 1\nx\0y 5\n", 2, r"unknown variable 'x\x00y'"),
        ("x[0,1] 1\nx[1,1] 2\n", 2, "unknown variable 'x[1,1]'"),
    ],
)
def test_a_damaged_file_changes_nothing(text, line, said, tmp_path):
    path = tmp_path / "m.sol"
    path.write_text(text)
    store = solved()
    with pytest.raises(StoreError) as error:
        read(store, path)
    assert (error.value.code, str(error.value)) == (SYNTAX, f"{path}, line {line}: {said}")
    assert all(math.isnan(float(v)) for v in starts(store))


@pytest.mark.parametrize("name", ["#x", " x", "x\ny", "x\t"])
def test_names_that_a_line_cannot_hold(name, tmp_path):
    path = tmp_path / "m.sol"
    path.write_text("old")
    with pytest.raises(StoreError) as error:
        write(solved(["y", name], [1.0, 2.0]), path)
    assert error.value.code == UNSUPPORTED
    assert str(error.value).startswith("solution file: the name ")
    assert path.read_text() == "old"


def test_doubled_names(tmp_path):
    with pytest.raises(StoreError) as error:
        write(solved(["y", "y"], [1.0, 2.0]), tmp_path / "m.sol")
    assert (error.value.code, str(error.value)) == (UNSUPPORTED, "solution file: two variables are called 'y'")


def test_without_a_solution_nothing_is_written(tmp_path):
    store = Store("")
    store.addvars(1)
    store.update()
    with pytest.raises(StoreError) as error:
        write(store, tmp_path / "m.sol")
    assert error.value.code == NO_DATA
    assert os.listdir(tmp_path) == []


def test_files_that_are_not_there(tmp_path):
    with pytest.raises(StoreError) as error:
        read(Store(""), tmp_path / "m.sol")
    assert error.value.code == FILE
    with pytest.raises(StoreError) as error:
        read(Store(""), "")
    assert (error.value.code, str(error.value)) == (INVALID, "the path of the file is empty")
