"""Nonlinear functions of variables and expressions, scalar or matrix."""

from typing import Protocol, overload

from tarvopy._core import LinExpr, NLExpr, QuadExpr, Var, _Number
from tarvopy._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar

class _Function(Protocol):
    @overload
    def __call__(self, x: _Number | Var | LinExpr | QuadExpr | NLExpr, /) -> NLExpr: ...
    @overload
    def __call__(self, x: MVar | MLinExpr | MQuadExpr | MNLExpr, /) -> MNLExpr: ...

abs: _Function
cos: _Function
exp: _Function
log: _Function
log2: _Function
log10: _Function
logistic: _Function
sin: _Function
sqrt: _Function
tan: _Function
tanh: _Function
