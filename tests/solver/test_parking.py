"""Large models turn their rows to columns for an engine, and back: a store that was never asked for columns says the
same, whatever is done in between.
"""

import ctypes as c

import numpy as np
import pytest

from solver.store import CONSTR, VAR, Store, lib
from solver.store_layout import Matrix, f64p
from solver.test_shared_rows import Lender, Striped

NVARS = 3000


def ragged(rng, scale=1):
    """Rows of ascending variables, some empty."""
    width = rng.integers(0, 9, 18_000 * scale)
    return width, rng.random((len(width), NVARS // 100)).argsort(1)[:, :8] * 100 + rng.integers(0, 100, (len(width), 1))


def same_order(rng, scale):
    """Rows of one width, their variables in one order that does not ascend."""
    width = int(rng.integers(2, 9))
    var = np.sort(ragged(rng, scale)[1][:, :width])[:, rng.permutation(width)]
    return np.full(len(var), width), var


def crowded(rng, scale):
    """Most terms are of few variables."""
    n = 15_000 * scale
    width, var = np.full(n, 6), np.full((n, 6), 0)
    var[:, 1:5] = [10, 11, 12, 13]
    var[:, 5] = rng.integers(14, NVARS, n)
    return width, var


def sliding(rng, scale):
    """Each row stands one to the right of the one above, as in differences; some in one order that does not ascend."""
    width = int(rng.integers(2, 9))
    var = np.arange(30_000 * scale)[:, None] % (NVARS - 8) + np.arange(width)
    return np.full(len(var), width), var if rng.random() < 0.5 else var[:, rng.permutation(width)]


def disordered(rng, scale):
    """Each row in an order of its own: these stay rows."""
    width, var = ragged(rng, scale)
    return np.maximum(width, 4), var


def block(rng, scale):
    kind = rng.choice([ragged, same_order, crowded, sliding, disordered], p=[0.3, 0.2, 0.2, 0.2, 0.1])
    width, var = kind(rng, scale)
    if kind in (ragged, crowded):
        var = np.where(np.arange(var.shape[1]) < width[:, None], var, NVARS)
        var.sort(1)
    ptr = np.concatenate([[0], np.cumsum(width)])
    var = var[np.arange(var.shape[1]) < width[:, None]]
    return ptr, var, rng.integers(1, 100, len(var)).astype(float)


class Pair:
    """One store is asked for columns, the other one never; both get all else."""

    def __init__(self, rng, nvars, *blocks):
        self.rng, self.parked, self.lenders = rng, 0, []
        self.stores = self.asked, self.plain = Store(), Store()
        self.both("addvars", nvars)
        for ptr, var, coef in blocks:
            self.both("addcsr", ptr, var, coef, -1.0, 1.0)
        self.both("update")

    def both(self, name, *args):
        first, second = (getattr(store, name)(*args) for store in self.stores)
        assert np.array_equal(first, second)
        return first

    def lend_some(self):
        present = np.asarray(self.both("idsat", VAR, range(self.plain.int("NumVars"))))
        self.lend(present[np.sort(ragged(self.rng)[1][:, :5]) * len(present) // NVARS], int(self.rng.integers(2)))

    def lend(self, var, alone):
        """Rows in memory of the caller, which may be the only one to look at it, or not."""
        for store in self.stores:
            lender = Lender(var.ravel().copy(), np.arange(1.0, var.size + 1), var.shape[1], alone)
            assert lender.lend(store, len(var)) == 0
            self.lenders.append(lender)
        self.both("update")

    def strips(self):
        """Rows that one store gets by strips: some of these overlap, or hold doubles and zeros."""
        n, nrows = self.plain.int("NumVars"), int(self.rng.integers(3000, 9000))
        present = np.asarray(self.both("idsat", VAR, range(n)))
        shifted = present[-1] == n - 1 and nrows + 50 < n and self.rng.random() < 0.3
        firsts = self.rng.choice(50, 4, False) if shifted else self.rng.permutation(4) * (n // 4)
        chosen = []
        for first in firsts[: self.rng.integers(1, 5)].tolist():
            counts = present[-1] == n - 1 and first + nrows <= n and (shifted or self.rng.random() < 0.6)
            span = n // 4 if self.rng.random() < 0.8 else n - first
            var = first if counts else present[first + self.rng.integers(0, span, nrows)]
            values = self.rng.integers(-1 if self.rng.random() < 0.2 else 1, 9, nrows)
            chosen.append((var, values if self.rng.random() < 0.5 else 2.0))
        striped = Striped(*chosen)
        assert striped.lend(self.asked, nrows) == 0
        self.plain.addcsr(*striped.csr(nrows), 0.0, 1.0)
        self.lenders.append(striped)
        self.both("update")

    def view(self):
        """The arrays as an engine reads them, and a pin."""
        matrix, value, owned, pin = Matrix(), f64p(), c.c_int(), c.c_void_p()
        self.asked.call("TRVviewcolumns", c.byref(matrix), c.byref(value), c.byref(owned))
        by_columns = bool(matrix.start)
        if not by_columns:  # one block of rows that cannot be turned serves as it is
            self.asked.call("TRVviewrows", c.byref(matrix))
            value = matrix.value
        n, nnz = matrix.nmajor, matrix.nnz
        arrays = [np.ctypeslib.as_array(a, (k,)) for a, k in ((matrix.start, n + 1), (matrix.index, nnz), (value, nnz))]
        if by_columns and owned.value:
            arrays = [a.copy() for a in arrays]
            lib.TRVfreematrix(c.byref(matrix))
        self.parked += by_columns and not owned.value
        self.asked.call("TRVpinmatrix", c.byref(pin))
        return arrays, pin, by_columns

    def columns(self):
        arrays, pin, by_columns = self.view()
        for seen, expected in zip(arrays, self.plain.matrix(int(by_columns)), strict=True):
            assert np.array_equal(seen, expected)
        lib.TRVunpin(pin)

    def columns_held(self):
        """The columns that an engine still reads stay while somebody asks for rows, or changes them."""
        arrays, pin, by_columns = self.view()
        before = [a.copy() for a in arrays]
        for step in (self.row, self.change, self.grow):
            step()
        assert not by_columns or all(map(np.array_equal, arrays, before))
        lib.TRVunpin(pin)

    # ---- steps

    def ids(self, kind, n):
        present = self.both("idsat", kind, range(self.plain.int({VAR: "NumVars", CONSTR: "NumConstrs"}[kind])))
        return self.rng.choice(present, min(n, len(present)), replace=False).tolist()

    def row(self):
        for row in self.ids(CONSTR, 3):
            self.both("row", row)

    def change(self):
        rows, values = self.ids(CONSTR, 6), [0.0, 2.0, 3.0, 4.0, 5.0, 6.0]
        variables = [terms[0][0] for row in rows[:3] if (terms := self.plain.row(row))]
        variables += self.ids(VAR, 6)[len(variables) :]
        self.both("setcoefs", rows, variables, values)
        self.both("coefs", rows, variables)

    def grow(self):
        first = self.both("addvars", 2)
        self.both("addrows", [{self.ids(VAR, 1)[0]: 1.0, first: 2.0}, {first + 1: 3.0}], 0.0)
        self.both("update")

    def new_variables(self):
        self.both("addvars", 5)
        self.both("update")

    def shrink(self):
        kind = self.rng.choice([VAR, CONSTR])
        self.both("remove", kind, self.ids(kind, 4))
        self.both("update")

    def rows(self):
        for seen, expected in zip(self.asked.matrix(0), self.plain.matrix(0), strict=True):
            assert np.array_equal(seen, expected)

    def counts(self):
        self.both("int", "NumNZs")


@pytest.mark.parametrize("seed", range(16))
def test_a_store_that_was_asked_for_columns_is_the_same_model(seed):
    rng = np.random.default_rng(seed)
    few_terms_a_column = seed % 2  # where they are, or few in all, another way leads to the columns
    scale = 8 if seed % 4 == 2 else 1
    pair = Pair(rng, NVARS * (1 + 30 * few_terms_a_column), *(block(rng, scale) for _ in range(rng.integers(1, 4))))
    steps = ["columns"] * 5 + ["columns_held", "row", "change", "grow", "new_variables", "rows", "counts", "lend_some"]
    steps += ["strips"] * 2
    steps += ["shrink"] * (seed % 4 == 0)  # from the first removal on rows are only copied
    for step in ["columns", *rng.choice(steps, 25)]:
        getattr(pair, step)()
    pair.rows()
    del pair.stores, pair.asked, pair.plain
    assert all(lender.released == 1 for lender in pair.lenders)


@pytest.mark.parametrize("lent", [False, True])
@pytest.mark.parametrize("nrows", [1, 40])
def test_terms_that_stand_by_columns_already(nrows, lent):
    rng, n = np.random.default_rng(nrows), 80_000
    var = np.sort(rng.choice(2 * n, n, replace=False)).reshape(nrows, -1)
    pair = Pair(rng, 2 * n)
    if lent:
        pair.lend(var, 1)
    else:
        pair.both("addcsr", np.linspace(0, n, nrows + 1), var.ravel(), rng.random(n), -1.0, 1.0)
        pair.both("update")
    for step in ("columns", "columns", "counts", "new_variables", "columns", "rows", "columns", "columns_held", "rows"):
        getattr(pair, step)()
    assert pair.parked > 3


SLIDING = np.arange(150_000)[:, None] % (NVARS - 8) + np.arange(5)


def block_of(var):
    return np.arange(0, var.size + 1, var.shape[1]), var.ravel(), np.arange(1.0, var.size + 1)


def test_rows_of_one_length_that_each_have_an_order_of_their_own_keep_it():
    rng = np.random.default_rng(1)
    pair = Pair(rng, NVARS, block_of(ragged(rng)[1][:, :5]))
    pair.columns()
    pair.rows()


def test_where_variables_were_removed_columns_are_positions():
    pair = Pair(np.random.default_rng(1), NVARS, block_of(SLIDING))
    pair.columns()
    assert pair.parked == 1
    pair.both("remove", VAR, [0, 7])
    pair.columns()  # nothing is gone before the update
    pair.rows()
    pair.columns()
    pair.both("update")
    pair.columns()
    pair.rows()


def test_rows_that_somebody_looks_at_are_not_turned():
    pair = Pair(np.random.default_rng(1), NVARS)
    pair.lend(SLIDING, 0)
    arrays, pin, by_columns = pair.view()
    before = [a.copy() for a in arrays]
    for lender in pair.lenders:
        lender.alone = 1  # so that the memory may be written, but for the one who reads it
    pair.columns()
    assert not by_columns
    assert all(map(np.array_equal, arrays, before))
    lib.TRVunpin(pin)
    pair.columns()
    assert pair.parked == 1


def test_terms_that_the_caller_may_still_look_at_are_not_written():
    pair = Pair(np.random.default_rng(1), NVARS)
    pair.lend(SLIDING, 0)
    pair.both("addrows", [{}], 0.0)  # the terms are turned, and all are those of the other block
    pair.both("update")
    pair.columns()
    assert pair.parked == 1
    assert all(np.array_equal(lender.var, SLIDING.ravel()) for lender in pair.lenders)


def test_more_columns_than_256_bins_of_16_bits_tell_apart():
    rng, n = np.random.default_rng(1), 2**24 + 2**16
    pair = Pair(rng, 0)
    ptr, var, coef = block_of(2**16 + 150 * rng.permutation(110_000)[:, None] + np.arange(5))
    pair.asked.addvars(n, ub=0.0)  # one store, for its size
    pair.asked.addcsr(ptr, var, coef, -1.0, 1.0)
    pair.asked.update()
    lib.TRVunpin(pair.view()[1])
    assert all(map(np.array_equal, pair.asked.matrix(0), (ptr, var, coef)))


@pytest.mark.parametrize("firsts", [(0, 1), (1, 0), (2, 0, 1)])
def test_strips_that_overlap_as_in_differences(firsts):
    nrows = 70_000
    pair, striped = Pair(np.random.default_rng(1), nrows + 2), Striped(*((first, first + 1.0) for first in firsts))
    assert striped.lend(pair.asked, nrows) == 0
    pair.plain.addcsr(*striped.csr(nrows), 0.0, 1.0)
    pair.both("update")
    pair.columns()
    assert pair.parked == 1
    pair.rows()


def test_terms_told_by_strips():
    parked = 0
    for seed in range(12):
        pair = Pair(np.random.default_rng(seed), 30 * NVARS)
        for step in ["strips", "columns", "rows", "strips", "strips", "columns", "counts", "columns_held", "rows"]:
            getattr(pair, step)()
        for step in ["strips", "new_variables", "columns", "strips", "shrink", "columns", "strips", "rows"]:
            getattr(pair, step)()
        parked += pair.parked
    assert parked > 6
