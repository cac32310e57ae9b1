"""Reads an .nl file (text form) and builds the model with the package's own operators, one expression at a time.

`read(path)` gives a Model. What instances of continuous and integer variables need is read: sums, products, quotients,
powers and the usual functions, linear parts, ranges, bounds. Defined variables, imported functions and logical
constraints are not.
"""

import math
import operator
from collections.abc import Callable
from functools import reduce
from pathlib import Path

import tarvopy
from tarvopy import TRV, nlfunc

_BINARY = {0: operator.add, 1: operator.sub, 2: operator.mul, 3: operator.truediv, 5: operator.pow}
_UNARY = {
    15: nlfunc.abs, 16: operator.neg, 37: nlfunc.tanh, 38: nlfunc.tan, 39: nlfunc.sqrt, 41: nlfunc.sin,
    42: nlfunc.log10, 43: nlfunc.log, 44: nlfunc.exp, 46: nlfunc.cos,
}  # fmt: skip
_SUM = 54


class _Lines:
    """The lines of a file without their comments."""

    def __init__(self, path: Path) -> None:
        self._lines = iter([line.split("#")[0].split() for line in path.read_text().splitlines()])

    def next(self) -> list[str]:
        return next(self._lines, [])

    def pairs(self, count: int, second: Callable) -> list[tuple]:
        rows = [self.next() for _ in range(count)]
        return [(int(first), second(other)) for first, other in rows]


def read(path: Path) -> tarvopy.Model:
    """The model in a file that starts with `g`."""
    lines = _Lines(path)
    if not lines.next()[0].startswith("g"):
        raise ValueError(f"{path.name}: not in the text form")
    header = [[int(number) for number in lines.next()] for _ in range(9)]
    nvars, nrows = header[0][:2]
    bodies, objective, sense = [0.0] * nrows, 0.0, TRV.MINIMIZE
    linear, gradient, bounds, sides = {}, [], [], []
    m = tarvopy.Model(path.stem)
    x = [m.addVar(lb=-math.inf, vtype=kind) for kind in _types(header)]
    while line := lines.next():
        kind, number = line[0][0], line[0][1:]
        if kind == "C":
            bodies[int(number)] = _expression(lines, x)
        elif kind == "O":
            sense = TRV.MAXIMIZE if line[1] == "1" else TRV.MINIMIZE
            objective = _expression(lines, x)
        elif kind == "r":
            sides = [_interval(lines.next()) for _ in range(nrows)]
        elif kind == "b":
            bounds = [_interval(lines.next()) for _ in range(nvars)]
        elif kind == "J":
            linear[int(number)] = lines.pairs(int(line[1]), float)
        elif kind == "G":
            gradient = lines.pairs(int(line[1]), float)
        elif kind in "kxd":  # column counts, starts, multipliers: what a reader may leave out
            for _ in range(int(number)):
                lines.next()
        else:
            raise ValueError(f"{path.name}: segments {line[0]!r} are not read")
    for variable, (low, high) in zip(x, bounds, strict=True):
        variable.LB, variable.UB = low, high
    for row, (body, (low, high)) in enumerate(zip(bodies, sides, strict=True)):
        add_row(m, body + _terms(linear.get(row, []), x), low, high)
    m.setObjective(objective + _terms(gradient, x), sense)
    return m


def _types(header: list[list[int]]) -> str:
    """A letter a variable: nonlinear ones first (in rows and objective, in rows, in the objective), their integer ones
    at the end of each group; then linear ones, binary ones and other integer ones.
    """
    in_rows, in_objective, in_both = header[3][:3]
    binary, integer, *nonlinear_integer = header[5][:5]
    text, edges = "", (0, in_both, in_rows, max(in_rows, in_objective))
    for low, high, integers in zip(edges, edges[1:], nonlinear_integer, strict=False):
        text += "C" * (high - low - integers) + "I" * integers
    return text + "C" * (header[0][0] - len(text) - binary - integer) + "B" * binary + "I" * integer


def _expression(lines: _Lines, x: list):
    """The expression that starts at the next line. Prefix order is worked off from its end, without recursion."""
    tokens, missing = [], 1
    while missing:
        token = lines.next()[0]
        kind, number = token[0], token[1:]
        operands = 0
        if kind == "o":
            code = int(number)
            operands = int(lines.next()[0]) if code == _SUM else 2 if code in _BINARY else 1
        tokens.append((kind, number, operands))
        missing += operands - 1
    stack = []
    for kind, number, operands in reversed(tokens):
        if kind == "o":
            arguments = [stack.pop() for _ in range(operands)]
            stack.append(_apply(int(number), arguments))
        else:
            stack.append(x[int(number)] if kind == "v" else float(number))
    return stack.pop()


def _apply(code: int, arguments: list):
    if code == _SUM:
        return reduce(operator.add, arguments)
    return (_BINARY.get(code) or _UNARY[code])(*arguments)


def _terms(pairs: list[tuple[int, float]], x: list):
    return tarvopy.quicksum(coefficient * x[place] for place, coefficient in pairs if coefficient)


def _interval(words: list[str]) -> tuple[float, float]:
    """The bounds in a line of the segments r and b: 0 both, 1 upper, 2 lower, 3 none, 4 equal."""
    kind, values = words[0], [float(word) for word in words[1:]]
    low = values[0] if kind in "024" else -math.inf
    high = values[-1] if kind in "014" else math.inf
    return low, high


def add_row(m: tarvopy.Model, body, low: float, high: float) -> None:
    """low <= body <= high, of any degree."""
    if low == high:
        m.addConstr(body == low)
        return
    if low > -math.inf:
        m.addConstr(body >= low)
    if high < math.inf:
        m.addConstr(body <= high)
