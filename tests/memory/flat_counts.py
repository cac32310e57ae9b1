"""Repeats each operation of the tables, whole, with failing requests for memory and refused, and counts what stays:
blocks of memory, references of types, the package's own objects. Run as a program."""

import gc
import sys

import numpy as np

import tarvopy as tv
from memory.failing import Requests
from memory.python_operations import MATRIX, TABLE, arrays
from tarvopy import _core

ROUNDS = 12
TYPES = [*(getattr(_core, name) for name in ("Var", "Constr", "LinExpr", "QuadExpr", "NLExpr", "TempConstr", "_Model"))]
TYPES += [tv.MVar, tv.MConstr, tv.MLinExpr, tv.MQuadExpr, tv.MNLExpr, tv.Model, np.ndarray]

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
    found = {f"references of {item!r}": sys.getrefcount(item) for item in TYPES}
    found |= {f"living {what}": count for what, count in _core._counts().items()}
    gc.collect()
    return found | {"blocks": sys.getallocatedblocks()}


def growth(operation) -> dict:
    """What each call leaves behind. Caches that fill are no leak: it must be seen thirty times in a row."""
    grown = None
    for _ in range(30):
        operation()
        before = counts()
        for _ in range(ROUNDS):
            operation()
        after = counts()
        now = {what: after[what] - count for what, count in before.items() if after[what] - count >= ROUNDS}
        grown = now if grown is None else {what: min(count, now.get(what, 0)) for what, count in grown.items()}
        grown = {what: count for what, count in grown.items() if count}
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
