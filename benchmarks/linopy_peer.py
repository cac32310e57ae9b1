"""The families in linopy: labelled whole-array expressions on its CSR-backed model, `to_highspy` without names.

linopy takes no SciPy matrices: five entries a row are gathered as a rectangle, other matrices are dense operands. It
has no quadratic rows, and hands quadratic objectives to HiGHS, so that its figures there hold HiGHS' hand-over too.
"""

import highspy  # noqa: F401 (linopy loads it late; that belongs to the import)
import linopy
import numpy as np
import pandas as pd
import xarray as xr
from common import M_FAC, data, lqcp_params, lqcp_weights
from limit import counts

MAX_SIZE = {"facsoc": 0}  # no quadratic rows

linopy.options["semantics"] = "v1"


def new():
    return linopy.Model(sparse=True)


def loaded(m):
    highs = m.to_highspy(set_names=False)
    return lambda: {**counts(highs), "_model": m}


def index(n, name):
    return pd.RangeIndex(0, n, name=name)


def array(values, *dims):
    return xr.DataArray(values, coords=[index(k, d) for k, d in zip(np.shape(values), dims, strict=True)])


def no_objective(m, x):
    m.add_objective(0 * x.isel(i=0, j=0, drop=True))


def basic(n):
    m = new()
    grid = [index(n, "i"), index(n, "j")]
    x, y = m.add_variables(coords=grid), m.add_variables(coords=grid)
    m.add_constraints(x - y >= array(np.arange(float(n)), "i"))
    m.add_constraints(x + y >= 0)
    m.add_objective((2 * x + y).sum())
    return loaded(m)


def knapsack(n):
    v, w = data("knapsack", n)
    m = new()
    x = m.add_variables(coords=[index(n, "i")], binary=True)
    m.add_constraints((x * array(w, "i")).sum() <= 200)
    m.add_objective((x * array(v, "i")).sum(), sense="max")
    return loaded(m)


def sparserows(n):
    A, b, c = data("sparserows", n)
    m = new()
    x = m.add_variables(0, 1, coords=[index(n, "i")])
    gathered = x.isel(i=array(A.indices.reshape(n, 5), "r", "k"))
    m.add_constraints((gathered * array(A.data.reshape(n, 5), "r", "k")).sum("k") <= array(b, "r"))
    m.add_objective((x * array(c, "i")).sum())
    return loaded(m)


def lqcp(n):
    dx, dt, h2, wanted = lqcp_params(n)
    wy, wu = lqcp_weights(n)
    m = new()
    y = m.add_variables(0, 1, coords=[index(n + 1, "i"), index(n + 1, "j")])
    u = m.add_variables(-1, 1, coords=[index(n, "i")])

    def shifted(i, j):  # on the labels of the window, so that windows match
        return y.isel(i=slice(i, n + i), j=slice(j, n - 1 + j)).assign_coords(i=np.arange(n), j=np.arange(n - 1))

    def place(j):
        return y.isel(i=slice(1, None)).isel(j=j, drop=True).assign_coords(i=np.arange(n))

    curvature = sum(k * shifted(i, j) for i in (0, 1) for j, k in ((0, 1), (1, -2), (2, 1)))
    m.add_constraints(h2 * (shifted(1, 1) - shifted(0, 1)) - 0.5 * dt * curvature == 0)
    m.add_constraints(1 * y.isel(i=0, drop=True) == 0)
    m.add_constraints(place(2) - 4 * place(1) + 3 * place(0) == 0)
    m.add_constraints(place(n - 2) - 4 * place(n - 1) + (3 + 2 * dx) * place(n) - 2 * dx * u == 0)
    end = y.isel(i=n, drop=True)
    off = (array(wy, "j") * (end * end)).sum() - (array(2 * wy * wanted, "j") * end).sum()
    m.add_objective(off + (array(wu, "i") * (u * u)).sum())
    return loaded(m)


def qp(n):
    m = new()
    x = m.add_variables(0, coords=[index(n, "i")])
    m.add_constraints(x.sum() == n / 2)
    m.add_objective((x * x).sum())
    return loaded(m)


def factors(n):
    F, S, d, mean = data("factors", n)
    m = new()
    w = m.add_variables(0, coords=[index(n, "asset")])
    y = m.add_variables(coords=[index(len(S), "factor")])
    m.add_constraints(y - w @ array(F, "asset", "factor") == 0)
    m.add_constraints(w.sum() == 1)
    m.add_constraints((w * array(mean, "asset")).sum() >= 0.6)
    common_risk = (y * array(S, "factor", "other") * (1 * y.rename({"factor": "other"}))).sum()
    m.add_objective(common_risk + (w * w * array(d, "asset")).sum())
    return loaded(m)


def fac(g):
    m = new()
    grid = np.arange(g + 1) / g
    place = np.stack([np.repeat(grid, g + 1), np.tile(grid, g + 1)], 1)
    p, f, k = index((g + 1) ** 2, "p"), index(g, "f"), index(2, "k")
    y = m.add_variables(0, 1, coords=[f, k])
    s = m.add_variables(0, coords=[p, f])
    z = m.add_variables(coords=[p, f], binary=True)
    r = m.add_variables(coords=[p, f, k])
    d = m.add_variables()
    m.add_constraints(z.sum("f") == 1)
    m.add_constraints(s - d + M_FAC * z == M_FAC)
    m.add_constraints(r + y == array(place, "p", "k"))
    m.add_objective(1 * d)
    return loaded(m)


def nqueens(n):
    m = new()
    x = m.add_variables(coords=[index(n, "i"), index(n, "j")], binary=True)
    m.add_constraints(x.sum("j") == 1)
    m.add_constraints(x.sum("i") == 1)
    i, j = np.indices((n, n))
    for diagonal in (i + j, i - j):
        m.add_constraints(x.groupby(array(diagonal, "i", "j").rename("d")).sum() <= 1)
    no_objective(m, x)
    return loaded(m)


def network(n):
    K, demand, cost = data("network", n)
    m = new()
    gen = m.add_variables(0, 9, coords=[index(n, "bus"), index(24, "t")])
    flow = m.add_variables(-9, 9, coords=[index(n, "line"), index(24, "t")])
    m.add_constraints(gen + flow @ array(K.toarray().T, "line", "bus") == array(demand, "bus", "t"))
    m.add_objective((gen * array(cost, "bus", "t")).sum())
    return loaded(m)


def mxm(n):
    A, C = data("mxm", n)
    m = new()
    X = m.add_variables(0, coords=[index(n, "l"), index(n, "j")])
    m.add_constraints(X @ array(A.T, "l", "i") <= array(C, "i", "j"))
    m.add_objective(X.sum())
    return loaded(m)


def grid(n):
    m = new()
    return m, m.add_variables(0, coords=[index(n, "i"), index(n, "j")])


def sum2d(n):
    m, X = grid(n)
    m.add_constraints(X.sum() <= n)
    no_objective(m, X)
    return loaded(m)


def rowsum(n):
    m, X = grid(n)
    m.add_constraints(X.sum("j") <= array(data("rowsum", n), "i"))
    no_objective(m, X)
    return loaded(m)


def broadcast(n):
    m, z = grid(n)
    x, y = m.add_variables(0, coords=[index(n, "i")]), m.add_variables(0, coords=[index(n, "j")])
    m.add_constraints(x * array(data("broadcast", n), "i", "j") + y - z <= 0)
    no_objective(m, z)
    return loaded(m)


LINEAR = (basic, knapsack, sparserows, fac, nqueens, network, mxm, sum2d, rowsum, broadcast)
FAMILIES = {f.__name__: f for f in (*LINEAR, lqcp, qp, factors)}
