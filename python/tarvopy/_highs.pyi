"""HiGHS through its C interface: arrays in, arrays out. What statuses and parameters mean stands in engines/highs.py.

Arrays are one-dimensional, contiguous and of exactly the types below; another form is a TypeError, another length a
ValueError. What HiGHS refuses is a HighsError.
"""

from os import PathLike
from typing import Any

import numpy as np
from numpy.typing import NDArray

type _Doubles = NDArray[np.float64]
type _Positions = NDArray[np.int32]

class HighsError(RuntimeError):
    """What HiGHS refuses or fails at."""

def open_library(path: str | PathLike[str]) -> None:
    """Opens libhighs.so for this process; what is open already stays."""

def version() -> str | None:
    """Version of the open library, None while none is open."""

class Solver:
    """One HiGHS instance. While it runs, all but wait, progress, take_log, interrupt and running are refused."""

    def load(
        self,
        sense: int,
        offset: float,
        obj: _Doubles,
        lb: _Doubles,
        ub: _Doubles,
        vtype: NDArray[np.bytes_] | None,
        lower: _Doubles,
        upper: _Doubles,
        start: _Positions,
        index: _Positions,
        value: _Doubles,
        by_columns: bool = True,
    ) -> None:
        """Hands a whole model over; HiGHS copies it. vtype (dtype "S1") None or all b"C" is a pure LP."""

    def counts(self) -> tuple[int, int, int, int]:
        """(columns, rows, nonzeros, Hessian nonzeros) as HiGHS holds them."""

    def change_bounds(self, positions: _Positions, lb: _Doubles, ub: _Doubles) -> None:
        """Positions ascend; lb and ub are the full arrays."""

    def change_costs(self, positions: _Positions, obj: _Doubles) -> None: ...
    def change_sides(self, positions: _Positions, lower: _Doubles, upper: _Doubles) -> None: ...
    def change_coefs(self, rows: _Positions, vars: _Positions, values: _Doubles) -> None: ...
    def change_objective(self, sense: int, offset: float) -> None: ...
    def read(self, path: str | PathLike[str]) -> None:
        """HiGHS' own file reader."""

    def model(self) -> dict[str, Any]:
        """The model as HiGHS holds it, the matrix by columns."""

    def set_option(self, name: str, value: Any) -> None:
        """ValueError for an unknown name or a refused value, TypeError for one of another type."""

    def get_option(self, name: str) -> Any: ...
    def reset_options(self) -> None: ...
    def set_start(self, values: _Doubles) -> int:
        """Where a tree search may begin, NaN where nothing is known; returns how many values are known."""

    def start(self, keep_log: bool = False, tree_iterations: float = ...) -> None:
        """Runs HiGHS on a thread of its own and returns at once."""

    def wait(self, seconds: float) -> bool:
        """True once the run is over; other Python threads run meanwhile."""

    def progress(self) -> tuple[float, float, float | None, float | None, float | None]:
        """(seconds, iterations, nodes, incumbent, bound)."""

    def take_log(self) -> str: ...
    def interrupt(self) -> None: ...
    @property
    def running(self) -> bool: ...
    def result(self) -> dict[str, Any]: ...
    def solution(self, x: _Doubles | None, rc: _Doubles | None, pi: _Doubles | None) -> None:
        """Writes into the arrays that are given."""
