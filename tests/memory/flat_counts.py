"""Repeats each operation of the tables, whole, with failing requests for memory and refused, and counts what stays:
blocks of memory, the package's own objects, references of types, dtypes and of operands that live on. Fresh operands
that are not let go show as blocks. None, True and small integers are immortal: CPython 3.13 does not count their
references. Run as a program."""

import gc
import sys

import numpy as np

import tarvopy as tv
from memory.failing import Requests
from memory.operands import MATRIX, NUMBERS, SPARSE, arrays
from memory.python_operations import TABLE
from tarvopy import _core

ROUNDS = 12
TYPES = [*(getattr(_core, name) for name in ("Var", "Constr", "LinExpr", "QuadExpr", "NLExpr", "TempConstr", "_Model"))]
TYPES += [tv.MVar, tv.MConstr, tv.MLinExpr, tv.MQuadExpr, tv.MNLExpr, tv.Model, np.ndarray]
WATCHED = {repr(item): item for item in (*TYPES, type(SPARSE), list, tuple, dict, str, float, NotImplemented)}
WATCHED |= {f"dtype {code}": np.dtype(code) for code in "dfilqO?"} | {"dtype S1": np.dtype("S1"), "1.0": 1.0}
WATCHED |= {"NUMBERS": NUMBERS, "MATRIX": MATRIX, "SPARSE": SPARSE}
WATCHED |= {f"SPARSE.{name}": getattr(SPARSE, name) for name in ("data", "indices", "indptr")}

REFUSED = {
    "kind of operand": lambda m, x, e, q, f: e + object(),
    "text": lambda m, x, e, q, f: q * "2",
    "shapes": lambda m, x, e, q, f: e + np.zeros(5),
    "shapes in place": lambda m, x, e, q, f: q.__iadd__(np.zeros((2, 6))),
    "matrix product": lambda m, x, e, q, f: MATRIX[:, 1:] @ q,
    "not a number": lambda m, x, e, q, f: f * np.array([np.nan] * 6),
    "index": lambda m, x, e, q, f: x[99],
    "assignment": lambda m, x, e, q, f: e.__setitem__(slice(1, 3), [1, 2, 3]),
    "constraint": lambda m, x, e, q, f: m.addConstr(3),
    "bounds": lambda m, x, e, q, f: m.addMVar(3, lb="a"),
    "names": lambda m, x, e, q, f: m.addMVar(3, name=["a"]),
    "attribute": lambda m, x, e, q, f: setattr(x, "UB", [1, 2]),
    "no solution": lambda m, x, e, q, f: x.X,
    "another model": lambda m, x, e, q, f: m.addConstr(arrays()[1] <= 1),
    "removed": lambda m, x, e, q, f: [m.remove(x), m.update(), x.LB],
}


def counts() -> dict:
    found = {f"references of {name}": sys.getrefcount(item) for name, item in WATCHED.items()}
    found |= {f"living {what}": count for what, count in _core._counts().items()}
    gc.collect()
    return found | {"blocks": sys.getallocatedblocks()}


def growth(operation) -> dict:
    """What each call leaves behind or takes away. Caches that fill are no leak: a leak shows thirty times in a row."""
    grown = None
    for _ in range(30):
        operation()
        before = counts()
        for _ in range(ROUNDS):
            operation()
        after = counts()
        now = {what: after[what] - count for what, count in before.items() if abs(after[what] - count) >= ROUNDS}
        grown = now if grown is None else {what: now[what] for what in grown if what in now}
        if not grown:
            break
    return grown


def refuse(operate) -> None:
    try:
        operate(*arrays())
    except (TypeError, ValueError, IndexError, AttributeError, tv.TarvoError):
        return
    raise AssertionError("what is wrong was taken")


def failures(requests, prepare, operate) -> dict:
    found = {"whole": growth(lambda: operate(*prepare()))}
    requests.bind_arrays()
    for number in (3, 17):
        found[f"request {number}"] = growth(lambda number=number: requests.fail(operate, prepare(), number, True))
    return found


def run(table) -> None:
    requests = Requests()
    gc.freeze()  # what is there already makes no collection longer
    found = {"refused": {name: growth(lambda o=operate: refuse(o)) for name, operate in REFUSED.items()}}
    for name, (prepare, operate, *_) in table.items():
        print(name, flush=True)
        found[name] = failures(requests, prepare, operate)
    faults = [(name, how, grown) for name, ways in found.items() for how, grown in ways.items() if grown]
    assert not faults, faults


if __name__ == "__main__":
    words = set(sys.argv[1:])
    run({name: row for name, row in TABLE.items() if not words or words & {name, name.split(":")[0]}})
