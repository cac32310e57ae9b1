"""The benchmark families: sizes, input data, expected counts. At the end what the programs here share.

Every measured package has a module of its own here with

  FAMILIES : dict  family -> function(size)

`function(size)` builds the family's model up to "loaded in the engine, engine not run" and returns a callable without
arguments that keeps the model alive and gives the counts {"vars", "rows", "nz", "qnz"} as the engine sees them, and
"conic": True where bounds and cones are rows of the engine (Clarabel). Clock and memory reading stop when
`function(size)` returns. MAX_SIZE, if there, is the largest size a module is asked for.
Input arrays come from `data`, which is cached and called before the clock starts, so making random numbers counts for
nobody.
"""

import ctypes
import gc
import re
import time
from functools import lru_cache
from pathlib import Path

import numpy as np
import scipy.sparse as sp

SIZES = {
    "basic": (100, 300, 1000),  # two n x n arrays; x - y >= i, x + y >= 0; min sum(2 x + y)
    "knapsack": (10**5, 10**6),  # max v.x, w.x <= 200, x binary
    "sparserows": (10**5, 10**6),  # A x <= b with 5 entries a row, 0 <= x <= 1, min c.x
    "lqcp": (200, 500),  # control of a heated rod: a parabolic equation on a grid, quadratic objective at its end
    "qp": (15_000, 150_000),  # sum x == n / 2, x >= 0, min sum x^2
    "fac": (25, 50),  # facility location on a grid: assignment, big-M rows, coordinate differences
    "facsoc": (25, 50),  # the same with second-order cone rows for the distances, not integer
    "nqueens": (300, 800),  # rows and columns sum to 1, all diagonals to at most 1, binary
    "network": (250, 5000),  # gen + K flow == demand over 24 hours, K a ring's incidence
    "mxm": (100, 200),  # A X <= C, dense n x n, X >= 0, min sum X
    "sum2d": (300, 1000),  # X.sum() <= n
    "rowsum": (300, 1000),  # X.sum(axis=1) <= b
    "broadcast": (150, 500),  # x[:, None] * C + y - z <= 0
    "factors": (1000, 10_000),  # n assets: y == F.T w with 100 factors, min y S y + w D w, budget, required return
}
# Measured by nonlinear.py: clnlbeam, a clamped beam as an optimal control problem, up to the nonlinear functions as the
# store keeps them; clnlbeam_nl, further to the written .nl file.
NONLINEAR_SIZES = {"clnlbeam": (1000, 10_000, 100_000), "clnlbeam_nl": (1000, 10_000, 100_000)}
QUADRATIC = ("lqcp", "qp", "facsoc", "factors")
WARM = {"knapsack": 50, "sparserows": 50, "qp": 500, "clnlbeam": 10, "clnlbeam_nl": 10}  # tiny models; 6 for the others
M_FAC = 2 * 1.414
ALPHA = 350.0  # clnlbeam: weight of the angle's cosine
FACTORS = 100


@lru_cache
def data(family, size):
    """The input arrays of a family, the same on every machine."""
    n, rng = size, np.random.default_rng(125)
    if family == "knapsack":  # v, w
        return rng.integers(1, 100, n).astype(float), rng.integers(1, 100, n).astype(float)
    if family == "sparserows":  # A, b, c: 5 distinct sorted columns a row
        k = n // 5
        columns = rng.integers(0, k, (n, 5)) + np.arange(5) * k
        A = sp.csr_array(
            (
                rng.uniform(0.5, 1.5, 5 * n),
                columns.astype(np.int32).ravel(),
                np.arange(n + 1, dtype=np.int32) * 5,
            ),
            shape=(n, n),
        )
        return A, rng.uniform(1, 2, n), -rng.uniform(1, 2, n)
    if family == "network":  # K (bus, line), demand (bus, hour), cost (bus, hour)
        i = np.arange(n)
        K = sp.csr_array((np.r_[-np.ones(n), np.ones(n)], (np.r_[i, (i + 1) % n], np.r_[i, i])), shape=(n, n))
        return K, rng.uniform(1, 2, (n, 24)), rng.uniform(1, 2, (n, 24))
    if family == "mxm":  # A, C
        return rng.uniform(0.5, 1.5, (n, n)), rng.uniform(50, 60, (n, n))
    if family == "rowsum":
        return rng.uniform(1, 2, n)
    if family == "factors":  # F (asset, factor), S (covariance of factors), d (own variances), mean returns
        root = rng.normal(size=(FACTORS, 2 * FACTORS))
        return (
            rng.normal(size=(n, FACTORS)),
            root @ root.T / (2 * FACTORS),
            rng.uniform(0.1, 0.5, n),
            rng.uniform(0, 1, n),
        )
    if family == "broadcast":
        return rng.uniform(0.5, 1.5, (n, n))
    return None


def lqcp_params(n):
    """Steps in place and time, the weight of a second difference, and the profile wanted at the end."""
    dx, dt = 1.0 / n, 1.58 / n
    return dx, dt, dx * dx, 0.5 * (1 - (np.arange(n + 1) * dx) ** 2)


def lqcp_weights(n):
    """Weights of (y_end - wanted)^2 and of u^2 in the objective: the trapezoidal rule."""
    dx, dt, _, _ = lqcp_params(n)
    wy = np.full(n + 1, 0.5 * dx)
    wy[[0, n]] = 0.25 * dx
    wu = np.full(n, 0.5e-3 * dt)
    wu[-1] = 0.25e-3 * dt
    return wy, wu


def expected(family, n, conic=False):
    """(vars, rows, nz) by the definition; conic: every finite bound is a row, and so is every entry of a cone."""
    count, rows, nz = definition(family, n)
    if conic:
        entries = bounds_and_cones(family, n)
        rows, nz = rows + entries, nz + entries
    return count, rows, nz


def definition(family, n):
    grid = (n + 1) ** 2
    fac = (grid * n * 4 + 2 * n + 1, grid + 3 * grid * n, 8 * grid * n)
    return {
        "basic": (2 * n * n, 2 * n * n, 4 * n * n),
        "knapsack": (n, 1, n),
        "sparserows": (n, n, 5 * n),
        "lqcp": (grid + n, grid, 6 * n * (n - 1) + (n + 1) + 7 * n),
        "qp": (n, 1, n),
        "fac": fac,
        "facsoc": fac,
        "nqueens": (n * n, 6 * n - 2, 4 * n * n),
        "network": (48 * n, 24 * n, 72 * n),
        "mxm": (n * n, n * n, n**3),
        "sum2d": (n * n, 1, n * n),
        "rowsum": (n * n, n, n * n),
        "broadcast": (2 * n + n * n, n * n, 3 * n * n),
        "factors": (n + FACTORS, FACTORS + 2, n * FACTORS + FACTORS + 2 * n),
        "clnlbeam": (3 * (n + 1), 2 * n, 8 * n),  # of the Jacobian
        "clnlbeam_nl": (3 * (n + 1), 2 * n, 8 * n),
    }[family]


def bounds_and_cones(family, n):
    """Rows, of one entry each, that a conic engine has beside the linear ones."""
    grid = (n + 1) ** 2
    return {
        "lqcp": 2 * (grid + n),
        "qp": n,
        "facsoc": 4 * n + 3 * grid * n + 3 * grid * n,
        "factors": n,
    }[family]


def work(family, n):
    """Nonzeros, those of the Hessian included, that times and bytes are divided by."""
    more = {"lqcp": 2 * n + 1, "qp": n, "factors": n + FACTORS * (FACTORS + 1) // 2}
    return definition(family, n)[2] + more.get(family, 0)


def best(work, repeats=7):
    """Seconds of the fastest of several runs."""
    seconds = []
    for _ in range(repeats):
        start = time.perf_counter()
        kept = work()
        seconds.append(time.perf_counter() - start)
        del kept
    return min(seconds)


def resident():
    """Bytes that the process holds in memory."""
    gc.collect()
    ctypes.CDLL(None).malloc_trim(0)
    return 1024 * int(re.search(r"VmRSS:\s+(\d+)", Path("/proc/self/status").read_text()).group(1))


def print_section(title, lines, path):
    """Prints the lines as they come; puts them into a Markdown file if there is a path."""
    made = []
    for line in lines:
        made.append(line)
        print(line, flush=True)
    if path:
        put_section(path, title, made)


def put_section(path, title, lines):
    """Replaces the section of a Markdown file that begins with the title, or adds it at the end."""
    before, _, after = path.read_text().partition(title)
    rest = after[after.find("\n## ") :] if "\n## " in after else ""
    path.write_text(before.rstrip() + "\n\n" + "\n".join(lines) + "\n" + rest)
