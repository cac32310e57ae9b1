"""Rows whose terms stay in the caller's memory: limits, and when the memory is given back."""

import ctypes as c

import numpy as np
import pytest

from solver.store import INVALID, SIZE_LIMIT, Store, lib
from solver.store_layout import f64p, i32p, i64p, layout

RELEASE = c.CFUNCTYPE(None, c.c_void_p)
ALONE = c.CFUNCTYPE(c.c_int, c.c_void_p)


class SharedRows(c.Structure):
    _fields_ = layout(
        ("ptr", i64p),
        ("width", c.c_int64),
        ("var", i32p),
        ("coef", f64p),
        ("keeper", c.c_void_p),
        ("release", RELEASE),
        ("alone", ALONE),
    )


class Lender:
    """Terms of one width a row, and how often they were given back."""

    def __init__(self, var, coef, width, alone=0):
        self.var, self.coef = np.asarray(var, np.int32), np.asarray(coef, np.float64)
        self.released = 0
        self.release = RELEASE(lambda _: setattr(self, "released", self.released + 1))
        self.alone, self.is_alone = alone, ALONE(lambda _: self.alone)
        self.rows = SharedRows(
            None,
            width,
            self.var.ctypes.data_as(i32p),
            self.coef.ctypes.data_as(f64p),
            None,
            self.release,
            self.is_alone,
        )

    def lend(self, store, nrows):
        lower, upper, first = c.c_double(0.0), c.c_double(1.0), c.c_int32(-1)
        sides = (c.byref(lower), 0, c.byref(upper), 0)
        return lib.TRVsharerows(store.handle, c.c_int64(nrows), c.byref(self.rows), *sides, None, c.byref(first))


@pytest.fixture
def store():
    made = Store()
    made.addvars(100)
    return made


@pytest.mark.parametrize(
    ("nrows", "width", "code"), [(1, 2**31, SIZE_LIMIT), (2**40, 2**40, SIZE_LIMIT), (1, -5, INVALID)]
)
def test_impossible_counts_are_refused_before_anything_is_read(store, nrows, width, code):
    lender = Lender([], [], width)
    assert lender.lend(store, nrows) == code
    assert lender.released == 1
    store.update()
    assert store.int("NumConstrs") == 0


@pytest.mark.parametrize("rows", [10, 1000])
def test_memory_is_given_back_once_when_the_store_has_done_with_it(store, rows):
    lender = Lender(np.tile(np.arange(100), rows), np.full(100 * rows, 2.0), 100)
    assert lender.lend(store, rows) == 0
    store.update()
    assert store.int("NumNZs") == 100 * rows
    assert lender.released == (rows == 10)  # few terms are copied, many are kept where they are
    store.setcoefs([3], [5], [7.0])  # the store changes only what is its own
    assert lender.released == 1
    assert (lender.coef == 2.0).all()
    assert store.row(3)[5] == (5, 7.0)


def test_refused_rows_are_given_back(store):
    lender = Lender(np.full(10_000, 100), np.ones(10_000), 100)  # there is no variable 100
    assert lender.lend(store, 100) != 0
    assert lender.released == 1
