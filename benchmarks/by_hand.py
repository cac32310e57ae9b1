"""Every family as plain arrays, written by somebody who knows the model: the least work anyone can do, and the truth
for checks.

Rows come as CSR with two sides; `limit.py` hands these arrays to HiGHS as they are, those of quadratic families in the
form that Clarabel takes.
"""

from dataclasses import dataclass

import numpy as np
import scipy.sparse as sp
from common import FACTORS, M_FAC, data, lqcp_params, lqcp_weights

I32, INF = np.int32, np.inf


@dataclass
class Arrays:
    lb: np.ndarray
    ub: np.ndarray
    cost: np.ndarray
    indptr: np.ndarray
    indices: np.ndarray
    values: np.ndarray
    lower: np.ndarray
    upper: np.ndarray
    integer: np.ndarray | None = None
    maximize: bool = False
    hessian: sp.csc_array | None = None  # upper triangle; cost @ x + x @ H @ x / 2
    cones: np.ndarray | None = None  # (cones, 3) ascending columns: the first is at least the others' norm


def full(n, value):
    return np.full(n, value, float)


def pointers(lengths):
    pointers = np.zeros(len(lengths) + 1, I32)
    np.cumsum(lengths, out=pointers[1:])
    return pointers


def basic(n):
    k = n * n
    indices = np.empty((2 * k, 2), I32)
    indices[:k, 0] = indices[k:, 0] = np.arange(k, dtype=I32)
    indices[:, 1] = indices[:, 0] + k
    values = np.ones((2 * k, 2))
    values[:k, 1] = -1
    lower = np.zeros(2 * k)
    lower[:k] = np.repeat(np.arange(n, dtype=float), n)
    cost = np.r_[full(k, 2), full(k, 1)]
    return Arrays(
        full(2 * k, -INF), full(2 * k, INF), cost, np.arange(0, 4 * k + 1, 2, dtype=I32), indices.ravel(),
        values.ravel(), lower, full(2 * k, INF),
    )  # fmt: skip


def one_row(weights, upper, ub, cost, **more):
    n = len(weights)
    return Arrays(
        np.zeros(n), full(n, ub), cost, np.array([0, n], I32), np.arange(n, dtype=I32), weights, full(1, -INF),
        full(1, upper), **more,
    )  # fmt: skip


def knapsack(n):
    v, w = data("knapsack", n)
    return one_row(w, 200, 1, v, integer=np.ones(n, I32), maximize=True)


def sparserows(n):
    A, b, c = data("sparserows", n)
    return Arrays(np.zeros(n), np.ones(n), c, A.indptr, A.indices, A.data, full(n, -INF), b)


def fac(g):
    """Columns y(f, 2) | s(p, f) | z(p, f) | r(p, f, 2) | d with grid points p; rows: assignment, big-M, differences."""
    f, points = g, (g + 1) ** 2
    k = points * f
    s0, z0, r0, d = 2 * f, 2 * f + k, 2 * f + 2 * k, 2 * f + 4 * k
    s = np.arange(s0, s0 + k, dtype=I32)
    big_m = np.empty((k, 3), I32)
    big_m[:, 0], big_m[:, 1], big_m[:, 2] = s, s + k, d
    difference = np.empty((2 * k, 2), I32)
    difference[:, 0] = np.tile(np.arange(2 * f, dtype=I32), points)
    difference[:, 1] = np.arange(r0, d, dtype=I32)
    indices = np.concatenate([np.arange(z0, r0, dtype=I32), big_m.ravel(), difference.ravel()])
    values = np.concatenate([np.ones(k), np.tile([1.0, M_FAC, -1.0], k), np.ones(4 * k)])
    grid = np.arange(g + 1) / g
    place = np.stack([np.repeat(grid, g + 1), np.tile(grid, g + 1)], 1)
    sides = np.concatenate([np.ones(points), full(k, M_FAC), np.repeat(place, f, 0).ravel()])
    lb, ub, cost, integer = full(d + 1, -INF), full(d + 1, INF), np.zeros(d + 1), np.zeros(d + 1, I32)
    lb[:r0] = 0
    ub[:s0] = ub[z0:r0] = 1
    integer[z0:r0] = 1
    cost[d] = 1
    lengths = np.r_[np.full(points, f), np.full(k, 3), np.full(2 * k, 2)]
    return Arrays(lb, ub, cost, pointers(lengths), indices, values, sides, sides, integer)


def facsoc(g):
    arrays = fac(g)
    s0, k = 2 * g, (g + 1) ** 2 * g
    arrays.integer = None
    arrays.cones = np.empty((k, 3), I32)
    arrays.cones[:, 0] = np.arange(s0, s0 + k)
    arrays.cones[:, 1:] = np.arange(s0 + 2 * k, s0 + 4 * k).reshape(k, 2)
    return arrays


def lqcp(n):
    """Columns y(time, place) | u(time)."""
    dx, dt, h2, wanted = lqcp_params(n)
    wy, wu = lqcp_weights(n)
    width, ny, w = n + 1, (n + 1) ** 2, 0.5 * dt
    y, u = np.arange(ny, dtype=I32).reshape(width, width), ny + np.arange(n, dtype=I32)
    now, then = y[:-1, 1:-1].ravel(), y[1:, 1:-1].ravel()
    equation = np.stack([now - 1, now, now + 1, then - 1, then, then + 1], 1)
    left, right = y[1:, :3], np.column_stack([y[1:, -3:], u])
    indices = np.concatenate([equation.ravel(), y[0], left.ravel(), right.ravel()])
    values = np.concatenate(
        [
            np.tile([-w, 2 * w - h2, -w, -w, 2 * w + h2, -w], len(now)), np.ones(width),
            np.tile([3.0, -4.0, 1.0], n), np.tile([1.0, -4.0, 3.0 + 2 * dx, -2 * dx], n),
        ]
    )  # fmt: skip
    lengths = np.r_[np.full(len(now), 6), np.full(width, 1), np.full(n, 3), np.full(n, 4)]
    cost, sides = np.zeros(ny + n), np.zeros(len(lengths))
    cost[y[-1]] = -2 * wy * wanted
    squares = np.concatenate([y[-1], u])
    hessian = diagonal(ny + n, squares, 2 * np.concatenate([wy, wu]))
    return Arrays(
        np.r_[np.zeros(ny), full(n, -1)], full(ny + n, 1), cost, pointers(lengths), indices, values, sides, sides,
        hessian=hessian,
    )  # fmt: skip


def diagonal(n, columns, values):
    """An n x n matrix with values at the ascending `columns` of its diagonal."""
    count = np.zeros(n, I32)
    count[columns] = 1
    return sp.csc_array((values, columns, pointers(count)), shape=(n, n))


def qp(n):
    arrays = one_row(np.ones(n), n / 2, INF, np.zeros(n), hessian=diagonal(n, np.arange(n, dtype=I32), full(n, 2)))
    arrays.lower = arrays.upper
    return arrays


def factors(n):
    """Columns w(asset) | y(factor); rows: factors, budget, required return."""
    F, S, d, mean = data("factors", n)
    k = FACTORS
    rows = np.empty((k, n + 1))
    rows[:, :n], rows[:, n] = -F.T, 1
    indices = np.empty((k, n + 1), I32)
    indices[:, :n], indices[:, n] = np.arange(n), n + np.arange(k)
    assets = np.arange(n, dtype=I32)
    sides = np.r_[np.zeros(k), 1, 0.6]
    upper = sides.copy()
    upper[-1] = INF
    triangle = sp.csc_array(np.triu(2 * S))
    hessian = sp.block_diag([sp.diags_array(2 * d), triangle], format="csc")
    return Arrays(
        np.r_[np.zeros(n), full(k, -INF)], full(n + k, INF), np.zeros(n + k),
        pointers(np.r_[np.full(k, n + 1), n, n]), np.concatenate([indices.ravel(), assets, assets]),
        np.concatenate([rows.ravel(), np.ones(n), mean]), sides, upper, hessian=hessian,
    )  # fmt: skip


def nqueens(n):
    x = np.arange(n * n, dtype=I32).reshape(n, n)
    mirrored, offsets = x[:, ::-1], range(-n + 1, n)
    indices = np.concatenate(
        [x.ravel(), x.T.ravel(), *(x.diagonal(k) for k in offsets), *(mirrored.diagonal(k) for k in offsets)]
    )
    diagonals = n - np.abs(np.arange(-n + 1, n))
    lower = full(6 * n - 2, -INF)
    lower[: 2 * n] = 1
    return Arrays(
        np.zeros(n * n), np.ones(n * n), np.zeros(n * n), pointers(np.r_[np.full(2 * n, n), diagonals, diagonals]),
        indices, np.ones(4 * n * n), lower, np.ones(6 * n - 2), np.ones(n * n, I32),
    )  # fmt: skip


def network(n):
    K, demand, cost = data("network", n)
    k = n * 24
    A = sp.hstack([sp.eye_array(k, format="csr"), sp.kron(K, sp.eye_array(24), format="csr")], format="csr")
    sides = demand.ravel()
    return Arrays(
        np.r_[np.zeros(k), full(k, -9)], full(2 * k, 9), np.r_[cost.ravel(), np.zeros(k)], A.indptr.astype(I32),
        A.indices.astype(I32), A.data, sides, sides,
    )  # fmt: skip


def mxm(n):
    A, C = data("mxm", n)
    k = n * n
    indices = np.broadcast_to(np.arange(k, dtype=I32).reshape(n, n).T, (n, n, n)).ravel()  # row (i, j): l * n + j
    values = np.broadcast_to(A[:, None, :], (n, n, n)).ravel()
    return Arrays(
        np.zeros(k), full(k, INF), np.ones(k), np.arange(k + 1, dtype=I32) * n, indices, values, full(k, -INF),
        C.ravel(),
    )  # fmt: skip


def sum2d(n):
    return one_row(np.ones(n * n), n, INF, np.zeros(n * n))


def rowsum(n):
    b, k = data("rowsum", n), n * n
    return Arrays(
        np.zeros(k), full(k, INF), np.zeros(k), np.arange(n + 1, dtype=I32) * n, np.arange(k, dtype=I32), np.ones(k),
        full(n, -INF), b,
    )  # fmt: skip


def broadcast(n):
    C, k = data("broadcast", n), n * n
    i = np.arange(n, dtype=I32)
    indices, values = np.empty((n, n, 3), I32), np.empty((n, n, 3))
    indices[:, :, 0], indices[:, :, 1] = i[:, None], n + i
    indices[:, :, 2] = 2 * n + np.arange(k, dtype=I32).reshape(n, n)
    values[:, :, 0], values[:, :, 1], values[:, :, 2] = C, 1, -1
    return Arrays(
        np.zeros(2 * n + k), full(2 * n + k, INF), np.zeros(2 * n + k), np.arange(k + 1, dtype=I32) * 3,
        indices.ravel(), values.ravel(), full(k, -INF), np.zeros(k),
    )  # fmt: skip


LINEAR = (basic, knapsack, sparserows, fac, nqueens, network, mxm, sum2d, rowsum, broadcast)
QUADRATIC = (lqcp, qp, facsoc, factors)
ARRAYS = {f.__name__: f for f in LINEAR + QUADRATIC}
