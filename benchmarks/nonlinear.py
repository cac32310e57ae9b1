"""Measures what nonlinear expressions cost: the family clnlbeam beside CasADi, matrix products, tree nodes.

    python benchmarks/nonlinear.py [--reps 3] [--table docs/benchmarks.md]

Prints Markdown; --table puts it into that file, in place of what stood there. Each build of clnlbeam runs in a process
of its own, packages in turn (see run.py). Needs the packages of the extra `bench`.
"""

import argparse
import statistics
import time
from importlib.metadata import version
from pathlib import Path

import common
import numpy as np
import scipy.sparse as sp
from common import resident
from run import spawn

import tarvopy
from tarvopy import nlfunc
from tarvopy._core import NLExpr

TITLE = "## What nonlinear expressions cost"
RUNS = {
    "tarvopy, tapes": ("families", "clnlbeam"),
    "tarvopy, .nl file": ("families", "clnlbeam_nl"),
    "casadi, solver object": ("casadi_peer", "clnlbeam"),
    "casadi, graph alone": ("casadi_peer", "clnlbeam_graph"),
}
PEER = "casadi, solver object"


# ---- clnlbeam --------------------------------------------------------------------------------------------------------


def beam_cells(size, reps):
    """{what: (seconds, peak bytes) or an error}: medians."""
    runs = {what: [] for what in RUNS}
    for _ in range(reps):
        for what, (module, family) in RUNS.items():
            runs[what].append(spawn(module, family, size))
    cells = {}
    for what, done in runs.items():
        good = [run for run in done if "error" not in run]
        if not good:
            cells[what] = done[-1]["error"]
            continue
        got = tuple(good[0][key] for key in ("vars", "rows", "nz"))
        assert got == common.expected("clnlbeam", size), (what, got)
        cells[what] = tuple(statistics.median(run[key] for run in good) for key in ("seconds", "peak"))
    return cells


def beam_lines(reps):
    yield "| clnlbeam | size | s | x casadi | ns a nonzero | peak bytes a nonzero | time for ten times the size |"
    yield "|---|---:|---:|---:|---:|---:|---:|"
    before = {}
    for size in common.NONLINEAR_SIZES["clnlbeam"]:
        cells = beam_cells(size, reps)
        for what, cell in cells.items():
            if isinstance(cell, str):
                yield f"| {what} | {size} | {cell} | | | | |"
                continue
            (seconds, peak), work = cell, common.work("clnlbeam", size)
            ratio = f"{seconds / cells[PEER][0]:.2f}" if not isinstance(cells[PEER], str) else "-"
            growth = f"{seconds / before[what]:.1f}" if what in before else "-"
            before[what] = seconds
            figures = f"{seconds:.4f} | {ratio} | {1e9 * seconds / work:.0f} | {peak / work:.0f} | {growth}"
            yield f"| {what} | {size} | {figures} |"


# ---- products and nodes ----------------------------------------------------------------------------------------------


def timed(build):
    """(seconds, bytes) of building once, the least of three."""
    results = []
    for _ in range(3):
        before, start = resident(), time.perf_counter()
        kept = build()
        seconds = time.perf_counter() - start
        results.append((seconds, resident() - before))
        del kept
    return min(results)


def dense_product(n):
    m = tarvopy.Model()
    X, Y = m.addMVar((n, n)), m.addMVar((n, n))
    m.update()
    m.addConstr(nlfunc.sin(X) @ nlfunc.exp(Y) <= 1)
    m.update()
    return m


def sparse_product(n, entries=5):
    columns = (np.arange(n)[:, None] * 7 + np.arange(entries) * 11) % n
    A = sp.csr_array((np.ones(n * entries), columns.ravel(), np.arange(n + 1) * entries), shape=(n, n))
    m = tarvopy.Model()
    x = m.addMVar(n)
    m.addConstr(A @ nlfunc.sin(x) <= 1)
    m.update()
    return m


def product_lines():
    yield "| product, up to the tapes | size | s | ns a product | bytes a product | time for ten times the products |"
    yield "|---|---:|---:|---:|---:|---:|"
    for what, build, sizes, products in [
        ("sin(X) @ exp(Y), dense n x n", dense_product, (50, 108), lambda n: n**3),
        ("A @ sin(x), 5 entries a row", sparse_product, (20_000, 200_000), lambda n: 5 * n),
    ]:
        before = None
        for n in sizes:
            seconds, size = timed(lambda build=build, n=n: build(n))
            growth = f"{seconds / before:.1f}" if before else "-"
            before, work = seconds, products(n)
            yield f"| {what} | {n} | {seconds:.4f} | {1e9 * seconds / work:.0f} | {size / work:.0f} | {growth} |"


def node_lines(n=1_000_000):
    """Bytes of nodes, from chains of a million."""
    x = NLExpr(tarvopy.Model().addVar())
    yield "| tree node of | bytes | wanted at most |"
    yield "|---|---:|---:|"
    for children, grow in (1, lambda e: -e), (2, lambda e: e * x):
        expr = nlfunc.sin(x)
        before = resident()
        for _ in range(n):
            expr = grow(expr)
        yield f"| {children} | {(resident() - before) / n:.0f} | {64 + 8 * children} |"
        del expr


def lines(reps):
    yield TITLE
    yield ""
    yield f"Made by `benchmarks/nonlinear.py`; clnlbeam: medians of {reps} fresh processes, casadi {version('casadi')}."
    yield "Its solver object includes the derivatives' graphs, which an engine makes of a .nl file by itself; the graph"
    yield "alone has one node for a whole array, where a tape has each row written out."
    for group in (beam_lines(reps), product_lines(), node_lines()):
        yield ""
        yield from group


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--table", type=Path, help="Markdown file to write into")
    chosen = parser.parse_args()
    common.print_section(TITLE, lines(chosen.reps), chosen.table)


if __name__ == "__main__":
    main()
