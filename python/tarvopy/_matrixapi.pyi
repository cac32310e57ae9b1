"""Arrays of variables, linear expressions and constraints with NumPy's shapes, indexing, broadcasting and reductions.

Shapes are tuples as NumPy's; operands broadcast. Where an array operand stands, a SciPy sparse matrix may stand too.
"""

from collections.abc import Iterator, Sequence
from typing import Any, Literal, NoReturn, Protocol, Self, overload

import numpy as np
from numpy.typing import ArrayLike, NDArray

from ._core import (
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
    _HigherPower,
    _Number,
    _Numbers,
)

type _Shape = tuple[int, ...]
type _Axes = int | Sequence[int] | None
type _Constant = _Number | _Numbers
type _Linear = MVar | MLinExpr | Var | LinExpr
type _Quadratic = MQuadExpr | QuadExpr
type _Nonlinear = MNLExpr | NLExpr
type _Any = _Constant | _Linear | _Quadratic | _Nonlinear
type _Listed = Sequence[Any]  # comparisons take lists of numbers and of variables too

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

class _PrefetchedHandles(_Handles):
    def prefetchAttr(self, attrname: str) -> None:
        """Prepares reading an attribute in bulk; reading works without it."""

# The handle that a comparison gives in Model.addConstr goes by the degrees of its sides.
class _CompareLinear(Protocol):
    @overload
    def __call__(self, other: _Constant | _Linear, /) -> TempConstr[MConstr]: ...
    @overload
    def __call__(self, other: _Quadratic, /) -> TempConstr[MQConstr]: ...
    @overload
    def __call__(self, other: _Nonlinear, /) -> TempConstr[MNLConstr]: ...
    @overload
    def __call__(self, other: GenExpr, /) -> TempConstr[MGenConstr]: ...
    @overload
    def __call__(self, other: _Listed, /) -> TempConstr: ...

class _CompareQuadratic(Protocol):
    @overload
    def __call__(self, other: _Constant | _Linear | _Quadratic, /) -> TempConstr[MQConstr]: ...
    @overload
    def __call__(self, other: _Nonlinear, /) -> TempConstr[MNLConstr]: ...
    @overload
    def __call__(self, other: _Listed, /) -> TempConstr: ...

class _CompareNonlinear(Protocol):
    def __call__(self, other: _Any | _Listed, /) -> TempConstr[MNLConstr]: ...

# Sums and products by the degrees of their operands.
class _AddLinear(Protocol):
    @overload
    def __call__(self, other: _Constant | _Linear, /) -> MLinExpr: ...
    @overload
    def __call__(self, other: _Quadratic, /) -> MQuadExpr: ...
    @overload
    def __call__(self, other: _Nonlinear, /) -> MNLExpr: ...

class _AddQuadratic(Protocol):
    @overload
    def __call__(self, other: _Constant | _Linear | _Quadratic, /) -> MQuadExpr: ...
    @overload
    def __call__(self, other: _Nonlinear, /) -> MNLExpr: ...

class _MultiplyLinear(Protocol):
    @overload
    def __call__(self, other: _Constant, /) -> MLinExpr: ...
    @overload
    def __call__(self, other: _Linear, /) -> MQuadExpr: ...
    @overload
    def __call__(self, other: _Quadratic | _Nonlinear, /) -> MNLExpr: ...

class _MultiplyQuadratic(Protocol):
    @overload
    def __call__(self, other: _Constant, /) -> MQuadExpr: ...
    @overload
    def __call__(self, other: _Linear | _Quadratic | _Nonlinear, /) -> MNLExpr: ...

class _MatmulLinear(Protocol):
    @overload
    def __call__(self, other: _Numbers, /) -> MLinExpr: ...
    @overload
    def __call__(self, other: MVar | MLinExpr, /) -> MQuadExpr: ...
    @overload
    def __call__(self, other: MQuadExpr | MNLExpr, /) -> MNLExpr: ...

class _MatmulQuadratic(Protocol):
    @overload
    def __call__(self, other: _Numbers, /) -> MQuadExpr: ...
    @overload
    def __call__(self, other: MVar | MLinExpr | MQuadExpr | MNLExpr, /) -> MNLExpr: ...

class _MatmulNonlinear(Protocol):
    def __call__(self, other: _Numbers | MVar | MLinExpr | MQuadExpr | MNLExpr, /) -> MNLExpr: ...

class _Divide[Quotient](Protocol):
    @overload
    def __call__(self, other: _Number | NDArray[Any], /) -> Quotient: ...
    @overload
    def __call__(self, other: _Linear | _Quadratic | _Nonlinear, /) -> MNLExpr: ...

class _ToNonlinear(Protocol):
    def __call__(self, other: _Any, /) -> MNLExpr: ...

class _LinearOperators(_Array):
    __add__: _AddLinear
    __radd__: _AddLinear
    __sub__: _AddLinear
    __rsub__: _AddLinear
    __mul__: _MultiplyLinear
    __rmul__: _MultiplyLinear
    __truediv__: _Divide[MLinExpr]
    __rtruediv__: _ToNonlinear
    __rpow__: _ToNonlinear
    __matmul__: _MatmulLinear
    __rmatmul__: _MatmulLinear
    def __neg__(self) -> MLinExpr: ...
    def __pos__(self) -> Self: ...
    __le__: _CompareLinear
    __ge__: _CompareLinear
    __eq__: _CompareLinear  # type: ignore[assignment]
    def __ne__(self, rhs: Any) -> NoReturn: ...

class MVar(_LinearOperators, _PrefetchedHandles):
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

    @overload
    def __pow__(self, other: Literal[2]) -> MQuadExpr: ...
    @overload
    def __pow__(self, other: Literal[0, 1] | _HigherPower | _Linear | _Quadratic | _Nonlinear) -> MNLExpr: ...
    @overload
    def __pow__(self, other: _Constant) -> MQuadExpr | MNLExpr:
        """The square, whose exponent is a single 2, is an MQuadExpr, every other power an MNLExpr."""

    def __iter__(self) -> Iterator[MVar]: ...

class MLinExpr(_LinearOperators):
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

    def __setitem__(self, key: Any, value: _Constant | _Linear | _Listed) -> None:
        """Writes into the selected elements, seen by every view of them. A value that does not fit changes nothing."""

    def __iter__(self) -> Iterator[MLinExpr]: ...
    @overload
    def __pow__(self, other: Literal[0, 1]) -> MLinExpr: ...
    @overload
    def __pow__(self, other: Literal[2]) -> MQuadExpr: ...
    @overload
    def __pow__(self, other: _HigherPower | _Linear | _Quadratic | _Nonlinear) -> MNLExpr: ...
    @overload
    def __pow__(self, other: _Constant) -> MLinExpr | MQuadExpr | MNLExpr:
        """The powers whose exponent is a single 0, 1 or 2 are no MNLExpr."""

    __iadd__: _AddLinear
    __isub__: _AddLinear
    __imul__: _MultiplyLinear
    __itruediv__: _Divide[MLinExpr]

class MConstr(_PrefetchedHandles):
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

class MQuadExpr(_Array):
    """An array of quadratic expressions, from products of `MVar` and `MLinExpr`. In-place operators and assignment
    change it."""

    @staticmethod
    def zeros(shape: int | _Shape) -> MQuadExpr:
        """An array of zero expressions."""

    def sum(self, axis: _Axes = None) -> MQuadExpr:
        """Sums over the given axes, all of them by default. TarvoError for an axis that is not there."""

    def getValue(self) -> NDArray[np.float64]:
        """Values at the last solution, of the expression's shape; NoDataError where there is none."""

    def item(self) -> QuadExpr:
        """The only element as a new `QuadExpr`; ValueError for another size."""

    def copy(self) -> MQuadExpr: ...
    def clear(self) -> None:
        """Makes all elements 0 in place."""

    def __getitem__(self, obj: Any) -> MQuadExpr:
        """Any NumPy index; slices share their elements with this array, index arrays give copies."""

    def __setitem__(self, obj: Any, value: _Constant | _Linear | _Quadratic | _Listed) -> None:
        """Writes into the selected elements, seen by every view of them. A value that does not fit changes nothing."""

    def __iter__(self) -> Iterator[MQuadExpr]: ...
    __add__: _AddQuadratic
    __radd__: _AddQuadratic
    __iadd__: _AddQuadratic
    __sub__: _AddQuadratic
    __rsub__: _AddQuadratic
    __isub__: _AddQuadratic
    __mul__: _MultiplyQuadratic
    __rmul__: _MultiplyQuadratic
    __imul__: _MultiplyQuadratic
    __truediv__: _Divide[MQuadExpr]
    __itruediv__: _Divide[MQuadExpr]
    __rtruediv__: _ToNonlinear
    __pow__: _ToNonlinear
    """Always nonlinear; the exponent 2 gives squares."""
    __rpow__: _ToNonlinear
    __matmul__: _MatmulQuadratic
    __rmatmul__: _MatmulQuadratic
    def __neg__(self) -> MQuadExpr: ...
    def __pos__(self) -> MQuadExpr: ...
    __le__: _CompareQuadratic
    __ge__: _CompareQuadratic
    __eq__: _CompareQuadratic  # type: ignore[assignment]
    def __ne__(self, rhs: Any) -> NoReturn: ...

class MQConstr(_PrefetchedHandles):
    """An array of quadratic constraints, from `Model.addConstr` of an array comparison."""

    QRHS: _Doubles
    QName: _Texts
    @property
    def QSense(self) -> NDArray[Any]: ...
    @property
    def QPi(self) -> NDArray[np.float64]: ...
    @property
    def QSlack(self) -> NDArray[np.float64]: ...
    def __init__(self, qconstrarr: NDArray[Any]) -> None: ...
    @staticmethod
    def fromlist(constrlist: list[QConstr]) -> MQConstr:
        """A one-dimensional array of the given constraints; an element that is none is refused."""

    def tolist(self) -> Any: ...
    def item(self) -> QConstr: ...
    def __getitem__(self, obj: Any) -> MQConstr | QConstr:
        """Any NumPy index; a single element comes as `QConstr`."""

    def __iter__(self) -> Iterator[MQConstr | QConstr]: ...

class MGenConstr(_Handles):
    """An array of general constraints; their attributes can be used once the model was updated."""

    GenName: _Texts
    @property
    def GenType(self) -> NDArray[np.int32]: ...
    def __init__(self, constrarr: NDArray[Any]) -> None: ...
    @staticmethod
    def fromlist(constrlist: list[GenConstr]) -> MGenConstr:
        """A one-dimensional array of the given constraints; ValueError for anything else in the list."""

    def tolist(self) -> Any: ...
    def item(self) -> GenConstr: ...
    def __getitem__(self, obj: Any) -> MGenConstr | GenConstr:
        """Any NumPy index; a single element comes as `GenConstr`."""

    def __iter__(self) -> Iterator[MGenConstr | GenConstr]: ...

class MNLExpr(_Array):
    """An array of nonlinear expressions: of powers, divisions and products of expressions, and of the functions of
    `tarvopy.nlfunc`. In-place operators and assignment change it; the shape stays.
    """

    def __init__(self, nlearr: NDArray[Any]) -> None:
        """Wraps an object array of NLExpr, which is kept as it is."""

    def sum(self, axis: _Axes = None) -> MNLExpr:
        """Sums over the given axes, all of them by default. TarvoError for an axis that is not there."""

    def getValue(self) -> NDArray[np.float64]:
        """Values at the last solution, of the expression's shape; NoDataError where there is none. NaN or infinite
        outside a function's domain."""

    def item(self) -> NLExpr:
        """The only element as a new `NLExpr`; ValueError for another size."""

    def copy(self) -> MNLExpr: ...
    def __getitem__(self, obj: Any) -> MNLExpr:
        """Any NumPy index; slices share their elements with this array, index arrays give copies."""

    def __setitem__(self, obj: Any, value: _Any | _Listed) -> None:
        """Writes into the selected elements, seen by every view of them. A value that does not fit changes nothing."""

    def __iter__(self) -> Iterator[MNLExpr]: ...
    __add__: _ToNonlinear
    __radd__: _ToNonlinear
    __sub__: _ToNonlinear
    __rsub__: _ToNonlinear
    __mul__: _ToNonlinear
    __rmul__: _ToNonlinear
    __truediv__: _ToNonlinear
    __rtruediv__: _ToNonlinear
    __pow__: _ToNonlinear
    """The exponent 2 gives squares."""
    __rpow__: _ToNonlinear
    __matmul__: _MatmulNonlinear
    __rmatmul__: _MatmulNonlinear
    __iadd__: _ToNonlinear
    __isub__: _ToNonlinear
    __imul__: _ToNonlinear
    __itruediv__: _ToNonlinear
    __ipow__: _ToNonlinear
    def __neg__(self) -> MNLExpr: ...
    __le__: _CompareNonlinear
    __ge__: _CompareNonlinear
    __eq__: _CompareNonlinear  # type: ignore[assignment]
    def __ne__(self, other: Any) -> NoReturn: ...

class MNLConstr(_Handles):
    """An array of nonlinear constraints; their attributes can be used once the model was updated."""

    NLName: _Texts
    @property
    def NLSlack(self) -> NDArray[np.float64]: ...
    def __init__(self, constrarr: NDArray[Any]) -> None: ...
    @staticmethod
    def fromlist(constrlist: list[NLConstr]) -> MNLConstr:
        """A one-dimensional array of the given constraints; ValueError for anything else in the list."""

    def tolist(self) -> Any: ...
    def item(self) -> NLConstr: ...
    def __getitem__(self, obj: Any) -> MNLConstr | NLConstr:
        """Any NumPy index; a single element comes as `NLConstr`."""

    def __iter__(self) -> Iterator[MNLConstr | NLConstr]: ...

type _Joined = MVar | MLinExpr | NDArray[Any]  # what gives an MLinExpr; with expressions of a higher degree these

@overload
def concatenate(tup: Sequence[MVar], axis: int | None = 0) -> MVar: ...  # type: ignore[overload-overlap]
@overload
def concatenate(tup: Sequence[MConstr], axis: int | None = 0) -> MConstr: ...
@overload
def concatenate(tup: Sequence[MQConstr], axis: int | None = 0) -> MQConstr: ...
@overload
def concatenate(tup: Sequence[MGenConstr], axis: int | None = 0) -> MGenConstr: ...
@overload
def concatenate(tup: Sequence[_Joined], axis: int | None = 0) -> MLinExpr: ...  # type: ignore[overload-overlap]
@overload
def concatenate(tup: Sequence[_Joined | MQuadExpr], axis: int | None = 0) -> MQuadExpr: ...  # type: ignore[overload-overlap]
@overload
def concatenate(tup: Sequence[_Joined | MQuadExpr | MNLExpr], axis: int | None = 0) -> MNLExpr:
    """Joins like numpy.concatenate. Variables stay an MVar; mixed with expressions or arrays they give an MLinExpr, an
    MQuadExpr where one of them is quadratic, an MNLExpr where one is nonlinear."""

@overload
def hstack(tup: Sequence[MVar]) -> MVar: ...  # type: ignore[overload-overlap]
@overload
def hstack(tup: Sequence[MConstr]) -> MConstr: ...
@overload
def hstack(tup: Sequence[MQConstr]) -> MQConstr: ...
@overload
def hstack(tup: Sequence[MGenConstr]) -> MGenConstr: ...
@overload
def hstack(tup: Sequence[_Joined]) -> MLinExpr: ...  # type: ignore[overload-overlap]
@overload
def hstack(tup: Sequence[_Joined | MQuadExpr]) -> MQuadExpr: ...  # type: ignore[overload-overlap]
@overload
def hstack(tup: Sequence[_Joined | MQuadExpr | MNLExpr]) -> MNLExpr: ...
@overload
def vstack(tup: Sequence[MVar]) -> MVar: ...  # type: ignore[overload-overlap]
@overload
def vstack(tup: Sequence[MConstr]) -> MConstr: ...
@overload
def vstack(tup: Sequence[MQConstr]) -> MQConstr: ...
@overload
def vstack(tup: Sequence[MGenConstr]) -> MGenConstr: ...
@overload
def vstack(tup: Sequence[_Joined]) -> MLinExpr: ...  # type: ignore[overload-overlap]
@overload
def vstack(tup: Sequence[_Joined | MQuadExpr]) -> MQuadExpr: ...  # type: ignore[overload-overlap]
@overload
def vstack(tup: Sequence[_Joined | MQuadExpr | MNLExpr]) -> MNLExpr: ...
