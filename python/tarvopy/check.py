"""The check of an answer against the model itself: five figures, what they may be, and who violates them.

    answer = judge(problem, outcome, x, params)        the worst Offence, None where an optimum holds
    for limit in limits(residuals, problem, params)    (ROWS, violation, element, tolerance, scale), ...

Engines keep their tolerances on a scaled and presolved problem. Back on the given one a sum of large terms is off by as
much again, so what is allowed is a tolerance times ten, on the scale of the largest term involved.
"""

from __future__ import annotations

import math
from typing import TYPE_CHECKING, Any, NamedTuple

from tarvopy import _modelapi
from tarvopy._trv import TRV

if TYPE_CHECKING:
    from collections.abc import Iterator

    import numpy as np

    from tarvopy.engines.base import Outcome
    from tarvopy.parameters import Parameters
    from tarvopy.problem import Problem

#: How many times a tolerance a violation may be, against its scale, before an optimum is called imprecise.
SLACK = 10.0

#: The figures, as tarvo_engine.h numbers them.
ROWS, BOUNDS, INTEGRALITY, STATIONARITY, COMPLEMENTARITY = range(5)
_WHAT = (
    *("violation of the sides", "violation of the bounds", "fraction of the integer value"),
    *("dual infeasibility", "price off its bound"),
)


class Offence(NamedTuple):
    """What an answer violates most."""

    figure: int
    violation: float
    element: str
    """ "row cap[3]", "variable x"."""
    ratio: float
    """The violation against what the tolerance allows: SLACK is the limit."""

    @property
    def text(self) -> str:
        return f"{_WHAT[self.figure]} of {self.element} by {self.violation:.3g}"


class Limit(NamedTuple):
    """One figure of the check: its worst element, and what that may be off."""

    figure: int
    violation: float
    element: int
    """As TRVresiduals counts; -1 where nothing is violated."""
    tolerance: float
    scale: float

    @property
    def ratio(self) -> float:
        return self.violation / (self.tolerance * self.scale) if self.element >= 0 else 0.0


def limits(residuals: dict[str, Any], problem: Problem, params: Parameters) -> Iterator[Limit]:
    """The figures of `_modelapi.residuals` beside what the tolerances say."""
    tolerance = params.FeasibilityTol
    if problem.nintegral:
        tolerance = max(tolerance, params.IntegralityTol)  # engines hold the rows of a MIP to this one
    r, optimality = residuals, params.OptimalityTol
    yield Limit(ROWS, r["row"], r["worstrow"], tolerance, r["rowscale"])
    yield Limit(BOUNDS, r["bound"], r["worstbound"], tolerance, r["boundscale"])
    yield Limit(INTEGRALITY, r["integral"], r["worstintegral"], params.IntegralityTol, 1.0)
    yield Limit(STATIONARITY, r["dual"], r["worstdual"], optimality, r["dualscale"])
    scale = r["complementarityscale"]
    yield Limit(COMPLEMENTARITY, r["complementarity"], r["worstcomplementarity"], optimality, scale)


def element_of(problem: Problem, figure: int, element: int) -> tuple[str, str]:
    """(kind, name) of what a figure counts by: variables, then linear, quadratic and nonlinear rows, then general
    constraints.
    """
    if figure in (STATIONARITY, COMPLEMENTARITY):
        if element < problem.nvars:
            return "variable", problem.var_name(element)
        element -= problem.nvars
    elif figure != ROWS:
        return "variable", problem.var_name(element)
    for kind, count, name in (
        ("row", problem.nrows, problem.row_name),
        ("quadratic row", problem.nqrows, problem.qrow_name),
        ("nonlinear row", problem.nnlrows, problem.nlrow_name),
    ):
        if element < count:
            return kind, name(element)
        element -= count
    return "general constraint", problem.gen_name(element)


def judge(problem: Problem, outcome: Outcome, x: np.ndarray, params: Parameters) -> Offence | None:
    """Holds the open solution against the model; an optimum that does not hold becomes IMPRECISE.

    The other way round, a point whose multipliers hold is a proven optimum of a convex problem, whatever its engine
    made of it.
    """
    if not outcome.has_x:
        return None
    if outcome.status == TRV.OPTIMAL and problem.nintegral and not gap_closed(outcome.objval, outcome.bound, params):
        outcome.status = TRV.IMPRECISE
        bound = f"at its bound {outcome.bound:g}" if math.isfinite(outcome.bound) else "bounded"
        outcome.message = f"the objective {outcome.objval:g} was called optimal, but is not {bound}"
    # The objective of the point that is handed on, not the one the engine had in mind.
    value = _modelapi.evaluate_objective(problem.handle, x)
    if not math.isfinite(value) and outcome.status == TRV.OPTIMAL:
        outcome.status, outcome.message = TRV.IMPRECISE, "the objective is not defined at the solution"
    elif outcome.bound == outcome.objval:
        outcome.bound = value
    outcome.objval = value
    if outcome.status not in (TRV.OPTIMAL, TRV.IMPRECISE):
        return None
    found = offence(_modelapi.residuals(problem.handle, outcome.has_duals), problem, params)
    if found is not None:
        outcome.status = TRV.IMPRECISE
    elif outcome.has_duals:
        outcome.status = TRV.OPTIMAL
        outcome.bound = value
    return found


def gap_closed(objval: float, bound: float, params: Parameters) -> bool:
    """Whether the two figures of a tree search bear out its claim of an optimum: a presolve that loses the optimum on
    the way back leaves the bound of the point that it lost.
    """
    if math.isinf(params.RelGap) or any("gap" in option for option in params.EngineOptions):
        return True  # what is allowed then is for the engine to say
    return abs(objval - bound) <= SLACK * max(params.AbsGap, params.RelGap * abs(objval))


def offence(residuals: dict[str, Any], problem: Problem, params: Parameters) -> Offence | None:
    """The worst violation beyond what the tolerances allow, relative to them; None if all hold."""
    worst = None
    for limit in limits(residuals, problem, params):
        ratio = limit.ratio
        if not ratio <= (SLACK if worst is None else worst.ratio):
            element = " ".join(element_of(problem, limit.figure, limit.element))
            worst = Offence(limit.figure, limit.violation, element, ratio)
    return worst
