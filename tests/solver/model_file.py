"""What the file tests share: a model as plain values that compare whole, and MPS text with one section exchanged.

snapshot(store)          {"vars": [...], "lb": [...], "matrix": {(row, column): value}, ...}, exact to the bit
read_text(text)          the Store read from a file with this text
"""

import ctypes
import os
import tempfile
from itertools import pairwise
from pathlib import Path

import numpy as np

from solver.store import CONSTR, GENCONSTR, QCONSTR, VAR, Store

SYNTAX, FILE, UNSUPPORTED = 9, 8, 10

HEAD = "NAME t\n"
ROWS = " N obj\n L c\n"
COLUMNS = " x obj 1 c 2\n y c 3\n"

SAME = ("vars", "rows", "lb", "ub", "obj", "vtype", "lower", "upper", "constant", "sense", "matrix")


def snapshot(store: Store) -> dict:
    """Positions and values; doubles by their representation, so that -0.0 is not 0.0."""
    data = store.data()
    start, index, value = store.matrix(csc=1)
    columns = np.repeat(np.arange(data["nvars"]), np.diff(start))
    return {
        "name": store.str("ModelName"),
        "vars": names(store, VAR, data["nvars"]),
        "rows": names(store, CONSTR, data["nrows"]),
        **{key: [repr(v) for v in data[key].tolist()] for key in ("lb", "ub", "obj")},
        **{key: [repr(v + 0.0) for v in data[key].tolist()] for key in ("lower", "upper")},
        "vtype": data["vtype"],
        "constant": repr(data["objconstant"]),
        "sense": data["sense"],
        "matrix": {(int(i), int(j)): float(v) for i, j, v in zip(index, columns, value, strict=True)},
        **quadratic_snapshot(store, data),
        "gens": general_snapshot(store),
    }


def quadratic_snapshot(store: Store, data: dict) -> dict:
    """Products in their order, the linear terms of quadratic rows in none (the columns of MPS decide it)."""
    objective = [(*store.positions(VAR, [i, j]), value) for i, j, value in store.qobjective()]
    start, index, value, qstart, first, second, qvalue = (array.tolist() for array in store.qmatrix())
    products = list(zip(first, second, qvalue, strict=True))
    return {
        "qrows": names(store, QCONSTR, data["nqrows"]),
        "qsense": data["qsense"],
        "qrhs": [repr(v + 0.0) for v in data["qrhs"].tolist()],
        "qobj": objective,
        "qlinear": [dict(zip(index[a:b], value[a:b], strict=True)) for a, b in pairwise(start)],
        "qterms": [products[a:b] for a, b in pairwise(qstart)],
    }


def general_snapshot(store: Store) -> list:
    """(name, type, arguments, numbers), the terms of an argument in no order."""
    found = store.genmatrix()
    called = names(store, GENCONSTR, len(found))
    return [
        (name, kind, [(dict(terms), constant) for terms, constant in arguments], numbers)
        for name, (kind, arguments, numbers) in zip(called, found, strict=True)
    ]


def mps(head=HEAD, rows=ROWS, columns=COLUMNS, rhs=" r c 4\n", ranges="", bounds="", end="ENDATA\n"):
    """A small model with one section exchanged; the exchanged section starts at a line that is easy to count."""
    optional = [f"{title}\n{lines}" for title, lines in (("RANGES", ranges), ("BOUNDS", bounds)) if lines]
    return "".join([head, "ROWS\n", rows, "COLUMNS\n", columns, "RHS\n", rhs, *optional, end])


def floats(model):
    """The doubles of a snapshot as numbers, and B as I: the form in which the oracle gives them."""
    lists = {key: [float(v) + 0.0 for v in model[key]] for key in ("lb", "ub", "obj", "lower", "upper")}
    return {**model, **lists, "constant": float(model["constant"]) + 0.0, "vtype": model["vtype"].replace("B", "I")}


def names(store: Store, kind: int, count: int) -> list[str]:
    if count == 0:
        return []
    attribute = {VAR: "VarName", CONSTR: "ConstrName", QCONSTR: "QName", GENCONSTR: "GenName"}[kind]
    return store.strs(attribute, store.idsat(kind, range(count)))


def read(path: object) -> Store:
    store = Store("")
    store.call("TRVreadmodel", os.fsencode(path))
    return store


def write(store: Store, path: object) -> None:
    store.call("TRVwritemodel", os.fsencode(path))


def read_text(text: str | bytes, ending: str = "mps") -> Store:
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / f"m.{ending}"
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return read(path)


def built(columns, rows=(), name="", sense=1, constant=0.0, qobj=(), qrows=(), gens=()):
    """columns: (name, vtype, lb, ub, obj); rows: (name, lower, upper, {column: coefficient}).

    qobj: (column, column, coefficient); qrows: (name, sense, rhs, [(column, coefficient)], products as in qobj);
    gens: (name, type, arguments, numbers).
    """
    store = Store(name)
    if columns:
        names, vtypes, *numbers = zip(*columns, strict=True)
        store.addvars(len(columns), *numbers, "".join(vtypes), list(names))
    if rows:
        names, lower, upper, terms = zip(*rows, strict=True)
        store.addrows(terms, lower, upper, list(names))
    if qrows:
        names, senses, rhs, linear, products = zip(*qrows, strict=True)
        store.addqrows(list(zip(linear, products, strict=True)), "".join(senses), rhs, list(names))
    for called, kind, arguments, numbers in gens:
        store.addgens(kind, [arguments], [numbers], [called])
    if qobj:
        store.setqobjective([(i, column[4]) for i, column in enumerate(columns)], qobj)
    store.call("TRVsetintattr", b"ModelSense", sense)
    store.call("TRVsetdblattr", b"ObjConstant", ctypes.c_double(constant))
    store.update()
    return store


def returned(store: Store, path: object) -> Store:
    write(store, path)
    return read(path)


def instances(*folders: str, pattern: str = "*.mps") -> list[Path]:
    """Files of these folders of TARVOPY_INSTANCES, none if it is unset."""
    root = os.environ.get("TARVOPY_INSTANCES")
    return [path for folder in folders for path in sorted(Path(root, folder).glob(pattern))] if root else []
