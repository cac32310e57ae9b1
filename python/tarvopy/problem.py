"""What an engine gets to see of a model: one frozen Problem.

    problem = Problem.of(model._cmodel)        after update(); NumPy views of the store, nothing is copied
    start, index, value = problem.csc()        the matrix by columns, made for the caller and freed with the arrays

The views are read-only and show the store as it is: they hold until the model's next change (while an engine runs,
changes are refused). Infinite bounds are +-inf. Positions, not ids, count everything here.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

from tarvopy import _modelapi

if TYPE_CHECKING:
    import numpy as np


@dataclass(frozen=True, slots=True, eq=False)
class Problem:
    """minimise (or maximise) obj x + objconstant, lower <= A x <= upper, lb <= x <= ub, some x integral."""

    handle: Any
    """The model handle the views belong to."""
    nvars: int
    nrows: int
    nnz: int
    """Nonzeros of A."""
    lb: np.ndarray
    ub: np.ndarray
    obj: np.ndarray
    vtype: np.ndarray
    """dtype "S1": b"C" continuous, b"B" binary, b"I" integer, b"S" semi-continuous."""
    lower: np.ndarray
    upper: np.ndarray
    objconstant: float
    sense: int
    """1 minimise, -1 maximise."""
    nintegral: int
    """How many variables are not continuous (semi-continuous ones count)."""
    start: np.ndarray | None
    """A value for each variable, NaN where there is none; None without any."""

    @classmethod
    def of(cls, handle: Any) -> Problem:
        """The model as it stands; what is pending is left out, so update first."""
        return cls(handle, **_modelapi.problem(handle))

    @property
    def is_mip(self) -> bool:
        return self.nintegral > 0

    def csc(self) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
        """A by columns: (start int32 of nvars + 1, row index int32, value float64), rows ascending in each column."""
        return _modelapi.matrix(self.handle, True)

    def csr(self) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
        """A by rows: (start int32 of nrows + 1, column index int32, value float64), in stored order."""
        return _modelapi.matrix(self.handle, False)

    def rows_in_place(self) -> tuple[np.ndarray, np.ndarray, np.ndarray] | None:
        """What csr() gives, as read-only views of the store, where its rows lie in one piece; else None."""
        return _modelapi.rows_in_place(self.handle)


@dataclass(frozen=True, slots=True, eq=False)
class Changes:
    """What changed since the last Changes.clear: what an engine that keeps its model has to be told.

    All arrays are the caller's own: positions as int32, each once.
    """

    structure: bool
    """Something was added, removed or retyped, or too much changed: load the model anew."""
    objconstant: bool
    sense: bool
    bounds: np.ndarray
    """Variables whose lb or ub changed."""
    costs: np.ndarray
    """Variables whose obj changed."""
    sides: np.ndarray
    """Rows whose lower or upper changed."""
    coefrows: np.ndarray
    coefvars: np.ndarray
    coefs: np.ndarray
    """Changed entries of A as (row, variable, present value)."""

    @classmethod
    def of(cls, handle: Any) -> Changes:
        return cls(**_modelapi.changes(handle))

    @staticmethod
    def clear(handle: Any) -> None:
        """From here on changes count anew: call it when the engine has been told."""
        _modelapi.clear_changes(handle)
