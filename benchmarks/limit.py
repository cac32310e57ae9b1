"""The limit: arrays by hand and one bulk hand-over to HiGHS (by rows), no modelling layer."""

from functools import partial

import highspy
import numpy as np
from by_hand import ARRAYS

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


FAMILIES = {family: partial(load, family) for family in ARRAYS}
