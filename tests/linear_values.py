"""Numbers for variables, and what expressions then stand for.

point = Point(model)      every variable gets a number (or those given), and the numbers become the model's solution
point.of(x)               those of an MVar, in its shape
point.value(e)            what e stands for, summed up from its terms
variables(model, shape)   an MVar whose variables are in the model
looked(e)                 the same expression, full and with its objects made
terms(e)                  [(constant, [(coefficient, variable index), ...]), ...] of the elements in C order
state(e)                  COMPACT or FULL: which documented attributes are there
"""

import numpy as np

from tarvopy import TRV, _modelapi
from tarvopy._matrixapi import MLinExpr, MVar


class Point:
    def __init__(self, model, numbers=None):
        model.update()
        x, *_ = _modelapi.open_solution(model._cmodel)
        self.numbers = (np.arange(x.size) * 7) % 23 - 8.0 if numbers is None else numbers
        x[:] = self.numbers
        figures = dict.fromkeys(("objval", "bound", "gap", "runtime", "itercount", "nodecount"), 0.0)
        _modelapi.commit_solution(model._cmodel, status=TRV.OPTIMAL, has_x=True, has_duals=False, engine="", **figures)

    def of(self, x: MVar) -> np.ndarray:
        return self.numbers[x._idxarr()]

    def value(self, expr: MLinExpr) -> np.ndarray:
        values = [constant + sum(c * self.numbers[i] for c, i in row) for constant, row in terms(expr)]
        return np.array(values).reshape(expr.shape)


def variables(model, shape, name="x") -> MVar:
    x = model.addMVar(shape, name=name)
    model.update()
    return x


def looked(expr: MLinExpr) -> MLinExpr:
    expr = expr._to_full() if expr._is_compact() else expr
    expr._learr
    return expr


def terms(expr: MLinExpr) -> list:
    """Read off a copy, so that the expression itself is not looked at."""
    full = expr.copy()
    full._convert_to_full()
    return [(le.getConstant(), [(c, v.index) for c, v in le.terms()]) for le in full._learr.flat]


def state(expr):
    """The documented attributes as an ordinary object would show them: which ones are not None."""
    return {name for name, value in vars(expr).items() if value is not None}


COMPACT, FULL = {"_matmulparts", "_const"}, {"_learr"}
