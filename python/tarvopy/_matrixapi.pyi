"""Arrays of variables, linear expressions and constraints with NumPy's shapes, indexing, broadcasting and reductions.

Shapes are tuples as NumPy's; operands broadcast. Where an array operand stands, a SciPy sparse matrix may stand too.
"""

from collections.abc import Iterator, Sequence
from typing import Any, NoReturn, Self, overload

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._core import Constr, LinExpr, TempConstr, Var

type _Shape = tuple[int, ...]
type _Axes = int | tuple[int, ...] | None
type _Linear = MVar | MLinExpr | Var | LinExpr
type _Operand = ArrayLike | _Linear | Any  # Any: sparse matrices, for which SciPy has no common type

class _Doubles:
    """A double attribute of each element. Setting takes one value or an array of the handle's shape."""

    @overload
    def __get__(self, handle: None, owner: type) -> _Doubles: ...
    @overload
    def __get__(self, handle: object, owner: type) -> NDArray[np.float64]: ...
    def __set__(self, handle: object, value: ArrayLike) -> None: ...

class _Texts:
    """A string or character attribute of each element. Setting takes one string or an array of the handle's shape."""

    @overload
    def __get__(self, handle: None, owner: type) -> _Texts: ...
    @overload
    def __get__(self, handle: object, owner: type) -> NDArray[Any]: ...
    def __set__(self, handle: object, value: ArrayLike) -> None: ...

class _Array:
    @property
    def shape(self) -> _Shape: ...
    @property
    def ndim(self) -> int: ...
    @property
    def size(self) -> int: ...

class _Handles(_Array):
    def getAttr(self, attrname: str) -> NDArray[Any]:
        """An attribute of all elements as an array of the handle's shape. AttributeError for one of another kind."""

    def setAttr(self, attrname: str, value: ArrayLike) -> None:
        """Sets an attribute from one value or an array of the handle's shape; on an error nothing has changed."""

    def prefetchAttr(self, attrname: str) -> None:
        """Prepares reading an attribute in bulk; reading works without it."""

class _Operators(_Array):
    def __add__(self, other: _Operand) -> MLinExpr: ...
    def __radd__(self, other: _Operand) -> MLinExpr: ...
    def __sub__(self, other: _Operand) -> MLinExpr: ...
    def __rsub__(self, other: _Operand) -> MLinExpr: ...
    def __mul__(self, other: ArrayLike) -> MLinExpr: ...
    def __rmul__(self, other: ArrayLike) -> MLinExpr: ...
    def __truediv__(self, other: ArrayLike) -> MLinExpr: ...
    def __matmul__(self, other: ArrayLike) -> MLinExpr: ...
    def __rmatmul__(self, other: ArrayLike) -> MLinExpr: ...
    def __neg__(self) -> MLinExpr: ...
    def __pos__(self) -> Self: ...
    def __le__(self, rhs: _Operand) -> TempConstr: ...
    def __ge__(self, rhs: _Operand) -> TempConstr: ...
    def __eq__(self, rhs: _Operand) -> TempConstr: ...  # type: ignore[override]
    def __ne__(self, rhs: _Operand) -> NoReturn: ...  # type: ignore[override]

class MVar(_Operators, _Handles):
    """An array of variables, from `Model.addMVar`. Operations give new arrays of the same variables."""

    LB: _Doubles
    UB: _Doubles
    Obj: _Doubles
    VType: _Texts
    VarName: _Texts
    Start: _Doubles
    @property
    def X(self) -> NDArray[np.float64]: ...
    @property
    def RC(self) -> NDArray[np.float64]: ...
    def __init__(self, arr: Any) -> None: ...
    @staticmethod
    def fromlist(varlist: list[Var]) -> MVar:
        """A one-dimensional array of the given variables; ValueError names an element that is none."""

    @staticmethod
    def fromvar(var: Var) -> MVar:
        """A 0-dimensional array of one variable."""

    @property
    def T(self) -> MVar: ...
    @property
    def nl(self) -> MNLExpr:
        """The same variables as a nonlinear expression."""

    def copy(self) -> MVar: ...
    def tolist(self) -> Any:
        """Nested lists of Var; a single Var for a 0-dimensional array."""

    def item(self) -> Var:
        """The variable of a one-element array."""

    def transpose(self, *axes: Any) -> MVar: ...
    def reshape(self, *shape: Any, order: str = "C") -> MVar: ...
    def diagonal(self, offset: int = 0, axis1: int = 0, axis2: int = 1) -> MVar: ...
    def sum(self, axis: _Axes = None) -> MLinExpr:
        """Sums over the given axes, all of them by default. TarvoError for an axis that is not there."""

    def __getitem__(self, obj: Any) -> MVar:
        """Any NumPy index; always an MVar, 0-dimensional for a single element."""

    def __iter__(self) -> Iterator[MVar]: ...

class MLinExpr(_Operators):
    """An array of linear expressions, from arithmetic on `MVar`. In-place operators and assignment change it."""

    @staticmethod
    def zeros(shape: int | _Shape) -> MLinExpr:
        """An array of zero expressions."""

    def sum(self, axis: _Axes = None) -> MLinExpr:
        """Sums over the given axes, all of them by default. TarvoError for an axis that is not there."""

    def getValue(self) -> NDArray[np.float64]:
        """Values at the last solution, of the expression's shape; NoDataError where there is none."""

    def getConstant(self) -> NDArray[np.float64]: ...
    def item(self) -> LinExpr: ...
    def copy(self) -> MLinExpr: ...
    def clear(self) -> None:
        """Makes all elements 0 in place."""

    def __getitem__(self, obj: Any) -> MLinExpr:
        """Any NumPy index; the result shares its elements with this array."""

    def __setitem__(self, key: Any, value: _Operand) -> None:
        """Writes into the selected elements, seen by every view of them. A value that does not fit changes nothing."""

    def __iter__(self) -> Iterator[MLinExpr]: ...
    def __iadd__(self, other: _Operand) -> Self: ...
    def __isub__(self, other: _Operand) -> Self: ...
    def __imul__(self, other: ArrayLike) -> Self: ...
    def __itruediv__(self, other: ArrayLike) -> Self: ...

class MConstr(_Handles):
    """An array of linear constraints, from `Model.addConstr` of an array comparison."""

    RHS: _Doubles
    Sense: _Texts
    Lower: _Doubles
    Upper: _Doubles
    ConstrName: _Texts
    @property
    def Pi(self) -> NDArray[np.float64]: ...
    @property
    def Slack(self) -> NDArray[np.float64]: ...
    def __init__(self, constrarr: NDArray[Any]) -> None: ...
    @staticmethod
    def fromlist(constrlist: list[Constr]) -> MConstr:
        """A one-dimensional array of the given constraints; an element that is none is refused."""

    def tolist(self) -> Any: ...
    def item(self) -> Constr: ...
    def __getitem__(self, obj: Any) -> MConstr | Constr:
        """Any NumPy index; a single element comes as `Constr`."""

    def __iter__(self) -> Iterator[MConstr | Constr]: ...

class MQuadExpr(_Array): ...
class MQConstr(_Handles): ...
class MGenConstr(_Handles): ...
class MNLExpr(_Array): ...
class MNLConstr(_Handles): ...

@overload
def concatenate(tup: Sequence[MVar], axis: int | None = 0) -> MVar: ...
@overload
def concatenate(tup: Sequence[MConstr], axis: int | None = 0) -> MConstr: ...
@overload
def concatenate(tup: Sequence[MVar | MLinExpr | NDArray[Any]], axis: int | None = 0) -> MLinExpr:
    """Joins like numpy.concatenate. Variables stay an MVar; mixed with expressions or arrays they give an MLinExpr."""

@overload
def hstack(tup: Sequence[MVar]) -> MVar: ...
@overload
def hstack(tup: Sequence[MConstr]) -> MConstr: ...
@overload
def hstack(tup: Sequence[MVar | MLinExpr | NDArray[Any]]) -> MLinExpr: ...
@overload
def vstack(tup: Sequence[MVar]) -> MVar: ...
@overload
def vstack(tup: Sequence[MConstr]) -> MConstr: ...
@overload
def vstack(tup: Sequence[MVar | MLinExpr | NDArray[Any]]) -> MLinExpr: ...
