"""Model: what users hold. The work on arrays is native (ModelBase), solving is solve.py's; the rest stands here."""

from __future__ import annotations

import copy
import math
import os
from types import TracebackType
from typing import TYPE_CHECKING, Any, Self

from tarvopy import _modelapi
from tarvopy.parameters import Parameters

if TYPE_CHECKING:
    from collections.abc import Callable

    from tarvopy.report import Report


class Model(_modelapi.ModelBase):
    """An optimisation model: variables, constraints of any kind, an objective, and the last solution.

        with tarvopy.Model("diet") as m:
            x = m.addMVar(10, ub=5.0, name="x")
            m.addConstr(A @ x >= need)
            m.setObjective(cost @ x)
            m.optimize()
            print(m.ObjVal, x.X)

    What is added is pending until update(), which optimize(), prepare(), write() and reading an attribute of the model
    call. Attributes (`m.NumVars`, `m.ModelSense = TRV.MAXIMIZE`, ...) read and write like those of any object; names
    that begin with an underscore are ordinary instance attributes. As a context manager the model closes itself.
    """

    def __init__(self, name: str = "") -> None:
        super().__init__(name)
        # Names with an underscore go past __setattr__'s look-up of attributes of the store.
        self._params = Parameters()
        self._engine: Any = None
        self._why_engine: str | None = None
        self._curvature: Any = None  # of the problem that the engine holds, where it was asked for
        self._claimed = math.nan  # the last solution's objective in the eyes of its engine

    # ---- solving

    def optimize(self) -> None:
        """Solve the model with the engine that fits it (or with params.Engine); then `m.Status` says how it went.

        Ctrl-C stops the solve and keeps the best solution (status INTERRUPTED). TarvoError where the engine is not
        installed or cannot take the model.
        """
        from tarvopy import solve

        solve.optimize(self)

    def prepare(self) -> dict[str, int]:
        """Pick the engine and load the model into it without running it.

        Returns what the engine then holds: {"vars", "rows", "nz", "qnz"}. "nz" counts the linear coefficients of rows,
        "qnz" the quadratic ones of objective and rows. Clarabel knows rows only: for it bounds and the cones of
        quadratic rows are rows with coefficients in "nz".
        """
        from tarvopy import solve

        return solve.prepare(self)

    @property
    def params(self) -> Parameters:
        """The parameters of the solve: `m.params.TimeLimit = 60`."""
        return self._params

    @property
    def why_engine(self) -> str | None:
        """Why the engine of the last optimize() or prepare() was picked; None before."""
        return self._why_engine

    def report(self, worst: int = 3) -> Report:
        """How well the last solution holds, printed and returned: rows, bounds, integrality and, where there are
        multipliers, stationarity and complementarity, each with its tolerance and the `worst` offenders by name.

        Worked out anew from the model as it stands. NoDataError without a solution.
        """
        from tarvopy import report

        made = report.make(self, worst)
        print(made)
        return made

    # ---- other models from this one

    def relax(self) -> Model:
        """A new model without what makes this one a matter of alternatives: its optimum is a bound on this one's.

        Variables become continuous (a binary one lies in [0, 1], a semi-continuous one between its own values and 0),
        and general constraints and special ordered sets are left out. Of a linear model this is the LP relaxation;
        quadratic and nonlinear parts stay as they are. Variables, rows, names, order and parameters are this model's.
        """
        return self._copied(self._relax_into)

    def fixed(self) -> Model:
        """A new model with the integers fixed at the last solution, so that its multipliers can be asked for.

            m.optimize()
            f = m.fixed()
            f.optimize()
            f.getConstrs()[0].Pi

        Integer and binary variables become continuous, fixed at the nearest whole number; a semi-continuous one stands
        at 0 or lies between its bounds. Each general constraint becomes linear rows, behind the model's own, that say
        of it what holds at the solution: which argument is the largest, on which piece of a function a point lies,
        which members of a set are 0. Variables, rows, names, order and parameters are this model's. NoDataError without
        a solution.
        """
        return self._copied(self._fix_into)

    def _copied(self, write_into: Callable[[Model], None]) -> Model:
        other = Model()
        write_into(other)
        other._params = copy.copy(self._params)
        return other

    # ---- files

    def read(self, path: str | os.PathLike[str]) -> None:
        """Read a model (.mps, .qps, .sif, .lp, also .gz) into this empty one, or a .sol file into `Start`.

        TarvoError for a file that cannot be read or does not parse (with the line); then nothing has changed.
        """
        self._read(path)

    def write(self, path: str | os.PathLike[str]) -> None:
        """Write the model (.mps, .qps, .sif, .lp, also .gz) or its solution (.sol), by the path's ending.

        TarvoError for what the format cannot say, before a byte is written.
        """
        self._write(path)

    # ---- life

    def close(self) -> None:
        """Free the store and the engine. The model and its handles then raise TarvoError; closing again is fine."""
        self._cmodel._close()
        engine, self._engine = self._engine, None
        close = getattr(engine, "close", None)
        if close is not None:
            close()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        # After a second Ctrl-C the engine may still run: the store then goes with its last holder, and the
        # KeyboardInterrupt on its way is not replaced by a refusal.
        if not _modelapi.is_solving(self._cmodel):
            self.close()

    # ---- attributes of the store

    def __getattr__(self, name: str) -> Any:
        if name.startswith("_"):
            raise AttributeError(f"'{type(self).__name__}' object has no attribute '{name}'")
        return self.getAttr(name)

    def __setattr__(self, name: str, value: Any) -> None:
        # A property, of this class or of one derived from it, is set as in any class (or refuses to be).
        if name.startswith("_") or hasattr(getattr(type(self), name, None), "__set__"):
            object.__setattr__(self, name, value)
            return
        if hasattr(type(self), name):
            raise AttributeError(f"{name!r} is a method of {type(self).__name__!r} and cannot be set")
        try:
            self.setAttr(name, value)
        except AttributeError as error:
            error.name, error.obj = name, self  # a traceback then asks whether another name was meant
            raise

    def __dir__(self) -> list[str]:
        return sorted({*super().__dir__(), *self._attributes()})

    def __copy__(self) -> Self:
        raise TypeError("a Model cannot be copied; write it to a file and read that")

    def __deepcopy__(self, memo: object) -> Self:
        return self.__copy__()

    def __reduce__(self) -> Any:
        raise TypeError("a Model cannot be pickled; write it to a file and read that")


def read(path: str | os.PathLike[str]) -> Model:
    """A new model from a file (.mps, .qps, .sif, .lp, also .gz)."""
    if os.fsdecode(path).lower().endswith((".sol", ".sol.gz")):
        raise ValueError(f"{os.fsdecode(path)!r} is a solution: read it into its model with Model.read")
    model = Model()
    try:
        model.read(path)
    except BaseException:
        model.close()
        raise
    return model
