"""What the store holds of nonlinear rows, for tests of what was put there.

difference(model, lhs, rhs, numbers)    the value of lhs - rhs of new rows lhs <= rhs, where variables are the numbers
nlrow(model, i)                         Row(linear terms {variable: coefficient}, codes, constants of the tape)
"""

import ctypes
from typing import NamedTuple

import numpy as np

from native import api, store
from solver.store_layout import NlRows
from tarvopy import TRV
from tarvopy._core import TempConstr
from tarvopy.problem import Problem


class Row(NamedTuple):
    linear: dict
    code: list
    constant: list


def pointer(model):
    return ctypes.c_void_p(api.store(model._cmodel))


def nlrow(model, i):
    view = NlRows()
    assert store.TRVgetnlrow(pointer(model), ctypes.c_int32(i), ctypes.byref(view)) == 0
    terms = range(view.ptr[0], view.ptr[1])
    return Row(
        {view.var[k]: view.coef[k] for k in terms},
        [view.code[k] for k in range(view.codeptr[0], view.codeptr[1])],
        [view.constant[k] for k in range(view.nconstants)],
    )


def nlrows(model):
    model.update()
    return [nlrow(model, i) for i in range(model.NumNLConstrs)]


def activities(model, numbers):
    """Values of all nonlinear rows, without their constants."""
    values = np.empty(model.NumNLConstrs)
    at = np.ascontiguousarray(numbers, float)
    assert at.size == model.NumVars
    at, out = (a.ctypes.data_as(ctypes.c_void_p) for a in (at, values))
    assert store.TRVevalnlrows(pointer(model), at, out) == 0
    return values


def difference(model, lhs, rhs, numbers):
    model.update()
    first = model.NumNLConstrs
    handle = model.addConstr(TempConstr(lhs, TRV.LESS_EQUAL, rhs))  # NumPy would turn some of these round
    model.update()
    upper = Problem.of(model._cmodel).nlupper
    return (activities(model, numbers) - upper)[first:].reshape(getattr(handle, "shape", ()))
