"""A problem in Clarabel's form: min q'x + x'Px/2, b - Ax in a product of cones, and the way back to multipliers.

P is its upper triangle. Equations (and fixed variables) make the zero cone; each finite side and bound is a row of the
nonnegative cone, so that a two-sided row becomes two; quadratic rows come as second-order cones from the store. Free
rows and infinite bounds leave no row. The dual z of a row is minus the derivative of the optimal value by its b.

    form = ClarabelForm.of(problem)
    form.a, form.b, form.p, form.q, form.cones(clarabel)
    rc, pi, qpi = form.duals(s, z)
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any

from tarvopy import _modelapi
from tarvopy.problem import LINEAR

if TYPE_CHECKING:
    from types import ModuleType

    import numpy as np
    from scipy import sparse

    from tarvopy.problem import Cones, Problem

    Rows = tuple[np.ndarray, np.ndarray, np.ndarray]
    """A CSR matrix: start, index, value."""


@dataclass(slots=True)
class _Rows:
    """Which rows and bounds are finite, and in which cone they stand; sides of all rows, the linear ones first."""

    lower: np.ndarray
    upper: np.ndarray
    lb: np.ndarray
    ub: np.ndarray
    masks: tuple[np.ndarray, ...]
    """Equations, fixed variables, upper sides, lower sides, upper bounds, lower bounds: Clarabel's order."""

    @classmethod
    def of(cls, problem: Problem, empty: np.ndarray) -> _Rows:
        import numpy as np

        lower, upper = _sides(problem)
        empty = empty & (lower <= 0.0) & (upper >= 0.0)  # holds whatever x is
        lower, upper = np.where(empty, -np.inf, lower), np.where(empty, np.inf, upper)
        lb, ub = problem.lb.copy(), problem.ub.copy()
        equal, fixed = lower == upper, lb == ub
        masks = (
            *(equal, fixed, np.isfinite(upper) & ~equal, np.isfinite(lower) & ~equal),
            *(np.isfinite(ub) & ~fixed, np.isfinite(lb) & ~fixed),
        )
        return cls(lower, upper, lb, ub, masks)

    def same_kinds(self, other: _Rows) -> bool:
        return all((mine == theirs).all() for mine, theirs in zip(self.masks, other.masks, strict=True))

    def sides(self, offset: np.ndarray) -> np.ndarray:
        """Clarabel's b, the offsets of the cones at its end."""
        import numpy as np

        values = (self.upper, self.ub, self.upper, -self.lower, self.ub, -self.lb)
        return np.concatenate([*(v[mask] for v, mask in zip(values, self.masks, strict=True)), offset])

    def matrix(self, rows: list[Rows], conic: Cones | None) -> sparse.csc_matrix:
        """Clarabel's A."""
        import numpy as np
        from scipy import sparse

        equal, fixed, up, low, ub, lb = self.masks
        ends = np.cumsum([len(start) - 1 for start, _, _ in rows])
        blocks: list[tuple[Any, ...]] = []

        def add_rows(mask: np.ndarray, sign: float) -> None:
            blocks.extend((*part, mine, sign) for part, mine in zip(rows, np.split(mask, ends[:-1]), strict=True))

        def add_bounds(mask: np.ndarray, sign: float) -> None:
            blocks.append((None, None, None, mask, sign))

        add_rows(equal, 1.0)
        add_bounds(fixed, 1.0)
        add_rows(up, 1.0)
        add_rows(low, -1.0)
        add_bounds(ub, 1.0)
        add_bounds(lb, -1.0)
        height = sum(int(np.count_nonzero(mask)) for mask in self.masks)
        if conic is not None:
            blocks.append((conic.start, conic.index, conic.value, None, 1.0))
            height += len(conic.offset)
        start, index, value = _modelapi.stacked_columns(len(lb), blocks)
        return sparse.csc_matrix((value, index, start), shape=(height, len(lb)))

    def multipliers(self, z: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """Of the rows and of the bounds, of the minimisation, from Clarabel's z."""
        import numpy as np

        pi, rc = np.zeros(len(self.lower)), np.zeros(len(self.lb))
        at = 0
        for mask, to, sign in zip(self.masks, (pi, rc, pi, pi, rc, rc), (-1, -1, -1, 1, -1, 1), strict=True):
            count = int(mask.sum())
            to[mask] += sign * z[at : at + count]
            at += count
        return pi, rc


@dataclass(slots=True)
class ClarabelForm:
    """The arrays of one problem."""

    sense: int
    nrows: int
    empty: np.ndarray
    """Which rows have no linear term: those of the model, then its quadratic ones."""
    rows: _Rows
    conic: Cones | None
    offset: np.ndarray
    p: sparse.csc_matrix
    q: np.ndarray
    a: sparse.csc_matrix
    b: np.ndarray
    linear_qrows: np.ndarray = field(repr=False)

    @classmethod
    def of(cls, problem: Problem) -> ClarabelForm:
        import numpy as np

        matrix = _linear_rows(problem)
        empty = np.concatenate([start[1:] == start[:-1] for start, _, _ in matrix])
        rows = _Rows.of(problem, empty)
        conic = problem.cones() if problem.nqrows > problem.nqlinear else None
        offset = np.empty(0) if conic is None else conic.offset
        linear = problem.curvature()[1] == LINEAR
        a = rows.matrix(matrix, conic)
        b = rows.sides(offset)
        return cls(
            *(problem.sense, problem.nrows, empty, rows, conic, offset),
            *(_hessian(problem), _costs(problem), a, b, linear),
        )

    def retell(self, problem: Problem) -> bool:
        """Takes over sense, costs, sides and bounds; False, with nothing changed, where other ones are finite."""
        rows = _Rows.of(problem, self.empty)
        if not rows.same_kinds(self.rows):
            return False
        self.sense, self.rows = problem.sense, rows
        self.q, self.b = _costs(problem), rows.sides(self.offset)
        return True

    def cones(self, package: ModuleType) -> list[Any]:
        import numpy as np

        zero = int(self.rows.masks[0].sum() + self.rows.masks[1].sum())
        nonnegative = len(self.b) - len(self.offset) - zero
        cones = [package.ZeroConeT(zero)] if zero else []
        if nonnegative:
            cones.append(package.NonnegativeConeT(nonnegative))
        if self.conic is not None:
            cones += map(package.SecondOrderConeT, np.diff(self.conic.cone).tolist())
        return cones

    def duals(self, s: np.ndarray, z: np.ndarray) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
        """RC, Pi and QPi, NaN for quadratic rows that have no multiplier."""
        import numpy as np

        rows, bounds = self.rows.multipliers(z)
        qpi = np.where(self.linear_qrows, self.sense * rows[self.nrows :], 0.0)
        if self.conic is not None:
            first = len(s) - len(self.offset)
            self.conic.duals(np.ascontiguousarray(s[first:]), np.ascontiguousarray(z[first:]), qpi)
        return self.sense * bounds, self.sense * rows[: self.nrows], qpi


def _costs(problem: Problem) -> np.ndarray:
    return problem.sense * problem.obj


def _hessian(problem: Problem) -> sparse.csc_matrix:
    from scipy import sparse

    n = problem.nvars
    if not problem.nqobj:
        return sparse.csc_matrix((n, n))
    start, index, value = problem.hessian()
    return sparse.csc_matrix((problem.sense * value, index, start), shape=(n, n))


def _linear_rows(problem: Problem) -> list[Rows]:
    """The rows of the model, then the linear terms of the quadratic ones, of which only those without others count."""
    rows = [problem.csr()]
    if problem.nqrows:
        rows.append(problem.qmatrix()[:3])
    return rows


def _sides(problem: Problem) -> tuple[np.ndarray, np.ndarray]:
    """Lower and upper sides of the same rows; none for those with quadratic terms."""
    import numpy as np

    if not problem.nqrows:
        return problem.lower.copy(), problem.upper.copy()
    linear = problem.curvature()[1] == LINEAR
    lower = np.where(linear & (problem.qsense != b"<"), problem.qrhs, -np.inf)
    upper = np.where(linear & (problem.qsense != b">"), problem.qrhs, np.inf)
    return np.concatenate([problem.lower, lower]), np.concatenate([problem.upper, upper])
