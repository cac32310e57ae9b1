"""m.report(): the last solution held against the model, in figures that a reader can judge.

    report = m.report()               prints str(report), returns it
    report.holds                      every figure within its tolerance
    report.figures[0].offenders[0]    Offender(kind="row", name="cap[3]", violation=2.1e-09, allowed=1.3e-06)

str(report):

    diet: optimal, objective 12.5 (the engine's own figure: 12.5000001), HiGHS 1.15.1, 0.02 s
    HiGHS: linear, all variables continuous
                          worst   allowed  holds  at
    rows                2.1e-09   1.3e-06  yes    row cap[3]
    bounds                    0            yes
    integrality               -            -      no integer variables
    stationarity         0.0003   1.1e-06  NO     variable x[2], x[5]; row r
    complementarity     1.2e-10   4.1e-06  yes    variable x[7]
"""

from __future__ import annotations

import math
import operator
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

from tarvopy import _modelapi
from tarvopy._exception import NoDataError
from tarvopy.check import BOUNDS, COMPLEMENTARITY, INTEGRALITY, ROWS, SLACK, STATIONARITY, Limit, element_of, limits
from tarvopy.problem import Problem
from tarvopy.progress import status_word

if TYPE_CHECKING:
    from tarvopy.model import Model

_NAMES = {
    ROWS: "rows",
    BOUNDS: "bounds",
    INTEGRALITY: "integrality",
    STATIONARITY: "stationarity",
    COMPLEMENTARITY: "complementarity",
}


@dataclass(frozen=True, slots=True)
class Offender:
    """An element that violates a figure."""

    kind: str
    """"row", "quadratic row", "nonlinear row", "general constraint" or "variable"."""
    name: str
    """As VarName, ConstrName and so on."""
    violation: float
    """Absolute."""
    allowed: float
    """What it may be off: ten tolerances on the scale of the largest term involved."""


@dataclass(frozen=True, slots=True)
class Figure:
    """One of the five figures of the check."""

    name: str
    """"rows", "bounds", "integrality", "stationarity" or "complementarity"."""
    tolerance: float
    """The parameter that it is held against (FeasibilityTol, IntegralityTol, OptimalityTol)."""
    violation: float
    """Of the worst element, absolute; NaN where the figure does not apply."""
    allowed: float
    """What that element may be off; NaN where nothing is violated."""
    holds: bool
    """Whether every element is within what it may be off; True where the figure does not apply."""
    why_not_checked: str
    """Why the figure does not apply, "" where it does."""
    offenders: tuple[Offender, ...]
    """The worst elements against their own scales, worst first; also those that are within the tolerance."""


@dataclass(frozen=True, slots=True, repr=False)
class Report:
    """The last solution, held against the model."""

    model: str
    """As m.ModelName."""
    status: int
    """As m.Status."""
    objective: float
    """Computed here at the solution."""
    engine_objective: float
    """What the engine said; NaN where it said nothing."""
    engine: str
    """Name and version."""
    why_engine: str
    """As m.why_engine."""
    runtime: float
    """Seconds."""
    figures: tuple[Figure, ...]
    """Rows, bounds, integrality, stationarity, complementarity."""

    @property
    def holds(self) -> bool:
        """Whether every figure that applies is within its tolerance."""
        return all(figure.holds for figure in self.figures)

    def __getitem__(self, name: str) -> Figure:
        """A figure by its name: report["rows"]."""
        for figure in self.figures:
            if figure.name == name:
                return figure
        raise KeyError(name)

    def __repr__(self) -> str:
        """Short, since a session shows it below the text that m.report() prints."""
        return f"<Report {self.model}: {status_word(self.status)}, {'holds' if self.holds else 'does not hold'}>"

    def __str__(self) -> str:
        said = f"objective {self.objective:.10g}"
        if not _same(self.objective, self.engine_objective):
            said += f" (the engine's own figure: {self.engine_objective:.10g})"
        head = f"{self.model or 'model'}: {status_word(self.status)}, {said}, {self.engine}, {self.runtime:.2f} s"
        table = [_line("", "worst", "allowed", "holds", "at"), *map(_figure_line, self.figures)]
        return "\n".join([head, *([self.why_engine] if self.why_engine else []), *table])


def make(model: Model, worst: int) -> Report:
    """The report of a model's last solution; NoDataError without one, ValueError for a negative number."""
    worst = operator.index(worst)
    if worst < 0:
        raise ValueError(f"report() shows 0 or more offenders a figure, not {worst}")
    status = model.Status  # applies what is pending, which may end the solution
    objective = model.ObjVal
    handle, problem = model._cmodel, Problem.of(model._cmodel)
    elements = problem.nvars + problem.nrows + problem.nqrows + problem.nnlrows + problem.ngens
    worst = min(worst, 2 * elements)  # value and multiplier of each
    residuals, has_duals = _residuals(handle)
    return Report(
        model=model.ModelName,
        status=status,
        objective=objective,
        engine_objective=model._claimed,
        engine=model.EngineName,
        why_engine=model.why_engine or "",
        runtime=model.Runtime,
        figures=tuple(_figure(problem, limit, has_duals, worst) for limit in limits(residuals, problem, model.params)),
    )


def _residuals(handle: Any) -> tuple[dict[str, Any], bool]:
    """The figures, and whether there are multipliers among them."""
    try:
        return _modelapi.residuals(handle, True), True
    except NoDataError:
        return _modelapi.residuals(handle, False), False


def _figure(problem: Problem, limit: Limit, has_duals: bool, worst: int) -> Figure:
    name, why_not = _NAMES[limit.figure], _why_not_checked(problem, limit.figure, has_duals)
    if why_not:
        return Figure(name, limit.tolerance, math.nan, math.nan, True, why_not, ())
    allowed = SLACK * limit.tolerance
    offenders = tuple(
        Offender(*element_of(problem, limit.figure, element), violation, allowed * scale)
        for violation, scale, element in _modelapi.offenders(problem.handle, has_duals, limit.figure, worst)
    )
    violated = limit.element >= 0
    return Figure(
        name,
        limit.tolerance,
        limit.violation if violated else 0.0,
        allowed * limit.scale if violated else math.nan,
        limit.ratio <= SLACK,
        "",
        offenders,
    )


def _why_not_checked(problem: Problem, figure: int, has_duals: bool) -> str:
    if figure == INTEGRALITY and not ((problem.vtype == b"I") | (problem.vtype == b"B")).any():
        return "no integer variables"
    if figure in (STATIONARITY, COMPLEMENTARITY) and not has_duals:
        return "the solution has no multipliers"
    return ""


# ---- the text --------------------------------------------------------------------------------------------------------


def _line(name: str, violation: str, allowed: str, holds: str, at: str) -> str:
    return f"  {name:<16}{violation:>9}{allowed:>10}  {holds:<6} {at}".rstrip()


def _number(value: float) -> str:
    return "" if math.isnan(value) else f"{value:.2g}"


def _figure_line(figure: Figure) -> str:
    if figure.why_not_checked:
        return _line(figure.name, "-", "", "-", figure.why_not_checked)
    where = figure.offenders if not figure.holds else figure.offenders[:1]
    at = ", ".join(f"{o.kind} {o.name}" + ("" if figure.holds else f" ({o.violation:.2g})") for o in where)
    holds = "yes" if figure.holds else "NO"
    return _line(figure.name, _number(figure.violation), _number(figure.allowed), holds, at)


def _same(one: float, other: float) -> bool:
    return math.isnan(other) or abs(one - other) <= 1e-9 * max(1.0, abs(one))
