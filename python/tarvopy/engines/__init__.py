"""The solver engines: which there are, which fits a problem, and which are installed.

    tarvopy.engines()        {"highs": "HiGHS 1.15.1", "clarabel": None, ...}, None where the package is missing
    pick(problem, "auto")    (class, "HiGHS: linear with 40 integer variables")

One module of this folder translates for one engine: a class by the protocol `Engine` of base.py, arrays in, arrays out.
The name of the function is also the name of this folder, so the module itself can be called.
"""

from __future__ import annotations

import sys
from types import ModuleType
from typing import TYPE_CHECKING

from tarvopy._exception import TarvoError
from tarvopy._trv import TRV
from tarvopy.engines.base import counted, integral_parts, nonlinear_parts
from tarvopy.problem import CONE, CONVEX, NONCONVEX, ROUNDED

if TYPE_CHECKING:
    from tarvopy.engines.base import Engine
    from tarvopy.problem import Problem

#: params.Engine -> module of this folder.
_MODULES = {"highs": "highs", "clarabel": "clarabel", "scip": "scip"}


def engine_class(key: str) -> type[Engine]:
    """The class behind a value of `params.Engine`; its package need not be installed."""
    from importlib import import_module

    return import_module(f"tarvopy.engines.{_MODULES[key]}").ENGINE


def candidates(problem: Problem) -> tuple[str, ...]:
    """The engines to think of for a problem, the best one first."""
    if problem.is_nonlinear:
        return ("scip",)
    if not problem.is_quadratic:
        return ("highs", "scip") if problem.nintegral else ("highs", "clarabel", "scip")
    if problem.nintegral or not problem.is_convex:
        return ("scip",)
    return ("clarabel", "scip")


def pick(problem: Problem, key: str) -> tuple[type[Engine], str]:
    """The engine class for a problem, and a sentence that says why.

    TarvoError (UNSUPPORTED) that says what stands in the way, or which package to install, where none can take it.
    """
    if key != "auto":
        cls = engine_class(key)
        obstacle = _obstacle(cls, problem)
        if obstacle:
            raise TarvoError(TRV.ERROR_UNSUPPORTED, obstacle)
        return cls, f"{cls.name}: chosen by params.Engine, {describe(problem)}"
    obstacles = []
    for candidate in candidates(problem):
        cls = engine_class(candidate)
        obstacle = _obstacle(cls, problem)
        if not obstacle:
            return cls, f"{cls.name}: {describe(problem)}" + "".join(f" ({said})" for said in obstacles)
        obstacles.append(obstacle)
    raise TarvoError(TRV.ERROR_UNSUPPORTED, "; ".join(obstacles))


def alternatives(problem: Problem, picked: type[Engine]) -> list[type[Engine]]:
    """The engines that could solve a problem again when the picked one's answer does not hold.

    None for a linear problem of continuous variables: HiGHS has two methods of its own for these.
    """
    if not problem.is_quadratic and not problem.nintegral:
        return []
    classes = [engine_class(key) for key in candidates(problem)]
    return [cls for cls in classes if cls is not picked and not _obstacle(cls, problem)]


def _obstacle(cls: type[Engine], problem: Problem) -> str:
    """Why this engine cannot solve the problem here, "" if it can."""
    reason = cls.refusal(problem)
    if reason:
        return f"{cls.name} cannot take this model: {reason}"
    try:
        cls.full_name()
    except TarvoError as error:  # the package is missing: its text names what to install
        return error.message
    return ""


# ---- the sentence ----------------------------------------------------------------------------------------------------


def describe(problem: Problem) -> str:
    """The class of a problem in words: "linear with 40 integer variables", "quadratic row 'cap[3]' is not convex",
    "nonlinear objective, 3 nonlinear rows, all variables continuous".
    """
    if problem.is_nonlinear:
        parts = [
            *nonlinear_parts(problem),
            *_quadratic_parts(problem),
            integral_parts(problem) or "all variables continuous",
        ]
        return ", ".join(parts)
    if not problem.is_quadratic:
        cancelled = f" (all terms of {counted(problem.nqrows, 'quadratic row')} cancel)" if problem.nqrows else ""
        integral = integral_parts(problem)
        return f"linear{cancelled} with {integral}" if integral else f"linear{cancelled}, all variables continuous"
    if problem.nintegral:
        return ", ".join([*_quadratic_parts(problem), integral_parts(problem)])
    return _nonconvex(problem) or _convex(problem)


def _quadratic_parts(problem: Problem) -> list[str]:
    """Without a word on curvature, where that decides nothing."""
    rows = problem.nqrows - problem.nqlinear
    parts = ["quadratic objective"] if problem.nqobj and not problem.nnlobj else []
    return [*parts, counted(rows, "quadratic row")] if rows else parts


def _nonconvex(problem: Problem) -> str:
    """The parts that are not convex, "" where there are none."""
    objective, rows = problem.curvature()
    parts = ["the quadratic objective is not convex"] if objective == NONCONVEX else []
    where = (rows == NONCONVEX).nonzero()[0]
    if len(where):
        first, others = f"quadratic row {problem.qrow_name(int(where[0]))!r}", len(where) - 1
        parts.append(f"{first} and {counted(others, 'other')} are not convex" if others else f"{first} is not convex")
    return ", ".join(parts)


def _convex(problem: Problem) -> str:
    objective, rows = problem.curvature()
    convex, cones = int((rows == CONVEX).sum()), int((rows == CONE).sum())
    but = " (but for the rounding of its coefficients)" if objective == ROUNDED else ""
    parts = [f"convex quadratic objective{but}"] if problem.nqobj else []
    parts += [counted(convex, "convex quadratic row")] if convex else []
    parts += [counted(cones, "second-order cone row")] if cones else []
    return f"{', '.join(parts)}, all variables continuous"


# ---- what is installed -----------------------------------------------------------------------------------------------


def engines() -> dict[str, str | None]:
    """The engines that this release speaks to, by their value of `params.Engine`: name and version, None where one is
    not installed.
    """
    found: dict[str, str | None] = {}
    for key in _MODULES:
        try:
            found[key] = engine_class(key).full_name()
        except TarvoError:
            found[key] = None
    return found


class _CallableModule(ModuleType):
    def __call__(self) -> dict[str, str | None]:
        return engines()


sys.modules[__name__].__class__ = _CallableModule
