"""The native half of the Model: what moves arrays between Python and the store.

The functions take the model handle (`model._cmodel`). Those for engines work also while the model is marked as solving,
when everything else refuses; they raise TarvoError with code CLOSED for a closed model.
"""

import os
from collections.abc import Iterable, Sequence
from typing import Any, Self, overload

import numpy as np
import scipy.sparse
from numpy.typing import ArrayLike, NDArray

from tarvopy._core import (
    Constr,
    GenConstr,
    GenExpr,
    LinExpr,
    NLConstr,
    NLExpr,
    QConstr,
    QuadExpr,
    TempConstr,
    Var,
    _Number,
)
from tarvopy._matrixapi import MConstr, MGenConstr, MLinExpr, MNLConstr, MNLExpr, MQConstr, MQuadExpr, MVar

__version__: str

class _Read[T]:
    """An attribute of the model; NoDataError where it is not there yet."""

    @overload
    def __get__(self, model: None, owner: type) -> Self: ...
    @overload
    def __get__(self, model: object, owner: type) -> T: ...

class _ReadSet[T](_Read[T]):
    def __set__(self, model: object, value: T) -> None: ...

class ModelBase:
    """The native half of Model; the docstrings stand with the functions."""

    NumVars: _Read[int]
    NumConstrs: _Read[int]
    NumQConstrs: _Read[int]
    NumGenConstrs: _Read[int]
    NumNLConstrs: _Read[int]
    NumNZs: _Read[int]
    Status: _Read[int]
    ModelSense: _ReadSet[int]
    ModelName: _ReadSet[str]
    ObjConstant: _ReadSet[float]
    ObjVal: _Read[float]
    ObjBound: _Read[float]
    Gap: _Read[float]
    Runtime: _Read[float]
    IterCount: _Read[float]
    NodeCount: _Read[float]
    EngineName: _Read[str]

    def __init__(self, name: str = "") -> None: ...
    @property
    def _cmodel(self) -> Any: ...
    def addVar(
        self, lb: float = 0.0, ub: float = ..., obj: float = 0.0, vtype: str = "C", name: str | None = ""
    ) -> Var: ...
    def addMVar(
        self,
        shape: int | Sequence[int],
        lb: ArrayLike = 0.0,
        ub: ArrayLike = ...,
        obj: ArrayLike = 0.0,
        vtype: str | ArrayLike = "C",
        name: str | ArrayLike | None = "",
    ) -> MVar: ...
    @overload
    def addConstr[Handle](self, tempconstr: TempConstr[Handle], name: str | ArrayLike | None = "") -> Handle:
        """Constr, QConstr, NLConstr or GenConstr when both sides are scalar, else MConstr, MQConstr, MNLConstr or
        MGenConstr."""

    @overload
    def addConstr(self, tempconstr: GenExpr, name: str | ArrayLike | None = "") -> GenConstr | MGenConstr: ...
    def addSOS(
        self,
        kind: int,
        vars: Var | MVar | Sequence[Any] | NDArray[Any],
        weights: ArrayLike | None = None,
        name: str | ArrayLike | None = "",
    ) -> GenConstr: ...
    @overload
    def addRange(  # type: ignore[overload-overlap]
        self, expr: Var | LinExpr, lb: _Number, ub: _Number, name: str | ArrayLike | None = ""
    ) -> Constr: ...
    @overload
    def addRange(  # type: ignore[overload-overlap]
        self, expr: NLExpr, lb: _Number, ub: _Number, name: str | ArrayLike | None = ""
    ) -> NLConstr: ...
    @overload
    def addRange(
        self, expr: Var | LinExpr | MVar | MLinExpr, lb: ArrayLike, ub: ArrayLike, name: str | ArrayLike | None = ""
    ) -> MConstr: ...
    @overload
    def addRange(
        self, expr: NLExpr | MNLExpr, lb: ArrayLike, ub: ArrayLike, name: str | ArrayLike | None = ""
    ) -> MNLConstr: ...
    def setObjective(
        self,
        expr: float | Var | LinExpr | QuadExpr | NLExpr | MVar | MLinExpr | MQuadExpr | MNLExpr,
        sense: int | None = None,
    ) -> None: ...
    def update(self) -> None: ...
    def remove(self, what: Any) -> None: ...
    def getVars(self) -> list[Var]: ...
    def getConstrs(self) -> list[Constr]: ...
    def getQConstrs(self) -> list[QConstr]: ...
    def getGenConstrs(self) -> list[GenConstr]: ...
    def getNLConstrs(self) -> list[NLConstr]: ...
    def getVarByName(self, name: str) -> Var | None: ...
    def getConstrByName(self, name: str) -> Constr | None: ...
    def getQConstrByName(self, name: str) -> QConstr | None: ...
    def setCoeff(self, constr: Constr | MConstr, var: Var | MVar, value: ArrayLike) -> None: ...
    @overload
    def getCoeff(self, constr: Constr, var: Var) -> float: ...  # type: ignore[overload-overlap]
    @overload
    def getCoeff(self, constr: Constr | MConstr, var: Var | MVar) -> NDArray[np.float64]: ...
    def getA(self) -> scipy.sparse.csr_matrix: ...
    @overload
    def getRow(self, constr: Constr | MConstr) -> LinExpr: ...
    @overload
    def getRow(self, constr: QConstr | MQConstr) -> QuadExpr: ...
    def getAttr(self, attrname: str) -> Any: ...
    def setAttr(self, attrname: str, value: Any) -> None: ...
    def _attributes(self) -> list[str]: ...
    def _relax_into(self, target: ModelBase) -> None: ...
    def _fix_into(self, target: ModelBase) -> None: ...
    def _read(self, path: str | os.PathLike[str]) -> None: ...
    def _write(self, path: str | os.PathLike[str]) -> None: ...

# ---- for engines
def problem(handle: Any) -> dict[str, Any]:
    """Read-only views and numbers of the store by the field names of problem.Problem (without `handle`)."""

def matrix(handle: Any) -> tuple[NDArray[np.int32], NDArray[np.int32], NDArray[np.float64]]:
    """The matrix by rows, freshly made: (start, index, value)."""

def cheapest_matrix(handle: Any) -> tuple[NDArray[np.int32], NDArray[np.int32], NDArray[np.float64], bool]:
    """The matrix, read-only: (start, index, value, by columns or not). By rows where the store holds them in one piece
    that an engine turns as fast; values that stand in the order of columns in the store are a view of it."""

def hessian(handle: Any) -> tuple[NDArray[np.int32], NDArray[np.int32], NDArray[np.float64]]:
    """The objective's Hessian H (obj x + x'Hx/2), its upper triangle by columns: (start, index, value)."""

def write_nl(handle: Any, path: str | os.PathLike[str]) -> NDArray[np.int32]:
    """Writes the updated model as a binary .nl file. Which position each of the file's variables has in the model, -1
    for those that the file has besides.
    """

def qmatrix(
    handle: Any,
) -> tuple[
    NDArray[np.int32],
    NDArray[np.int32],
    NDArray[np.float64],
    NDArray[np.int32],
    NDArray[np.int32],
    NDArray[np.int32],
    NDArray[np.float64],
]:
    """The quadratic rows, freshly made: (start, index, value, qstart, qvar1, qvar2, qvalue)."""

def curvature(handle: Any) -> tuple[int, NDArray[np.int8]]:
    """The curvature of the objective and of each quadratic row, by the numbers of problem.LINEAR to ROUNDED."""

def cones(handle: Any) -> dict[str, Any]:
    """The quadratic rows as second-order cones by the field names of problem.Cones (without `handle`)."""

def stacked_columns(
    columns: int, blocks: Iterable[tuple[Any, Any, Any, Any, float]]
) -> tuple[NDArray[np.int32], NDArray[np.int32], NDArray[np.float64]]:
    """Blocks of rows, one under the other, as columns: (start, index, value), rows ascending in each column.

    A block is (start, index, value, chosen, sign): sign times the rows of a CSR matrix, int32 and float64, that the
    bool array chosen names (None: all). Where start, index and value are None, row i has one entry, sign in column i.
    TypeError for another dtype, ValueError for rows that do not fit, OverflowError from 2**31 entries on.
    """

def cone_duals(
    handle: Any, native: Any, s: NDArray[np.float64], z: NDArray[np.float64], qpi: NDArray[np.float64]
) -> None:
    """Writes the multipliers of the rows that are cones into qpi, from the cones' slacks s and duals z."""

def genmatrix(
    handle: Any,
) -> tuple[
    NDArray[np.int32],
    NDArray[np.int64],
    NDArray[np.int64],
    NDArray[np.int32],
    NDArray[np.float64],
    NDArray[np.float64],
    NDArray[np.int64],
    NDArray[np.float64],
]:
    """The general constraints, freshly made: (type, argptr, ptr, index, value, constant, dataptr, data)."""

def changes(handle: Any) -> dict[str, Any]:
    """What changed since clear_changes by the field names of problem.Changes."""

def clear_changes(handle: Any) -> None: ...
def open_solution(
    handle: Any,
) -> tuple[NDArray[np.float64], NDArray[np.float64], NDArray[np.float64], NDArray[np.float64]]:
    """Writable (x, rc, pi, qpi) by position, made anew by each call; the last solution stays until commit_solution."""

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
    noduals: str | None = None,
) -> None:
    """Makes the open arrays the model's solution.

    noduals: why there are no multipliers, as far as the model's variables do not say it. Figures that are not there are
    NaN (their default); objval and bound in the model's own sense.
    """

def residuals(handle: Any, has_duals: bool) -> dict[str, float | int]:
    """How well the open solution (else the last one) holds, by the field names of TRVresiduals in tarvo_engine.h."""

def offenders(handle: Any, has_duals: bool, figure: int, n: int) -> list[tuple[float, float, int]]:
    """The n elements that violate a figure most, worst first: (violation, scale, element), as many as there are.

    figure: 0 rows, 1 bounds, 2 integrality, 3 dual, 4 complementarity; element counts as in residuals.
    """

def element_name(handle: Any, kind: int, position: int) -> str:
    """The name of a variable (kind 1), linear (2) or quadratic row (4), general constraint (5) or nonlinear row (6) by
    its position.
    """

def evaluate_objective(handle: Any, x: NDArray[np.float64]) -> float:
    """The objective at x (float64 of nvars entries, by position), constant included."""

def undefined(handle: Any) -> tuple[int, str] | None:
    """The first nonlinear row (its position; the number of rows for the objective) with a part that is nowhere defined
    within the bounds of the variables, and the part ("the logarithm of what lies in [-5, -1]"); None where all may be.
    """

def set_solving(handle: Any, flag: bool) -> None:
    """Marks the model as being solved: all calls on it but the above are refused until it is unmarked."""

def is_solving(handle: Any) -> bool: ...
