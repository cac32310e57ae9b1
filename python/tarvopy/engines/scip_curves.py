"""The curves of general constraints: piecewise-linear functions as steps taken one after the other, and rays.

    curve = Curve([0, 10, 20], [0, 5, 20], 0, 30)               x is between 0 and 30
    curve.points                                                [(0, 0), (10, 5), (30, 35)]
    list(curve.phases())                                        [(10, 5, False), (20, 30, False)]
    list(Curve([0, 10, 20], [0, 5, 20], 0, inf).phases())       [(10, 5, False), (1, 1.5, True)]

scip_general.py makes variables and rows of them.
"""

from __future__ import annotations

import math
from itertools import pairwise
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from collections.abc import Iterator

#: A bound so many times the width of a curve away from it becomes no end point: the piece would make all others tiny.
_FAR = 100.0

_INF = math.inf


class Curve:
    """A piecewise-linear function where its argument can be: low and high become its ends, or it has rays there."""

    def __init__(self, xs: list[float], ys: list[float], low: float, high: float) -> None:
        self.left_slope = (ys[1] - ys[0]) / (xs[1] - xs[0])
        self.right_slope = (ys[-1] - ys[-2]) / (xs[-1] - xs[-2])
        points = list(zip(xs, ys, strict=True))
        far = _FAR * (xs[-1] - xs[0])
        low, high = low if low >= xs[0] - far else -_INF, high if high <= xs[-1] + far else _INF
        points = _ended(points, low)
        points = [(-x, y) for x, y in reversed(_ended([(-x, y) for x, y in reversed(points)], -high))]
        points = [p for i, p in enumerate(points) if i == 0 or p != points[i - 1]]
        self.has_left_ray, self.has_right_ray = math.isinf(low), math.isinf(high)
        self.is_line = len(points) == 2 and points[0][0] < points[1][0]
        if self.is_line:
            self.left_slope = (points[1][1] - points[0][1]) / (points[1][0] - points[0][0])
        # The piece next to a ray is a part of it.
        elif len(points) > 2:
            points = points[self.has_left_ray : len(points) - self.has_right_ray]
        self.points = points

    def phases(self) -> Iterator[tuple[float, float, bool]]:
        """(width, height, whether it is a ray) from left to right, seen from the first point."""
        if self.has_left_ray:
            yield -1.0, -self.left_slope, True
        for (x, y), (next_x, next_y) in pairwise(self.points):
            yield next_x - x, next_y - y, False
        if self.has_right_ray:
            yield 1.0, self.right_slope, True

    def range(self) -> tuple[float, float]:
        """The least and the largest value."""
        values = [y for _, y in self.points]
        if self.has_left_ray and self.left_slope:
            values.append(math.copysign(_INF, -self.left_slope))
        if self.has_right_ray and self.right_slope:
            values.append(math.copysign(_INF, self.right_slope))
        return min(values), max(values)


def take_steps(
    values: list[float], curve: Curve, x: float, y: float, variables: list[int], switches: list[int]
) -> None:
    """The steps and rays that lead to the point (x, y) of the curve, and the switches between them."""
    small = 1e-9 * (1.0 + abs(x))
    x -= curve.points[0][0]
    y -= curve.points[0][1]
    full = [True]
    for variable, (width, height, is_ray) in zip(variables, curve.phases(), strict=True):
        if abs(x) <= small:
            x = 0.0
        jump = y / height if x == 0.0 and height else float(x >= 0.0)
        taken = x / width if width else jump
        taken = max(0.0, taken if is_ray else min(1.0, taken)) if full[-1] else 0.0
        full.append(taken == 0.0 if is_ray else taken == 1.0)
        values[variable] = taken
        x -= width * taken
        y -= height * taken
    for switch, before in zip(switches, full[1:], strict=False):
        values[switch] = float(before)


def _ended(points: list[tuple[float, float]], low: float) -> list[tuple[float, float]]:
    """The points from low on, which becomes the first where the first piece is no jump."""
    if math.isinf(low):
        return points
    while len(points) > 2 and points[1][0] < low:
        points = points[1:]
    (x0, y0), (x1, y1) = points[:2]
    if x0 == x1 or (len(points) == 2 and x1 <= low):
        return points
    return [(low, y0 + (low - x0) * (y1 - y0) / (x1 - x0)), *points[1:]]
