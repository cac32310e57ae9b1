"""The native half of the Model: what moves arrays between Python and the store.

The functions take the model handle (`model._cmodel`). Those for engines work also while the model is marked as solving,
when everything else refuses; they raise TarvoError with code CLOSED for a closed model.
"""

from typing import Any

import numpy as np
from numpy.typing import NDArray

# ---- for engines
def problem(handle: Any) -> dict[str, Any]:
    """Read-only views and numbers of the store by the field names of problem.Problem (without `handle`)."""

def matrix(handle: Any, csc: bool) -> tuple[NDArray[np.int32], NDArray[np.int32], NDArray[np.float64]]:
    """The matrix by columns or by rows, freshly made: (start, index, value)."""

def changes(handle: Any) -> dict[str, Any]:
    """What changed since clear_changes by the field names of problem.Changes."""

def clear_changes(handle: Any) -> None: ...
def open_solution(handle: Any) -> tuple[NDArray[np.float64], NDArray[np.float64], NDArray[np.float64]]:
    """Writable (x, rc, pi) by position, made anew by each call; the last solution stays until commit_solution."""

def commit_solution(
    handle: Any,
    *,
    status: int,
    has_x: bool = False,
    has_duals: bool = False,
    objval: float = ...,
    bound: float = ...,
    gap: float = ...,
    runtime: float = 0.0,
    itercount: float = 0.0,
    nodecount: float = 0.0,
    engine: str = "",
) -> None:
    """Makes the open arrays the model's solution.

    Figures that are not there are NaN (their default); objval and bound in the model's own sense.
    """

def residuals(handle: Any, has_duals: bool) -> dict[str, float | int]:
    """How well the open solution (else the last one) holds, by the field names of TRVresiduals in tarvo.h."""

def evaluate_objective(handle: Any, x: NDArray[np.float64]) -> float:
    """The objective at x (float64 of nvars entries, by position), constant included."""

def set_solving(handle: Any, flag: bool) -> None:
    """Marks the model as being solved: all calls on it but the above are refused until it is unmarked."""

def is_solving(handle: Any) -> bool: ...
