"""Shape arithmetic by NumPy's rules and type questions, for the package itself."""

from collections.abc import Sequence
from typing import Any, Literal, NoReturn, SupportsIndex, overload

type _Shape = SupportsIndex | Sequence[SupportsIndex]

__capi__: dict[str, Any]
"""C functions for extension modules: name to a capsule whose name is the signature."""

def _isscalar(x: object, /) -> bool:
    """Whether x is a real number: Python's, NumPy's, Fraction or Decimal."""

def _isstr(x: object, /) -> bool: ...
def _broadcast_shapes(s1: _Shape, s2: _Shape = ...) -> tuple[int, ...]:
    """NumPy's broadcast of one or two shapes. ValueError names both; at most 64 dimensions, 2**63 - 1 elements."""

def _axis_to_axeslist(axis: SupportsIndex | Sequence[SupportsIndex] | None, ndim: int) -> list[int]:
    """For each axis its number in the result of a reduction, -1 where it is summed away; None sums all.

    IndexError for an axis out of range, ValueError for one that is given twice.
    """

@overload
def _matmul_shape(s1: _Shape, s2: _Shape, do_raise: Literal[True] = True) -> tuple[int, ...]: ...
@overload
def _matmul_shape(s1: _Shape, s2: _Shape, do_raise: object) -> tuple[int, ...] | None:
    """The shape of a matrix product; ValueError that names both shapes, or None without do_raise."""

def _all_refs_match(*arrays: object) -> bool:
    """Whether the arrays hold the very same objects, element by element in C order."""

def _dense_matmul_kernel(*operands: Any) -> NoReturn: ...
def _sparse_right_matmul_kernel(*operands: Any) -> NoReturn: ...
def _sparse_left_matmul_kernel(*operands: Any) -> NoReturn: ...
