"""The families in CVXPY: `get_problem_data`, then its HiGHS interface up to the engine's `run`, cut short.

Quadratic families go to Clarabel: there the data that `get_problem_data` gives are what its constructor takes. They get
helper variables and rows for sums of squares of expressions, which the counts show.
"""

import cvxpy as cp
import highspy
import numpy as np
import scipy.sparse as sp
from common import M_FAC, data, lqcp_params, lqcp_weights
from limit import counts

MAX_SIZE = {"nqueens": 300}  # above that it takes minutes: every diagonal is an index into all n * n entries


class Loaded(BaseException):
    """Raised in place of `Highs.run`: everything before it is what is measured."""


def stop(highs, *arguments):
    raise Loaded(highs)


def loaded(objective, constraints):
    problem = cp.Problem(objective, constraints)
    arrays, chain, _ = problem.get_problem_data(cp.HIGHS)
    highspy.Highs.run = stop
    try:
        chain.solve_via_data(problem, arrays)
    except Loaded as reached:
        highs = reached.args[0]
    return lambda: {**counts(highs), "_model": problem}


def conic(objective, constraints):
    problem = cp.Problem(objective, constraints)
    arrays, *_ = problem.get_problem_data(cp.CLARABEL)
    A, P = arrays["A"], arrays.get("P")
    qnz = 0 if P is None else sp.triu(P).nnz
    return lambda: {
        "vars": A.shape[1], "rows": A.shape[0], "nz": A.nnz, "qnz": qnz, "conic": True, "_model": problem
    }  # fmt: skip


def lqcp(n):
    dx, dt, h2, wanted = lqcp_params(n)
    wy, wu = lqcp_weights(n)
    y, u = cp.Variable((n + 1, n + 1), bounds=[0, 1]), cp.Variable(n, bounds=[-1, 1])
    now, then, w = y[:-1], y[1:], 0.5 * dt
    curvature = now[:, :-2] - 2 * now[:, 1:-1] + now[:, 2:] + then[:, :-2] - 2 * then[:, 1:-1] + then[:, 2:]
    constraints = [
        h2 * (then[:, 1:-1] - now[:, 1:-1]) == w * curvature,
        y[0] == 0,
        then[:, 2] - 4 * then[:, 1] + 3 * then[:, 0] == 0,
        then[:, n - 2] - 4 * then[:, n - 1] + 3 * then[:, n] == 2 * dx * (u - then[:, n]),
    ]
    off = cp.sum_squares(cp.multiply(np.sqrt(wy), y[n] - wanted))
    return conic(cp.Minimize(off + cp.sum_squares(cp.multiply(np.sqrt(wu), u))), constraints)


def qp(n):
    x = cp.Variable(n, bounds=[0, None])
    return conic(cp.Minimize(cp.sum_squares(x)), [cp.sum(x) == n / 2])


def factors(n):
    F, S, d, mean = data("factors", n)
    w, y = cp.Variable(n, bounds=[0, None]), cp.Variable(len(S))
    risk = cp.quad_form(y, cp.psd_wrap(S)) + cp.sum_squares(cp.multiply(np.sqrt(d), w))
    return conic(cp.Minimize(risk), [y == F.T @ w, cp.sum(w) == 1, mean @ w >= 0.6])


def basic(n):
    x, y = cp.Variable((n, n)), cp.Variable((n, n))
    i = np.repeat(np.arange(n, dtype=float)[:, None], n, 1)
    return loaded(cp.Minimize(cp.sum(2 * x + y)), [x - y >= i, x + y >= 0])


def knapsack(n):
    v, w = data("knapsack", n)
    x = cp.Variable(n, boolean=True)
    return loaded(cp.Maximize(v @ x), [w @ x <= 200])


def sparserows(n):
    A, b, c = data("sparserows", n)
    x = cp.Variable(n, bounds=[0, 1])
    return loaded(cp.Minimize(c @ x), [A @ x <= b])


def facilities(g, **kind):
    f, points = g, (g + 1) ** 2
    y = cp.Variable((1, f, 2), bounds=[0, 1])
    s = cp.Variable((points, f), nonneg=True)
    z = cp.Variable((points, f), **kind)
    r = cp.Variable((points, f, 2))
    d = cp.Variable()
    grid = np.arange(g + 1) / g
    place = np.stack([np.repeat(grid, g + 1), np.tile(grid, g + 1)], 1)[:, None, :]
    constraints = [
        cp.sum(z, axis=1) == 1,
        s == d + M_FAC * (1 - z),
        r + cp.broadcast_to(y, (points, f, 2)) == np.broadcast_to(place, (points, f, 2)),
    ]
    return cp.Minimize(d), constraints, s, r


def fac(g):
    objective, constraints, *_ = facilities(g, boolean=True)
    return loaded(objective, constraints)


def facsoc(g):
    objective, constraints, s, r = facilities(g, bounds=[0, 1])
    cones = cp.SOC(cp.reshape(s, (s.size,), order="C"), cp.reshape(r, (s.size, 2), order="C"), axis=1)
    return conic(objective, [*constraints, cones])


def nqueens(n):
    x = cp.Variable((n, n), boolean=True)
    constraints = [cp.sum(x, axis=1) == 1, cp.sum(x, axis=0) == 1]
    flat, board = cp.vec(x, order="C"), np.arange(n * n).reshape(n, n)
    for view in (board, board[:, ::-1]):  # cp.diag has the main diagonal of a variable only
        constraints += [cp.sum(flat[view.diagonal(k)]) <= 1 for k in range(-n + 1, n)]
    return loaded(cp.Minimize(0), constraints)


def network(n):
    K, demand, cost = data("network", n)
    gen, flow = cp.Variable((n, 24), bounds=[0, 9]), cp.Variable((n, 24), bounds=[-9, 9])
    return loaded(cp.Minimize(cp.sum(cp.multiply(cost, gen))), [gen + K @ flow == demand])


def mxm(n):
    A, C = data("mxm", n)
    X = cp.Variable((n, n), bounds=[0, None])
    return loaded(cp.Minimize(cp.sum(X)), [A @ X <= C])


def sum2d(n):
    X = cp.Variable((n, n), bounds=[0, None])
    return loaded(cp.Minimize(0), [cp.sum(X) <= n])


def rowsum(n):
    X = cp.Variable((n, n), bounds=[0, None])
    return loaded(cp.Minimize(0), [cp.sum(X, axis=1) <= data("rowsum", n)])


def broadcast(n):
    x, y = cp.Variable((n, 1), bounds=[0, None]), cp.Variable((1, n), bounds=[0, None])
    z = cp.Variable((n, n), bounds=[0, None])
    return loaded(cp.Minimize(0), [cp.multiply(x, data("broadcast", n)) + y - z <= 0])


LINEAR = (basic, knapsack, sparserows, fac, nqueens, network, mxm, sum2d, rowsum, broadcast)
FAMILIES = {f.__name__: f for f in (*LINEAR, lqcp, qp, facsoc, factors)}
