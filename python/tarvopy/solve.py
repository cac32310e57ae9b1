"""Solving a model: pick an engine, hand it what it lacks, let it run, check its answer, write it back.

    prepare(model)     the first two steps; what the engine then holds
    optimize(model)    all of it

The engine object stays with the model (`model._engine`) and keeps its engine's copy, so a second solve sends changes
only.
"""

from __future__ import annotations

import math
import threading
import warnings
from typing import TYPE_CHECKING, Any, NamedTuple

from tarvopy import _modelapi, engines
from tarvopy._trv import TRV
from tarvopy.engines.base import Outcome
from tarvopy.flight import CtrlC, abandon, fly
from tarvopy.problem import Changes, Problem
from tarvopy.progress import Reporter

if TYPE_CHECKING:
    import numpy as np

    from tarvopy.engines.base import Engine
    from tarvopy.model import Model
    from tarvopy.parameters import Parameters

__all__ = ["engines", "optimize", "prepare"]

_claiming = threading.Lock()

#: How many times a tolerance a violation may be before an optimum is called imprecise.
_SLACK = 10.0


def prepare(model: Model) -> dict[str, int]:
    """Loads the model into its engine without running it; returns what the engine then holds."""
    handle = _claim(model)
    try:
        return _engine_with(model, Problem.of(handle)).counts()
    except BaseException:
        model._engine = None
        raise
    finally:
        _modelapi.set_solving(handle, False)


def optimize(model: Model) -> None:
    """Solves the model; its solution attributes say how it went."""
    reporter = Reporter(model.params.LogLevel)
    with CtrlC() as ctrl_c:
        outcome, offence = _solve_claimed(model, reporter, ctrl_c)
    if offence is not None:
        outcome.message = offence.text(model)
    reporter.finish(outcome)
    if offence is not None:
        warnings.warn(f"The solution is imprecise: {outcome.message}", RuntimeWarning, stacklevel=3)
    if ctrl_c.unanswered:
        raise KeyboardInterrupt  # it came when the run was over


def _solve_claimed(model: Model, reporter: Reporter, ctrl_c: CtrlC) -> tuple[Outcome, Offence | None]:
    handle = _claim(model)
    try:
        answer = _solve(model, Problem.of(handle), reporter, ctrl_c)
    except BaseException:
        _give_up(model, handle)
        raise
    _modelapi.set_solving(handle, False)
    return answer


def _claim(model: Model) -> Any:
    """Brings the model up to date and marks it as solving, so that nothing changes under the engine; returns its
    handle.
    """
    with _claiming:
        model.update()
        _modelapi.set_solving(model._cmodel, True)
    return model._cmodel


def _give_up(model: Model, handle: Any) -> None:
    """After an error or a second Ctrl-C. What the engine holds is in doubt, so the next solve loads anew."""
    engine, model._engine = model._engine, None
    if engine is not None and engine.running:
        abandon(engine, handle)
    else:
        _modelapi.set_solving(handle, False)


# ---- the engine ----------------------------------------------------------------------------------------------------


def _engine_with(model: Model, problem: Problem) -> Engine:
    """The engine that fits, holding the problem as it stands: changes are sent where it holds an earlier state of this
    model.
    """
    cls, model._why_engine = engines.pick(problem, model.params.Engine)
    engine = model._engine
    changes = Changes.of(problem.handle)
    if type(engine) is not cls or not engine.change(problem, changes):
        if type(engine) is not cls:
            engine = cls()
        engine.load(problem)
    Changes.clear(problem.handle)
    model._engine = engine
    return engine


def _solve(model: Model, problem: Problem, reporter: Reporter, ctrl_c: CtrlC) -> tuple[Outcome, Offence | None]:
    outcome = _without_engine(problem)
    if outcome is not None:
        _, model._why_engine = engines.pick(problem, model.params.Engine)
        for multipliers in _modelapi.open_solution(problem.handle)[1:]:
            multipliers.fill(0.0)
        _commit(problem, outcome, "tarvopy")
        return outcome, None
    engine = _engine_with(model, problem)
    reporter.engine = engine
    engine.start(problem, model.params)
    told = fly(engine, reporter, ctrl_c)
    while not told and engine.again(problem):
        told = fly(engine, reporter, ctrl_c)
    outcome = engine.outcome(problem)
    x, rc, pi, qpi = _modelapi.open_solution(problem.handle)
    engine.write_solution(outcome, x, rc, pi, qpi)
    offence = _judge(problem, outcome, x, model.params)
    _commit(problem, outcome, engine.full_name())
    return outcome, offence


def _without_engine(problem: Problem) -> Outcome | None:
    """The answer where there is nothing to solve: bounds or sides that cross, or no variables at all."""
    if _cross(problem.lb, problem.ub) or _cross(problem.lower, problem.upper):
        return Outcome(TRV.INFEASIBLE)
    if problem.nvars:
        return None
    if problem.nrows and not (problem.lower.max() <= 0.0 <= problem.upper.min()):
        return Outcome(TRV.INFEASIBLE)
    value = problem.objconstant
    return Outcome(TRV.OPTIMAL, has_x=True, has_duals=True, objval=value, bound=value)


def _cross(lower: np.ndarray, upper: np.ndarray) -> bool:
    """Whether some interval is empty."""
    return bool((lower > upper).any())


def _commit(problem: Problem, outcome: Outcome, engine_name: str) -> None:
    _modelapi.commit_solution(
        problem.handle,
        status=outcome.status,
        has_x=outcome.has_x,
        has_duals=outcome.has_duals,
        objval=outcome.objval,
        bound=outcome.bound,
        gap=math.nan,  # the store computes it from the two above
        runtime=outcome.runtime,
        itercount=outcome.itercount,
        nodecount=outcome.nodecount,
        engine=engine_name,
    )


# ---- the check of the answer ---------------------------------------------------------------------------------------


class Offence(NamedTuple):
    """What an answer violates most."""

    what: str
    violation: float
    position: int
    of_row: bool

    def text(self, model: Model) -> str:
        element = (model.getConstrs() if self.of_row else model.getVars())[self.position]
        name = element.ConstrName if self.of_row else element.VarName
        return f"{self.what} of {'row' if self.of_row else 'variable'} {name} by {self.violation:.3g}"


def _judge(problem: Problem, outcome: Outcome, x: np.ndarray, params: Parameters) -> Offence | None:
    """Holds the open solution against the model itself; an optimum that does not hold becomes IMPRECISE."""
    if not outcome.has_x:
        return None
    # The objective of the point that is handed on, not the one the engine had in mind.
    value = _modelapi.evaluate_objective(problem.handle, x)
    if outcome.bound == outcome.objval:
        outcome.bound = value
    outcome.objval = value
    if outcome.status not in (TRV.OPTIMAL, TRV.IMPRECISE):
        return None
    found = offence(_modelapi.residuals(problem.handle, outcome.has_duals), problem, params)
    if found is not None:
        outcome.status = TRV.IMPRECISE
    return found


def offence(residuals: dict[str, Any], problem: Problem, params: Parameters) -> Offence | None:
    """The worst violation beyond what the tolerances allow, relative to them; None if all hold.

    Engines keep their tolerances on a scaled and presolved problem. Back on the given one a sum of large terms is off
    by as much again, so what is allowed is a tolerance times ten, on the scale of the largest term involved.
    """
    tolerance = params.FeasibilityTol
    if problem.nintegral:
        tolerance = max(tolerance, params.IntegralityTol)  # HiGHS holds the rows of a MIP to this one
    r = residuals
    nvars = problem.nvars
    limits = [
        ("violation of the sides", r["row"], r["worstrow"], True, tolerance * r["rowscale"]),
        ("violation of the bounds", r["bound"], r["worstbound"], False, tolerance * r["boundscale"]),
        ("fraction of the integer value", r["integral"], r["worstintegral"], False, params.IntegralityTol),
        ("dual infeasibility", r["dual"], r["worstdual"], None, params.OptimalityTol * r["dualscale"]),
        (
            *("price off its bound", r["complementarity"], r["worstcomplementarity"], None),
            params.OptimalityTol * r["complementarityscale"],
        ),
    ]
    worst, ratio = None, _SLACK
    for what, violation, position, of_row, limit in limits:
        if position >= 0 and not violation <= ratio * limit:
            row = position >= nvars if of_row is None else of_row
            worst = Offence(what, violation, position - nvars if of_row is None and row else position, row)
            ratio = violation / limit
    return worst
