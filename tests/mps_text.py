"""Models as MPS text, for tests that need a file or a child process."""

from __future__ import annotations

import numpy as np


def mps(A, sense, rhs, obj, *, integer=(), ub=None) -> str:
    """Free-form MPS of: minimise obj x, A x (sense: one of L, G, E for each row) rhs, 0 <= x <= ub (inf: none)."""
    A = np.asarray(A, dtype=float)
    nrows, ncols = A.shape
    integer = set(integer)
    lines = ["NAME made", "ROWS", " N cost", *(f" {s} r{i}" for i, s in enumerate(sense)), "COLUMNS"]
    for j in range(ncols):
        if j in integer:
            lines.append(" M 'MARKER' 'INTORG'")
        lines.append(f" x{j} cost {obj[j]!r}")
        lines += [f" x{j} r{i} {float(A[i, j])!r}" for i in range(nrows) if A[i, j]]
        if j in integer:
            lines.append(" M 'MARKER' 'INTEND'")
    lines += ["RHS", *(f" RHS r{i} {float(b)!r}" for i, b in enumerate(rhs)), "BOUNDS"]
    lines += [f" UP BND x{j} {float(ub[j])!r}" for j in range(ncols) if ub is not None and np.isfinite(ub[j])]
    return "\n".join([*lines, "ENDATA", ""])


def market_split(markets: int = 6, seed: int = 1) -> str:
    """A tiny model that no tree search finishes within minutes, though any point is feasible: split 10 (markets - 1)
    retailers evenly over the markets.

    G. Cornuejols, M. Dawande, "A class of hard small 0-1 programs", INFORMS Journal on Computing 11 (1999).
    """
    rng = np.random.default_rng(seed)
    n = 10 * (markets - 1)
    D = rng.integers(0, 100, (markets, n))
    A = np.hstack([D, np.eye(markets), -np.eye(markets)])
    obj = [0.0] * n + [1.0] * (2 * markets)
    ub = [1.0] * n + [np.inf] * (2 * markets)
    return mps(A, "E" * markets, D.sum(axis=1) // 2, obj, integer=range(n), ub=ub)
