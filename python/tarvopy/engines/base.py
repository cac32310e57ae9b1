"""What solve.py and the engines say to each other: the protocol of an engine, and the outcome of a solve.

An engine object keeps its engine's model between solves: load() hands all of it over, change() only what changed. A run
goes on beside the interpreter: start() returns at once, wait() says when it is over, and only running, wait, progress,
take_log and interrupt may be used until then.
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import TYPE_CHECKING, ClassVar, NamedTuple, Protocol

from tarvopy._trv import TRV

if TYPE_CHECKING:
    import numpy as np

    from tarvopy.parameters import Parameters
    from tarvopy.problem import Changes, Problem

NAN = math.nan
#: How a solve ends that leaves no point.
WITHOUT_POINT = {TRV.INFEASIBLE, TRV.UNBOUNDED, TRV.INFEASIBLE_OR_UNBOUNDED, TRV.FAILED}


@dataclass(slots=True)
class Outcome:
    """How a solve ended, in the terms of the model: statuses of `TRV`, objective and bound in the model's sense, NaN
    where there is none.
    """

    status: int
    has_x: bool = False
    has_duals: bool = False
    objval: float = NAN
    bound: float = NAN
    runtime: float = 0.0
    itercount: float = 0.0
    nodecount: float = 0.0
    message: str = ""
    """What there is to say beyond the status, for instance why the engine failed."""
    no_duals: str = ""
    """Why a point of a model of continuous variables has no multipliers."""


class Progress(NamedTuple):
    """Where a run stands; None where the engine does not say."""

    seconds: float
    iterations: float | None
    nodes: float | None
    incumbent: float | None
    bound: float | None


def seconds_of_second_look(limit: float, taken: float) -> float:
    """What the search for any feasible point may take, after a first run that left infeasible or unbounded open."""
    return min(limit - taken, 5.0 + 2.0 * taken)


def nonlinear_parts(problem: Problem) -> list[str]:
    """What only an engine for nonlinear models takes: ["nonlinear objective", "3 nonlinear rows"]."""
    parts = ["nonlinear objective"] if problem.nnlobj else []
    kinds = [(problem.nnlrows, "nonlinear row"), (problem.ngens, "general constraint")]
    return parts + [counted(n, kind) for n, kind in kinds if n]


def integral_parts(problem: Problem) -> str:
    """ "3 integer variables and 1 semi-continuous variable", "" where all are continuous."""
    parts = [(problem.nintegral - problem.nsemi, "integer variable"), (problem.nsemi, "semi-continuous variable")]
    return " and ".join(counted(n, kind) for n, kind in parts if n)


def counted(n: int, what: str) -> str:
    return f"{n} {what}" + ("s" if n != 1 else "")


class Engine(Protocol):
    """One engine with the model that it holds."""

    name: ClassVar[str]
    loads: int
    """How often a whole model was handed over."""

    @classmethod
    def full_name(cls) -> str:
        """Name and version; TarvoError naming the package to install where it is missing."""

    @classmethod
    def refusal(cls, problem: Problem) -> str | None:
        """Why this engine cannot take the problem, None if it can: names the part that stands in the way, as in
        "quadratic row q3 is not convex" or "3 integer variables".
        """

    def load(self, problem: Problem) -> None: ...
    def change(self, problem: Problem, changes: Changes) -> bool:
        """Tells the engine what changed; False where it wants the whole model instead."""

    def counts(self) -> dict[str, int]:
        """{"vars", "rows", "nz", "qnz"} as the engine holds them."""

    def start(self, problem: Problem, params: Parameters) -> None: ...
    @property
    def running(self) -> bool: ...
    def wait(self, seconds: float) -> bool: ...
    def progress(self) -> Progress: ...
    def take_log(self) -> str: ...
    def interrupt(self) -> None: ...
    def again(self, problem: Problem) -> bool:
        """Asked when a run is over: whether the answer needs another one, which is then under way."""

    def refine(self, problem: Problem, params: Parameters) -> bool:
        """Asked when an optimum does not hold: starts a run that goes for more precision (tighter tolerances, another
        method) and returns True; False where there is nothing further to try. params.TimeLimit is what time is left.

        Asked once for each start().
        """

    def outcome(self, problem: Problem) -> Outcome: ...
    def write_solution(self, outcome: Outcome, x: np.ndarray, rc: np.ndarray, pi: np.ndarray, qpi: np.ndarray) -> None:
        """Fills x where outcome.has_x; rc, pi and qpi (one entry for each quadratic row) where outcome.has_duals."""

    def close(self) -> None: ...
