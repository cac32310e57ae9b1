"""The runs of one solve: the first answer, and where an optimum does not hold one step more precision.

    answer = best_answer(model, engine, Runs(problem, params, reporter, ctrl_c))

That step is a run of the same engine with tighter tolerances, and then, where params.Engine leaves the choice open, a
run of another engine that can take the problem. The answer with the smallest violation stays. Ctrl-C and the time limit
end it; what comes after the first run has a time of its own besides, so that nobody waits an hour for a digit.
"""

from __future__ import annotations

import math
import time
from collections.abc import Iterator
from dataclasses import dataclass
from typing import TYPE_CHECKING

from tarvopy import _modelapi, engines
from tarvopy._exception import TarvoError
from tarvopy._trv import TRV
from tarvopy.check import SLACK, Offence, judge
from tarvopy.flight import CtrlC, fly

if TYPE_CHECKING:
    import numpy as np

    from tarvopy.engines.base import Engine, Outcome
    from tarvopy.model import Model
    from tarvopy.parameters import Parameters
    from tarvopy.problem import Problem
    from tarvopy.progress import Reporter

#: What further runs may take, each: so many seconds, and so many times what the first one took.
_PATIENCE = (10.0, 10.0)


@dataclass(slots=True, eq=False)
class Answer:
    """What one run gave, held against the model."""

    engine: Engine
    outcome: Outcome
    claimed: float
    """The objective as the engine saw it."""
    offence: Offence | None
    arrays: tuple[np.ndarray, ...]
    """x, rc, pi, qpi: the store's open arrays, which the next run's answer overwrites."""

    @property
    def holds(self) -> bool:
        return self.outcome.status != TRV.IMPRECISE

    @property
    def ratio(self) -> float:
        """How far off it is; an answer that its engine itself calls imprecise stands at the limit."""
        if self.holds:
            return 0.0
        return SLACK if self.offence is None else self.offence.ratio

    def keep(self) -> None:
        """The arrays become this answer's own."""
        self.arrays = tuple(array.copy() for array in self.arrays)

    def better_than(self, other: Answer) -> bool:
        return self.outcome.status in (TRV.OPTIMAL, TRV.IMPRECISE) and self.outcome.has_x and self.ratio < other.ratio


class Runs:
    """The runs of one solve, within its time."""

    def __init__(self, problem: Problem, params: Parameters, reporter: Reporter, ctrl_c: CtrlC) -> None:
        self.problem, self.params, self.reporter, self.ctrl_c = problem, params, reporter, ctrl_c
        self._deadline = time.monotonic() + params.TimeLimit
        self._patience = math.inf

    def finish(self, engine: Engine) -> Answer:
        """Waits for a run that was started, and reads its answer."""
        self.reporter.engine = engine
        told = fly(engine, self.reporter, self.ctrl_c)
        while not told and engine.again(self.problem):
            told = fly(engine, self.reporter, self.ctrl_c)
        outcome = engine.outcome(self.problem)
        arrays = _modelapi.open_solution(self.problem.handle)
        engine.write_solution(outcome, *arrays)
        settle_duals(outcome, self.problem, engine.name)
        claimed = outcome.objval
        return Answer(engine, outcome, claimed, judge(self.problem, outcome, arrays[0], self.params), arrays)

    def be_patient(self, first: Answer) -> None:
        """From here on each run has a time of its own."""
        self._patience = _PATIENCE[0] + _PATIENCE[1] * first.outcome.runtime

    def params_of_further_run(self) -> Parameters | None:
        """The parameters with the time that is left to another run; None where there is none."""
        if self.ctrl_c.count:
            return None
        left = min(self._deadline - time.monotonic(), self._patience)
        return self.params.replaced(TimeLimit=left) if left > 0 else None


def best_answer(model: Model, engine: Engine, runs: Runs) -> Answer:
    """Runs the engine, and others while the answer does not hold; the best answer then stands in the open solution."""
    engine.start(runs.problem, runs.params)
    first = best = last = runs.finish(engine)
    if first.holds:
        return first
    runs.be_patient(first)
    for other in _further_runs(model, first, runs):
        best.keep()
        last = runs.finish(other)
        _add_up(best.outcome, last.outcome)
        if last.better_than(best):
            best = last
        if other is not engine:
            other.close()
        if best.holds:
            break
    model._engine = engine
    _say_who_answered(model, first, best)
    if best is not last:
        for array, kept in zip(_modelapi.open_solution(runs.problem.handle), best.arrays, strict=True):
            array[:] = kept
    return best


def settle_duals(outcome: Outcome, problem: Problem, engine_name: str) -> None:
    """Multipliers mean something for convex problems of continuous variables only, whichever engine gave them."""
    if problem.is_nonlinear:
        outcome.has_duals = False
        outcome.no_duals = f"the model is nonlinear ({engines.describe(problem)})"
    elif problem.nintegral or not outcome.has_x:
        outcome.has_duals = False
    elif problem.is_quadratic and not problem.is_convex:
        outcome.has_duals = False
        outcome.no_duals = f"the model is not convex ({engines.describe(problem)})"
    elif not outcome.has_duals and outcome.status == TRV.OPTIMAL and not outcome.no_duals:
        outcome.no_duals = f"{engine_name} gave none"


def _add_up(one: Outcome, other: Outcome) -> None:
    """What all runs took together stands in both, whichever stays."""
    for figure in ("runtime", "itercount", "nodecount"):
        total = getattr(one, figure) + getattr(other, figure)
        setattr(one, figure, total)
        setattr(other, figure, total)


def _further_runs(model: Model, first: Answer, runs: Runs) -> Iterator[Engine]:
    """Engines with a run under way, each one step further. The model holds the one that runs, so that whoever leaves
    it alone knows which.
    """
    params = runs.params_of_further_run()
    if params is None:
        return
    said = first.offence.text if first.offence else first.outcome.message or "imprecise"
    runs.reporter.note(f"{first.engine.name}: {said}; trying for more precision")
    if first.engine.refine(runs.problem, params):
        yield first.engine
    if runs.params.Engine != "auto":
        return
    for cls in engines.alternatives(runs.problem, type(first.engine)):
        params = runs.params_of_further_run()
        if params is None:
            return
        other = _started(cls, model, runs.problem, params.replaced(EngineOptions={}))
        if other is not None:
            yield other


def _started(cls: type[Engine], model: Model, problem: Problem, params: Parameters) -> Engine | None:
    """Another engine with its run under way; None where it turns out not to take the problem, which is no error of a
    solve that has an answer.
    """
    try:
        engine = cls()
        engine.load(problem)
        engine.start(problem, params)
    except TarvoError:
        return None
    model._engine = engine
    return engine


def _say_who_answered(model: Model, first: Answer, best: Answer) -> None:
    if best.engine is not first.engine:
        said = first.offence.text if first.offence else first.outcome.message
        model._why_engine = (
            f"{best.engine.name}: solved again, since the answer of {first.engine.name} did not hold ({said}); "
            f"{model._why_engine}"
        )
