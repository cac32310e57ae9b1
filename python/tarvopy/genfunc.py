"""General functions: constraints y = f(x) that no formula of smooth functions says.

    from tarvopy import genfunc
    m.addConstr(y == genfunc.max(x, 3.0))
    m.addConstr(peak == genfunc.max(load, axis=1))          # load: MVar of shape (n, 24), peak: n
    m.addConstr(cost == genfunc.pwl(x, [0, 10, 20], [0, 5, 20]))
    m.addConstr(genfunc.indicator(on, 0, output <= 0))

Each function but `indicator` gives a `GenExpr` that stands on one side of an equation; the other side may be a
variable, a linear expression or a number, scalar or an array. Both sides broadcast as those of any comparison: scalars
on both sides give a `GenConstr`, arrays an `MGenConstr` of the broadcast shape, one constraint for each element.

Arguments are variables and linear expressions (scalar, matrix, or an array or list of scalar ones) and numbers. What
is quadratic or nonlinear needs a variable of its own: `m.addConstr(v == x * x)`, then v. Expressions are taken as they
are when the function is called.

The functions bear the names of Python's own, so use them through the module.
"""

from __future__ import annotations

import builtins
import math
from typing import Any

from tarvopy._core import GenExpr, LinExpr, NLExpr, QuadExpr, TempConstr, Var
from tarvopy._util import _isscalar

__all__ = ["abs", "all", "any", "indicator", "max", "min", "pwl"]


def max(*args: Any, axis: Any = None) -> GenExpr:
    """The largest of the arguments.

    Several arguments: element by element, broadcast. One list of scalars stands for its elements. One array: over all
    its elements (a scalar), or over the given axis or axes, as numpy.max. TypeError for no arguments, for an axis
    beside several and for what is not linear; ValueError for an array without elements.
    """
    return _over_arguments("max", args, axis)


def min(*args: Any, axis: Any = None) -> GenExpr:
    """The smallest of the arguments; see max."""
    return _over_arguments("min", args, axis)


def all(*args: Any, axis: Any = None) -> GenExpr:
    """1 where all arguments are 1, else 0; arguments and axis as in max.

    The arguments, and the other side of the equation, are binary variables and the numbers 0 and 1. For the negation
    of a binary b add another one, n == 1 - b. That the variables are binary is looked at when the model is solved.
    """
    return _over_arguments("all", args, axis)


def any(*args: Any, axis: Any = None) -> GenExpr:
    """1 where at least one argument is 1, else 0; see all."""
    return _over_arguments("any", args, axis)


def abs(x: Any) -> GenExpr:
    """The absolute value, element by element."""
    return GenExpr("abs", (_taken("abs", x),))


def pwl(x: Any, xpts: Any, ypts: Any) -> GenExpr:
    """The piecewise-linear function through the points (xpts[k], ypts[k]), element by element of x.

    xpts, ypts: two sequences of the same length, two numbers at least, xpts not decreasing. Left of the first point
    and right of the last the outer pieces go on, so [0, 1], [0, 2] is 2 x everywhere; bound x to end the function.
    Two points of the same x are a jump, at which every value from one to the other is taken: a lower semi-continuous
    cost takes the lower one when it is minimised. A jump may not stand at an end, nor hold more than two points; the
    model refuses such points, and those that are not finite or out of order, when it gets the equation.
    """
    points, values = _points(xpts, "xpts"), _points(ypts, "ypts")
    if len(points) != len(values):
        raise ValueError(f"genfunc.pwl() needs as many xpts as ypts, not {len(points)} and {len(values)}")
    return GenExpr("pwl", (_taken("pwl", x), points, values))


def indicator(binary: Any, value: Any, tempconstr: TempConstr) -> GenExpr:
    """The constraint that binary == value implies the comparison; give it to addConstr as it is.

        m.addConstr(genfunc.indicator(on, 1, x + y <= 3))

    binary: a binary variable, or an array of them; value: 0 or 1 (or False or True, or an array of these); tempconstr:
    a comparison of linear expressions with <=, >= or ==. The three broadcast. That the variables are binary is looked
    at when the model is solved. TypeError for what is no comparison or no number; other values are refused by the
    model.
    """
    if not isinstance(tempconstr, TempConstr):
        advice = ": it was evaluated before, so no variable took part" if isinstance(tempconstr, bool) else ""
        raise TypeError(
            f"genfunc.indicator() takes a comparison as its third argument, not {_kind(tempconstr)}{advice}"
        )
    lhs, rhs = _taken("indicator", tempconstr.lhs), _taken("indicator", tempconstr.rhs)
    comparison = TempConstr(lhs, tempconstr.sense, rhs)
    taken = value if _isscalar(value) else _numbers("indicator", value, "value")
    return GenExpr("indicator", (_taken("indicator", binary), taken, comparison))


# ---- arguments


def _kind(argument: Any) -> str:
    return f"'{type(argument).__name__}'"


def _not_linear(function: str, argument: Any, advice: str = "") -> TypeError:
    return TypeError(
        f"genfunc.{function}() takes variables, linear expressions and numbers, not {_kind(argument)}{advice}"
    )


def _taken(function: str, argument: Any) -> Any:
    """The argument as it stands now: a copy of what can change. TypeError for what is of a degree above one."""
    if isinstance(argument, Var) or _isscalar(argument):
        return argument
    if isinstance(argument, LinExpr):
        return argument.copy()
    if isinstance(argument, GenExpr):
        raise _not_linear(
            function, argument, f": add a variable v with addConstr(v == genfunc.{argument.name}(...)) and use v"
        )
    return _taken_array(function, argument)


def _taken_array(function: str, argument: Any) -> Any:
    import numpy as np

    from tarvopy._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar, _dense

    if isinstance(argument, MVar):
        return argument
    if isinstance(argument, MLinExpr):
        return argument.copy()
    if isinstance(argument, QuadExpr | NLExpr | MQuadExpr | MNLExpr):
        raise _not_linear(function, argument, ": add a variable v with addConstr(v == expression) and use v")
    if isinstance(argument, list | tuple):
        _require_scalars(function, argument)
        array = np.array(argument, dtype=object)
    elif isinstance(argument, np.ndarray) or hasattr(argument, "__array__"):
        _require_size(function, argument)
        array = np.array(argument)
    elif hasattr(argument, "toarray"):
        array = _dense(argument)
    else:
        raise _not_linear(function, argument)
    if array.dtype == object:
        array.flat = [_taken_element(function, element) for element in array.flat]
    return array


def _taken_element(function: str, element: Any) -> Any:
    if isinstance(element, list | tuple):
        raise ValueError(f"genfunc.{function}() takes nested lists of one length, as NumPy does")
    return _taken(function, element)


def _require_scalars(function: str, sequence: list[Any] | tuple[Any, ...]) -> None:
    """A list within others that holds arrays could mean several things."""
    for element in sequence:
        if isinstance(element, list | tuple):
            _require_scalars(function, element)
        elif not _isscalar(element) and hasattr(element, "ndim"):
            raise TypeError(
                f"genfunc.{function}() takes lists of scalars, not of {_kind(element)}: give the arrays as arguments "
                "of their own, or join them first (tarvopy.vstack)"
            )


def _over_arguments(function: str, args: tuple[Any, ...], axis: Any) -> GenExpr:
    if len(args) == 1 and axis is None and isinstance(args[0], list | tuple):
        if not args[0]:
            raise ValueError(f"genfunc.{function}() of no elements")
        if not builtins.any(isinstance(element, list | tuple) for element in args[0]):
            args = tuple(args[0])
    if not args:
        raise TypeError(f"genfunc.{function}() takes one argument at least")
    taken = tuple(_taken(function, argument) for argument in args)
    if axis is not None and len(taken) > 1:
        raise TypeError(f"genfunc.{function}() takes an axis beside one array, not beside {len(taken)} arguments")
    shape = getattr(taken[0], "shape", None) if len(taken) == 1 and not _isscalar(taken[0]) else None
    if shape is None:
        if axis is not None:
            raise TypeError(f"genfunc.{function}() takes an axis beside one array, not beside {_kind(taken[0])}")
        return GenExpr(function, taken)
    axes = _axes(axis, len(shape))
    if not builtins.all(shape[i] for i in axes):
        raise ValueError(f"genfunc.{function}() of no elements: an array of shape {shape}, axis {axis}")
    return GenExpr(function, taken, axes)


def _axes(axis: Any, ndim: int) -> tuple[int, ...]:
    from numpy.lib.array_utils import normalize_axis_tuple

    return tuple(range(ndim)) if axis is None else tuple(map(int, normalize_axis_tuple(axis, ndim)))


# ---- numbers


def _require_size(function: str, given: Any) -> None:
    """A broadcast view of one number may be larger than all memory once it is copied."""
    shape = getattr(given, "shape", ())
    if isinstance(shape, tuple) and math.prod(shape) > 2**31:
        raise ValueError(f"genfunc.{function}() takes at most 2**31 elements, not an array of shape {shape}")


def _numbers(function: str, given: Any, name: str) -> Any:
    """A copy as float64. NumPy alone would read texts as numbers, and drop imaginary parts."""
    import numpy as np

    _require_size(function, given)
    try:
        array = np.array(given)
    except ValueError:
        raise ValueError(
            f"genfunc.{function}() takes {name} as a sequence of numbers, not of unlike sequences"
        ) from None
    if array.dtype.kind not in "biuf":
        for element in array.flat:
            if not _isscalar(element):
                raise TypeError(f"genfunc.{function}() takes numbers as {name}, not {_kind(element)}")
    return array.astype(np.float64)


def _points(given: Any, name: str) -> Any:
    points = _numbers("pwl", given, name)
    if points.ndim != 1:
        raise ValueError(f"genfunc.pwl() takes {name} as one sequence of numbers, not of shape {points.shape}")
    points.flags.writeable = False
    return points
