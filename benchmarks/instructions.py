"""Counts the machine instructions of a handful of operations under callgrind, beside the budget of each.

    python benchmarks/instructions.py [--renew]

Prints a table; --renew writes the counts into instruction_budgets.json: after a change that is worth its cost, or one
that made something cheaper. A count belongs to the compiler, the interpreter and NumPy, so renew with
the build of `make test`:

    .venv/bin/python benchmarks/instructions.py --renew

All runs in one interpreter. Each operation runs at size n to warm up, at n, and at 2 n: the difference of the last two,
divided by n, is free of what it costs to begin. callgrind writes its counters at each call of `getsid`, which marks
where a run begins and ends, as nothing else calls it. Needs valgrind; takes 20 s.
"""

import argparse
import gc
import json
import os
import platform
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import numpy as np
import scipy.sparse as sp

import tarvopy
from tarvopy import _matrixapi, nlfunc

BUDGETS = Path(__file__).with_name("instruction_budgets.json")
TOLERANCE = 1.1
LIMIT = 300  # s
# The same instructions on every processor of a kind: the C library and NumPy choose loops by what the processor has.
PLAIN = {
    "PYTHONHASHSEED": "0",
    "OPENBLAS_NUM_THREADS": "1",
    "NPY_DISABLE_CPU_FEATURES": "AVX2 FMA3 AVX512F AVX512CD AVX512_SKX",
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX,-ERMS,-FSRM",
}


# ---- the operations: each takes a size and does what its docstring names as often ------------------------------------


def grid(size, columns=20):
    m = tarvopy.Model()
    return m, m.addMVar((size // columns, columns))


def sparse_rows(n):
    """rows of A @ x <= b, 5 nonzeros each"""
    m = tarvopy.Model()
    x = m.addMVar(n)
    A = sp.csr_array((np.ones(5 * n), np.arange(5 * n) % n, 5 * np.arange(n + 1)), shape=(n, n))
    m.addConstr(A @ x <= 1)
    m.update()


def shifted_rows(n):
    """elements of a difference of slices"""
    m, x = grid(n)
    e = 2 * x + 1
    m.addConstr(e[:, 1:] - e[:, :-1] <= 1)
    m.update()


def row_sums(n):
    """elements scaled and summed along two axes"""
    _m, x = grid(n)
    y = np.arange(20.0) * x + x
    return y.sum(axis=0) <= y.sum(axis=1)[0]


def rows_one_by_one(n):
    """rows x[i] + x[j] in a loop"""
    m = tarvopy.Model()
    x = m.addMVar(11)
    for i in range(n):
        m.addConstr(x[i % 10] + x[i % 10 + 1] <= 1)
    m.update()


def scalar_rows(n):
    """rows of Var objects in a loop"""
    m = tarvopy.Model()
    x = m.addMVar(11).tolist()
    for i in range(n):
        m.addConstr(x[i % 10] - 2 * x[i % 10 + 1] >= 1)
    m.update()


def sums_in_place(n):
    """sums in place"""
    x = tarvopy.Model().addMVar(3)
    total = tarvopy.MLinExpr.zeros(3)
    for _ in range(n):
        total += 2 * x
    return total <= 1


def elements(n):
    """looks at x[i, j]"""
    _m, x = grid(400)
    for i in range(n):
        x[i % 20, i // 20 % 20]


def attributes(n):
    """variables, bounds read and set by arrays"""
    m, x = grid(n)
    m.update()
    x.UB = x.LB + 2.0
    m.update()
    return x.UB


def quadratic_rows(n):
    """rows x * y + z"""
    m, x = grid(n)
    m.addConstr(x[:, 1:] * x[:, :-1] + x[:, 1:] <= 1)
    m.update()


def quadratic_form(n):
    """variables in x @ Q @ x"""
    m = tarvopy.Model()
    x = m.addMVar(n)
    Q = sp.diags_array([np.ones(n), np.ones(n - 1)], offsets=[0, 1]).tocsr()
    m.setObjective(x @ Q @ x)
    m.update()


def nonlinear_rows(n):
    """rows sin(x) * x"""
    m, x = grid(n)
    m.addConstr(nlfunc.sin(x) * x <= 1)
    m.update()


def engine_loaded(n):
    """rows handed to HiGHS, 2 nonzeros each"""
    m, x = grid(n)
    m.addConstr(x[1:] - 2 * x[:-1] >= 0)
    m.prepare()


def file_written_and_read(n):
    """variables of an LP file, written and read"""
    m, x = grid(n)
    m.addConstr(x.sum(axis=0) <= 1)
    with tempfile.TemporaryDirectory() as folder:
        m.write(f"{folder}/model.lp")
        tarvopy.read(f"{folder}/model.lp")


SIZES = {
    sparse_rows: 2000,
    shifted_rows: 4000,
    row_sums: 4000,
    rows_one_by_one: 300,
    scalar_rows: 300,
    sums_in_place: 300,
    elements: 800,
    attributes: 4000,
    quadratic_rows: 2000,
    quadratic_form: 2000,
    nonlinear_rows: 2000,
    engine_loaded: 2000,
    file_written_and_read: 1000,
}


# ---- under callgrind -------------------------------------------------------------------------------------------------


def run_all():
    """In the interpreter that callgrind watches: between two marks nothing but one run."""
    for operation, size in SIZES.items():
        operation(size)
        gc.collect()
        gc.disable()
        for count in (size, 2 * size):
            os.getsid(0)
            operation(count)
            os.getsid(0)
        gc.enable()


def counts():
    """{name of the operation: instructions for one more of its units}."""
    with tempfile.TemporaryDirectory() as folder:
        command = ["valgrind", "--tool=callgrind", "--dump-before=getsid", f"--callgrind-out-file={folder}/out"]
        subprocess.run(
            [*command, sys.executable, __file__, "--run"],
            env=os.environ | PLAIN, check=True, capture_output=True, text=True, timeout=LIMIT,
        )  # fmt: skip
        parts = sorted(Path(folder).glob("out.*"), key=lambda part: int(part.suffix[1:]))
        totals = [int(re.search(r"^(?:totals|summary): (\d+)", part.read_text(), re.M).group(1)) for part in parts]
    # Part 1 is the start and the first warm-up, then in turn: n, what is between, 2 n, the next warm-up.
    return {
        operation.__name__: (totals[4 * i + 3] - totals[4 * i + 1]) / SIZES[operation]
        for i, operation in enumerate(SIZES)
    }


def build():
    """What counts depend on beside this package's own text."""
    compilers = set(re.findall(rb"(?:GCC: \([^)]*\)|clang version) [\d.]+", Path(_matrixapi.__file__).read_bytes()))
    return {
        "machine": platform.machine(),
        "compiler": ", ".join(sorted(name.decode() for name in compilers)),
        "python": platform.python_version(),
        "numpy": np.__version__,
    }


def over_budget(counted, budgets):
    """A sentence for each operation that has no budget or costs 10 % more."""
    for name, count in counted.items():
        budget = budgets.get(name, 0)
        if count > TOLERANCE * budget:
            yield f"{name}: {count:.0f} instructions for each of the {globals()[name].__doc__}, the budget is {budget}"


def table(counted, budgets):
    yield "| operation | for each of the | instructions | budget |"
    yield "|---|---|---:|---:|"
    for operation in SIZES:
        name = operation.__name__
        yield f"| {name} | {operation.__doc__} | {counted[name]:.0f} | {budgets.get(name, '-')} |"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--renew", action="store_true", help="write the counts as the new budgets")
    parser.add_argument("--run", action="store_true", help=argparse.SUPPRESS)
    chosen = parser.parse_args()
    if chosen.run:
        run_all()
        return
    counted = counts()
    print("\n".join(table(counted, json.loads(BUDGETS.read_text())["budgets"] if BUDGETS.exists() else {})))
    if chosen.renew:
        rounded = {name: round(count) for name, count in counted.items()}
        BUDGETS.write_text(json.dumps({"build": build(), "budgets": rounded}, indent=2) + "\n")


if __name__ == "__main__":
    main()
