"""Measures building and loading of every family: time and peak memory, each repetition in a fresh process, packages
interleaved.

    python benchmarks/run.py [--families basic,mxm] [--sizes all] [--reps 3] [--table docs/benchmarks.md]

A cell's peak is the process' largest resident size during the build minus the size just before it, when imports, input
data and a tiny model of the family are already there. Counts are compared with the definition; a difference is shown in
the table. Needs Linux and the packages of the extra `bench`.
"""

import argparse
import ctypes
import gc
import importlib
import json
import os
import platform
import re
import statistics
import subprocess
import sys
import time
from importlib.metadata import version
from pathlib import Path

import common

MODULES = {"tarvopy": "families", "by hand": "limit", "linopy": "linopy_peer", "cvxpy": "cvxpy_peer"}
REFERENCE = "by hand"
SLOW = 20  # s; a build slower than that is not repeated
LIMIT = 180  # s a process may take


def memory(key):
    with open("/proc/self/status") as status:
        return 1024 * int(re.search(rf"{key}:\s+(\d+)", status.read()).group(1))


def measure(module, family, size):
    """In the child: one build. Prints one line of JSON."""
    build = importlib.import_module(module).FAMILIES[family]
    build(common.WARM.get(family, 6))()  # lazy imports and caches, for every package alike
    common.data(family, size)
    gc.collect()
    gc.freeze()
    ctypes.CDLL(None).malloc_trim(0)
    Path("/proc/self/clear_refs").write_text("5")  # resets the peak
    before, start = memory("VmRSS"), time.perf_counter()
    counts = build(size)
    seconds = time.perf_counter() - start
    peak = memory("VmHWM") - before
    shown = {key: value for key, value in counts().items() if not key.startswith("_")}
    print("CELL " + json.dumps({"seconds": seconds, "peak": peak, **shown}))


def spawn(module, family, size):
    """One repetition in a process of its own: the child's figures, or {"error": why}."""
    command = [sys.executable, __file__, "--cell", module, family, str(size)]
    environment = os.environ | {"OMP_NUM_THREADS": "1", "OPENBLAS_NUM_THREADS": "1", "PYTHONHASHSEED": "0"}
    try:
        child = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=LIMIT)
    except subprocess.TimeoutExpired:
        return {"error": f"over {LIMIT} s"}
    for line in child.stdout.splitlines():
        if line.startswith("CELL "):
            return json.loads(line.removeprefix("CELL "))
    return {"error": (child.stderr.strip().splitlines() or [f"exit code {child.returncode}"])[-1][:120]}


def largest(module, family):
    """MAX_SIZE of a module, read from its text, so that nothing is imported here."""
    found = re.search(rf'MAX_SIZE = {{.*"{family}": (\d+)', Path(__file__).with_name(module + ".py").read_text())
    return int(found.group(1)) if found else sys.maxsize


def run_family(family, size, reps):
    """{package: cell} for one family and size; a cell has medians, or an error."""
    runs = {name: [] for name, module in MODULES.items() if size <= largest(module, family)}
    for _ in range(reps):
        for name, done in runs.items():  # in turn, so that disturbances hit all alike
            if not done or ("error" not in done[-1] and done[-1]["seconds"] < SLOW):
                done.append(spawn(MODULES[name], family, size))
    return {name: summary(done, family, size) for name, done in runs.items()}


def summary(runs, family, size):
    good = [run for run in runs if "error" not in run]
    if not good:
        return {"error": runs[-1]["error"]}
    want, work = common.expected(family, size, good[0].get("conic", False)), common.work(family, size)
    got = tuple(good[0][key] for key in ("vars", "rows", "nz"))
    seconds, peak = (statistics.median(run[key] for run in good) for key in ("seconds", "peak"))
    return {
        "seconds": seconds, "peak": peak, "ns": 1e9 * seconds / work, "bytes": peak / work, "reps": len(good),
        "note": "" if got == want else f"counts {got} instead of {want}",
    }  # fmt: skip


def rows(family, size, cells):
    """Lines of the Markdown table for one family and size."""
    base = cells.get(REFERENCE, {})
    for name, cell in cells.items():
        if "error" in cell:
            yield f"| {family} | {size} | {name} | {cell['error']} | | | | |"
            continue
        ratios = [f"{cell[key] / base[key]:.2f}" if base.get(key) else "-" for key in ("seconds", "peak")]
        note = f" ({cell['note']})" if cell["note"] else ""
        yield (
            f"| {family} | {size} | {name}{note} | {cell['seconds']:.4f} | {ratios[0]} | {cell['ns']:.0f} "
            f"| {cell['bytes']:.0f} | {ratios[1]} |"
        )


def heading(reps):
    quadratic = ", ".join(common.QUADRATIC)
    packages = ", ".join(f"{name} {version(name)}" for name in ("tarvopy", "highspy", "linopy", "cvxpy", "numpy"))
    runs = f"medians of {reps} fresh processes" if reps > 1 else "one fresh process each"
    return f"""# Benchmarks

From the first variable to the model loaded in HiGHS (not run): {runs}, packages in turn.
`by hand` is NumPy arrays and one bulk hand-over without a modelling layer; ratios are to it. Peak is what the build
adds to the process' resident size at its largest. Made by `make bench`; `benchmarks/common.py` defines the families.
Quadratic families ({quadratic}) end with the arrays that Clarabel's constructor takes, which is not
called, but for linopy, which hands them to HiGHS; CVXPY adds helper variables and rows there, as its counts show.

{packages}; Python {platform.python_version()}, {platform.machine()}, {os.cpu_count()} cores.

| family | size | package | s | x by hand | ns a nonzero | peak bytes a nonzero | x by hand |
|---|---:|---|---:|---:|---:|---:|---:|""".splitlines()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--families", default=",".join(common.SIZES))
    parser.add_argument("--sizes", choices=("large", "all"), default="large", help="large: each family's last size")
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--table", type=Path, help="Markdown file to write")
    chosen = parser.parse_args()
    lines = heading(chosen.reps)
    print("\n".join(lines))
    for family in chosen.families.split(","):
        for size in common.SIZES[family][0 if chosen.sizes == "all" else -1 :]:
            for row in rows(family, size, run_family(family, size, chosen.reps)):
                lines.append(row)
                print(row, flush=True)
    if chosen.table:
        chosen.table.parent.mkdir(parents=True, exist_ok=True)
        chosen.table.write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    if sys.argv[1:2] == ["--cell"]:
        measure(sys.argv[2], sys.argv[3], int(sys.argv[4]))
    else:
        main()
