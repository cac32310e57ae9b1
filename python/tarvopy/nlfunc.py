"""Nonlinear functions of variables and expressions.

    from tarvopy import nlfunc
    m.addConstr(nlfunc.exp(x) + nlfunc.sqrt(y * z) <= 3)

Each takes a number, `Var`, `LinExpr`, `QuadExpr` or `NLExpr` and gives an `NLExpr`, or a matrix object and gives an
`MNLExpr` of its shape. A function may be built outside its domain (the logarithm of a negative constant); its value is
then NaN or infinite.
"""

from tarvopy._core import _abs as abs
from tarvopy._core import _cos as cos
from tarvopy._core import _exp as exp
from tarvopy._core import _log as log
from tarvopy._core import _log2 as log2
from tarvopy._core import _log10 as log10
from tarvopy._core import _logistic as logistic
from tarvopy._core import _sin as sin
from tarvopy._core import _sqrt as sqrt
from tarvopy._core import _tan as tan
from tarvopy._core import _tanh as tanh

__all__ = ["abs", "cos", "exp", "log", "log2", "log10", "logistic", "sin", "sqrt", "tan", "tanh"]
