"""What programs mean: the same steps on numbers, with NumPy.

Every element of an array of variables or expressions is a Cell with one number. Arrays of cells are indexed, joined and
reshaped by NumPy itself, so that the cells also tell which elements have to be the same object. What an operator makes
of the numbers is what NumPy makes of them. Each way in which the package differs from NumPy has its reason here.

Reference().apply(step)    Refused, a Thing (new or changed), or None for a step that gives nothing; raises Meaningless
Thing(kind, data)          kind: "MVar", "LinExpr", "Array", ...; data: cells, or the literal itself
"""

import copy
import operator
from typing import NamedTuple

import numpy as np
import scipy.sparse as sp

from nonlinear_trees import FUNCTIONS
from programs.literals import Array, Number, Sparse, digits

MATRIX = {1: "MLinExpr", 2: "MQuadExpr", 3: "MNLExpr"}
SCALAR = {1: "LinExpr", 2: "QuadExpr", 3: "NLExpr"}
DEGREE = {"MVar": 1, "Var": 1, **{name: d for kinds in (MATRIX, SCALAR) for d, name in kinds.items()}}
SIGNS = {
    "+": operator.add,
    "-": operator.sub,
    "*": operator.mul,
    "/": operator.truediv,
    "**": operator.pow,
    "@": operator.matmul,
}
IN_PLACE = {
    "+": operator.iadd,
    "-": operator.isub,
    "*": operator.imul,
    "/": operator.itruediv,
    "**": operator.ipow,
    "@": operator.imatmul,
}
LARGEST = 1e5  # beyond it rounding errors of sums and powers would need a tolerance that hides faults


class Meaningless(Exception):
    """A step that says nothing here, or whose numbers leave the range in which rounding stays small."""


class Refused(NamedTuple):
    reason: str


class Cell:
    __slots__ = ("value",)

    def __init__(self, value):
        self.value = float(value)


class Thing(NamedTuple):
    kind: str
    data: object

    @property
    def degree(self) -> int:
        """Of an array of objects: that of its elements."""
        if self.kind == "Objects":
            return max((entry.degree for entry in self.data.flat), default=0)
        return DEGREE.get(self.kind, 0)

    @property
    def is_matrix(self) -> bool:
        return self.kind in DEGREE and self.kind.startswith("M")

    @property
    def is_scalar(self) -> bool:
        return self.kind in DEGREE and not self.is_matrix

    @property
    def numbers(self):
        if self.kind == "Objects":
            return np.array([entry.numbers.item() for entry in self.data.flat], float).reshape(self.data.shape)
        if self.kind in DEGREE:
            return np.array([cell.value for cell in self.data.flat], float).reshape(self.data.shape)
        return self.data.toarray() if sp.issparse(self.data) else self.data

    @property
    def shape(self) -> tuple:
        return np.shape(self.data)


def cells(numbers) -> np.ndarray:
    made = np.empty(np.shape(numbers), dtype=object)
    made.reshape(-1)[:] = [Cell(number) for number in np.ravel(numbers)]
    return made


def array_of(thing) -> np.ndarray:
    """A selection of one element is an array of no dimension."""
    if isinstance(thing, np.ndarray):
        return thing
    made = np.empty((), dtype=object)
    made[()] = thing
    return made


def number_of(variable: int) -> float:
    return (7 * variable + 3) % 9 - 3.0


def checked(numbers) -> np.ndarray:
    numbers = np.asarray(numbers)
    if numbers.dtype.kind == "c":
        if not numbers.size:
            raise Meaningless  # without elements nothing shows what they would be
        return numbers
    if numbers.dtype == object and any(isinstance(number, complex) for number in numbers.flat):
        raise Meaningless  # a broken power of a negative Python number
    numbers = numbers.astype(float)
    if numbers.size and not np.abs(numbers).max() < LARGEST:  # NaN too
        raise Meaningless
    return numbers


def computed(function, *operands):
    """Checked numbers, or why NumPy refuses."""
    with np.errstate(all="ignore"):
        try:
            result = checked(function(*operands))
        except (ValueError, TypeError, IndexError) as refusal:
            return Refused(f"NumPy: {refusal}")
        except ArithmeticError as failure:  # of Python's numbers in an array of objects
            raise Meaningless from failure
    if result.dtype.kind != "c":
        return result
    given = [np.asarray(one) for operand in operands for one in (operand if isinstance(operand, list) else [operand])]
    if 0 in (one.size for one in given) or not any(one.dtype.kind == "c" for one in given):
        raise Meaningless  # nothing shows what it is, or Python's numbers became complex in a broken power
    return Refused("complex numbers: expressions have real coefficients")


def is_complex(thing: Thing) -> bool:
    return thing.kind in ("Array", "Number", "Sparse") and np.asarray(thing.numbers).dtype.kind == "c"


def power_degree(base: Thing, exponent: Thing) -> int:
    if exponent.degree or base.degree > 1:
        return 3
    if np.size(exponent.numbers) != 1:
        return 3
    number = float(np.asarray(exponent.numbers).item())
    if number == 2.0:
        return 2
    # Variables know the square alone; linear expressions multiply with themselves as often as that stays linear.
    linear = number in (0.0, 1.0) and base.kind == "MLinExpr"
    if base.is_scalar and number in (0.0, 1.0):
        raise Meaningless  # what kind of scalar x ** 1 is, is the scalars' own matter
    return 1 if linear else 3


def degree_of(sign: str, a: Thing, b: Thing) -> int:
    if sign in "+-":
        return max(a.degree, b.degree)
    if sign in ("*", "@"):
        return min(a.degree + b.degree, 3)
    if sign == "/":
        return 3 if b.degree else a.degree
    return power_degree(a, b) if a.degree else 3


def kind_of(degree: int, *operands: Thing) -> str:
    return (MATRIX if any(thing.is_matrix for thing in operands) else SCALAR)[degree]


def fits_in(numbers, other) -> bool:
    """Whether an array takes another in without becoming larger."""
    try:
        return np.broadcast_shapes(np.shape(numbers), np.shape(other)) == np.shape(numbers)
    except ValueError:
        return False


class Reference:
    def __init__(self):
        self.things: list[Thing] = []
        self.variables = 0
        self.rows: list[np.ndarray] = []  # of each constraint: left minus right

    def apply(self, step: tuple):
        name, *arguments = step
        return getattr(self, name)(*arguments)

    def new(self, kind: str, data) -> Thing:
        self.things.append(Thing(kind, data))
        return self.things[-1]

    def made(self, kind: str, numbers) -> Thing | Refused:
        return numbers if isinstance(numbers, Refused) else self.new(kind, cells(numbers))

    # ---- what stands at the beginning

    def mvar(self, shape, pending):
        count = np.prod(shape, dtype=int)
        numbers = [number_of(self.variables + k) for k in range(count)]
        self.variables += count
        return self.made("MVar", np.reshape(numbers, shape))

    def var(self):
        self.variables += 1
        return self.made("Var", number_of(self.variables - 1))

    def literal(self, description: Array | Number | Sparse):
        return self.new(type(description).__name__, description.make())

    def objects(self, shape, members, seed):
        """An array of scalar expressions and numbers."""
        data = np.empty(shape, dtype=object)
        numbers = digits(shape, seed)
        for count, place in enumerate(np.ndindex(shape)):
            which = members[count % len(members)]
            scalar = None if which is None else self.things[which]
            if scalar is not None and not scalar.is_scalar:
                raise Meaningless
            data[place] = Thing("Number", numbers[place]) if scalar is None else scalar
        return self.new("Objects", data)

    def scribble(self, i):
        """The caller changes an array of numbers afterwards."""
        thing = self.things[i]
        if thing.kind != "Array" or not thing.data.flags.writeable or is_complex(thing):
            raise Meaningless
        thing.data[...] = 1
        return thing

    # ---- operators

    def binary(self, sign, i, j):
        a, b = self.things[i], self.things[j]
        self.refuse_to_try(sign, a, b)
        if sign == "/" and not b.degree and not np.all(b.numbers):
            raise Meaningless  # also where there is nothing to divide
        result = computed(SIGNS[sign], a.numbers, b.numbers)
        if isinstance(result, Refused):
            return result
        return self.made(kind_of(degree_of(sign, a, b), a, b), result)

    def refuse_to_try(self, sign, a, b):
        """Steps of which the outcome is not this package's matter."""
        kinds = {a.kind, b.kind}
        if not (a.is_matrix or b.is_matrix or ((a.is_scalar or b.is_scalar) and kinds <= {"Number", *DEGREE})):
            raise Meaningless  # numbers among themselves, or NumPy's loops over scalar objects
        if a.kind == "Sparse" and sign == "**":
            raise Meaningless  # SciPy's own operator, which asks nobody
        if sign == "@" and "MVar" in kinds and any(thing.kind == "Objects" and thing.degree for thing in (a, b)):
            raise Meaningless  # matrices of numbers alone are parts; NumPy's product of larger ones knows no degree

    def in_place(self, sign, i, j):
        a, b = self.things[i], self.things[j]
        if not a.degree or a.kind == "Objects":
            raise Meaningless
        if not self.changes(sign, a, b):
            return self.binary(sign, i, j)
        self.refuse_to_try(sign, a, b)
        if is_complex(b):
            return computed(SIGNS[sign], a.numbers, b.numbers)
        numbers = b.numbers  # a copy: what the receiver shares with the operand is read before it changes
        if sign == "/" and not np.all(numbers):
            raise Meaningless
        if not fits_in(a.numbers, numbers):
            return Refused("the receiver would grow")
        return self.change(a, sign, np.broadcast_to(numbers, a.shape))

    @staticmethod
    def changes(sign, a, b) -> bool:
        """Whether the receiver itself can hold the result."""
        if a.kind in ("MVar", "Var") or sign == "@":
            return False
        if a.degree == 3:
            return True
        return sign != "**" and (b.degree <= a.degree if sign in "+-" else b.degree == 0)

    def change(self, thing, sign, numbers):
        """Element by element: one that stands in several places changes several times."""
        old = [cell.value for cell in thing.data.flat]
        with np.errstate(all="ignore"):
            for cell, number in zip(thing.data.flat, numbers.flat, strict=True):
                cell.value = float(SIGNS[sign](np.float64(cell.value), np.float64(number)))
        try:
            checked(thing.numbers)
        except Meaningless:
            for cell, value in zip(thing.data.flat, old, strict=True):
                cell.value = value
            raise
        return thing

    def negative(self, i):
        thing = self.things[i]
        if not thing.degree or thing.kind == "Objects":
            raise Meaningless
        return self.made(kind_of(thing.degree, thing), -thing.numbers)

    def positive(self, i):
        thing = self.matrix(i)
        if thing.kind == "MNLExpr":
            return Refused("arrays of nonlinear expressions have no unary plus")
        return self.copy(i, "copy")

    def function(self, name, i):
        thing = self.things[i]
        if not thing.degree or thing.kind == "Objects":
            raise Meaningless
        return self.made(kind_of(3, thing), computed(FUNCTIONS[name], thing.numbers))

    # ---- structure

    def index(self, i, key):
        thing = self.matrix(i)
        try:
            found = thing.data[key]
        except (IndexError, TypeError, ValueError) as refusal:
            return Refused(f"NumPy: {refusal}")
        shared = not isinstance(found, np.ndarray) or np.may_share_memory(found, thing.data) or not found.size
        # Index arrays select variables and linear expressions as the elements that they are, all others as copies.
        if shared or thing.degree == 1:
            return self.new(thing.kind, array_of(found))
        return self.made(thing.kind, Thing(thing.kind, found).numbers)

    def matrix(self, i) -> Thing:
        if not self.things[i].is_matrix:
            raise Meaningless
        return self.things[i]

    def iterate(self, i, which):
        thing = self.matrix(i)
        if not thing.data.ndim:
            return Refused("NumPy: iteration over an array without dimensions")
        if not thing.shape[0]:
            raise Meaningless
        return self.index(i, which % thing.shape[0])

    def item(self, i):
        thing = self.matrix(i)
        if thing.data.size != 1:
            return Refused("NumPy: more than one element, or none")
        if thing.kind == "MVar":
            return self.new("Var", thing.data.reshape(()))
        return self.made(SCALAR[thing.degree], thing.numbers.reshape(()))

    def assign(self, i, key, j):
        thing, value = self.matrix(i), self.things[j]
        if thing.kind == "MVar":
            return Refused("variables stay where they are")
        reason = self.misfit(thing, value)
        if reason:
            return Refused(reason)
        try:
            selected = thing.data[key]
            if not isinstance(selected, np.ndarray) and value.shape:
                return Refused("NumPy: an element is no sequence")
            selected = array_of(selected)
            numbers = np.empty(selected.shape)
            numbers[...] = value.numbers
        except (IndexError, TypeError, ValueError) as refusal:
            return Refused(f"NumPy: {refusal}")
        if thing.degree == 3 and len(value.shape) > selected.ndim:
            return Refused("nditer, which writes nonlinear elements, keeps leading extents of 1")
        for cell, number in zip(selected.flat, numbers.flat, strict=True):
            cell.value = number
        return thing

    @staticmethod
    def misfit(thing, value) -> str:
        if value.kind == "Sparse":
            return "NumPy: a sparse matrix is no sequence of numbers"
        if is_complex(value):
            checked(value.numbers)
            return "complex numbers"
        if value.degree > thing.degree:
            return "an element cannot hold a higher degree"
        if thing.degree == 3 and value.kind in ("LinExpr", "QuadExpr"):
            return "arrays of nonlinear expressions take variables, nonlinear scalars and numbers"
        return ""

    def sum(self, i, axis):
        thing = self.matrix(i)
        if thing.data.ndim == 0 and axis not in (None, ()):
            return Refused("an array without dimensions has no axis, also none called 0")
        return self.made(MATRIX[thing.degree], computed(lambda x: x.sum(axis=axis), thing.numbers))

    def join(self, how, members, axis):
        things = [self.things[i] for i in members]
        routine = (lambda arrays: np.concatenate(arrays, axis=axis)) if how == "concatenate" else getattr(np, how)
        if any(thing.is_scalar or thing.kind in ("Sparse", "Number") for thing in things):
            return Refused("arrays alone are joined")
        if all(thing.kind == "MVar" for thing in things):
            try:
                return self.new("MVar", routine([thing.data for thing in things]))
            except (ValueError, TypeError, IndexError) as refusal:
                return Refused(f"NumPy: {refusal}")
        joined = computed(routine, [thing.numbers for thing in things])
        return self.made(MATRIX[max(1, *(thing.degree for thing in things))], joined)

    def copy(self, i, how):
        """Variables are what they are in a copy too."""
        thing = self.matrix(i)
        if thing.kind == "MVar":
            return self.new("MVar", thing.data.copy())
        if how == "deepcopy":  # what stands in several places does so in the copy
            return self.new(thing.kind, copy.deepcopy(thing.data))
        return self.made(thing.kind, thing.numbers)

    def view(self, i, method, arguments, keywords):
        """A method that only arrays of variables have."""
        thing = self.matrix(i)
        if thing.kind != "MVar":
            raise Meaningless
        try:
            made = getattr(thing.data, method.strip("_"))
            return self.new("MVar", array_of(made(*arguments, **keywords) if method != "T" else made))
        except (ValueError, TypeError, IndexError) as refusal:
            return Refused(f"NumPy: {refusal}")

    def as_nonlinear(self, i):
        thing = self.matrix(i)
        if thing.kind != "MVar":
            raise Meaningless
        return self.made("MNLExpr", thing.numbers)

    def clear(self, i):
        thing = self.matrix(i)
        if thing.kind not in ("MLinExpr", "MQuadExpr"):
            raise Meaningless
        for cell in thing.data.flat:
            cell.value = 0.0
        return thing

    def show(self, i):
        self.matrix(i)

    def tidy(self, i, method):
        """Terms are merged; the value stays."""
        if self.matrix(i).kind not in ("MLinExpr", "MQuadExpr"):
            raise Meaningless

    # ---- constraints

    def constraint(self, sense, i, j):
        a, b = self.things[i], self.things[j]
        self.refuse_to_try(sense, a, b)
        if a.kind == "Sparse":
            raise Meaningless  # SciPy compares the entries
        difference = computed(np.subtract, a.numbers, b.numbers)
        if isinstance(difference, Refused):
            return difference
        self.rows.append((sense, max(a.degree, b.degree), difference))
        return None
