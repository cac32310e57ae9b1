"""Measures what quadratic expressions and the check of answers cost: objects, x @ Q @ x, merging parts, residuals.

    python benchmarks/quadratic.py [--instances FOLDER] [--table docs/benchmarks.md]

Prints Markdown; --table puts it into that file, in place of what stood there. Folders of .mps, .SIF and .QPS
files below --instances (or $TARVOPY_INSTANCES) are solved, and the check of the answer timed beside the solve.
"""

import argparse
import os
from pathlib import Path

import numpy as np
import scipy.sparse as sp
from common import best, print_section, resident

import tarvopy
from tarvopy import TRV, TarvoError, _modelapi

TITLE = "## What quadratic expressions cost"
ENDINGS = {".mps", ".qps", ".sif"}


# ---- full state: one QuadExpr an element -----------------------------------------------------------------------------


def object_bytes(elements, terms):
    """Bytes of an array of QuadExpr objects with `terms` terms each; those of its Var objects are there before."""
    m = tarvopy.Model()
    x, y = m.addMVar((elements, terms)), m.addMVar((elements, terms))
    m.update()
    variables = x.tolist(), y.tolist()
    quadratic = (x * y).sum(axis=1)
    before = resident()
    made = quadratic._qearr
    bytes_made = resident() - before
    assert made[-1].size() == terms
    del variables
    return bytes_made


def object_costs():
    elements, many = 20_000, 40
    one, more = object_bytes(elements, 1), object_bytes(elements, many)
    term = (more - one) / (elements * (many - 1))
    yield "objects of a full array, a term", f"{term:.0f} bytes", "64"
    yield "objects of a full array, an element (one term counted off)", f"{one / elements - term:.0f} bytes", "320"


# ---- compact state ---------------------------------------------------------------------------------------------------


def form_costs(n=100_000, entries=1_000_000):
    """x @ Q @ x against a copy of Q's three arrays."""
    rng = np.random.default_rng(1)
    m = tarvopy.Model()
    x = m.addMVar(n)
    for kind in ("coo", "csr", "csc"):
        Q = sp.random_array((n, n), density=entries / n**2, format=kind, rng=rng)
        arrays = (Q.data, *Q.coords) if kind == "coo" else (Q.data, Q.indices, Q.indptr)
        copy = best(lambda arrays=arrays: [array.copy() for array in arrays])
        build = best(lambda Q=Q: x @ Q @ x)
        yield f"x @ Q @ x, {Q.nnz:,} entries, {kind}", f"{1e3 * build:.2f} ms, {build / copy:.2f} copies", "3 copies"


def merge_seconds(parts, size=50):
    """Seconds to add `parts` forms of `size` entries each to one expression and to bring them to one matrix."""
    m = tarvopy.Model()
    x = m.addMVar((parts, size))
    Q = sp.diags_array(np.arange(1.0, size + 1))

    def work():
        total = tarvopy.MQuadExpr.zeros(())
        for row in x:
            total += row @ Q @ row
        return total.copy()

    return best(work, 3)


def in_place_seconds(rounds, shape, look):
    """Seconds of a loop of sums in place, of an expression whose objects are there or not."""
    m = tarvopy.Model()
    x = m.addMVar(2)
    addend = x @ x if shape == () else x * x

    def work():
        total = tarvopy.MQuadExpr.zeros(shape)
        if look:
            repr((total._quadparts, total._qearr))
        for _ in range(rounds):
            total += addend
        return total

    return best(work, 3)


def in_place_costs():
    for shape in ((), (2,)):
        for look in (False, True):
            few, many = in_place_seconds(500, shape, look), in_place_seconds(5000, shape, look)
            what = f"5000 sums in place instead of 500, shape {shape}{', looked at' if look else ''}"
            yield what, f"{1e3 * many:.1f} ms, {many / few:.1f} times as long", "linear: 10"


def merge_costs():
    few, many = merge_seconds(500), merge_seconds(5000)
    yield "5000 parts instead of 500 added and merged", f"{many:.3f} s, {many / few:.1f} times as long", "linear: 10"


# ---- the check of answers --------------------------------------------------------------------------------------------


def check_shares(folder):
    """(check / solve, seconds of the solve, name) for each instance that is solved to optimality."""
    for path in sorted(p for p in folder.rglob("*") if p.suffix.lower() in ENDINGS and p.stat().st_size < 2e6):
        m = tarvopy.Model()
        m.params.LogLevel = 0
        m.params.TimeLimit = 5.0
        try:
            m.read(str(path))
            m.optimize()
        except TarvoError:
            continue
        if m.Status == TRV.OPTIMAL:
            duals = hasattr(m.getVars()[0], "RC")
            check = best(lambda m=m, duals=duals: _modelapi.residuals(m._cmodel, duals))
            yield check / m.Runtime, m.Runtime, path.stem


def check_costs(root):
    for folder in sorted(f for f in root.iterdir() if f.is_dir()):
        shares = sorted(check_shares(folder))
        if shares:
            middle = shares[len(shares) // 2][0]
            share, seconds, name = shares[-1]
            text = f"median {100 * middle:.2f} %, most {100 * share:.2f} % ({name}, solved in {1e3 * seconds:.2f} ms)"
            yield f"check of the answer against its solve, {folder.name} ({len(shares)})", text, "5 %"


def lines(root):
    yield TITLE
    yield ""
    yield "Made by `benchmarks/quadratic.py`; times are the best of several runs."
    yield ""
    yield "| what | measured | wanted at most |"
    yield "|---|---|---|"
    for group in (object_costs(), form_costs(), merge_costs(), in_place_costs(), check_costs(root) if root else ()):
        for cells in group:
            yield "| " + " | ".join(cells) + " |"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--instances", type=Path, default=os.environ.get("TARVOPY_INSTANCES"))
    parser.add_argument("--table", type=Path, help="Markdown file to write into")
    chosen = parser.parse_args()
    print_section(TITLE, lines(chosen.instances and Path(chosen.instances)), chosen.table)


if __name__ == "__main__":
    main()
