"""Measures how building grows: each family at three sizes, the fitted exponent, and one picture of all of them.

    python benchmarks/growth.py [--families basic,mxm] [--reps 3] [--small] [--table docs/benchmarks.md]
                                [--picture docs/growth.svg]

Time is seconds ~ nonzeros ** exponent by least squares on logarithms, so 1 is linear. Each build runs in a process of
its own (see run.py); peers run once. Prints Markdown; --table puts it into that file, in place of what stood there.
--small leaves out the largest sizes, for trying. Needs the packages of the extras `bench` and `demo`.
"""

import argparse
import statistics
from pathlib import Path

import common
import numpy as np
from run import MODULES, REFERENCE, largest, spawn

TITLE = "## How building grows"
LINEAR = 1.1
SIZES = {
    "basic": (100, 300, 1000),
    "knapsack": (10**4, 10**5, 10**6),
    "sparserows": (10**4, 10**5, 10**6),
    "lqcp": (50, 150, 500),
    "qp": (1500, 15_000, 150_000),
    "fac": (12, 25, 50),
    "facsoc": (12, 25, 50),
    "nqueens": (80, 250, 800),
    "network": (50, 500, 5000),
    "mxm": (50, 100, 200),
    "sum2d": (100, 300, 1000),
    "rowsum": (100, 300, 1000),
    "broadcast": (50, 150, 500),
    "factors": (100, 1000, 10_000),
    "clnlbeam": common.NONLINEAR_SIZES["clnlbeam"],
}
COLOURS = {"tarvopy": "C3", "by hand": "0.5", "linopy": "C0", "cvxpy": "C2", "casadi": "C4"}


def modules(family):
    return {"tarvopy": "families", "casadi": "casadi_peer"} if family == "clnlbeam" else MODULES


def curve(module, family, sizes, reps):
    """(nonzeros, seconds) of the sizes that can be built: medians."""
    points = []
    for size in sizes:
        if size > largest(module, family):
            break
        runs = [spawn(module, family, size) for _ in range(reps)]
        seconds = [run["seconds"] for run in runs if "error" not in run]
        if not seconds:
            break
        points.append((common.work(family, size), statistics.median(seconds)))
    return points


def exponent(points):
    """None where there is no line through the points."""
    if len(points) < 2:
        return None
    work, seconds = np.log(points).T
    return float(np.polyfit(work, seconds, 1)[0])


def cell(points):
    fitted = exponent(points)
    return "-" if fitted is None else f"{fitted:.2f}"


def family_row(family, sizes, curves):
    work = f"{common.work(family, sizes[0]):,} to {common.work(family, sizes[-1]):,}"
    peers = [cell(curves.get(name, [])) for name in COLOURS]
    return "| " + " | ".join([family, work, *peers]) + " |"


def draw(measured, path):
    """One panel a family, seconds over nonzeros, both logarithmic; a dotted line grows in proportion."""
    import matplotlib.pyplot as plt

    columns = min(5, len(measured))
    height = -(-len(measured) // columns)
    plt.rcParams.update({"svg.fonttype": "none", "font.size": 8})
    figure, axes = plt.subplots(
        height, columns, figsize=(2.2 * columns, 2.2 * height + 0.6), squeeze=False, layout="constrained"
    )
    for axis in axes.flat[len(measured) :]:
        axis.axis("off")
    for axis, (family, curves) in zip(axes.flat, measured.items(), strict=False):
        for name, points in curves.items():
            if points:
                axis.loglog(*zip(*points, strict=True), "o-", ms=3, lw=1.2, color=COLOURS[name], label=name)
        if curves["tarvopy"]:
            (begin, seconds), end = curves["tarvopy"][-1], curves["tarvopy"][0][0]
            axis.loglog([end, begin], [seconds * end / begin, seconds], ":", lw=0.8, color="black", label="linear")
        axis.set_title(family)
        axis.minorticks_off()
    named = {label: line for axis in axes.flat for line, label in zip(*axis.get_legend_handles_labels(), strict=True)}
    figure.legend(named.values(), named.keys(), loc="outside upper center", ncols=len(named))
    figure.supxlabel("nonzeros")
    figure.supylabel("seconds")
    figure.savefig(path, metadata={"Date": None} if path.suffix == ".svg" else None)
    plt.close(figure)


def heading(picture):
    yield TITLE
    yield ""
    yield "Made by `benchmarks/growth.py`: exponents of seconds over nonzeros, fitted to three sizes; 1 is linear."
    yield "Below 1, what a model costs before its first nonzero still shows; wanted are at most 1.1."
    yield ""
    if picture:
        yield f"![Seconds to the loaded engine over nonzeros, a panel for each family]({picture.name})"
        yield ""
    yield "| family | nonzeros | " + " | ".join(COLOURS) + " |"
    yield "|---|---:" + "|---:" * len(COLOURS) + "|"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--families", default=",".join(SIZES))
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--small", action="store_true")
    parser.add_argument("--table", type=Path, help="Markdown file to write into")
    parser.add_argument("--picture", type=Path, help="file to draw into, beside the table's")
    chosen = parser.parse_args()
    lines = list(heading(chosen.picture))
    print("\n".join(lines))
    measured = {}
    for family in chosen.families.split(","):
        sizes = SIZES[family][: -1 if chosen.small else None]
        curves = {
            name: curve(module, family, sizes, chosen.reps if name in ("tarvopy", REFERENCE) else 1)
            for name, module in modules(family).items()
        }
        measured[family] = curves
        lines.append(family_row(family, sizes, curves))
        print(lines[-1], flush=True)
    over = [f"{family}: {cell(curves['tarvopy'])}" for family, curves in measured.items()
            if (exponent(curves["tarvopy"]) or 0) > LINEAR]  # fmt: skip
    if over:
        print("above", LINEAR, over)
    if chosen.picture:
        draw(measured, chosen.picture)
    if chosen.table:
        common.put_section(chosen.table, TITLE, lines)


if __name__ == "__main__":
    main()
