"""Operands that are no expressions, as descriptions: a program that holds them can be printed, shrunk and run again.

Array("int16", (2, 3), "reversed", 4).make()    an array of small numbers, of every dtype and layout
Number("float32", 2).make()                     a number of Python or NumPy
Sparse("csr", "array", "float64", (2, 3), 1).make()
literals(shape)                                 strategy: any of these, broadcasting with `shape` more often than not
keys(shape)                                     strategy: indices into an array of this shape, a few of them wrong
"""

from dataclasses import dataclass

import numpy as np
import scipy.sparse as sp
from hypothesis import strategies as st

DTYPES = ["bool", "int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64"]
DTYPES += ["float16", "float32", "float64", "longdouble", "object", ">f8", ">i4"]
LAYOUTS = ["C", "F", "strided", "reversed", "broadcast", "read-only", "unaligned"]
FORMATS = ["csr", "csc", "coo", "lil", "dok", "dia", "bsr"]
FLAT_FORMATS = ["csr", "coo", "dok"]  # those that SciPy has with one dimension
SPARSE_DTYPES = ["bool", "int8", "int64", "float32", "float64"]
SHAPES = [(3,), (2, 3), (3, 3), (), (1,), (1, 3), (3, 1), (2, 1, 3), (1, 1), (0,), (0, 3), (3, 0), (2, 2, 2)]
DIGITS = np.array([1.0, 2.0, -1.0, 0.5, 3.0, 0.0, -2.0])


def digits(shape, seed: int, dtype="float64") -> np.ndarray:
    """Small numbers that are exact in every dtype; an unsigned one or a boolean takes their magnitude."""
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
SEEDS = st.integers(0, 3 * DIGITS.size - 1)
NUMBERS = st.one_of(
    st.builds(Number, st.just("int"), st.sampled_from([2, 1, -1, 0, 3])),
    st.builds(Number, st.just("float"), st.sampled_from([2.0, -1.0, 0.5, 3.0, 0.0])),
    st.builds(Number, st.sampled_from(["python bool", *NUMPY_NUMBERS]), st.sampled_from([1, 2, 0])),
)
COMPLEX = st.one_of(
    st.builds(Number, st.sampled_from(["python complex", "complex64", "complex128"]), st.just(2)),
    st.builds(Array, st.just("complex128"), st.sampled_from(SHAPES), st.just("C"), SEEDS),
)


@st.composite
def fitting(draw, shape: tuple) -> tuple:
    """A shape that broadcasts with another: some extents are 1, leading ones may be missing or added."""
    found = tuple(draw(st.sampled_from([extent, extent, 1])) for extent in shape)
    return draw(st.sampled_from([shape, shape, found, found[1:], (1, *shape), shape[-1:]]))


@st.composite
def sparse_matrices(draw, shape: tuple):
    if len(shape) == 1:
        return draw(st.builds(Sparse, st.sampled_from(FLAT_FORMATS), st.just("array"), DTYPE, st.just(shape), SEEDS))
    if len(shape) != 2:
        shape = draw(st.sampled_from([s for s in SHAPES if len(s) == 2]))
    family = st.sampled_from(["matrix", "array"])
    return draw(st.builds(Sparse, st.sampled_from(FORMATS), family, DTYPE, st.just(shape), SEEDS))


DTYPE = st.sampled_from(SPARSE_DTYPES)


@st.composite
def literals(draw, shape: tuple, for_product: bool = False):
    kind = draw(st.sampled_from(["array"] * 6 + ["sparse"] * 3 + ["number"] * 4 + ["complex"] * (draw(SEEDS) == 5)))
    if kind in ("number", "complex") and (kind == "complex" or not for_product):
        return draw(NUMBERS if kind == "number" else COMPLEX)
    if for_product and shape:
        inner = st.sampled_from([shape[-1], shape[-2:][0]])
        shape = draw(st.tuples(inner) | st.tuples(inner, inner) | st.tuples(st.sampled_from([0, 1, 2, 3]), inner))
    shape = draw(st.sampled_from(SHAPES)) if draw(st.integers(0, 7)) == 7 else draw(fitting(shape))
    if kind == "sparse":
        return draw(sparse_matrices(shape))
    return draw(st.builds(Array, st.sampled_from(DTYPES), st.just(shape), st.sampled_from(LAYOUTS), SEEDS))


# ---- indices ---------------------------------------------------------------------------------------------------------

BOUND = st.none() | st.integers(-4, 4)
SLICES = st.builds(slice, BOUND, BOUND, st.sampled_from([None, 1, 2, -1, -2]))
WRONG = st.sampled_from([7, -5, [0, 7], "a", 1.5, [True, False, True, True, True], (0, 0, 0, 0)])


@st.composite
def positions(draw, extent: int):
    """What stands for one axis."""
    number = st.integers(-extent, extent - 1) if extent else st.just(0)
    kind = draw(st.sampled_from(["slice", "slice", "number", "list", "array", "mask"]))
    if kind == "slice":
        return draw(SLICES)
    if kind == "number":
        made = draw(number)
        return draw(st.sampled_from([made, made, np.int64(made), np.int8(made), np.array(made)]))
    if kind == "mask":
        return np.array(draw(st.lists(st.booleans(), min_size=extent, max_size=extent)), dtype=bool)
    size = draw(st.sampled_from([1, 2, 3])) if extent else 0
    found = draw(st.lists(number, min_size=size, max_size=size))
    if kind == "list" and found:
        return found
    return np.array(found, dtype=draw(st.sampled_from(["int64", "int32", "int8"])))


@st.composite
def keys(draw, shape: tuple):
    kind = draw(st.sampled_from(["parts"] * 9 + ["mask", "grid", "wrong"]))
    if kind == "wrong":
        return draw(WRONG)
    if kind == "mask":
        return digits(shape, draw(SEEDS)) > 0.5
    if kind == "grid" and len(shape) > 1 and 0 not in shape:
        return np.array([[0], [shape[0] - 1]]), np.array([0, -1])
    parts = [draw(positions(extent)) for extent in shape[: draw(st.integers(0, len(shape)))]]
    for stray in draw(st.sampled_from([(), (), (Ellipsis,), (None,), (None, Ellipsis)])):
        parts.insert(draw(st.integers(0, len(parts))), stray)
    if len(parts) == 1 and draw(st.booleans()):
        return parts[0]
    return tuple(parts)
