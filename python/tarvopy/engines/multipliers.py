"""Multipliers at a given optimum of a convex continuous model, for an engine that has none.

    found = recover(problem, x, tolerance)          (rc, pi, qpi), or None where none hold to the tolerance

At the point all is linear: the gradients of the rows that are tight, with signs by the side that they are tight at,
must add up to the objective's gradient. Of all such multipliers an LP (HiGHS) picks those that make the largest error,
relative to the gradient's entry, as small as it gets. A point that is off by d makes errors of that order, so an engine
that stops at a gap often leaves none that hold: then there are none, rather than wrong ones.

Costs one LP with a row or two a variable and a column for each tight row.
"""

from __future__ import annotations

from typing import TYPE_CHECKING

from tarvopy import _highs
from tarvopy.engines.highs import _open

if TYPE_CHECKING:
    import numpy as np
    from scipy import sparse

    from tarvopy.problem import Problem

#: What counts as tight: so far from the side, relative to 1 + its size.
_TIGHT = 1e-5
_OPTIMAL = 7  # HiGHS' status


def recover(problem: Problem, x: np.ndarray, tolerance: float) -> tuple[np.ndarray, np.ndarray, np.ndarray] | None:
    """(rc, pi, qpi) in the model's own sense with a dual infeasibility (relative) and complementarity (relative to the
    objective's gradient terms) within the tolerance.
    """
    import numpy as np

    _open()
    gradient = problem.sense * _objective_gradient(problem, x)
    rows, activity, lower, upper = _rows(problem, x)
    at_lower, at_upper = _tight(activity, lower), _tight(activity, upper)
    x_lower, x_upper = _tight(x, problem.lb), _tight(x, problem.ub)
    solved = _smallest_error(rows, gradient, (at_lower, at_upper), (x_lower, x_upper))
    if solved is None:
        return None
    multiplier, error = solved
    left = gradient - rows.T @ multiplier
    rc = np.clip(left, np.where(x_upper, -np.inf, 0.0), np.where(x_lower, np.inf, 0.0))
    scale = 1.0 + float(np.abs(gradient * x).max(initial=0.0))
    off = max(_price_off_side(multiplier, activity, lower, upper), _price_off_side(rc, x, problem.lb, problem.ub))
    if error > tolerance or off > tolerance * scale:
        return None
    multiplier *= problem.sense
    return problem.sense * rc, multiplier[: problem.nrows], multiplier[problem.nrows :]


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
) -> tuple[np.ndarray, float] | None:
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
    solver.load(1, 0.0, cost, lb, ub, None, row_lower, row_upper, *arrays, False)
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
    return y, float(found[-1])
