"""Failing requests for memory in the Python names: scalars, expressions, arrays, models. Run as a program: a crash ends
it and not the tests. Words: groups or names of operations (all), eager (matrix objects make their elements at once),
every=5 seed=3 (each fifth request, from a random one on)."""

import copy
import sys

import numpy as np

import tarvopy as tv
from memory import model_operations
from memory.failing import ONCE, run
from memory.operands import MATRIX, NUMBERS, SPARSE, N, arrays, compact, outcome, scalars, state, used
from tarvopy import TRV, _debug, nlfunc
from tarvopy._core import LinExpr, QuadExpr


def inplace(name):
    def operate(left, right):
        return getattr(left, name)(right)

    return operate


SCALARS = {
    "LinExpr": lambda m, x, y, z, e, q, f: [LinExpr(x), LinExpr([1.0, 2.0], [x, y]), LinExpr(e)],
    "QuadExpr": lambda m, x, y, z, e, q, f: [QuadExpr(x), QuadExpr(q), QuadExpr(e)],
    "sums": lambda m, x, y, z, e, q, f: [x + y, 1 + x, x - e, e + e, e - 2, q + x, q - e, q + q, f + x, f - q],
    "products": lambda m, x, y, z, e, q, f: [2 * x, x * y, e * y, e * e, -q, q * 3, x**2, e**2, x / 2, e / 4],
    "nonlinear products": lambda m, x, y, z, e, q, f: [q * x, f * e, x / y, f / q, x**3, 2**x, -f, x**y, q**2],
    "functions": lambda m, x, y, z, e, q, f: [nlfunc.log(x), nlfunc.tanh(e), nlfunc.sqrt(q), nlfunc.exp(f)],
    "comparisons": lambda m, x, y, z, e, q, f: [x <= y, e == 3, q >= x, f <= 2.0, e >= 3, f == q],
    "texts": lambda m, x, y, z, e, q, f: [str(x), repr(e), str(q), repr(f), str(e <= 1), repr(q == 2), str(f >= 1)],
    "terms": lambda m, x, y, z, e, q, f: [list(e.terms()), list(q.terms()), q.getLinExpr(), e.getConstant()],
    "copies": lambda m, x, y, z, e, q, f: [e.copy(), q.copy(), f.copy()],
    "attributes": lambda m, x, y, z, e, q, f: [x.VarName, x.LB, y.VType, x.getAttr("UB"), x.index],
    "set a bound": lambda m, x, y, z, e, q, f: setattr(x, "LB", -3.0),
    "set a name": lambda m, x, y, z, e, q, f: setattr(x, "VarName", "another name" * 3),
    "quicksum": lambda m, x, y, z, e, q, f: [tv.quicksum([x, y, e, 3]), tv.quicksum([x, q]), tv.quicksum([f, x, q])],
    "add": lambda m, x, y, z, e, q, f: e.add(x, 2.0),
    "addTerms": lambda m, x, y, z, e, q, f: e.addTerms([1.0, 2.0, 3.0], [x, y, z]),
    "addTerms quadratic": lambda m, x, y, z, e, q, f: q.addTerms([1.0, 2.0], [x, y], [z, z]),
    "addVar": lambda m, x, y, z, e, q, f: m.addVar(lb=1.0, ub=2.0, obj=3.0, vtype="I", name="a variable's name"),
    "addConstr": lambda m, x, y, z, e, q, f: m.addConstr(e <= 3, name="the name of a row"),
    "addConstr quadratic": lambda m, x, y, z, e, q, f: m.addConstr(q <= 3, name="the name of a row"),
    "addConstr nonlinear": lambda m, x, y, z, e, q, f: m.addConstr(f <= 3, name="the name of a row"),
    "setObjective": lambda m, x, y, z, e, q, f: m.setObjective(q, TRV.MAXIMIZE),
    "setObjective nonlinear": lambda m, x, y, z, e, q, f: m.setObjective(f),
    "model": lambda m, x, y, z, e, q, f: tv.Model("another"),
    "getVars": lambda m, x, y, z, e, q, f: [m.getVars(), m.getVarByName("variable 1")],
    "remove a variable": lambda m, x, y, z, e, q, f: m.remove(y),
}
INPLACE = {
    "e += x": lambda m, x, y, z, e, q, f: inplace("__iadd__")(e, x),
    "e -= e": lambda m, x, y, z, e, q, f: inplace("__isub__")(e, 3 * x - y),
    "e *= 2": lambda m, x, y, z, e, q, f: inplace("__imul__")(e, 2.0),
    "q += q": lambda m, x, y, z, e, q, f: inplace("__iadd__")(q, x * z + y),
    "f += q": lambda m, x, y, z, e, q, f: inplace("__iadd__")(f, q),
    "f *= e": lambda m, x, y, z, e, q, f: inplace("__imul__")(f, e),
}
ARRAYS = {
    "sums": lambda m, x, e, q, f: [x + 1, x + x, e + x, e - NUMBERS, q + e, q - 1, f + x, f - q, NUMBERS + x],
    "products": lambda m, x, e, q, f: [2 * x, NUMBERS * e, x * x, e * x, -q, q / 2, x**2, e**2],
    "nonlinear products": lambda m, x, e, q, f: [q * x, f * e, x / e, f / q, x**3, 2**x, -f, x**x],
    "functions": lambda m, x, e, q, f: [nlfunc.log(x), nlfunc.tanh(e), nlfunc.sqrt(q), nlfunc.exp(f)],
    "matrix products": lambda m, x, e, q, f: [MATRIX @ x, SPARSE @ x, e @ MATRIX, x @ SPARSE, x @ x, SPARSE @ e],
    "quadratic products": lambda m, x, e, q, f: [x @ MATRIX @ x, MATRIX @ q, q @ SPARSE, e @ x, SPARSE @ q],
    "nonlinear matrix products": lambda m, x, e, q, f: [MATRIX @ f, f @ SPARSE, f @ x],
    "broadcast": lambda m, x, e, q, f: [x[:, None] + x, e[:, None] * NUMBERS, q + MATRIX, f[:, None] + x],
    "reductions": lambda m, x, e, q, f: [x.sum(), e.sum(axis=0), q.sum(), f.sum()],
    "indexing": lambda m, x, e, q, f: [x[1:3], e[::2], q[[0, 2]], f[-1], x[0], e[1], q[2], x[NUMBERS > 2]],
    "shapes": lambda m, x, e, q, f: [x.reshape(2, 3).T, x[:, None].diagonal(), x.reshape((3, 2)).transpose(1, 0)],
    "copies": lambda m, x, e, q, f: [[a.copy(), copy.copy(a), copy.deepcopy(a)] for a in (x, e, q, f)],
    "items": lambda m, x, e, q, f: [e.getConstant(), x.nl, *(a[2].item() for a in (x, e, q, f))],
    "new": lambda m, x, e, q, f: [
        *(kind.zeros((2, 3)) for kind in (tv.MLinExpr, tv.MQuadExpr)),
        tv.MVar.fromlist(x.tolist()),
        tv.MVar.fromvar(x[0].item()),
        tv.quicksum([x, e, q]),
    ],
    "elements": lambda m, x, e, q, f: [x.tolist(), list(e), list(q), list(f)],
    "texts": lambda m, x, e, q, f: [str(x), repr(e), str(q), repr(f)],
    "comparisons": lambda m, x, e, q, f: [x <= 1, e == NUMBERS, q <= x, f >= 2, x <= NUMBERS, MATRIX @ x == NUMBERS],
    "attributes": lambda m, x, e, q, f: [x.LB, x.VarName, x.VType, x.getAttr("UB")],
    "set attributes": lambda m, x, e, q, f: [setattr(x, "UB", NUMBERS)],
    "set names": lambda m, x, e, q, f: [setattr(x, "VarName", [f"a rather long name {i}" for i in range(N)])],
    "addMVar": lambda m, x, e, q, f: m.addMVar((2, 3), lb=-1.0, ub=[1, 2, 3], obj=1.0, name="another"),
    "addConstr": lambda m, x, e, q, f: m.addConstr(MATRIX @ x <= NUMBERS, name="rows"),
    "addConstr without bounds": lambda m, x, e, q, f: m.addConstr(MATRIX @ x >= NUMBERS - np.inf, name="rows"),
    "addConstr sparse": lambda m, x, e, q, f: m.addConstr(SPARSE @ x + e <= NUMBERS, name="rows"),
    "addConstr quadratic": lambda m, x, e, q, f: m.addConstr(q <= NUMBERS, name="rows"),
    "addConstr nonlinear": lambda m, x, e, q, f: m.addConstr(f <= NUMBERS, name="rows"),
    "setObjective": lambda m, x, e, q, f: m.setObjective(q.sum()),
    "setObjective nonlinear": lambda m, x, e, q, f: m.setObjective(f.sum()),
    "addRange": lambda m, x, e, q, f: m.addRange(e, -1.0, NUMBERS + 2),
}
JOINS = {
    "concatenate": tv.concatenate,
    "columns": lambda parts: tv.concatenate([a[:, None] for a in parts], axis=1),
    "hstack": tv.hstack,
    "vstack": tv.vstack,
}
ARRAYS |= {
    f"{how} {kind}": lambda m, *all_of, join=join, k=k: [join([all_of[k], other]) for other in (*all_of, NUMBERS)]
    for how, join in JOINS.items()
    for k, kind in enumerate("xeqf")
}
ASSIGNMENTS = {
    "e += x": lambda m, x, e, q, f: inplace("__iadd__")(e, x),
    "e -= numbers": lambda m, x, e, q, f: inplace("__isub__")(e, NUMBERS),
    "e *= numbers": lambda m, x, e, q, f: inplace("__imul__")(e, NUMBERS),
    "q += e": lambda m, x, e, q, f: inplace("__iadd__")(q, e),
    "q *= 2": lambda m, x, e, q, f: inplace("__imul__")(q, 2.0),
    "f += q": lambda m, x, e, q, f: inplace("__iadd__")(f, q),
    "f *= x": lambda m, x, e, q, f: inplace("__imul__")(f, x),
    "e[i] = x": lambda m, x, e, q, f: e.__setitem__(slice(1, 3), x[:2]),
    "q[i] = e": lambda m, x, e, q, f: q.__setitem__(slice(1, 3), e[:2]),
    "f[i] = q": lambda m, x, e, q, f: f.__setitem__(slice(1, 3), q[:2]),
    "e.clear": lambda m, x, e, q, f: e.clear(),
    "q.clear": lambda m, x, e, q, f: q.clear(),
}
COMPACT = ("e += x", "e -= numbers", "e *= numbers", "q *= 2", "f += q", "e.clear", "q.clear")
GROUPS = {
    "scalars": (scalars, SCALARS),
    "scalars in place": (scalars, INPLACE),
    "arrays": (arrays, ARRAYS),
    "arrays with objects": (used, ARRAYS),
    "arrays in place": (arrays, ASSIGNMENTS),
    "arrays with objects in place": (used, ASSIGNMENTS),
    "compact arrays in place": (compact, {name: ASSIGNMENTS[name] for name in COMPACT}),
    **model_operations.GROUPS,
}

TABLE = {
    f"{group}: {name}": (prepare, operate, *words, *((ONCE,) if name.startswith("add") else ()))
    for group, (prepare, operations, *words) in GROUPS.items()
    for name, operate in operations.items()
}

if __name__ == "__main__":
    words = sys.argv[1:]
    options = {name: int(value) for name, equals, value in (word.partition("=") for word in words) if equals}
    _debug.eager("eager" in words)
    wanted = {word for word in words if "=" not in word} - {"eager"} or set(GROUPS)
    table = {name: row for name, row in TABLE.items() if wanted & {name, name.split(":")[0]}}
    run(table, state, outcome, **options)
