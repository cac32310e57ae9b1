"""Runs a program on the package and tells what it leaves.

run(program, "flat")      objects are made on demand, and nothing asks for them before the end
run(program, "looked")    they are looked at in between
run(program, "eager")     they are made at once

Each checks outcomes and values against the reference, and returns the trace in which the three must agree: what every
step gave or refused, warnings, texts, states, and which elements and nodes are the same object.
"""

import copy
import warnings
from collections import Counter

import numpy as np
import scipy.sparse as sp

import tarvopy
from linear_values import Point
from nonlinear_trees import Numbering, values
from programs.literals import digits
from programs.reference import DEGREE, IN_PLACE, SIGNS, Refused, Thing, number_of
from programs.strategies import Program
from tarvopy import MLinExpr, MNLExpr, MQuadExpr, MVar, _debug, nlfunc
from tarvopy._core import NLExpr

REFUSALS = (ValueError, TypeError, IndexError, AttributeError, tarvopy.TarvoError)
tally = Counter()  # of all runs in this process
SENSES = {"<=": lambda a, b: a <= b, ">=": lambda a, b: a >= b, "==": lambda a, b: a == b}


class Run:
    def __init__(self):
        self.model = tarvopy.Model()
        self.things: list = []
        self.rows: list = []  # (handle, whether the comparison was turned round)

    # ---- steps, by the names that the reference has; each returns what it makes, or None

    def mvar(self, shape, pending):
        x = self.model.addMVar(shape)
        if not pending:
            self.model.update()
        return x

    def var(self):
        return self.model.addVar()

    def literal(self, description):
        return description.make()

    def objects(self, shape, members, seed):
        made, numbers = np.empty(shape, dtype=object), digits(shape, seed)
        for count, place in enumerate(np.ndindex(shape)):
            which = members[count % len(members)]
            made[place] = float(numbers[place]) if which is None else self.things[which]
        return made

    def scribble(self, i):
        self.things[i][...] = 1
        return self.things[i]

    def binary(self, sign, i, j):
        return SIGNS[sign](self.things[i], self.things[j])

    def in_place(self, sign, i, j):
        return IN_PLACE[sign](self.things[i], self.things[j])

    def negative(self, i):
        return -self.things[i]

    def positive(self, i):
        return +self.things[i]

    def function(self, name, i):
        return getattr(nlfunc, name)(self.things[i])

    def index(self, i, key):
        return self.things[i][key]

    def iterate(self, i, which):
        elements = list(self.things[i])
        return elements[which % len(elements)]

    def item(self, i):
        return self.things[i].item()

    def assign(self, i, key, j):
        self.things[i][key] = self.things[j]
        return self.things[i]

    def sum(self, i, axis):
        return self.things[i].sum(axis=axis)

    def join(self, how, members, axis):
        things = [self.things[i] for i in members]
        return getattr(tarvopy, how)(things, **({"axis": axis} if how == "concatenate" else {}))

    def copy(self, i, how):
        return self.things[i].copy() if how == "copy" else copy.deepcopy(self.things[i])

    def view(self, i, method, arguments, keywords):
        made = getattr(self.things[i], method)
        return made(*arguments, **keywords) if callable(made) else made

    def as_nonlinear(self, i):
        return self.things[i].nl

    def clear(self, i):
        self.things[i].clear()
        return self.things[i]

    def show(self, i):
        self.shown = str(self.things[i])

    def tidy(self, i, method):
        getattr(self.things[i], method)()

    def constraint(self, sense, i, j):
        compared = SENSES[sense](self.things[i], self.things[j])
        self.rows.append((self.model.addConstr(compared), compared.lhs is not self.things[i]))

    # ---- one step

    def apply(self, step, expected) -> tuple:
        self.shown = ""
        made, refusal = self.attempt(step)
        if isinstance(expected, Refused):
            assert refusal, f"{step} is not refused ({expected.reason}) but gives {made!r}"
            return type(refusal).__name__, str(refusal)
        if refusal:
            raise AssertionError(f"{step} is refused: {type(refusal).__name__}: {refusal}") from refusal
        if isinstance(expected, tuple):  # a new one
            kind, shape = expected
            literal = kind not in DEGREE
            assert literal or type(made).__name__ == kind, f"{step} gives a {type(made).__name__} instead of a {kind}"
            assert getattr(made, "shape", ()) == shape, f"{step} gives the shape {made.shape} instead of {shape}"
            self.things.append(made)
        elif expected is not None:
            assert made is self.things[expected], f"{step} gives another object"
        return type(made).__name__, self.shown

    def attempt(self, step):
        try:
            return getattr(self, step[0])(*step[1:]), None
        except REFUSALS as refusal:
            return None, refusal


def look_at(thing):
    """As somebody does who is curious about elements."""
    if isinstance(thing, MNLExpr):
        thing._nlearr
    elif isinstance(thing, MVar):
        thing._vararr
    elif isinstance(thing, MLinExpr):
        thing._matmulparts if thing._is_compact() else thing._learr
    elif isinstance(thing, MQuadExpr):
        thing._quadparts if thing._is_compact() else thing._qearr
        look_at(thing._ndle)


# ---- what is left in the end


def linear_value(element, numbers) -> float:
    return element.getConstant() + sum(c * numbers[v.index] for c, v in element.terms())


def quadratic_value(element, numbers) -> float:
    quadratic = sum(c * numbers[a.index] * numbers[b.index] for c, a, b in element.terms())
    return quadratic + linear_value(element.getLinExpr(), numbers)


def value(thing, numbers) -> np.ndarray:
    """What the elements stand for, read off their terms."""
    if isinstance(thing, MVar):
        return numbers[thing._idxarr()]
    if isinstance(thing, tarvopy.Var):
        return np.array(numbers[thing.index])
    if isinstance(thing, tarvopy.LinExpr):
        return np.array(linear_value(thing, numbers))
    if isinstance(thing, tarvopy.QuadExpr):
        return np.array(quadratic_value(thing, numbers))
    if isinstance(thing, MNLExpr | NLExpr):
        return values(thing, numbers)
    full = thing.copy()
    full._convert_to_full()
    if isinstance(thing, MLinExpr):
        return of_elements(linear_value, full._learr, numbers)
    full._ndle._convert_to_full()
    return of_elements(quadratic_value, full._qearr, numbers) + of_elements(linear_value, full._ndle._learr, numbers)


def of_elements(function, elements, numbers) -> np.ndarray:
    return np.array([function(element, numbers) for element in elements.flat], float).reshape(elements.shape)


def assert_near(found: np.ndarray, wanted: np.ndarray, what: str):
    """As numpy.testing has it, in a tenth of its time."""
    assert found.shape == wanted.shape, f"{what} has the shape {found.shape} instead of {wanted.shape}"
    assert (np.abs(found - wanted) <= 1e-7 * (1 + np.abs(wanted))).all(), f"{what} is {found} instead of {wanted}"


def assert_literal_kept(thing, expected: Thing):
    if expected.kind == "Objects":
        assert thing.shape == expected.shape
        return
    if sp.issparse(thing):
        assert thing.format == expected.data.format
        thing, expected = thing.toarray(), expected.data.toarray()
    else:
        expected = expected.data
    np.testing.assert_array_equal(thing, expected)


def check_values(run: Run, things: list[Thing], numbers):
    for count, (thing, expected) in enumerate(zip(run.things, things, strict=True)):
        if expected.kind not in DEGREE:
            assert_literal_kept(thing, expected)
            continue
        wanted = expected.numbers
        assert_near(value(thing, numbers), wanted, f"thing {count}")
        solved = thing.X if isinstance(thing, MVar | tarvopy.Var) else thing.getValue()
        assert_near(np.asarray(solved), wanted, f"getValue of thing {count}")


def check_rows(run: Run, rows):
    for (handle, turned), (sense, degree, difference) in zip(run.rows, rows, strict=True):
        attribute = {1: "Slack", 2: "QSlack", 3: "NLSlack"}[degree]
        slack = np.asarray(getattr(handle, attribute)) * (1 if turned else -1)
        assert_near(slack, difference, f"row {sense}")
        senses = getattr(handle, "Sense", getattr(handle, "QSense", sense[0])) if degree < 3 else sense[0]
        wanted = {"<": ">", ">": "<"}.get(sense[0], "=") if turned else sense[0]
        assert degree == 3 or set(np.ravel(senses)) <= {wanted}


def check_all_as_rows(run: Run, things: list[Thing]):
    """Every expression that is left goes into the model as rows, whatever form it has by now."""
    for count, thing in enumerate(things):
        if thing.degree and thing.kind != "Objects" and thing.numbers.size:
            handle = run.model.addConstr(run.things[count] <= 0.25)
            run.rows.append((handle, False))
            yield "<=", thing.degree, thing.numbers - 0.25


def described(thing, numbering: Numbering):
    """Type, shape, state, text, and the numbers of the elements."""
    if not isinstance(thing, MVar | MLinExpr | MQuadExpr | MNLExpr):
        tree = numbering.of_tree(thing._root) if isinstance(thing, NLExpr) else None
        return type(thing).__name__, "" if isinstance(thing, np.ndarray) else str(thing), tree, id_in(thing, numbering)
    text = str(thing)
    state = sorted(name for name, held in vars(thing).items() if held is not None)
    name = {MVar: "_vararr", MLinExpr: "_learr", MQuadExpr: "_qearr", MNLExpr: "_nlearr"}[type(thing)]
    elements = getattr(thing, name)
    identities = None if elements is None else [numbering.of_object(element) for element in elements.flat]
    trees = [numbering.of_tree(e._root) for e in elements.flat] if isinstance(thing, MNLExpr) else None
    halves = described(thing._ndle, numbering) if isinstance(thing, MQuadExpr) else None
    return type(thing).__name__, thing.shape, state, text, identities, trees, halves


def id_in(thing, numbering):
    return numbering.of_object(thing) if isinstance(thing, tarvopy.Var | tarvopy.LinExpr | tarvopy.QuadExpr) else None


def check_identities(run: Run, things: list[Thing]):
    """Elements are the same object where the reference's cells are the same."""
    ours, cells = {}, {}
    for thing, expected in zip(run.things, things, strict=True):
        name = {"MVar": "_vararr", "MLinExpr": "_learr", "MQuadExpr": "_qearr", "MNLExpr": "_nlearr"}.get(expected.kind)
        elements = getattr(thing, name) if name else None
        if elements is None:
            continue
        assert [ours.setdefault(id(e), len(ours)) for e in elements.flat] == [
            cells.setdefault(id(cell), len(cells)) for cell in expected.data.flat
        ]


def run(program: Program, way: str) -> list:
    tally["programs"] += way == "flat"
    tally["steps"] += len(program.steps) * (way == "flat")
    tally["refused"] += sum(isinstance(e, Refused) for e in program.expected) * (way == "flat")
    _debug.eager(way == "eager")
    try:
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            run = Run()
            trace = []
            for count, (step, expected) in enumerate(zip(program.steps, program.expected, strict=True)):
                if way == "looked" and count in program.looks:
                    look_at(run.things[program.looks[count]])
                trace.append(run.apply(step, expected))
            numbers = np.array([number_of(k) for k in range(program.variables)])
            Point(run.model, numbers)
            check_values(run, program.things, numbers)
            check_rows(run, program.rows)
            numbering = Numbering()
            trace += [described(thing, numbering) for thing in run.things]
            check_identities(run, program.things)
            trace += [numbering.nodes, [(w.category.__name__, str(w.message)) for w in caught]]
            rows = [*program.rows, *check_all_as_rows(run, program.things)]
            Point(run.model, numbers)
            check_rows(run, rows)
    finally:
        _debug.eager(False)
    return trace
