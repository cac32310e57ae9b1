"""What SCIP calls optimal in nonlinear models, and is not: a function that goes on without end.

    doubt_of(problem, x)        "the variable 'x', which has no bound there, ran off to 1e+16; ...", None if it is fair

Whether a model is unbounded there is not known; a point of SCIP's own making is no optimum either way.
"""

from __future__ import annotations

import math
from typing import TYPE_CHECKING

import numpy as np

from tarvopy import _modelapi
from tarvopy.check import ROWS, element_of

if TYPE_CHECKING:
    from tarvopy.problem import Problem

_FARTHEST = 1e12  # of variables without a bound there: beyond, a sum is rounded by more than any tolerance
_BESIDE_ZERO = 1e-8  # where the arguments of logarithms and negative powers end for SCIP
_BEYOND_ROUNDING = 1e-3  # no change of a variable within its tolerance moves a fair objective as much
_AS_GOOD = 1e-9  # the same objective but for rounding and for what bounds may be missed by
_STEP = 2e-9  # a fiftieth of what variables may be off
# So much of its scale a fair row does not move in such a step: its slope would be 1e7. A logarithm that SCIP kept 1e-9
# away from 0 moves by 0.04, a quotient by half; the fifth root at 0 by 0.018.
_LEAP = 0.02


def doubt_of(problem: Problem, x: np.ndarray) -> str | None:
    doubt = _ran_off(problem, x) or _at_a_pole(problem, x)
    return doubt or (None if _at_its_best(problem, x) else _at_an_edge(problem, x))


def _at_its_best(problem: Problem, x: np.ndarray) -> bool:
    """A linear objective that is as good as the bounds of its variables allow is an optimum, whatever leaps beside it:
    the minimum of t >= 1 / y over the pole where t is at least -50.
    """
    if problem.nnlobj or problem.nqobj:
        return False
    used = problem.obj != 0
    cost = problem.sense * problem.obj[used]
    zero = np.where(problem.vtype[used] == b"S", 0.0, np.nan)  # which a semi-continuous variable may take besides
    lower, upper = np.fmin(problem.lb[used], zero), np.fmax(problem.ub[used], zero)
    best = float(cost @ np.where(cost > 0, lower, upper))
    return math.isfinite(best) and float(cost @ x[used]) - best <= _AS_GOOD * (1.0 + abs(best))


def _ran_off(problem: Problem, x: np.ndarray) -> str | None:
    """SCIP ends the search for the maximum of log(x) at 1e16, and calls what it has there the optimum."""
    off = ((x > _FARTHEST) & np.isinf(problem.ub)) | ((x < -_FARTHEST) & np.isinf(problem.lb))
    if not off.any():
        return None
    j = int(off.argmax())
    name = problem.var_name(j)
    return f"the variable {name!r}, which has no bound there, ran off to {x[j]:.3g}; the model may be unbounded"


def _at_a_pole(problem: Problem, x: np.ndarray) -> str | None:
    """What SCIP calls the minimum of log(x) or -1/x at x = 1e-9 is an end of its own making."""
    near = (x != 0) & (np.abs(x) < _BESIDE_ZERO)
    if not problem.nnlobj or not near.any():
        return None
    value = _modelapi.evaluate_objective(problem.handle, x)
    moved = np.where(near, 10.0 * x, x)
    change = _modelapi.evaluate_objective(problem.handle, moved) - value - problem.obj @ (moved - x)
    if not abs(change) > _BEYOND_ROUNDING * (1.0 + abs(value)):
        return None
    j = int(near.argmax())
    return f"the objective leaps where {problem.var_name(j)!r}, at {x[j]:.3g}, nears 0; the model may be unbounded"


def _at_an_edge(problem: Problem, x: np.ndarray) -> str | None:
    """Of t >= tan(y) or t >= 1 / (y - 1) SCIP finds t = -1e9, next to where the row leaps to the other side of 0.

    Variables at their bounds stay there: what is defined at a bound has no pole there, and a root is endlessly steep.
    """
    value = _nonlinear_objective(problem, x)
    inside = (problem.vtype == b"C") & (x != problem.lb) & (x != problem.ub)
    for step in (_STEP, -_STEP):
        near = np.clip(x + step * np.maximum(1.0, np.abs(x)), problem.lb, problem.ub)
        near = np.where(inside, near, x)
        change = abs(_nonlinear_objective(problem, near) - value) if problem.nnlobj else 0.0
        if math.isfinite(change) and change > _LEAP * (1.0 + abs(value)):
            return "the objective leaps next to the solution; the model may be unbounded"
        row = _broken_row(problem, near)
        if row is not None:
            return f"{row} leaps next to the solution; the model may be unbounded"
    return None


def _nonlinear_objective(problem: Problem, x: np.ndarray) -> float:
    return _modelapi.evaluate_objective(problem.handle, x) - float(problem.obj @ x) if problem.nnlobj else 0.0


def _broken_row(problem: Problem, x: np.ndarray) -> str | None:
    """The nonlinear row that x breaks most if that is a leap; one that is not defined there says nothing. Other rows
    cannot leap, however large their coefficients.
    """
    _modelapi.open_solution(problem.handle)[0][:] = x
    found = _modelapi.residuals(problem.handle, False)
    if found["worstrow"] < 0 or not math.isfinite(found["row"]) or found["row"] <= _LEAP * found["rowscale"]:
        return None
    first = problem.nrows + problem.nqrows
    end = first + problem.nnlrows
    for violation, scale, element in _modelapi.offenders(problem.handle, False, ROWS, end + problem.ngens):
        if first <= element < end:
            return " ".join(element_of(problem, ROWS, element)) if violation > _LEAP * scale else None
    return None
