"""Operands that are no expressions, as descriptions: a program that holds them can be printed, shrunk and run again.

Array("int16", (2, 3), "reversed", 4).make()    an array of small numbers, of every dtype and layout
Number("float32", 2).make()                     a number of Python or NumPy
Sparse("csr", "array", "float64", (2, 3), 1).make()
Dice(draw).pick(options)                        one choice of a hypothesis strategy; the functions below take dice
every_kind()                                    one of each kind, of two rows and columns at most
literal(dice, shape), index_into(dice, shape)   an operand or an index that fits to this shape more often than not
"""

import itertools
from dataclasses import dataclass

import numpy as np
import scipy.sparse as sp
from hypothesis import strategies as st

DTYPES = ["bool", "int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64"]
DTYPES += ["float16", "float32", "float64", "longdouble", "object", ">f8", ">i4"]
LAYOUTS = ["C", "F", "strided", "reversed", "broadcast", "read-only", "unaligned"]
FORMATS = ["csr", "csc", "coo", "lil", "dok", "dia", "bsr"]
FLAT_FORMATS = ["csr", "coo", "dok"]  # those that SciPy has with one dimension
SPARSE_DTYPES = ["bool", "int8", "int32", "int64", "uint16", "uint64", "float32", "float64", "longdouble"]
COMPLEX_DTYPES = ["complex64", "complex128", "clongdouble"]
SHAPES = [(3,), (2, 3), (3, 3), (), (1,), (1, 3), (3, 1), (2, 1, 3), (1, 1), (0,), (0, 3), (3, 0), (2, 2, 2)]
DIGITS = np.array([1.0, 2.0, -1.0, 0.5, 3.0, 0.0, -2.0])


def digits(shape, seed: int, dtype="float64") -> np.ndarray:
    """Small numbers; integers have 0 for 0.5, unsigned ones and booleans the magnitude."""
    count = np.prod(shape, dtype=int)
    numbers = DIGITS[(seed + (1 + seed % 3) * np.arange(count)) % DIGITS.size].reshape(shape)
    return np.array(np.abs(numbers) if np.dtype(dtype).kind in "bu" else numbers, dtype=dtype)


def laid_out(numbers: np.ndarray, layout: str) -> np.ndarray:
    """The same numbers, or for "broadcast" the first row of them over and over."""
    if layout == "F":
        return np.asfortranarray(numbers)
    if layout == "strided" and numbers.ndim:
        return np.repeat(numbers, 2, axis=-1)[..., ::2]
    if layout == "reversed" and numbers.ndim:
        return np.ascontiguousarray(np.flip(numbers))[(slice(None, None, -1),) * numbers.ndim]
    if layout == "broadcast" and numbers.ndim and numbers.shape[0]:
        return np.broadcast_to(numbers[0], numbers.shape)
    if layout == "unaligned" and numbers.dtype != object:
        return np.frombuffer(b"\0" + numbers.tobytes(), numbers.dtype, offset=1).reshape(numbers.shape)
    if layout == "read-only":
        numbers.flags.writeable = False
    return numbers


@dataclass(frozen=True)
class Array:
    dtype: str
    shape: tuple
    layout: str = "C"
    seed: int = 0

    def make(self) -> np.ndarray:
        return laid_out(digits(self.shape, self.seed, self.dtype), self.layout)


@dataclass(frozen=True)
class Number:
    kind: str
    value: float

    def make(self):
        kinds = {"int": int, "float": float, "python bool": bool, "python complex": complex}
        return (kinds.get(self.kind) or getattr(np, self.kind))(self.value)


@dataclass(frozen=True)
class Sparse:
    format: str
    family: str
    dtype: str
    shape: tuple
    seed: int = 0

    def make(self):
        """Entries stand unsorted in compressed rows and columns; a coordinate matrix names one place twice (but for a
        vector of that format, which SciPy's own operators spoil then)."""
        dense = digits(self.shape, self.seed, self.dtype)
        kind = getattr(sp, f"{self.format}_{self.family}")
        if self.format == "coo" and dense.size and dense.ndim == 2 and dense.dtype.kind == "f":
            place = np.nonzero(np.ones_like(dense))
            data = np.concatenate([dense.ravel() - 1, np.ones(dense.size)]).astype(self.dtype)
            return kind((data, tuple(np.tile(index, 2) for index in place)), shape=self.shape)
        matrix = kind(dense)
        if self.format in ("csr", "csc"):
            for start, end in zip(matrix.indptr[:-1], matrix.indptr[1:], strict=True):
                matrix.indices[start:end] = matrix.indices[start:end][::-1].copy()
                matrix.data[start:end] = matrix.data[start:end][::-1].copy()
            matrix.has_sorted_indices = False
        return matrix


NUMPY_NUMBERS = ["bool_", *DTYPES[1:12], "longdouble"]
SEEDS = 3 * DIGITS.size


class Dice:
    """Every choice is an integer: hypothesis takes one from a range much faster than from a strategy made anew."""

    def __init__(self, draw):
        self.draw = draw

    def below(self, bound: int) -> int:
        return self.draw(st.integers(0, bound - 1))

    def pick(self, options):
        return options[self.below(len(options))]

    def coin(self) -> bool:
        return bool(self.below(2))


def fitting(dice: Dice, shape: tuple) -> tuple:
    """A shape that broadcasts with another: some extents are 1, leading ones may be missing or added."""
    found = tuple(dice.pick([extent, extent, 1]) for extent in shape)
    return dice.pick([shape, shape, found, found[1:], (1, *shape), shape[-1:]])


def number(dice: Dice) -> Number:
    kind = dice.pick(["int", "float", "python bool", dice.pick(NUMPY_NUMBERS)])
    return Number(kind, dice.pick({"int": [2, 1, -1, 0, 3], "float": [2.0, -1.0, 0.5, 3.0, 0.0]}.get(kind, [1, 2, 0])))


def array(dice: Dice, shape: tuple) -> Array:
    return Array(dice.pick(DTYPES), shape, dice.pick(LAYOUTS), dice.below(SEEDS))


def complex_numbers(dice: Dice) -> Number | Array:
    if dice.coin():
        return Array(dice.pick(COMPLEX_DTYPES), dice.pick(SHAPES), "C", dice.below(SEEDS))
    return Number(dice.pick(["python complex", *COMPLEX_DTYPES]), 2)


def sparse_matrix(dice: Dice, shape: tuple) -> Sparse:
    dtype, seed = dice.pick(SPARSE_DTYPES), dice.below(SEEDS)
    if len(shape) == 1:
        return Sparse(dice.pick(FLAT_FORMATS), "array", dtype, shape, seed)
    if len(shape) != 2:
        shape = dice.pick([s for s in SHAPES if len(s) == 2])
    return Sparse(dice.pick(FORMATS), dice.pick(["matrix", "array"]), dtype, shape, seed)


def literal(dice: Dice, shape: tuple, for_product: bool = False) -> Array | Number | Sparse:
    """Any of these, broadcasting with this shape, or making a matrix product with it, more often than not."""
    kind = dice.pick(["array"] * 6 + ["sparse"] * 3 + ["number"] * 4)
    if dice.below(80) == 79:
        return complex_numbers(dice)
    if kind == "number" and not for_product:
        return number(dice)
    if for_product and shape:
        inner = dice.pick([shape[-1], shape[-2:][0]])
        shape = dice.pick([(inner,), (inner, inner), (dice.below(4), inner), (inner, dice.below(4))])
    elif dice.below(8) == 7:
        shape = dice.pick(SHAPES)
    else:
        shape = fitting(dice, shape)
    return sparse_matrix(dice, shape) if kind == "sparse" else array(dice, shape)


def every_kind():
    """The numbers of a seed of 6 begin with -2, 1, 2, -1: any of them may divide."""
    for dtype, shape in itertools.product([*DTYPES, *COMPLEX_DTYPES], [(), (2,), (2, 2)]):
        yield Array(dtype, shape, "C", 6)
    for dtype, layout in itertools.product(["int16", "float64"], LAYOUTS[1:]):
        yield Array(dtype, (2, 2), layout, 6)
    for shape in [(0,), (0, 2), (2, 0), (0, 2, 2), (1, 2, 2), (2, 1)]:
        yield Array("float32", shape, "C", 6)
    for format, family in itertools.product(FORMATS, ["matrix", "array"]):
        yield Sparse(format, family, "float64", (2, 2), 6)
    for dtype, format in itertools.product([*SPARSE_DTYPES, *COMPLEX_DTYPES], ["csr", "csc", "coo"]):
        yield Sparse(format, "array", dtype, (2, 2), 6)
    for format in FLAT_FORMATS:
        yield Sparse(format, "array", "int64", (2,), 6)
    for kind in ["int", "float", "python bool", "python complex", *NUMPY_NUMBERS, *COMPLEX_DTYPES]:
        yield Number(kind, 2)


# ---- indices ---------------------------------------------------------------------------------------------------------

BOUNDS = [None, None, 0, 1, 2, 3, -1, -2, -4]
WRONG = [7, -5, [0, 7], "a", 1.5, [True, False, True, True, True], (0, 0, 0, 0)]


def position(dice: Dice, extent: int):
    """What stands for one axis."""
    kind = dice.pick(["slice", "slice", "number", "list", "array", "mask"])
    if kind == "slice":
        return slice(dice.pick(BOUNDS), dice.pick(BOUNDS), dice.pick([None, 1, 2, -1, -2]))
    if kind == "mask":
        return np.array([dice.coin() for _ in range(extent)], dtype=bool)
    size = 1 if kind == "number" else 1 + dice.below(3)
    found = [dice.below(2 * extent) - extent for _ in range(size)] if extent else []
    if kind == "number" and found:
        return dice.pick([found[0], np.int64(found[0]), np.int8(found[0]), np.array(found[0])])
    if kind == "list" and found:
        return found
    return np.array(found, dtype=dice.pick(["int64", "int32", "int8"]))


def index_into(dice: Dice, shape: tuple):
    """An index into an array of this shape; a few are wrong."""
    kind = dice.pick(["parts"] * 9 + ["mask", "grid", "wrong"])
    if kind == "wrong":
        return dice.pick(WRONG)
    if kind == "mask":
        return digits(shape, dice.below(SEEDS)) > 0.5
    if kind == "grid" and len(shape) > 1 and 0 not in shape:
        return np.array([[0], [shape[0] - 1]]), np.array([0, -1])
    parts = [position(dice, extent) for extent in shape[: dice.below(len(shape) + 1)]]
    for stray in dice.pick([(), (), (Ellipsis,), (None,), (None, Ellipsis)]):
        parts.insert(dice.below(len(parts) + 1), stray)
    return parts[0] if len(parts) == 1 and dice.coin() else tuple(parts)
