"""General functions for equations, and indicator constraints; see the functions' own docstrings."""

from collections.abc import Sequence
from typing import Any

from numpy.typing import ArrayLike

from tarvopy._core import GenExpr, LinExpr, TempConstr, Var, _Number
from tarvopy._matrixapi import MLinExpr, MVar

type _Argument = _Number | Var | LinExpr | MVar | MLinExpr | ArrayLike | Sequence[Any]

def max(*args: _Argument, axis: int | tuple[int, ...] | None = None) -> GenExpr:
    """The largest of the arguments, element by element; of one array over all elements or over the axes."""

def min(*args: _Argument, axis: int | tuple[int, ...] | None = None) -> GenExpr:
    """The smallest of the arguments; see max."""

def all(*args: _Argument, axis: int | tuple[int, ...] | None = None) -> GenExpr:
    """1 where all arguments (binary variables, 0 and 1) are 1, else 0; see max."""

def any(*args: _Argument, axis: int | tuple[int, ...] | None = None) -> GenExpr:
    """1 where at least one argument is 1, else 0; see all."""

def abs(x: _Argument) -> GenExpr:
    """The absolute value, element by element."""

def pwl(x: _Argument, xpts: ArrayLike, ypts: ArrayLike) -> GenExpr:
    """The piecewise-linear function through the points; the outer pieces go on beyond them."""

def indicator(binary: Var | MVar | ArrayLike | Sequence[Any], value: ArrayLike, tempconstr: TempConstr) -> GenExpr:
    """binary == value implies the comparison."""
