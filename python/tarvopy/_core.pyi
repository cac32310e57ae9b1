"""The scalar objects: variables, linear, quadratic and nonlinear expressions, constraint handles and what comparisons
give.

Programs get them from a Model, from `MVar.item()` and the like, and from arithmetic. The general types exist so that
they can be named; what makes them comes with those model classes. Operations whose result is of a degree above two,
divisions by an expression and powers other than 0, 1 and 2 give an NLExpr.
"""

from collections.abc import Iterable, Iterator
from typing import Any, Literal, NoReturn, Protocol, overload

import numpy as np
from numpy.typing import NDArray

from ._matrixapi import MConstr, MLinExpr, MNLConstr, MNLExpr, MQConstr, MQuadExpr, MVar

class _Sparse(Protocol):
    """A SciPy sparse matrix of any format."""

    def tocsr(self) -> Any: ...

type _Number = float | np.floating[Any] | np.integer[Any] | np.bool_
type _Numbers = NDArray[Any] | _Sparse
type _Linear = Var | LinExpr
type _Quadratic = Var | LinExpr | QuadExpr
type _Expression = Var | LinExpr | QuadExpr | NLExpr
type _Matrix = MVar | MLinExpr | MQuadExpr | MNLExpr
type _HigherPower = Literal[-3, -2, -1, 3, 4, 5, 6, 7, 8, 9]

class _Double:
    """A double attribute of a handle; -inf and inf where there is none."""

    @overload
    def __get__(self, handle: None, owner: type) -> _Double: ...
    @overload
    def __get__(self, handle: object, owner: type) -> float: ...
    def __set__(self, handle: object, value: _Number) -> None: ...

class _Text:
    """A string attribute of a handle, or one of a few characters."""

    @overload
    def __get__(self, handle: None, owner: type) -> _Text: ...
    @overload
    def __get__(self, handle: object, owner: type) -> str: ...
    def __set__(self, handle: object, value: str) -> None: ...

class _Model:
    """The native handle that owns a model's store; `Model._cmodel` and every object of the model refer to it."""

    def __init__(self, name: str = "") -> None: ...
    def _close(self) -> None:
        """Frees the store; what still refers to the model raises from here on. Refused while an engine runs."""

    @property
    def _closed(self) -> bool: ...
    _solving: bool
    """Whether an engine runs on the model. Until it is False again every use of the store is refused, so whoever runs
    the engine clears it before reading the solution."""

class _Handle(Protocol):
    @property
    def index(self) -> int:
        """Position in the model; -1 while the update is awaited, -2 or less once removed."""

    @property
    def _cmodel(self) -> _Model: ...
    def getAttr(self, attrname: str) -> Any:
        """An attribute by name. NoDataError where it is not there yet, TarvoError once the element is removed."""

    def setAttr(self, attrname: str, value: Any) -> None:
        """Sets an attribute; it acts at once."""

# The handle that a comparison gives in Model.addConstr goes by the degrees of its sides and by whether one is an array.
class _CompareLinear(Protocol):
    @overload
    def __call__(self, other: _Number | _Linear, /) -> TempConstr[Constr]: ...
    @overload
    def __call__(self, other: QuadExpr, /) -> TempConstr[QConstr]: ...
    @overload
    def __call__(self, other: NLExpr, /) -> TempConstr[NLConstr]: ...
    @overload
    def __call__(self, other: _Numbers | MVar | MLinExpr, /) -> TempConstr[MConstr]: ...
    @overload
    def __call__(self, other: MQuadExpr, /) -> TempConstr[MQConstr]: ...
    @overload
    def __call__(self, other: MNLExpr, /) -> TempConstr[MNLConstr]: ...
    @overload
    def __call__(self, other: GenExpr, /) -> TempConstr: ...

class _CompareQuadratic(Protocol):
    @overload
    def __call__(self, other: _Number | _Quadratic, /) -> TempConstr[QConstr]: ...
    @overload
    def __call__(self, other: NLExpr, /) -> TempConstr[NLConstr]: ...
    @overload
    def __call__(self, other: _Numbers | MVar | MLinExpr | MQuadExpr, /) -> TempConstr[MQConstr]: ...
    @overload
    def __call__(self, other: MNLExpr, /) -> TempConstr[MNLConstr]: ...
    @overload
    def __call__(self, other: GenExpr, /) -> TempConstr: ...

class _CompareNonlinear(Protocol):
    @overload
    def __call__(self, other: _Number | _Expression, /) -> TempConstr[NLConstr]: ...
    @overload
    def __call__(self, other: _Numbers | _Matrix, /) -> TempConstr[MNLConstr]: ...
    @overload
    def __call__(self, other: GenExpr, /) -> TempConstr: ...

class _AddLinear(Protocol):
    @overload
    def __call__(self, other: _Number | _Linear, /) -> LinExpr: ...
    @overload
    def __call__(self, other: QuadExpr, /) -> QuadExpr: ...
    @overload
    def __call__(self, other: NLExpr, /) -> NLExpr: ...
    @overload
    def __call__(self, other: _Numbers, /) -> MLinExpr: ...

class _AddQuadratic(Protocol):
    @overload
    def __call__(self, other: _Number | _Quadratic, /) -> QuadExpr: ...
    @overload
    def __call__(self, other: NLExpr, /) -> NLExpr: ...
    @overload
    def __call__(self, other: _Numbers, /) -> MQuadExpr: ...

class _MultiplyLinear(Protocol):
    @overload
    def __call__(self, other: _Number, /) -> LinExpr: ...
    @overload
    def __call__(self, other: _Linear, /) -> QuadExpr:
        """The terms of the left side in turn, each times all of the right side's."""

    @overload
    def __call__(self, other: QuadExpr | NLExpr, /) -> NLExpr: ...
    @overload
    def __call__(self, other: _Numbers, /) -> MLinExpr: ...

class _MultiplyQuadratic(Protocol):
    @overload
    def __call__(self, other: _Number, /) -> QuadExpr: ...
    @overload
    def __call__(self, other: _Expression, /) -> NLExpr: ...
    @overload
    def __call__(self, other: _Numbers, /) -> MQuadExpr: ...

class _Divide[Quotient, Quotients](Protocol):
    @overload
    def __call__(self, other: _Number, /) -> Quotient: ...
    @overload
    def __call__(self, other: _Expression, /) -> NLExpr: ...
    @overload
    def __call__(self, other: NDArray[Any], /) -> Quotients: ...

class _Nonlinear(Protocol):
    @overload
    def __call__(self, other: _Number | _Expression, /) -> NLExpr: ...
    @overload
    def __call__(self, other: _Numbers, /) -> MNLExpr: ...

class _LinearOperators:
    __le__: _CompareLinear
    __ge__: _CompareLinear
    __eq__: _CompareLinear  # type: ignore[assignment]
    def __ne__(self, other: Any) -> NoReturn: ...

    __add__: _AddLinear
    __radd__: _AddLinear
    __sub__: _AddLinear
    __rsub__: _AddLinear
    __mul__: _MultiplyLinear
    __rmul__: _MultiplyLinear
    __truediv__: _Divide[LinExpr, MLinExpr]
    __rtruediv__: _Nonlinear
    __rpow__: _Nonlinear
    def __neg__(self) -> LinExpr: ...

class Var(_LinearOperators, _Handle):
    """One variable of a model: the same object wherever it is seen, so `is`, hashing and dictionaries work."""

    LB: _Double
    UB: _Double
    Obj: _Double
    VType: _Text
    VarName: _Text
    Start: _Double
    @property
    def X(self) -> float: ...
    @property
    def RC(self) -> float: ...
    @property
    def _colno(self) -> int: ...
    def __pos__(self) -> Var: ...
    @overload
    def __pow__(self, exponent: Literal[0]) -> LinExpr: ...
    @overload
    def __pow__(self, exponent: Literal[1]) -> Var: ...
    @overload
    def __pow__(self, exponent: Literal[2]) -> QuadExpr: ...
    @overload
    def __pow__(self, exponent: _HigherPower | _Expression) -> NLExpr: ...
    @overload
    def __pow__(self, exponent: _Number) -> Var | LinExpr | QuadExpr | NLExpr: ...
    @overload
    def __pow__(self, exponent: _Numbers) -> MQuadExpr | MNLExpr: ...
    def __ne__(self, other: Any) -> bool:  # type: ignore[override]
        """Whether two variables differ; TarvoError for expressions and numbers."""

    def __hash__(self) -> int: ...

class LinExpr(_LinearOperators):
    """A linear expression: coefficients, variables and a constant. Mutable; duplicates are kept until a row is stored.

    `LinExpr()` is 0; a number, Var or LinExpr is copied; two sequences are coefficients and variables.
    """

    @overload
    def __init__(self, arg: _Number | _Linear = 0.0) -> None: ...
    @overload
    def __init__(self, arg: Iterable[_Number], vars: Iterable[Var]) -> None: ...
    @overload
    def __init__(self, *, coeffs: Iterable[_Number], vars: Iterable[Var]) -> None: ...
    def __pos__(self) -> LinExpr: ...
    @overload
    def __pow__(self, exponent: Literal[0, 1]) -> LinExpr: ...
    @overload
    def __pow__(self, exponent: Literal[2]) -> QuadExpr: ...
    @overload
    def __pow__(self, exponent: _HigherPower | _Expression) -> NLExpr: ...
    @overload
    def __pow__(self, exponent: _Number) -> LinExpr | QuadExpr | NLExpr: ...
    @overload
    def __pow__(self, exponent: _Numbers) -> MQuadExpr | MNLExpr: ...
    # A new object where the result is of a higher degree.
    __iadd__: _AddLinear
    __isub__: _AddLinear
    __imul__: _MultiplyLinear
    __itruediv__: _Divide[LinExpr, MLinExpr]
    def terms(self) -> Iterator[tuple[float, Var]]:
        """(coefficient, variable) in stored order, as they are now."""

    def size(self) -> int:
        """The number of stored terms, duplicates and zeros counted."""

    def getConstant(self) -> float: ...
    def getValue(self) -> float:
        """The value at the last solution; NoDataError where there is none."""

    def add(self, expr: _Number | _Linear, mult: _Number = 1.0) -> None:
        """Adds `mult` times `expr` in place."""

    def addTerms(self, coeffs: _Number | Iterable[_Number], vars: Var | Iterable[Var]) -> None:
        """Appends terms in place; both of one length, or one of each. On an error nothing is appended."""

    def clear(self) -> None: ...
    def copy(self) -> LinExpr: ...
    def _flatten(self) -> None: ...
    def _normalize(self) -> None:
        """Merges the terms of each variable at its first occurrence and drops zero coefficients."""

    def _mul(self, factor: _Number, /) -> None:
        """Scales in place."""

class QuadExpr:
    """A quadratic expression: terms of two variables each, and a linear part of its own. Mutable.

    Terms stand as they were added, x*y and y*x apart, until a row or objective is stored. `QuadExpr()` is 0; a number,
    Var, LinExpr or QuadExpr is copied.
    """

    def __init__(self, arg: _Number | _Quadratic = 0.0) -> None: ...
    __le__: _CompareQuadratic
    __ge__: _CompareQuadratic
    __eq__: _CompareQuadratic  # type: ignore[assignment]
    def __ne__(self, other: Any) -> NoReturn: ...

    __add__: _AddQuadratic
    __radd__: _AddQuadratic
    __sub__: _AddQuadratic
    __rsub__: _AddQuadratic
    __mul__: _MultiplyQuadratic
    __rmul__: _MultiplyQuadratic
    __truediv__: _Divide[QuadExpr, MQuadExpr]
    __rtruediv__: _Nonlinear
    __rpow__: _Nonlinear
    @overload
    def __pow__(self, exponent: Literal[0]) -> LinExpr: ...
    @overload
    def __pow__(self, exponent: Literal[1]) -> QuadExpr: ...
    @overload
    def __pow__(self, exponent: _HigherPower | _Expression) -> NLExpr: ...
    @overload
    def __pow__(self, exponent: _Number) -> LinExpr | QuadExpr | NLExpr: ...
    @overload
    def __pow__(self, exponent: _Numbers) -> MNLExpr: ...
    def __neg__(self) -> QuadExpr: ...
    def __pos__(self) -> QuadExpr: ...
    __iadd__: _AddQuadratic
    __isub__: _AddQuadratic
    __imul__: _MultiplyQuadratic
    __itruediv__: _Divide[QuadExpr, MQuadExpr]
    def terms(self) -> Iterator[tuple[float, Var, Var]]:
        """(coefficient, first variable, second variable) of the quadratic terms in stored order, as they are now."""

    def size(self) -> int:
        """The number of stored quadratic terms, duplicates and zeros counted."""

    def getLinExpr(self) -> LinExpr:
        """The linear part, constant included: the expression's own object, so that changes of it show here."""

    def getValue(self) -> float:
        """The value at the last solution, linear part included; NoDataError where there is none."""

    def add(self, expr: _Number | _Quadratic, mult: _Number = 1.0) -> None:
        """Adds `mult` times `expr` in place."""

    def addTerms(
        self, coeffs: _Number | Iterable[_Number], vars1: Var | Iterable[Var], vars2: Var | Iterable[Var]
    ) -> None:
        """Appends `coeffs[k] * vars1[k] * vars2[k]` in place; all of one length, or one coefficient for all pairs.

        On an error nothing is appended.
        """

    def clear(self) -> None:
        """Makes the expression 0, its linear part too."""

    def copy(self) -> QuadExpr: ...
    def _flatten(self) -> None: ...
    def _normalize(self) -> None:
        """Merges the terms of each pair, in either order, at its first occurrence; drops zero coefficients."""

    def _mul(self, factor: _Number, /) -> None:
        """Scales in place."""

class Constr(_Handle):
    """One linear row of a model. A two-sided row has the sense "R" and its upper side as RHS."""

    @property
    def _rowno(self) -> int: ...

    RHS: _Double
    Sense: _Text
    Lower: _Double
    Upper: _Double
    ConstrName: _Text
    @property
    def Pi(self) -> float: ...
    @property
    def Slack(self) -> float: ...

class TempConstr[Handle = Any]:
    """What a comparison gives: both sides and the sense, unchanged. `Model.addConstr` takes it."""

    @property
    def lhs(self) -> Any: ...
    @property
    def sense(self) -> Literal["<", ">", "="]: ...
    @property
    def rhs(self) -> Any: ...
    def __init__(self, lhs: Any, sense: str, rhs: Any) -> None: ...
    def __bool__(self) -> bool:
        """Whether two variables compared with == are the same one. TarvoError for every other comparison."""

class QConstr(_Handle):
    """One quadratic row of a model."""

    @property
    def _qconstrno(self) -> int: ...

    QRHS: _Double
    QName: _Text
    @property
    def QSense(self) -> Literal["<", ">", "="]: ...
    @property
    def QPi(self) -> float: ...
    @property
    def QSlack(self) -> float: ...

class GenConstr(_Handle):
    """One general constraint of a model: its kind is GenType, one of TRV.GEN_MAX, TRV.GEN_MIN, ..."""

    @property
    def _genconstrno(self) -> int: ...

    GenName: _Text
    @property
    def GenType(self) -> int: ...

class GenExpr:
    """A general function of variables, immutable; the functions of `tarvopy.genfunc` make it.

    It stands on one side of an equation (`y == genfunc.max(x, 3.0)`), or, as an indicator, goes to `Model.addConstr` as
    it is. TypeError for every other operator and comparison.
    """

    def __init__(self, name: str, args: Iterable[Any], axis: tuple[int, ...] | None = None) -> None: ...
    @property
    def name(self) -> str:
        """The function's name in tarvopy.genfunc."""

    @property
    def args(self) -> tuple[Any, ...]:
        """The arguments as they were when the function was called."""

    @property
    def axis(self) -> tuple[int, ...] | None:
        """The axes of the one array argument over which the function goes; None where it goes over the arguments."""

    def __eq__(self, other: object) -> TempConstr: ...  # type: ignore[override]

class NLConstr(_Handle):
    """One nonlinear constraint of a model."""

    @property
    def _nlconstrno(self) -> int: ...

    NLName: _Text
    @property
    def NLSlack(self) -> float: ...

class NLExpr:
    """A nonlinear expression: the mutable holder of an expression tree. Operators share the trees of their operands.

    Around an `_ExprTree`, or of the value of a number, Var, LinExpr, QuadExpr or NLExpr. In-place operators change the
    holder, so others who have it see the change.
    """

    def __init__(self, arg: _Number | _Expression | _ExprTree = 0.0) -> None: ...
    @property
    def _root(self) -> _ExprTree:
        """The tree; can be set to another."""

    @_root.setter
    def _root(self, tree: _ExprTree) -> None: ...
    def getValue(self) -> float:
        """The value at the last solution; NoDataError where there is none. NaN or infinite outside a domain."""

    def copy(self) -> NLExpr:
        """A new expression around the same tree; changing one does not change the other."""

    @staticmethod
    def _from_constant(value: _Number, /) -> NLExpr: ...
    @staticmethod
    def _from_var(var: Var, /) -> NLExpr: ...
    @staticmethod
    def _coerce_to_exprtree(value: _Number | _Expression | _ExprTree, /) -> _ExprTree: ...
    __le__: _CompareNonlinear
    __ge__: _CompareNonlinear
    __eq__: _CompareNonlinear  # type: ignore[assignment]
    def __ne__(self, other: Any) -> NoReturn: ...

    __add__: _Nonlinear
    __radd__: _Nonlinear
    __sub__: _Nonlinear
    __rsub__: _Nonlinear
    __mul__: _Nonlinear
    __rmul__: _Nonlinear
    __truediv__: _Nonlinear
    __rtruediv__: _Nonlinear
    __pow__: _Nonlinear
    """The exponent 2 makes a square, every other one a power."""
    __rpow__: _Nonlinear
    def __neg__(self) -> NLExpr: ...
    def __pos__(self) -> NLExpr: ...
    __iadd__: _Nonlinear
    __isub__: _Nonlinear
    __imul__: _Nonlinear
    __itruediv__: _Nonlinear
    __ipow__: _Nonlinear

class _ExprTree:
    """A node of an expression tree. It never changes, so expressions share it; equal only to itself."""

    @property
    def op(self) -> str:
        """ "constant", "variable", "plus" (two or more operands), "minus", "multiply", "divide", "pow", "uminus",
        "square", or the name of a function of `tarvopy.nlfunc`."""

    @property
    def args(self) -> tuple[_ExprTree, ...]:
        """The operands; none for a leaf."""

    @property
    def data(self) -> float | Var | None:
        """The number of a constant, the variable of a variable."""

    @staticmethod
    def _from_constant(value: _Number, /) -> _ExprTree: ...
    @staticmethod
    def _from_var(var: Var, /) -> _ExprTree: ...
    @staticmethod
    def _from_linexpr(expr: LinExpr, /) -> _ExprTree: ...
    @staticmethod
    def _from_quadexpr(expr: QuadExpr, /) -> _ExprTree: ...
    @staticmethod
    def _linexpr_terms(expr: LinExpr, /) -> list[_ExprTree]: ...
    @staticmethod
    def _quadexpr_terms(expr: QuadExpr, /) -> list[_ExprTree]: ...
    @staticmethod
    def _from_plus(*trees: _ExprTree) -> _ExprTree:
        """The sum: of one tree that tree itself, of none the constant 0."""

    @staticmethod
    def _from_minus(left: _ExprTree, right: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_multiply(left: _ExprTree, right: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_divide(left: _ExprTree, right: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_pow(base: _ExprTree, exponent: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_uminus(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_square(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_sqrt(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_exp(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_log(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_log2(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_log10(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_sin(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_cos(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_tan(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_tanh(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_logistic(tree: _ExprTree, /) -> _ExprTree: ...
    @staticmethod
    def _from_abs(tree: _ExprTree, /) -> _ExprTree: ...

def _quicksum(iterable: Iterable[Any]) -> LinExpr | QuadExpr | NLExpr | Any:
    """The sum of numbers, variables and expressions in one pass: a QuadExpr where a quadratic one is among them, an
    NLExpr where a nonlinear one is (in one sum, after the other terms), a matrix expression where matrix objects take
    part."""

def _counts() -> dict[str, int]:
    """Living objects by type name."""
