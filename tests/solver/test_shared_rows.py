"""Rows whose terms stay in the caller's memory: limits, and when the memory is given back."""

import ctypes as c

import numpy as np
import pytest

from solver.store import INVALID, NOT_IN_MODEL, SIZE_LIMIT, VAR, Store, lib
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
        ("nstrips", c.c_int32),
        ("strips", c.c_void_p),
    )


class Strip(c.Structure):
    _fields_ = layout(("var", i32p), ("coef", f64p), ("first", c.c_int32), ("scale", c.c_double))


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


class Striped(Lender):
    """Rows told by strips; each is the first of variables that count up or an array, and a number or an array."""

    def __init__(self, *strips):
        super().__init__([], [], 0)
        self.kept = [(np.asarray(var, np.int32), np.asarray(coef, np.float64)) for var, coef in strips]
        self.strips = (Strip * len(strips))(*(self.strip(var, coef) for var, coef in self.kept))
        self.rows.nstrips, self.rows.strips = len(strips), c.cast(self.strips, c.c_void_p)

    @staticmethod
    def strip(var, coef):
        ids = (var.ctypes.data_as(i32p), 0) if var.ndim else (None, int(var))
        values = (coef.ctypes.data_as(f64p), 0.0) if coef.ndim else (None, float(coef))
        return Strip(ids[0], values[0], ids[1], values[1])

    def csr(self, nrows):
        var = [var if var.ndim else var + np.arange(nrows) for var, _ in self.kept]
        coef = [np.broadcast_to(coef, nrows) for _, coef in self.kept]
        return np.arange(nrows + 1) * len(var), np.stack(var, 1).ravel(), np.stack(coef, 1).ravel()


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


BEYOND = np.r_[np.arange(9999) % 100, 100]


@pytest.mark.parametrize("strips", [[(0, 1.0), (-1, 1.0)], [(0, np.nan)], [(1, 1.0)], [(BEYOND, 1.0)]])
def test_refused_strips_are_given_back(strips):
    store, striped = Store(), Striped(*strips)
    store.addvars(10_000 if strips[0][0] is not BEYOND else 100)
    assert striped.lend(store, 10_000) != 0
    assert striped.released == 1
    store.update()
    assert store.int("NumConstrs") == 0


def test_strips_are_tidied_and_checked_as_rows_are():
    store, n = Store(), 10_000
    store.addvars(n)
    coef = np.ones(n)
    coef[5] = 0.0
    assert Striped((0, coef)).lend(store, n) == 0
    store.update()
    assert (store.int("NumNZs"), store.row(4), store.row(5)) == (n - 1, [(4, 1.0)], [])
    store.remove(VAR, [7])
    for _ in range(2):  # marked, then gone
        assert Striped((0, 2.0)).lend(store, n) == NOT_IN_MODEL
        store.update()
