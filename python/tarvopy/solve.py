"""Solving a model: pick an engine, hand it what it lacks, let it run, check its answer, write it back.

    prepare(model)     the first two steps; what the engine then holds
    optimize(model)    all of it

The engine object stays with the model (`model._engine`) and keeps its engine's copy, so a second solve sends changes
only.
"""

from __future__ import annotations

import math
import os
import threading
import warnings
from typing import TYPE_CHECKING, Any

from tarvopy import _modelapi, engines
from tarvopy._trv import TRV
from tarvopy.check import offence
from tarvopy.engines.base import Outcome
from tarvopy.flight import CtrlC, abandon, aside
from tarvopy.problem import Changes, Problem
from tarvopy.progress import Reporter
from tarvopy.runs import Runs, best_answer, settle_duals

if TYPE_CHECKING:
    import numpy as np

    from tarvopy.check import Offence
    from tarvopy.engines.base import Engine
    from tarvopy.model import Model
    from tarvopy.parameters import Parameters

__all__ = ["engines", "optimize", "prepare"]

#: What a program must hear of, however silent the solve.
_WARNINGS = {TRV.IMPRECISE: "The solution is imprecise", TRV.FAILED: "The solve failed"}

#: Entries from which an engine is loaded beside the thread that waits for it. They take half a millisecond and more
#: (HiGHS 25 ns each, SCIP 10 us); a step beside costs a tenth of one.
_MUCH = 20_000

_claiming = threading.Lock()
# A child process has only the thread that made it: another one may have held the lock.
os.register_at_fork(after_in_child=lambda: globals().update(_claiming=threading.Lock()))


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
    model.params.check_options()
    reporter = Reporter(model.params.LogLevel)
    with CtrlC() as ctrl_c:
        outcome, offence = _solve_claimed(model, reporter, ctrl_c)
    if offence is not None:
        outcome.message = offence.text
    reporter.finish(outcome)
    if outcome.status in _WARNINGS:
        warnings.warn(f"{_WARNINGS[outcome.status]}: {outcome.message}", RuntimeWarning, stacklevel=3)
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
    engine = model._engine
    changes = Changes.of(problem.handle)
    if model._curvature is not None and changes.keep_curvature(problem):
        problem.assume_curvature(model._curvature)
    cls, model._why_engine = engines.pick(problem, model.params.Engine)
    model._curvature = problem.known_curvature
    if type(engine) is not cls or not engine.change(problem, changes):
        if type(engine) is not cls:
            engine = cls()
        engine.load(problem)
    Changes.clear(problem.handle)
    model._engine = engine
    return engine


def _solve(model: Model, problem: Problem, reporter: Reporter, ctrl_c: CtrlC) -> tuple[Outcome, Offence | None]:
    found = _without_engine(problem, model.params)
    if found is not None:
        engines.pick(problem, model.params.Engine)  # what an engine refuses stays refused
        outcome, reason = found
        model._why_engine = f"tarvopy: {reason}"
        _commit(problem, outcome, "tarvopy")
        model._claimed = outcome.objval
        return outcome, None
    runs = Runs(problem, model.params, reporter, ctrl_c)
    if problem.entries < _MUCH:
        engine = _engine_with(model, problem)
    else:
        engine = aside(lambda: _engine_with(model, problem), reporter, ctrl_c)
    answer = best_answer(model, engine, runs)
    _commit(problem, answer.outcome, answer.engine.full_name())
    model._claimed = answer.claimed
    return answer.outcome, answer.offence


def _without_engine(problem: Problem, params: Parameters) -> tuple[Outcome, str] | None:
    """The answer where there is nothing to solve (bounds or sides that cross, no variables at all), and why."""
    for what, lower, upper, name in (
        ("the bounds of variable", problem.lb, problem.ub, problem.var_name),
        ("the sides of row", problem.lower, problem.upper, problem.row_name),
        ("the sides of nonlinear row", problem.nllower, problem.nlupper, problem.nlrow_name),
    ):
        crossed = _first_crossed(lower, upper)
        if crossed is not None:
            return Outcome(TRV.INFEASIBLE), f"{what} {name(crossed)!r} cross"
    undefined = _modelapi.undefined(problem.handle) if problem.nnlcodes or problem.nnlobj else None
    if undefined is not None:
        row, part = undefined
        where = f"nonlinear row {problem.nlrow_name(row)!r}" if row < problem.nnlrows else "the objective"
        return Outcome(TRV.INFEASIBLE), f"{where} has {part}"
    return None if problem.nvars else (_without_variables(problem, params), "the model has no variables")


def _without_variables(problem: Problem, params: Parameters) -> Outcome:
    """Rows of constants hold or do not."""
    x, *multipliers = _modelapi.open_solution(problem.handle)
    for values in multipliers:
        values.fill(0.0)
    if not _zero_holds(problem) or offence(_modelapi.residuals(problem.handle, False), problem, params) is not None:
        return Outcome(TRV.INFEASIBLE)
    value = _modelapi.evaluate_objective(problem.handle, x)
    outcome = Outcome(TRV.OPTIMAL, has_x=True, has_duals=True, objval=value, bound=value)
    settle_duals(outcome, problem, "tarvopy")
    return outcome


def _first_crossed(lower: np.ndarray, upper: np.ndarray) -> int | None:
    """Where an interval is empty, None if none is."""
    crossed = lower > upper
    return int(crossed.argmax()) if crossed.any() else None


def _zero_holds(problem: Problem) -> bool:
    """Whether all linear and quadratic rows hold, which have no terms: exactly, since nothing was computed."""
    linear = (problem.lower <= 0.0) & (problem.upper >= 0.0)
    below, above = problem.qrhs < 0.0, problem.qrhs > 0.0
    broken = (below & (problem.qsense != b">")) | (above & (problem.qsense != b"<"))
    return bool(linear.all()) and not broken.any()


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
        noduals=outcome.no_duals or None,
    )
