"""Reads an OSiL file (XML) and builds the model with the package's own operators.

`read(path)` gives a Model. Linear and quadratic coefficients and the nonlinear functions that instances use are read;
matrices and cones are not.
"""

import operator
import xml.etree.ElementTree as ET
from functools import reduce
from pathlib import Path

import tarvopy
from nl_reader import add_row
from tarvopy import TRV, nlfunc

_OPERATIONS = {
    "sum": lambda *args: reduce(operator.add, args),
    "plus": operator.add,
    "minus": operator.sub,
    "product": lambda *args: reduce(operator.mul, args),
    "times": operator.mul,
    "divide": operator.truediv,
    "power": operator.pow,
    "negate": operator.neg,
    "square": lambda x: x**2,
    "ln": nlfunc.log,
    "exp": nlfunc.exp,
    "sqrt": nlfunc.sqrt,
}
_SPACE = "{os.optimizationservices.org}"
_OBJECTIVE = -1  # the row that an objective counts as


def read(path: Path) -> tarvopy.Model:
    """The model in a file."""
    data = ET.parse(path).getroot().find(f"{_SPACE}instanceData")
    m = tarvopy.Model(path.stem)
    x = [m.addVar(**_variable(element)) for element in data.iter(f"{_SPACE}var")]
    rows = list(data.iter(f"{_SPACE}con"))
    bodies = dict.fromkeys(range(_OBJECTIVE, len(rows)), 0.0)
    for row, place, value in _linear(data):
        bodies[row] += value * x[place]
    for term in data.iter(f"{_SPACE}qTerm"):
        first, second = x[int(term.get("idxOne"))], x[int(term.get("idxTwo"))]
        bodies[int(term.get("idx"))] += float(term.get("coef", 1)) * first * second
    for function in data.iter(f"{_SPACE}nl"):
        bodies[int(function.get("idx"))] += _expression(function[0], x)
    for row, element in enumerate(rows):
        _add_row(m, bodies[row], element)
    _set_objective(m, bodies[_OBJECTIVE], data.find(f"{_SPACE}objectives/{_SPACE}obj"), x)
    return m


def _variable(element: ET.Element) -> dict:
    kind = element.get("type", "C")
    low, high = (_number(element.get(side, default)) for side, default in (("lb", "0"), ("ub", "INF")))
    return {"lb": low, "ub": 1.0 if kind == "B" else high, "vtype": kind, "name": element.get("name", "")}


def _number(text: str) -> float:
    return float(text.replace("INF", "inf"))


def _linear(data: ET.Element):
    """(row, variable, coefficient) of each linear coefficient, stored by rows or by columns."""
    found = data.find(f"{_SPACE}linearConstraintCoefficients")
    if found is None:
        return
    by_rows = found.find(f"{_SPACE}colIdx") is not None
    starts = _array(found.find(f"{_SPACE}start"), int)
    minor = _array(found.find(f"{_SPACE}{'colIdx' if by_rows else 'rowIdx'}"), int)
    values = _array(found.find(f"{_SPACE}value"), float)
    for major in range(len(starts) - 1):
        for k in range(starts[major], starts[major + 1]):
            yield (major, minor[k], values[k]) if by_rows else (minor[k], major, values[k])


def _array(element: ET.Element, kind: type) -> list:
    """The numbers of an array whose runs are written as a multiplicity and an increment."""
    numbers = []
    for entry in element:
        first, step = kind(entry.text), kind(entry.get("incr", "0"))
        numbers += [first + k * step for k in range(int(entry.get("mult", "1")))]
    return numbers


def _expression(element: ET.Element, x: list):
    tag = element.tag.removeprefix(_SPACE)
    if tag == "number":
        return float(element.get("value"))
    if tag == "variable":
        return float(element.get("coef", "1")) * x[int(element.get("idx"))]
    return _OPERATIONS[tag](*[_expression(child, x) for child in element])


def _add_row(m: tarvopy.Model, body, element: ET.Element) -> None:
    constant = float(element.get("constant", "0"))
    low, high = (_number(element.get(side, none)) - constant for side, none in (("lb", "-INF"), ("ub", "INF")))
    add_row(m, body, low, high)


def _set_objective(m: tarvopy.Model, body, element: ET.Element, x: list) -> None:
    for coefficient in element:
        body += float(coefficient.text) * x[int(coefficient.get("idx"))]
    sense = TRV.MAXIMIZE if element.get("maxOrMin") == "max" else TRV.MINIMIZE
    m.setObjective(body + float(element.get("constant", "0")), sense)
