"""The solver engines: which there are, which fits a problem, and which are installed.

    tarvopy.engines()                {"highs": "HiGHS 1.15.1", "clarabel": None, ...}: None where the package is not
    installed pick(problem, "auto")            (class, "HiGHS: linear with 40 integer variables")

One module of this folder translates for one engine: a class by the protocol `Engine` of base.py, arrays in, arrays out.
The name of the function is also the name of this folder, so the module itself can be called.
"""

from __future__ import annotations

import sys
from types import ModuleType
from typing import TYPE_CHECKING

from tarvopy._exception import TarvoError
from tarvopy._trv import TRV

if TYPE_CHECKING:
    from tarvopy.engines.base import Engine
    from tarvopy.problem import Problem

#: params.Engine -> module of this folder; None for those that this release does not speak to.
_MODULES = {"highs": "highs", "clarabel": None, "scip": None}


def engine_class(key: str) -> type[Engine]:
    """The class behind a value of `params.Engine`; TarvoError (UNSUPPORTED) for an engine that this release does not
    have.
    """
    from importlib import import_module

    module = _MODULES.get(key)
    if module is None:
        spoken = ", ".join(repr(k) for k, m in _MODULES.items() if m)
        raise TarvoError(TRV.ERROR_UNSUPPORTED, f"Engine {key!r} is not part of this release; there is {spoken}")
    return import_module(f"tarvopy.engines.{module}").ENGINE


def pick(problem: Problem, key: str) -> tuple[type[Engine], str]:
    """The engine class for a problem, and a sentence that says why; TarvoError where a chosen engine cannot take it."""
    cls = engine_class("highs" if key == "auto" else key)
    reason = cls.refusal(problem)
    if reason:
        raise TarvoError(TRV.ERROR_UNSUPPORTED, f"{cls.name} cannot take this model: {reason}")
    chosen = "" if key == "auto" else "chosen by params.Engine, "
    return cls, f"{cls.name}: {chosen}{describe(problem)}"


def describe(problem: Problem) -> str:
    """The class of a problem in words: "linear with 40 integer variables"."""
    if not problem.nintegral:
        return "linear, all variables continuous"
    semi = int((problem.vtype == b"S").sum())
    parts = [(problem.nintegral - semi, "integer"), (semi, "semi-continuous")]
    said = [f"{n} {kind} variable{'s' if n != 1 else ''}" for n, kind in parts if n]
    return "linear with " + " and ".join(said)


def engines() -> dict[str, str | None]:
    """The engines that this release speaks to, by their value of `params.Engine`: name and version, None where one is
    not installed.
    """
    found: dict[str, str | None] = {}
    for key, module in _MODULES.items():
        if module is None:
            continue
        try:
            found[key] = engine_class(key).full_name()
        except TarvoError:
            found[key] = None
    return found


class _CallableModule(ModuleType):
    def __call__(self) -> dict[str, str | None]:
        return engines()


sys.modules[__name__].__class__ = _CallableModule
