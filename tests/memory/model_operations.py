"""Operations on models for the tables: attributes, general constraints, copies, files, and what goes to the engines.

An engine's own requests for memory never fail: it runs on another thread, or in libraries that are not met.
"""

import tarvopy as tv
from memory.failing import TEXTS
from memory.operands import NUMBERS, N, answered, built, files, general
from tarvopy import genfunc, report

MODELS = {
    "update": lambda m, x, rows, quadratic: m.update(),
    "getA": lambda m, x, rows, quadratic: m.getA(),
    "attributes of rows": lambda m, x, rows, quadratic: [rows.RHS, rows.Sense, rows.ConstrName, quadratic.QRHS],
    "set sides": lambda m, x, rows, quadratic: setattr(rows, "RHS", NUMBERS),
    "set names": lambda m, x, rows, quadratic: setattr(
        rows, "ConstrName", [f"a rather long name {i}" for i in range(N)]
    ),
    "set one name": lambda m, x, rows, quadratic: setattr(quadratic, "QName", "a rather long name for one row"),
    "set the model's name": lambda m, x, rows, quadratic: setattr(m, "ModelName", "a rather long name for a model"),
    "getRow": lambda m, x, rows, quadratic: [m.getRow(rows[0]), m.getRow(quadratic), m.getConstrs(), m.getQConstrs()],
    "by name": lambda m, x, rows, quadratic: [m.getVarByName("x[1]"), m.getConstrByName("rows[2]")],
    "handles": lambda m, x, rows, quadratic: [rows[1:3], rows.tolist(), type(rows).fromlist(list(rows))],
    "remove": lambda m, x, rows, quadratic: m.remove(rows),
    "remove variables": lambda m, x, rows, quadratic: m.remove(x[2:4]),
    "remove lists": lambda m, x, rows, quadratic: m.remove([x[1], rows[2], quadratic]),
    "setCoeff": lambda m, x, rows, quadratic: m.setCoeff(rows[0], x[0], 9.0),
    "setCoeff of all": lambda m, x, rows, quadratic: m.setCoeff(rows, x, NUMBERS),
    "getCoeff": lambda m, x, rows, quadratic: [m.getCoeff(rows, x), m.getCoeff(rows[1], x[2])],
    "relax": lambda m, x, rows, quadratic: m.relax(),
    "repr": lambda m, x, rows, quadratic: [repr(m), repr(rows), dir(m)],
}
SOLVED = {
    "attributes": lambda m, x, rows, quadratic: [x.X, x.RC, rows.Pi, rows.Slack, quadratic.QSlack, m.ObjVal, m.Gap],
    "values": lambda m, x, rows, quadratic: [(2 * x).getValue(), (x * x).getValue(), (x[0] * x[1]).getValue()],
    "report": lambda m, x, rows, quadratic: str(report.make(m, 3)),
    "fixed": lambda m, x, rows, quadratic: m.fixed(),
}
GENERAL = {
    "addConstr max": lambda m, x, rows: m.addConstr(x[0] == genfunc.max(x[1:], 2 * x[0] + 1, 3.0), name="peak"),
    "addConstr min": lambda m, x, rows: m.addConstr(x[:2] == genfunc.min(x[:4].reshape(2, 2), axis=0), name="dale"),
    "addConstr abs": lambda m, x, rows: m.addConstr(genfunc.abs(x[:3] - 1.0) == x[3:]),
    "addConstr and": lambda m, x, rows: m.addConstr(x[N - 1] == genfunc.all(x[N - 2 :], True)),
    "addConstr or": lambda m, x, rows: m.addConstr(genfunc.any(x[N - 2 :]) == 1, name="a name that is long enough"),
    "addConstr pieces": lambda m, x, rows: m.addConstr(x[:3] == genfunc.pwl(x[3:], [0, 1, 2], [0, 1, 4])),
    "addConstr indicator": lambda m, x, rows: m.addConstr(genfunc.indicator(x[N - 2 :], 1, x[:2] + x[0] == 3.0)),
    "addConstr scalar indicator": lambda m, x, rows: m.addConstr(genfunc.indicator(x[N - 1].item(), 1, x.sum() >= 3)),
    "addSOS": lambda m, x, rows: m.addSOS(2, [x[0], x[2:4]], [3, 1, 2], name="the name of a set"),
    "texts": lambda m, x, rows: [
        repr(rows),
        repr(genfunc.max(x, axis=0)),
        repr(genfunc.min(x, 3.0)),
        rows[0].GenType,
        rows[1].GenName,
    ],
    "set names": lambda m, x, rows: setattr(rows[1], "GenName", ["a rather long name", "another name that is long"]),
    "handles": lambda m, x, rows: [m.getGenConstrs(), m.getNLConstrs(), rows[1][0], rows[1].tolist()],
    "remove": lambda m, x, rows: m.remove(rows),
    "relax": lambda m, x, rows: m.relax(),
}
FIXED = {"fixed": lambda m, x, rows: m.fixed()}


def unread(path):
    try:
        return tv.read(path)
    except tv.TarvoError as error:
        return str(error).rpartition("/")[2]


ENDINGS = ("mps", "lp", "sol", "mps.gz", "lp.gz", "sol.gz")
FILES = {f"write {end}": lambda m, other, folder, end=end: m.write(folder / f"new.{end}") for end in ENDINGS}
FILES |= {f"overwrite {end}": lambda m, other, folder, end=end: m.write(folder / f"old.{end}") for end in ENDINGS}
FILES |= {f"read {end}": lambda m, other, folder, end=end: other.read(folder / f"old.{end}") for end in ENDINGS[:2]}
FILES |= {f"read {end}": lambda m, other, folder, end=end: m.read(folder / f"old.{end}") for end in ENDINGS[2::3]}
FILES |= {f"new from {end}": lambda m, other, folder, end=end: tv.read(folder / f"old.{end}") for end in ENDINGS[3:5]}
FILES["damaged"] = lambda m, other, folder: [unread(folder / f"bad.{end}") for end in ENDINGS[:2]]


def linear():
    m, x, *_ = built()
    m.remove(m.getQConstrs())
    m.setObjective(x.sum())
    m.addConstr(x[0] >= 1.0)
    return m, x


def convex():
    m, x, *_ = built()
    m.addConstr(x @ x <= 20.0 + x[1] * 3)
    return m, x


def mixed():
    m, x, _ = general()
    m.setObjective(x[0] * x[1] - x[2])
    return m, x


MODELS_OF = {"highs": linear, "clarabel": convex, "scip": mixed}


def for_engine(name, *, again=False):
    """Again: the engine has solved it, and is then told of changes."""

    def prepare():
        m, x = MODELS_OF[name]()
        m.params.Engine, m.params.Threads, m.params.TimeLimit = name, 1, 10
        m.update()
        if again:
            m.optimize()
            x[1].UB, x[2].Obj = 4.0, 0.5
        return [m, x]

    return prepare


SOLVE = {"optimize": lambda m, x: m.optimize()}
HAND_OVER = {"prepare": lambda m, x: str(m.prepare()), **SOLVE}

GROUPS = {
    "models": (built, MODELS),
    "solutions": (lambda: answered(built()), SOLVED),
    "general": (general, GENERAL),
    "general with a solution": (lambda: answered(general()), FIXED),
    "files": (files, FILES),
    **{name: (for_engine(name), HAND_OVER, TEXTS) for name in MODELS_OF},
    **{f"{name} again": (for_engine(name, again=True), SOLVE, TEXTS) for name in ("highs", "clarabel")},
}
