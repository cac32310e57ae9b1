"""What quadratic expressions stand for, read off their terms (linear_values.py has the linear ones).

quad_terms(q)       [[(coefficient, index, index), ...], ...] of the elements in C order
everything(q)       the same with the linear halves: what two expressions must share to be equal, order included
value(point, q)     what q stands for, in its shape
entries(q)          {(index, index): coefficient} of the one part of a compact expression

What tests make them of: coo, zero, function (x'Qx + constant, with MATRIX for one), with_foreign_elements.
"""

import numpy as np
import scipy.sparse as sp

from linear_values import Point, terms
from tarvopy._matrixapi import MLinExpr, MQuadExpr

MATRIX = np.array([[2.0, 0.0, -1.0], [0.5, 1.0, 0.0], [0.0, 3.0, -2.0]])


def full_copy(expr: MQuadExpr) -> MQuadExpr:
    full = expr.copy()
    full._convert_to_full()
    return full


def quad_terms(expr: MQuadExpr) -> list:
    return [[(c, a.index, b.index) for c, a, b in qe.terms()] for qe in full_copy(expr)._qearr.flat]


def everything(expr: MQuadExpr) -> tuple:
    return expr.shape, quad_terms(expr), terms(expr._ndle)


def value(point: Point, expr: MQuadExpr) -> np.ndarray:
    numbers = point.numbers
    result = np.empty(expr.shape)
    linear = point.value(expr._ndle)
    for key, qe in np.ndenumerate(full_copy(expr)._qearr):
        own = qe.getLinExpr()
        result[key] = own.getConstant() + sum(c * numbers[v.index] for c, v in own.terms())
        result[key] += sum(c * numbers[a.index] * numbers[b.index] for c, a, b in qe.terms()) + linear[key]
    return result


def entries(expr: MQuadExpr) -> dict:
    ((x, q, y),) = expr._quadparts
    found = {}
    for i, j, c in zip(q.row, q.col, q.data, strict=True):
        key = (x._vararr[i].index, y._vararr[j].index)
        found[key] = found.get(key, 0.0) + c
    return found


def coo(matrix):
    return sp.coo_matrix(np.asarray(matrix, dtype=float))


def zero(shape=()):
    return MLinExpr.zeros(shape)


def with_foreign_elements(x):
    strange = x.copy()
    strange._vararr[1:] = [None, "a"]
    return strange


def function(x, matrix, constant=0.0):
    return MQuadExpr._from_quadfun(x, matrix, x, None, None, constant)
