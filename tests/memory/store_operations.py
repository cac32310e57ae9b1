"""Failing requests for memory in the store's C functions. Run as a program: a crash ends it and not the tests."""

import ctypes
import tempfile
from pathlib import Path

import numpy as np

from memory.failing import ALONE, ONCE, run
from solver.store import CONSTR, GENCONSTR, INF, NLCONSTR, OUT_OF_MEMORY, QCONSTR, VAR, Store, StoreError, lib
from solver.store_general import ABS, AND, INDICATOR, MAX, PWL, SOS1
from solver.tapes import tape

FOLDER = Path(tempfile.mkdtemp(prefix="failing-requests-"))
N = 40  # variables: enough that arrays grow and names need the heap
POINT = np.linspace(0.5, 1.5, N)


class Failing(Store):
    """A store that says MemoryError when it is out of memory."""

    def call(self, function, *arguments):
        try:
            super().call(function, *arguments)
        except StoreError as error:
            if error.code == OUT_OF_MEMORY:
                raise MemoryError(str(error)) from None
            raise

    def __init__(self, name="m"):
        self.handle = ctypes.c_void_p()
        if lib.TRVnewmodel(name.encode(), ctypes.byref(self.handle)):
            raise MemoryError


def empty():
    return [Failing()]


def linear():
    """Updated: two blocks of variables, integers among them, named rows, an objective."""
    m = Failing("a name that is too long for the string itself")
    m.addvars(N - 4, ub=10.0, obj=np.arange(N - 4.0), names=("flow_of_goods_between_places", (N - 4,)))
    m.addvars(4, ub=1.0, vtype="BBBI", names=[f"switch_of_machine_number_{i}" for i in range(4)])
    m.addrows([{i: 1.0, i + 1: 2.0, N - 1: -1.0} for i in range(12)], -INF, 8.0, ("capacity_of_the_link", (12,)))
    m.update()
    return [m]


def whole():
    """Updated: with every kind of element."""
    [m] = linear()
    m.setqobjective([(i, 1.0) for i in range(N)], [(i, i, 1.0) for i in range(N - 4)] + [(0, 1, 0.5)], 3.0)
    m.addqrows([([(i, 1.0)], [(i, i, 1.0), (i + 1, i + 1, 2.0), (i, i + 1, 0.5)]) for i in range(5)], "<", 50.0)
    m.addgens(MAX, [(0, 1, 2, 3.0, ([(3, 2.0)], 1.0))])
    m.addgens(ABS, [(4, 5)], names=["the absolute value of the difference"])
    m.addgens(AND, [(N - 4, N - 3, N - 2)])
    m.addgens(PWL, [(6, 7)], [[0.0, 1.0, 2.0, 0.0, 1.0, 4.0]])
    m.addgens(INDICATOR, [(N - 4, ([(8, 1.0), (9, 1.0)], 0.0))], [[1.0, -INF, 4.0]])
    m.addgens(SOS1, [(10, 11, 12)], [[1.0, 2.0, 3.0]])
    m.addnlrows([([(0, 1.0)], *tape("*", 2.0, ("sin", ("*", 13, 14)))), ([], *tape("exp", 15))], -INF, 9.0)
    m.update()
    return [m]


def changed():
    """With what is pending, marked for removal and changed."""
    [m] = whole()
    m.addvars(5, names=[f"later {i}" for i in range(5)])
    m.addrows([{N: 1.0, 3: 2.0}], 0.0, 1.0)
    m.addqrows([([], [(N + 1, N + 1, 1.0)])])
    m.addgens(MAX, [(N + 2, 1, 2)])
    m.addnlrows([([], *tape("log", N + 3))])
    m.remove(CONSTR, [0, 5])
    m.remove(QCONSTR, [1])
    m.remove(VAR, [20, 21])
    m.setdbls("UB", [1, 2], [5.0, 6.0])
    return [m]


def same():
    """Bounds and sides are one number throughout, and stand nowhere."""
    m = Failing()
    m.addvars(N, -5.0, 5.0)
    m.addrows([{}] * N, -INF, 1.0)
    m.update()
    return [m]


def solved():
    [m] = linear()
    m.solved(np.arange(N) / N, np.zeros(N), np.zeros(12), objval=1.0, bound=1.0, gap=0.0)
    return [m]


def solved_whole():
    [m] = whole()
    m.solved(POINT, objval=1.0, bound=1.0, gap=0.0)
    return [m]


def opened():
    [m] = whole()
    rows = m.openrows(3, 9)
    rows.ptr[0] = 0
    for i in range(3):
        rows.ptr[i + 1] = 3 * (i + 1)
        for k in range(3):
            rows.var[3 * i + k], rows.coef[3 * i + k] = i + k % 2, 1.0
    return [m]


def state(operands):
    """All that the store tells of a model, as text."""
    [m] = operands
    said = [m.str("ModelName")]
    for kind, names in (VAR, "LB UB Obj"), (CONSTR, "Lower Upper"), (QCONSTR, "QRHS"), (GENCONSTR, ""), (NLCONSTR, ""):
        positions = dict(enumerate(m.positions(kind, range(m.idcount(kind)))))
        alive = [i for i, position in positions.items() if position != -2]
        said += [alive, [positions[i] for i in alive], *(m.dbls(name, alive).tolist() for name in names.split())]
        row = {CONSTR: m.row, QCONSTR: m.qrow, GENCONSTR: m.gen, NLCONSTR: m.nlrow}.get(kind)
        said += [row(i) for i in alive] if row else [m.chars("VType", alive)]
        name = {VAR: "VarName", CONSTR: "ConstrName", QCONSTR: "QName", GENCONSTR: "GenName", NLCONSTR: "NLName"}[kind]
        said.append(m.strs(name, alive))
    said += [m.qobjective(), m.nlobjective(), m.dbl("ObjConstant"), m.int("ModelSense"), m.int("Status"), m.changes()]
    return repr(said)


def outcome(result, operands):
    """What came back, and the model before and after its next update."""
    before = state(operands)
    operands[0].update()
    return f"{result!r} {before} {state(operands)}"


def path(name):
    return str(FOLDER / name).encode()


def written(prepare, name):
    """The operation that writes this file; it is also written now, to be read."""
    prepare()[0].call("TRVwritemodel", path("read-" + name))
    return prepare, lambda m: m.call("TRVwritemodel", path(name))


def copied(form):
    def copy(m):
        other = Failing.__new__(Failing)
        other.handle = ctypes.c_void_p()
        m.call("TRVcopymodel", form, ctypes.byref(other.handle))
        return state([other])

    return copy


def writesolution(m):
    m.call("TRVwritesolution", path("point.sol"))


solved()[0].call("TRVwritesolution", path("read.sol"))

TABLE = {
    "new": (empty, lambda m: state([Failing("another model whose name is long enough")])),
    "addvars": (changed, lambda m: m.addvars(100, obj=np.arange(100.0))),
    "addvars with names": (changed, lambda m: m.addvars(30, names=[f"a name of some length {i}" for i in range(30)])),
    "addvars with a prefix": (changed, lambda m: m.addvars(30, names=("a prefix of some length", (5, 6)))),
    "addrows": (changed, lambda m: m.addrows([{i: 1.0, N + 1: 1.0} for i in range(18)], 0.0, 1.0)),
    "addrows to tidy": (changed, lambda m: m.addrows([[(i, 1.0), (i, 2.0), (3, 0.0)] for i in range(18)], 0.0, 1.0)),
    "addrows with names": (changed, lambda m: m.addrows([{1: 1.0}], names=["a row's name that is long enough"])),
    "openrows": (changed, lambda m: m.openrows(1000, 10000) and None),
    "commitrows": (opened, lambda m: m.commitrows(), ONCE),
    "addqrows": (changed, lambda m: m.addqrows([([(1, 1.0)] * 2, [(i, 9, 1.0), (9, i, 1.0)]) for i in range(9)])),
    "addnlrows": (changed, lambda m: m.addnlrows([([(1, 1.0)], *tape("sin", ("*", 1.5, i))) for i in range(9)])),
    "addgens": (changed, lambda m: m.addgens(MAX, [(i, 1, 2.0, ([(3, 2.0), (3, 1.0)], 1.0)) for i in range(9)])),
    "addgens pwl": (changed, lambda m: m.addgens(PWL, [(6, 7)], [[0.0, 1.0, 2.0, 0.0, 1.0, 4.0]])),
    "addgens sos": (
        changed,
        lambda m: m.addgens(SOS1, [range(9)], [range(9)], names=["a set of variables with a name"]),
    ),
    "setobjective": (changed, lambda m: m.setobjective([(i, 2.0) for i in range(18)], 1.0, -1)),
    "setqobjective": (changed, lambda m: m.setqobjective([(1, 2.0)], [(i, 3, 1.0) for i in range(18)], 1.0, -1)),
    "setnlobjective": (
        changed,
        lambda m: m.setnlobjective([(1, 2.0)], [(i, 3, 1.0) for i in range(9)], *tape("exp", 3)),
    ),
    "remove variables": (changed, lambda m: m.remove(VAR, [16, 17, 18, N + 4])),
    "remove rows": (changed, lambda m: m.remove(CONSTR, [1, 2, 12])),
    "remove all kinds": (
        changed,
        lambda m: m.removeall([(VAR, [0, 13]), (GENCONSTR, [0, 1]), (NLCONSTR, [0]), (QCONSTR, [0, 2])]),
    ),
    "update": (changed, lambda m: m.update()),
    "findname": (changed, lambda m: [m.findname(VAR, "switch_of_machine_number_2"), m.findname(CONSTR, "R12")]),
    "dbls": (changed, lambda m: m.dbls("UB", [1, 2, 3]).tolist()),
    "strs": (changed, lambda m: m.strs("VarName", range(30, N + 5))),
    "setdbls": (changed, lambda m: m.setdbls("LB", range(N + 5), np.arange(N + 5.0) - 50)),
    "setdbls Start": (changed, lambda m: m.setdbls("Start", range(N + 5), np.arange(N + 5.0))),
    "setchars": (changed, lambda m: m.setchars("VType", range(18), "I" * 18)),
    "setchars of rows": (changed, lambda m: m.setchars("Sense", range(12), "=" * 12)),
    "setdbls of one number": (same, lambda m: m.setdbls("UB", range(18), np.arange(18.0))),
    "setchars of one number": (same, lambda m: m.setchars("VType", range(18), "B" * 18)),
    "setchars of rows of one number": (same, lambda m: m.setchars("Sense", range(18), "=" * 17 + ">")),
    "written out": (same, lambda m: [len(m.data()["lb"]), m.view()["ub"].tolist()]),
    "setstrs": (changed, lambda m: m.setstrs("VarName", range(18), [f"another name of length {i}" for i in range(18)])),
    "setstrs of rows": (
        changed,
        lambda m: m.setstrs("ConstrName", [1, 2], ["first of the new names", "second new name"]),
    ),
    "setcoefs": (
        changed,
        lambda m: m.setcoefs([i % 12 for i in range(60)], [i % 19 for i in range(60)], np.arange(60.0)),
    ),
    "coefs": (changed, lambda m: m.coefs([1, 2, 3], [1, 2, 3])),
    "matrix": (changed, lambda m: [[a.tolist() for a in m.matrix(csc)] for csc in (0, 1)]),
    "hessian": (changed, lambda m: [a.tolist() for a in m.hessian()]),
    "qmatrix": (changed, lambda m: [a.tolist() for a in m.qmatrix()]),
    "genmatrix": (changed, lambda m: m.genmatrix()),
    "data": (whole, lambda m: repr(m.data())),
    "curvature": (whole, lambda m: m.curvature()),
    "cones": (whole, lambda m: repr(m.cones())),
    "evaluate": (whole, lambda m: [m.evalobjective(POINT), m.evalnlrows(POINT).tolist()]),
    "jacobian": (whole, lambda m: [a.tolist() for a in m.nljacobian(POINT)]),
    "nl file": (whole, lambda m: m.writenl(FOLDER / "point.nl").tolist()),
    "solution": (whole, lambda m: m.solved(POINT, objval=1.0)),
    "values of a solution": (solved_whole, lambda m: [m.dbls(a, range(3)).tolist() for a in ("X", "Obj")]),
    "slack": (solved, lambda m: [m.dbls(a, range(3)).tolist() for a in ("RC",)] + [m.dbls("Slack", range(3)).tolist()]),
    "check": (solved_whole, lambda m: [m.check().row, m.offenders(0, 3), m.offenders(2, 3)]),
    "check with duals": (solved, lambda m: [m.check(True).dual, m.offenders(3, 3, True), m.offenders(4, 3, True)]),
    "relaxed": (whole, copied(1)),
    "fixed": (solved_whole, copied(2)),
    "write mps": written(linear, "model.mps"),
    "write lp": written(linear, "model.lp"),
    "write compressed": written(linear, "model.mps.gz"),
    "write solution": (solved, writesolution),
    "read mps": (empty, lambda m: m.call("TRVreadmodel", path("read-model.mps")), ONCE, ALONE),
    "read lp": (empty, lambda m: m.call("TRVreadmodel", path("read-model.lp")), ONCE, ALONE),
    "read compressed": (empty, lambda m: m.call("TRVreadmodel", path("read-model.mps.gz")), ONCE, ALONE),
    "read solution": (linear, lambda m: m.call("TRVreadsolution", path("read.sol"))),
    "failing call": (changed, lambda m: refused(m)),
}


def refused(m):
    """An error that makes a message, which needs memory too."""
    try:
        m.addrows([{10**6: 1.0}])
    except StoreError as error:
        return error.code, str(error)
    raise AssertionError("a variable that does not exist was taken")


if __name__ == "__main__":
    run(TABLE, state, outcome)
