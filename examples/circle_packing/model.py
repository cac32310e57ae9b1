"""The optimisation model of the example: n equal circles in the unit square, as large as can be.

Their centres lie in a square that is smaller by a radius on every side. Scaled to side 1 the question is for n points
in the unit square whose smallest distance d is as large as can be; the radius is then d / (2 (1 + d)). A distance is
convex and has to be large, which makes every row nonconvex: SCIP proves the optimum by branching. What it need not look
at twice is ruled out: points are numbered from left to right, and the square is mirrored until the two outermost
together are not right of the middle and the first one is in the lower half.
"""

from dataclasses import dataclass

import numpy as np

import tarvopy
from tarvopy import TRV

RELATIVE_GAP = 1e-4  # of the squared distance


@dataclass
class Packing:
    """A solved packing in the unit square."""

    centres: np.ndarray  # (circles, 2)
    radius: float
    bound: float  # no packing has a larger radius
    status: int
    seconds: float

    @property
    def proven(self) -> bool:
        return self.status == TRV.OPTIMAL

    @property
    def gap(self) -> float:
        """By how much the radius might be larger, relative."""
        return self.bound / self.radius - 1


def pack(circles: int, time_limit: float = 60.0, log_level: int = 0) -> Packing:
    """The largest circles found within the limit. RuntimeError where none were."""
    m = tarvopy.Model("circle packing")
    m.params.RelGap = RELATIVE_GAP
    m.params.TimeLimit = time_limit
    m.params.LogLevel = log_level
    point = m.addMVar((circles, 2), ub=1, name="point")
    squared = m.addVar(ub=2, name="squared")  # the smallest distance, squared
    left, right = np.triu_indices(circles, k=1)
    # Differences have variables of their own: SCIP branches on them, and their bounds hold who is left of whom.
    apart = m.addMVar((len(left), 2), lb=[0, -1], ub=1, name="apart")
    m.addConstr(apart == point[right] - point[left], name="apart")
    m.addConstr((apart**2).sum(axis=1) >= squared, name="distance")
    m.addConstr(point[0, 1] <= 0.5, name="lower half")
    m.addConstr(point[0, 0] + point[-1, 0] <= 1, name="left half")
    m.setObjective(squared, TRV.MAXIMIZE)
    m.optimize()
    if not hasattr(m, "ObjVal"):
        raise RuntimeError(f"no packing of {circles} circles found (status {m.Status})")
    found = radius(m.ObjVal)
    return Packing(found + (1 - 2 * found) * point.X, found, radius(m.ObjBound), m.Status, m.Runtime)


def radius(squared: float) -> float:
    """Of circles whose centres have this squared distance in a centre square of side 1."""
    distance = np.sqrt(squared)
    return float(distance / (2 * (1 + distance)))
