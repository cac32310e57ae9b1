"""Multipliers at a given optimum of a convex continuous model, for an engine that has none.

    found = recover(problem, x, 1e-7, 1e-6)         (x, rc, pi, qpi), or None where none hold to the tolerances

At the point all is linear: the gradients of the rows that are tight, with signs by the side that they are tight at,
must add up to the objective's gradient. Of all such multipliers an LP (HiGHS) picks those that make the largest error,
relative to the gradient's entry, as small as it gets. A point that is off by d makes errors of that order, and one that
an engine stopped at for its gap is off by the root of that. So where none hold the point takes a Newton step, with the
rows and bounds that have a price held at their sides, and is tried again. If none hold after some steps there are none,
rather than wrong ones.

Costs for each try one LP with a row or two a variable and a column for each tight row, and a sparse factorisation.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import TYPE_CHECKING

from tarvopy import _highs
from tarvopy.engines.highs import open_library

if TYPE_CHECKING:
    import numpy as np
    from scipy import sparse

    from tarvopy.problem import Problem

#: What counts as tight: so far from the side, relative to 1 + its size.
_TIGHT = 1e-5
_OPTIMAL = 7  # HiGHS' status
_STEPS = 4
#: Added to the diagonal of a Newton system that may be singular; what it changes is refined away.
_REGULARISATION = 1e-8
_REFINEMENTS = 5


def recover(
    problem: Problem, x: np.ndarray, feasibility: float, optimality: float
) -> tuple[np.ndarray, np.ndarray, np.ndarray, np.ndarray] | None:
    """(x, rc, pi, qpi) in the model's own sense: multipliers with a dual infeasibility (relative) and complementarity
    (relative to the objective's gradient terms) within `optimality`, and the point they belong to, which is x or one
    beside it; one that keeps the rows (relative to their sides) within `feasibility` where that can be had.
    """
    import numpy as np

    open_library()
    found = None
    for _ in range(_STEPS + 1):
        here = _Point.at(problem, x)
        y = here.multipliers()
        if y is None:
            break
        rc = here.reduced_costs(y)
        precise = here.violation() <= feasibility
        if here.proves(y, rc, optimality) and (precise or found is None):
            found = x, problem.sense * rc, problem.sense * y[: problem.nrows], problem.sense * y[problem.nrows :]
        if found and precise:
            break
        try:
            x = np.clip(here.newton(problem, y, rc), problem.lb, problem.ub)
        except RuntimeError:  # the factorisation met a zero
            break
        if not np.isfinite(x).all():
            break
    return found


@dataclass(frozen=True, slots=True, eq=False)
class _Point:
    """A problem (as a minimisation) where it is looked at: rows by their gradients, the quadratic ones last."""

    x: np.ndarray
    gradient: np.ndarray
    rows: sparse.csr_matrix
    activity: np.ndarray
    lower: np.ndarray
    upper: np.ndarray
    lb: np.ndarray
    ub: np.ndarray

    @classmethod
    def at(cls, problem: Problem, x: np.ndarray) -> _Point:
        gradient = problem.sense * _objective_gradient(problem, x)
        return cls(x, gradient, *_rows(problem, x), problem.lb, problem.ub)

    def multipliers(self) -> np.ndarray | None:
        tight = _tight(self.activity, self.lower), _tight(self.activity, self.upper)
        at_bound = _tight(self.x, self.lb), _tight(self.x, self.ub)
        return _smallest_error(self.rows, self.gradient, tight, at_bound)

    def reduced_costs(self, y: np.ndarray) -> np.ndarray:
        import numpy as np

        left = self.gradient - self.rows.T @ y
        low, high = _tight(self.x, self.ub), _tight(self.x, self.lb)
        return np.clip(left, np.where(low, -np.inf, 0.0), np.where(high, np.inf, 0.0))

    def proves(self, y: np.ndarray, rc: np.ndarray, optimality: float) -> bool:
        import numpy as np

        error = np.abs(self.gradient - self.rows.T @ y - rc) / (1.0 + np.abs(self.gradient))
        scale = 1.0 + float(np.abs(self.gradient * self.x).max(initial=0.0))
        off = max(
            _price_off_side(y, self.activity, self.lower, self.upper), _price_off_side(rc, self.x, self.lb, self.ub)
        )
        return error.max(initial=0.0) <= optimality and off <= optimality * scale

    def violation(self) -> float:
        """Of the rows; bounds are kept."""
        import numpy as np

        def beyond(distance: np.ndarray, side: np.ndarray) -> float:
            finite = np.isfinite(side)
            return float((distance[finite] / (1.0 + np.abs(side[finite]))).max(initial=0.0))

        return max(beyond(self.lower - self.activity, self.lower), beyond(self.activity - self.upper, self.upper))

    def newton(self, problem: Problem, y: np.ndarray, rc: np.ndarray) -> np.ndarray:
        """Where the Lagrangian's quadratic model is least, with what is priced, equal or violated held at its side."""
        import numpy as np
        from scipy import sparse

        held = (y != 0.0) | (self.lower == self.upper) | (self.activity < self.lower) | (self.activity > self.upper)
        at_lower = (y > 0.0) | ((y == 0.0) & (self.activity < self.lower)) | (self.lower == self.upper)
        missing = np.where(at_lower, self.lower, self.upper)[held] - self.activity[held]
        fixed = (rc != 0.0) | (self.lb == self.ub)
        step = np.where(fixed, np.where((rc > 0.0) | (self.lb == self.ub), self.lb, self.ub) - self.x, 0.0)
        hessian, rows = _lagrangian_hessian(problem, y), self.rows[held]
        free = (~fixed).nonzero()[0]
        matrix = sparse.bmat([[hessian[free][:, free], rows[:, free].T], [rows[:, free], None]], format="csc")
        right = np.concatenate([-(self.gradient + hessian @ step)[free], missing - rows @ step])
        step[free] = _solved(matrix, len(free), right)[: len(free)]
        return self.x + step


def _solved(matrix: sparse.csc_matrix, n: int, right: np.ndarray) -> np.ndarray:
    """A solution of a system that may be singular: [K A'; A 0] with K positive semidefinite of size n."""
    import numpy as np
    from scipy import sparse
    from scipy.sparse.linalg import splu

    shift = np.where(np.arange(len(right)) < n, _REGULARISATION, -_REGULARISATION)
    factor = splu((matrix + sparse.diags(shift)).tocsc())
    found = factor.solve(right)
    for _ in range(_REFINEMENTS):
        found += factor.solve(right - matrix @ found)
    return found


def _lagrangian_hessian(problem: Problem, y: np.ndarray) -> sparse.csr_matrix:
    """Of the objective (as a minimisation) less the rows at their multipliers."""
    import numpy as np
    from scipy import sparse

    shape = (problem.nvars, problem.nvars)
    hessian = sparse.csr_matrix(shape)
    if problem.nqobj:
        start, index, value = problem.hessian()
        upper = sparse.csc_matrix((problem.sense * value, index, start), shape=shape)
        hessian = upper + upper.T - sparse.diags(upper.diagonal())
    if problem.nqrows:
        _, _, _, qstart, one, other, coef = problem.qmatrix()
        weight = -coef * np.repeat(y[problem.nrows :], np.diff(qstart))
        half = sparse.csr_matrix((weight, (one, other)), shape=shape)
        hessian = hessian + half + half.T
    return hessian.tocsr()


def _objective_gradient(problem: Problem, x: np.ndarray) -> np.ndarray:
    from scipy import sparse

    if not problem.nqobj:
        return problem.obj.copy()
    start, index, value = problem.hessian()
    upper = sparse.csc_matrix((value, index, start), shape=(problem.nvars, problem.nvars))
    return problem.obj + upper @ x + upper.T @ x - upper.diagonal() * x


def _rows(problem: Problem, x: np.ndarray) -> tuple[sparse.csr_matrix, np.ndarray, np.ndarray, np.ndarray]:
    """All rows, the quadratic ones last: (gradients at x, activity, lower, upper)."""
    import numpy as np
    from scipy import sparse

    start, index, value = problem.csr()
    linear = sparse.csr_matrix((value, index, start), shape=(problem.nrows, problem.nvars))
    if not problem.nqrows:
        return linear, linear @ x, problem.lower, problem.upper
    start, index, value, qstart, one, other, coef = problem.qmatrix()
    shape = (problem.nqrows, problem.nvars)
    row = np.repeat(np.arange(problem.nqrows), np.diff(qstart))
    products = sparse.csr_matrix((coef * x[other], (row, one)), shape=shape)
    turned = sparse.csr_matrix((coef * x[one], (row, other)), shape=shape)
    own = sparse.csr_matrix((value, index, start), shape=shape)
    qlower = np.where(problem.qsense == b"<", -np.inf, problem.qrhs)
    qupper = np.where(problem.qsense == b">", np.inf, problem.qrhs)
    return (
        sparse.vstack([linear, own + products + turned], format="csr"),
        np.concatenate([linear @ x, own @ x + products @ x]),
        np.concatenate([problem.lower, qlower]),
        np.concatenate([problem.upper, qupper]),
    )


def _tight(value: np.ndarray, side: np.ndarray) -> np.ndarray:
    import numpy as np

    return np.isfinite(side) & (np.abs(value - side) <= _TIGHT * (1.0 + np.abs(side)))


def _price_off_side(multiplier: np.ndarray, value: np.ndarray, lower: np.ndarray, upper: np.ndarray) -> float:
    """The largest multiplier times the distance to the side it belongs to."""
    import numpy as np

    priced = multiplier.nonzero()[0]
    side = np.where(multiplier > 0, lower, upper)[priced]
    return float(np.abs(multiplier[priced] * (value[priced] - side)).max(initial=0.0))


def _smallest_error(
    rows: sparse.csr_matrix,
    gradient: np.ndarray,
    tight: tuple[np.ndarray, np.ndarray],
    at_bound: tuple[np.ndarray, np.ndarray],
) -> np.ndarray | None:
    """Multipliers y (>= 0 where only the lower side is tight, <= 0 at an upper one) and the smallest e with
    gradient - rows'y within e (1 + |gradient|) of what the bounds allow: >= 0 at a lower one, <= 0 at an upper one.
    """
    import numpy as np
    from scipy import sparse

    at_lower, at_upper = tight
    used = (at_lower | at_upper).nonzero()[0]
    columns = rows[used].T.tocsr()
    scale = sparse.csr_matrix((1.0 + np.abs(gradient))[:, None])
    not_above, not_below = ~at_bound[1], ~at_bound[0]  # where gradient - rows'y must not be under / over zero
    matrix = sparse.vstack(
        [
            sparse.hstack([columns[not_above], -scale[not_above]]),
            sparse.hstack([columns[not_below], scale[not_below]]),
        ],
        format="csr",
    )
    m, n = matrix.shape
    split = int(not_above.sum())
    row_lower, row_upper = np.full(m, -np.inf), np.full(m, np.inf)
    row_upper[:split] = gradient[not_above]
    row_lower[split:] = gradient[not_below]
    cost = np.zeros(n)
    cost[-1] = 1.0
    lb = np.append(np.where(at_upper[used], -np.inf, 0.0), 0.0)
    ub = np.append(np.where(at_lower[used], np.inf, 0.0), np.inf)
    solver = _highs.Solver()
    arrays = (matrix.indptr.astype(np.int32), matrix.indices.astype(np.int32), matrix.data.astype(float))
    try:
        solver.load(1, 0.0, cost, lb, ub, None, row_lower, row_upper, *arrays, False)
    except _highs.HighsError:  # numbers beyond its limits
        return None
    solver.set_option("dual_feasibility_tolerance", 1e-9)
    solver.set_option("primal_feasibility_tolerance", 1e-9)
    solver.start(False)
    while not solver.wait(1.0):
        pass
    if solver.result()["model_status"] != _OPTIMAL:
        return None
    found = np.empty(n)
    solver.solution(found, None, None)
    y = np.zeros(rows.shape[0])
    y[used] = found[:-1]
    return y
