"""GeneralConstraints, the part of class Store (store.py) for general constraints. An argument is a number, the id of a
variable as an int, or ([(id, coefficient), ...], constant).

>>> m.addgens(MAX, [(0, 1, 2.0, ([(1, 3.0)], 1.0))])      # variable 0 is the largest of variable 1, 2 and 3 x1 + 1
"""

import ctypes as c

import numpy as np

from solver.store_layout import GenMatrix, Gens, copied, f64_array, f64p, i32_array, i32p, i64p, ptr_to
from solver.store_library import lib, makenames

MAX, MIN, ABS, AND, OR, PWL, INDICATOR, SOS1, SOS2 = range(9)


def expression(argument):
    """([(id, coefficient), ...], constant) of an argument in any of its forms."""
    if isinstance(argument, tuple):
        return argument
    return ([(argument, 1.0)], 0.0) if isinstance(argument, int) else ([], argument)


def starts(lengths):
    return np.array([0, *np.cumsum(lengths)], np.int64)


def constraints(argptr, ptr, var, coef, constant, dataptr, data):
    """[(arguments, numbers), ...] from the arrays of TRVgens or TRVgenmatrix."""

    def argument(a):
        return [(var[k], coef[k]) for k in range(ptr[a], ptr[a + 1])], constant[a]

    return [
        (
            [argument(a) for a in range(argptr[g], argptr[g + 1])],
            [data[k] for k in range(dataptr[g], dataptr[g + 1])],
        )
        for g in range(len(argptr) - 1)
    ]


class GeneralConstraints:
    def addgens(self, kind, gens, data=None, names=None):
        """gens: the arguments of each constraint; data: its numbers."""
        arguments = [expression(argument) for gen in gens for argument in gen]
        terms = [term for linear, _ in arguments for term in linear]
        argptr, ptr = starts([len(gen) for gen in gens]), starts([len(linear) for linear, _ in arguments])
        var, coef = i32_array([v for v, _ in terms]), f64_array([a for _, a in terms])
        constant = f64_array([constant for _, constant in arguments])
        dataptr = None if data is None else starts([len(numbers) for numbers in data])
        numbers = f64_array([number for one in data or () for number in one])
        return self.addgenarrays(kind, argptr, ptr, var, coef, constant, dataptr, numbers, names)

    def addgenarrays(self, kind, argptr, ptr, var, coef, constant, dataptr=None, data=None, names=None):
        gens = Gens(
            len(argptr) - 1,
            ptr_to(argptr, i64p),
            ptr_to(ptr, i64p),
            ptr_to(var, i32p),
            ptr_to(coef, f64p),
            ptr_to(constant, f64p),
            ptr_to(dataptr, i64p),
            ptr_to(data, f64p),
        )
        struct, _keep = makenames(names)
        first = c.c_int32(-7)
        self.call("TRVaddgens", c.c_int(kind), c.byref(gens), struct and c.byref(struct), c.byref(first))
        return first.value

    def gen(self, gen):
        """(type, arguments, numbers)."""
        kind, view = c.c_int(-7), Gens()
        self.call("TRVgetgen", c.c_int32(gen), c.byref(kind), c.byref(view))
        assert view.ngens == 1
        args = (view.argptr[:2], view.ptr, view.var, view.coef, view.constant, view.dataptr[:2], view.data)
        return kind.value, *constraints(*args)[0]

    def genmatrix(self):
        """[(type, arguments, numbers), ...], variables by position."""
        matrix = GenMatrix()
        self.call("TRVgetgenmatrix", c.byref(matrix))
        types = copied(matrix.type, matrix.ngens, np.int32).tolist()
        found = constraints(
            copied(matrix.argptr, matrix.ngens + 1, np.int64),
            copied(matrix.ptr, matrix.nargs + 1, np.int64),
            copied(matrix.index, matrix.nnz, np.int32).tolist(),
            copied(matrix.value, matrix.nnz, float).tolist(),
            copied(matrix.constant, matrix.nargs, float).tolist(),
            copied(matrix.dataptr, matrix.ngens + 1, np.int64),
            copied(matrix.data, matrix.ndata, float).tolist(),
        )
        lib.TRVfreegenmatrix(c.byref(matrix))
        return [(kind, *gen) for kind, gen in zip(types, found, strict=True)]
