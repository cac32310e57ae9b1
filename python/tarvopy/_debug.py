"""Switches and counters for tests; nothing here is needed for modelling."""

import gc

from tarvopy import _core


def counts() -> dict[str, int]:
    """How many objects of the scalar types that are made in bulk are alive in this process, by type name; what only
    cycles keep is collected first.
    """
    gc.collect()
    return _core._counts()


def eager(flag: bool | None = None) -> bool:
    """Whether matrix objects make their element objects at once instead of on demand. A flag sets it; returns the old
    state."""
    from tarvopy import _matrixapi

    return _matrixapi._eager(flag)
