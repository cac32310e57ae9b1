"""The limit: arrays by hand and one bulk hand-over to HiGHS (by rows), no modelling layer; in quadratic families the
arrays that Clarabel's constructor takes, which is not called: what it does is the engine's own set-up.
"""

from functools import partial

import highspy
import numpy as np
import scipy.sparse as sp
from by_hand import ARRAYS, LINEAR, QUADRATIC

NO_INDICES, NO_VALUES = np.zeros(0, np.int32), np.zeros(0)


def counts(highs):
    return {
        "vars": highs.getNumCol(), "rows": highs.getNumRow(), "nz": highs.getNumNz(), "qnz": highs.getHessianNumNz()
    }  # fmt: skip


def load(family, size):
    a = ARRAYS[family](size)
    integer = np.zeros(len(a.lb), np.int32) if a.integer is None else a.integer
    highs = highspy.Highs()
    highs.setOptionValue("output_flag", False)
    status = highs.passModel(
        len(a.lb), len(a.lower), len(a.values), 0, 2, 1, -1 if a.maximize else 1, 0.0, a.cost, a.lb, a.ub, a.lower,
        a.upper, a.indptr, a.indices, a.values, NO_INDICES, NO_INDICES, NO_VALUES, integer,
    )  # fmt: skip
    assert status != highspy.HighsStatus.kError
    return lambda: counts(highs)


def unit_rows(columns, sign, n):
    """Rows with one entry each."""
    count = len(columns)
    return sp.csr_array((np.full(count, sign), columns, np.arange(count + 1, dtype=np.int32)), shape=(count, n))


def conic(family, size):
    """min q @ x + x @ P @ x / 2, b - A @ x in cones: zero, nonnegative, second order."""
    a = ARRAYS[family](size)
    n = len(a.lb)
    rows = sp.csr_array((a.values, a.indices, a.indptr), shape=(len(a.lower), n))
    equal = a.lower == a.upper
    low = np.flatnonzero(~equal & np.isfinite(a.lower))
    lb, ub = (np.flatnonzero(np.isfinite(bound)).astype(np.int32) for bound in (a.lb, a.ub))
    second = np.empty(0, np.int32) if a.cones is None else a.cones.ravel()
    every = len(low) == 0 and equal.all()
    parts = [
        *([rows] if every else [rows[equal], -rows[low]]),
        *(unit_rows(ub, 1.0, n), unit_rows(lb, -1.0, n), unit_rows(second, -1.0, n)),
    ]
    A = sp.vstack(parts, format="csc")
    b = np.concatenate([a.upper[equal], -a.lower[low], a.ub[ub], -a.lb[lb], np.zeros(len(second))])
    P = sp.csc_array((n, n)) if a.hessian is None else a.hessian
    return lambda: {"vars": n, "rows": A.shape[0], "nz": A.nnz, "qnz": P.nnz, "conic": True, "_data": (P, a.cost, A, b)}


FAMILIES = {f.__name__: partial(load, f.__name__) for f in LINEAR}
FAMILIES |= {f.__name__: partial(conic, f.__name__) for f in QUADRATIC}
