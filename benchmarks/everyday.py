"""Measures everyday code beside the large families: slices, sums by group, rows in a loop, reading back, re-solving.

    python benchmarks/everyday.py [--table docs/benchmarks.md]

Prints Markdown; --table puts it into that file, in place of what stood there. Each figure is the best of several runs;
where growth is asked for, the same is done ten times as often or as large.
"""

import argparse
from pathlib import Path

import numpy as np
from common import best, print_section

import tarvopy
from tarvopy import genfunc, nlfunc

TITLE = "## What everyday code costs"
LINEAR = 13.0  # ten times the work in so many times the time: an exponent of 1.1


def row(what, measured, wanted, unit):
    """Cells of the table; the last one is the share of the target that was used."""
    return what, f"{measured:.2f} {unit}", f"{wanted:g} {unit}", f"{measured / wanted:.2f}"


def fresh(shape, count=1):
    """Arrays of variables of one model, which lives as long as they do."""
    m = tarvopy.Model()
    arrays = [m.addMVar(shape) for _ in range(count)]
    m.update()
    return m, *arrays


# ---- slices and shifted differences ----------------------------------------------------------------------------------

KINDS = {
    "variables": lambda x, y: x,
    "linear": lambda x, y: 2 * x + y + 1,
    "quadratic": lambda x, y: x * y + x,
    "nonlinear": lambda x, y: nlfunc.sin(x) + y,
}
# As a share of building the same rows from slices of the variables, which make no objects.
SLICES = {
    "variables": lambda x, y: x[1:] - x[:-1],
    "linear": lambda x, y: (2 * x[1:] + y[1:] + 1) - (2 * x[:-1] + y[:-1] + 1),
    "quadratic": lambda x, y: (x[1:] * y[1:] + x[1:]) - (x[:-1] * y[:-1] + x[:-1]),
    "nonlinear": lambda x, y: (nlfunc.sin(x[1:]) + y[1:]) - (nlfunc.sin(x[:-1]) + y[:-1]),
}


def difference(kind, n):
    """Rows of a shifted difference along the first of three axes, from slices of one expression."""
    m, x, y = fresh((n, n, n), 2)
    e = KINDS[kind](x, y)
    m.addConstr(e[1:] - e[:-1] <= 1)
    m.update()
    return m


def spelled_out(kind, n):
    m, x, y = fresh((n, n, n), 2)
    m.addConstr(SLICES[kind](x, y) <= 1)
    m.update()
    return m


def slice_costs(n=46):
    for kind in KINDS:
        whole = best(lambda kind=kind: difference(kind, n), 3)
        parts = best(lambda kind=kind: spelled_out(kind, n), 3)
        what = f"rows e[1:] - e[:-1], {n}^3 {kind}, against slices of the variables"
        yield row(what, whole / parts, 1.5, "times")


# ---- sums by group ---------------------------------------------------------------------------------------------------


def group_costs(groups=10_000, mean=10):
    """A row for each group of neighbours, the groups of different sizes."""
    rng = np.random.default_rng(1)
    ends = np.cumsum(rng.integers(1, 2 * mean, groups))
    bounds = list(zip([0, *ends[:-1].tolist()], ends.tolist(), strict=True))
    for kind, make in KINDS.items():

        def add(kind=kind, make=make):
            m, x, y = fresh(int(ends[-1]), 2)
            e = make(x, y)
            for a, b in bounds:
                m.addConstr(e[a:b].sum() <= 1)
            m.update()
            return m

        yield row(f"sum of {mean} {kind} and addConstr, a group", 1e6 * best(add, 3) / groups, 10.0, "us")


# ---- Python loops ----------------------------------------------------------------------------------------------------

ROWS = {
    "x[i] + x[j] <= 1": lambda x, i: x[i] + x[i + 1] <= 1,
    "x[i] * x[j] <= 1": lambda x, i: x[i] * x[i + 1] <= 1,
    "x[i] * x[i] + x[j] <= 1": lambda x, i: x[i] * x[i] + x[i + 1] <= 1,
    "sin(x[i]) + x[j] <= 1": lambda x, i: nlfunc.sin(x[i]) + x[i + 1] <= 1,
    "x[i] == max(x[j], 3)": lambda x, i: x[i] == genfunc.max(x[i + 1], 3.0),
    "indicator(x[i], 1, x[j] <= 1)": lambda x, i: genfunc.indicator(x[i], 1, x[i + 1] <= 1),
}


def row_seconds(form, scalars, n):
    def add():
        m, x = fresh(n + 1)
        elements = x.tolist() if scalars else x
        for i in range(n):
            m.addConstr(form(elements, i))
        m.update()

    return best(add)


def row_costs(n=10_000):
    for what, form in ROWS.items():
        for scalars in (False, True):
            seconds = row_seconds(form, scalars, n)
            yield row(f"addConstr({what}), {'Var' if scalars else 'MVar'}", 1e6 * seconds / n, 5.0, "us")
    few, many = (row_seconds(ROWS["x[i] + x[j] <= 1"], False, size) for size in (n, 10 * n))
    yield row("addConstr, ten times the calls", many / few, LINEAR, "times")


def element_costs(n=300):
    _m, x = fresh((n, n))

    def every():
        for i in range(n):
            for j in range(n):
                x[i, j]

    yield row("x[i, j], first look at it", 1e6 * best(every) / n**2, 0.3, "us")
    kept = x.tolist()
    yield row("x[i, j], while its Var lives", 1e6 * best(every) / n**2, 0.3, "us")
    del kept


def sum_seconds(kind, shape, rounds):
    _m, x, y = fresh(shape, 2)
    addend = KINDS[kind](x, y)

    def work():
        total = addend.copy()
        for _ in range(rounds):
            total += addend
        return total <= 1

    return best(work, 5)


def sum_costs(rounds=1000):
    for kind in ("linear", "quadratic", "nonlinear"):
        for shape in ((), (10,), (10, 10, 10)):
            few, many = (sum_seconds(kind, shape, count) for count in (rounds // 10, rounds))
            yield row(f"+= of {kind} of shape {shape}, 1000 times instead of 100", many / few, LINEAR, "times")


# ---- solving and reading back ----------------------------------------------------------------------------------------


def solved(n):
    """min sum(x), a row a variable; the rows stay when a variable before them is removed."""
    m = tarvopy.Model()
    m.params.LogLevel = 0
    before, x = m.addVar(), m.addMVar(n, ub=1.0, obj=1.0)
    rows = m.addConstr(x >= 0.5)
    return m, before, x, rows


def reading_costs(n=1_000_000):
    m, before, x, rows = solved(n)
    numbers = np.random.default_rng(1).random(n)
    for when in ("", " after a removal"):
        if when:
            m.remove(before)
        m.optimize()
        copy = best(numbers.copy, 30)
        for attribute, read in {"X": lambda: x.X, "Pi": lambda: rows.Pi}.items():
            yield row(f"{attribute} of {n:,}{when}, against a copy", best(read, 30) / copy, 3.0, "times")


def resolve_costs(n=1_000_000):
    """What a re-solve costs outside of the engine, against what the first one costs there (loading included)."""
    m, _, x, _ = solved(n)

    def outside():
        seconds = best(m.optimize, 1)
        return seconds - m.Runtime

    first = outside()
    loads = m._engine.loads

    def again(i):
        x[i].LB = 0.7
        return outside()

    seconds = min(again(i) for i in range(5))
    yield row("loads of the engine after 5 changes of one bound", m._engine.loads / loads, 1, "times")
    yield row(f"re-solve of {n:,} variables and rows, our part, against the first", seconds / first, 0.5, "times")
    small, _, y, _ = solved(10)
    small.optimize()

    def both():
        for bound in (0.7, 0.0):
            y[0].LB = bound
            small.optimize()

    yield row("re-solve of 10 variables after a changed bound", 1e6 * best(both, 20) / 2, 1000, "us")


GROUPS = (slice_costs, group_costs, row_costs, element_costs, sum_costs, reading_costs, resolve_costs)


def lines():
    yield TITLE
    yield ""
    yield "Made by `benchmarks/everyday.py`; best of several runs. The last column is the share of the target used."
    yield ""
    yield "| what | measured | wanted at most | share |"
    yield "|---|---:|---:|---:|"
    for group in GROUPS:
        for cells in group():
            yield "| " + " | ".join(cells) + " |"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--table", type=Path, help="Markdown file to write into")
    chosen = parser.parse_args()
    print_section(TITLE, lines(), chosen.table)


if __name__ == "__main__":
    main()
