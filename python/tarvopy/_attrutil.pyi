"""Bulk transfer of attributes between Python lists and the store, for the package itself.

Indices are positions in the model; one that is not there (-1 and below included) is a TarvoError, NOT_IN_MODEL.
Arrays by id are reached through the function table `_C_API`. Type codes: 0 character, 1 integer, 2 double, 3 string.
"""

from collections.abc import Iterable
from typing import Any, SupportsIndex

from tarvopy._core import _Model

def _getattrinfo(model: _Model | None, attrname: str) -> tuple[int, int, int]:
    """(object kind, type code, whether it can be set). AttributeError for an unknown name."""

def _gettypedattrlist(model: _Model, attrname: str, indices: Iterable[SupportsIndex], typecode: int) -> list[Any]:
    """The values in index order. NoDataError where the attribute is not there yet."""

def _settypedattrlist(model: _Model, attrname: str, indices: Iterable[SupportsIndex], values: Any) -> None:
    """Sets one value for each index, or one for all; all of them or none."""

def _prefetchattr(model: _Model | None, attrname: str) -> None:
    """Prepares a later bulk read; AttributeError for an unknown name."""

def _attrlist(model: _Model | None, typeenum: int) -> list[str]:
    """The names of the attributes of a kind of object."""
