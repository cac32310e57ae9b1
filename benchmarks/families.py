"""Every family written with tarvopy as a user would write it. `python benchmarks/families.py --check` compares tiny
models, entry by entry, with arrays made by hand.

`common` may be another runner's module of that name, if its folder stands first on the path: the data then come from
there.
"""

import sys
import tempfile
from pathlib import Path

import numpy as np
import scipy.sparse as sp
from common import ALPHA, M_FAC, WARM, data, lqcp_params, lqcp_weights

import tarvopy
from tarvopy import _modelapi, nlfunc
from tarvopy.problem import Problem

INF = np.inf


def loaded(m):
    """Loads the engine; the callable given back has the counts and keeps the model."""
    counts = m.prepare()
    return lambda: {**counts, "_model": m}


def loaded_as_cones(m):
    """The same where the engine is Clarabel."""
    counts = m.prepare()
    return lambda: {**counts, "conic": True, "_model": m}


def basic(n):
    m = tarvopy.Model()
    x = m.addMVar((n, n), lb=-INF, obj=2)
    y = m.addMVar((n, n), lb=-INF, obj=1)
    m.addConstr(x - y >= np.arange(float(n))[:, None])
    m.addConstr(x + y >= 0)
    return loaded(m)


def knapsack(n):
    v, w = data("knapsack", n)
    m = tarvopy.Model()
    x = m.addMVar(n, vtype="B", obj=v)
    m.addConstr(w @ x <= 200)
    m.ModelSense = tarvopy.TRV.MAXIMIZE
    return loaded(m)


def sparserows(n):
    A, b, c = data("sparserows", n)
    m = tarvopy.Model()
    x = m.addMVar(n, ub=1, obj=c)
    m.addConstr(A @ x <= b)
    return loaded(m)


def lqcp(n):
    dx, dt, h2, wanted = lqcp_params(n)
    wy, wu = lqcp_weights(n)
    m = tarvopy.Model()
    y = m.addMVar((n + 1, n + 1), ub=1)
    u = m.addMVar(n, lb=-1, ub=1)
    now, then, w = y[:-1], y[1:], 0.5 * dt
    curvature = now[:, :-2] - 2 * now[:, 1:-1] + now[:, 2:] + then[:, :-2] - 2 * then[:, 1:-1] + then[:, 2:]
    m.addConstr(h2 * (then[:, 1:-1] - now[:, 1:-1]) == w * curvature)
    m.addConstr(y[0] == 0)
    m.addConstr(then[:, 2] - 4 * then[:, 1] + 3 * then[:, 0] == 0)
    m.addConstr(then[:, n - 2] - 4 * then[:, n - 1] + 3 * then[:, n] == 2 * dx * (u - then[:, n]))
    off = y[n] - wanted
    m.setObjective((wy * off) @ off + (wu * u) @ u)
    return loaded_as_cones(m)


def qp(n):
    m = tarvopy.Model()
    x = m.addMVar(n)
    m.addConstr(x.sum() == n / 2)
    m.setObjective(x @ x)
    return loaded_as_cones(m)


def factors(n):
    F, S, d, mean = data("factors", n)
    m = tarvopy.Model()
    w = m.addMVar(n)
    y = m.addMVar(len(S), lb=-INF)
    m.addConstr(y == F.T @ w)
    m.addConstr(w.sum() == 1)
    m.addConstr(mean @ w >= 0.6)
    m.setObjective(y @ S @ y + w @ sp.diags_array(d) @ w)
    return loaded_as_cones(m)


def facilities(g, vtype):
    """The linear part of facility location; the distances s and the differences r of coordinates beside it."""
    points, grid = (g + 1) ** 2, np.arange(g + 1) / g
    place = np.stack([np.repeat(grid, g + 1), np.tile(grid, g + 1)], 1)
    m = tarvopy.Model()
    y = m.addMVar((g, 2), ub=1)
    s = m.addMVar((points, g))
    z = m.addMVar((points, g), ub=1, vtype=vtype)
    r = m.addMVar((points, g, 2), lb=-INF)
    d = m.addMVar((), lb=-INF, obj=1)
    m.addConstr(z.sum(axis=1) == 1)
    m.addConstr(s == d + M_FAC * (1 - z))
    m.addConstr(r + y == place[:, None, :])
    return m, s, r


def fac(g):
    return loaded(facilities(g, "B")[0])


def facsoc(g):
    m, s, r = facilities(g, "C")
    m.addConstr((r * r).sum(axis=2) <= s * s)
    return loaded_as_cones(m)


def nqueens(n):
    m = tarvopy.Model()
    x = m.addMVar((n, n), vtype="B")
    m.addConstr(x.sum(axis=1) == 1)
    m.addConstr(x.sum(axis=0) == 1)
    for board in (x, x[:, ::-1]):
        for k in range(-n + 1, n):
            m.addConstr(board.diagonal(k).sum() <= 1)
    return loaded(m)


def network(n):
    K, demand, cost = data("network", n)
    m = tarvopy.Model()
    gen = m.addMVar((n, 24), ub=9, obj=cost)
    flow = m.addMVar((n, 24), lb=-9, ub=9)
    m.addConstr(gen + K @ flow == demand)
    return loaded(m)


def mxm(n):
    A, C = data("mxm", n)
    m = tarvopy.Model()
    X = m.addMVar((n, n), obj=1)
    m.addConstr(A @ X <= C)
    return loaded(m)


def sum2d(n):
    m = tarvopy.Model()
    X = m.addMVar((n, n))
    m.addConstr(X.sum() <= n)
    return loaded(m)


def rowsum(n):
    m = tarvopy.Model()
    X = m.addMVar((n, n))
    m.addConstr(X.sum(axis=1) <= data("rowsum", n))
    return loaded(m)


def broadcast(n):
    C = data("broadcast", n)
    m = tarvopy.Model()
    x = m.addMVar((n, 1))
    y = m.addMVar((1, n))
    z = m.addMVar((n, n))
    m.addConstr(x * C + y - z <= 0)
    return loaded(m)


def beam(n):
    """A clamped beam: angle t, height x and bending u at n + 1 points; the model and its objective."""
    m, h = tarvopy.Model(), 1 / n
    t = m.addMVar(n + 1, lb=-1, ub=1)
    x = m.addMVar(n + 1, lb=-0.05, ub=0.05)
    u = m.addMVar(n + 1, lb=-INF)
    m.addConstr(x[1:] - x[:-1] - 0.5 * h * (nlfunc.sin(t[1:]) + nlfunc.sin(t[:-1])) == 0)
    m.addConstr(t[1:] - t[:-1] - 0.5 * h * u[1:] - 0.5 * h * u[:-1] == 0)
    bending = 0.5 * h * (u[1:] ** 2 + u[:-1] ** 2)
    total = (bending + 0.5 * ALPHA * h * (nlfunc.cos(t[1:]) + nlfunc.cos(t[:-1]))).sum()
    m.setObjective(total)
    m.update()
    return m, total


def clnlbeam(n):
    m, _ = beam(n)
    return lambda: written_counts(m)


def clnlbeam_nl(n):
    m, _ = beam(n)
    with tempfile.TemporaryDirectory() as folder:
        _modelapi.write_nl(m._cmodel, str(Path(folder, "beam.nl")))
    return lambda: written_counts(m)


def written_counts(m):
    """Counts as the head of the .nl file has them, but for the row and the variable that stand for the objective."""
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder, "counted.nl")
        _modelapi.write_nl(m._cmodel, str(path))
        head = [line.split() for line in path.read_bytes().split(b"\n", 9)[:9]]
    variables, rows, nonzeros = int(head[1][0]), int(head[1][1]), int(head[7][0])
    points = m.NumVars // 3
    return {"vars": variables - 1, "rows": rows - 1, "nz": nonzeros - (2 * points + 1), "_model": m}


LINEAR = (basic, knapsack, sparserows, fac, nqueens, network, mxm, sum2d, rowsum, broadcast)
FAMILIES = {f.__name__: f for f in (*LINEAR, lqcp, qp, facsoc, factors, clnlbeam, clnlbeam_nl)}


def differences(family, size):
    """What a family's model and the arrays made by hand do not agree on; empty if they are the same model."""
    from by_hand import ARRAYS

    if family not in ARRAYS:
        return beam_differences(size)
    want, m = ARRAYS[family](size), FAMILIES[family](size)()["_model"]
    columns, rows = m.getVars(), m.getConstrs()
    integer = np.zeros(len(want.lb)) if want.integer is None else want.integer
    wanted_rows = sp.csr_array((want.values, want.indices, want.indptr), shape=(len(want.lower), len(want.lb)))
    pairs = {
        "rows": (m.getA().toarray(), wanted_rows.toarray()),
        "lower sides": ([c.Lower for c in rows], want.lower),
        "upper sides": ([c.Upper for c in rows], want.upper),
        "lower bounds": ([x.LB for x in columns], want.lb),
        "upper bounds": ([x.UB for x in columns], want.ub),
        "costs": ([x.Obj for x in columns], want.cost),
        "integrality": ([x.VType != "C" for x in columns], integer),
        "sense": (m.ModelSense, -1 if want.maximize else 1),
        **quadratic_parts(m, want),
    }
    return [what for what, (got, by_hand) in pairs.items() if not np.array_equal(got, by_hand)]


def beam_differences(n):
    """The same for the beam, whose functions are compared by their values at a point."""
    m, total = beam(n)
    x, *_ = _modelapi.open_solution(m._cmodel)
    x[:] = np.sin(np.arange(x.size) + 1.0)
    t, height, u = x.reshape(3, n + 1).copy()
    figures = dict.fromkeys(("objval", "bound", "gap", "runtime", "itercount", "nodecount"), 0.0)
    _modelapi.commit_solution(m._cmodel, status=tarvopy.TRV.OPTIMAL, has_x=True, has_duals=False, engine="", **figures)
    h = 1 / n
    mean = {what: 0.5 * h * (values[1:] + values[:-1]) for what, values in (("sin", np.sin(t)), ("u", u))}
    objective = 0.5 * h * (u[1:] ** 2 + u[:-1] ** 2 + ALPHA * (np.cos(t[1:]) + np.cos(t[:-1])))
    pairs = {
        "counts": (list(written_counts(m).values())[:3], [3 * (n + 1), 2 * n, 8 * n]),
        "nonlinear rows": ([-c.NLSlack for c in m.getNLConstrs()], np.diff(height) - mean["sin"]),
        "linear rows": ([-c.Slack for c in m.getConstrs()], np.diff(t) - mean["u"]),
        "objective": (total.getValue(), objective.sum()),
        "bounds": ([x.UB for x in m.getVars()], np.repeat([1, 0.05, INF], n + 1)),
    }
    return [what for what, (got, by_hand) in pairs.items() if not np.allclose(got, by_hand, rtol=1e-12, atol=1e-15)]


def quadratic_parts(m, want):
    """Pairs to compare: Hessians, and for each quadratic row its terms as (column, column, coefficient)."""
    problem, n = Problem.of(m._cmodel), len(want.lb)
    start, index, value = problem.hessian()
    hessian = sp.csc_array((n, n)) if want.hessian is None else want.hessian
    *_, qstart, first, second, coefficient = problem.qmatrix()
    cones = np.empty((0, 3)) if want.cones is None else want.cones
    terms = np.stack([cones, cones, np.broadcast_to([-1.0, 1.0, 1.0], cones.shape)], 2)
    row = np.repeat(np.arange(problem.nqrows), np.diff(qstart))
    order = np.lexsort([second, first, row])  # terms stand in the order of the program
    return {
        "hessian": (sp.csc_array((value, index, start), shape=(n, n)).toarray(), hessian.toarray()),
        "ends of quadratic rows": (qstart, np.arange(0, terms[:, :, 0].size + 1, 3)),
        "quadratic terms": (np.stack([first, second, coefficient], 1)[order], terms.reshape(-1, 3)),
        "quadratic sides": (problem.qrhs, np.zeros(len(cones))),
    }


def check():
    failed = 0
    for family in FAMILIES:
        found = differences(family, WARM.get(family, 6))
        failed += bool(found)
        print(f"{family}: {'differs in ' + ', '.join(found) if found else 'same'}")
    print(f"{len(FAMILIES) - failed} passed, {failed} failed")
    return failed


if __name__ == "__main__":
    sys.exit(bool(check()) if sys.argv[1:] == ["--check"] else "usage: families.py --check")
