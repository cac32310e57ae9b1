"""Every member of every public class, and every public function, with operands that misbehave. Run as a program: a
crash ends it and not the tests. Arguments: the first case and the number of cases; prints what each kind of outcome
counts.

Each case makes a model with one object of each class, draws a callable and one to three operands, calls it, and then
asks the model for its counts: whatever happened meanwhile, it answers or says that it is closed.
"""

import collections
import contextlib
import faulthandler
import gc
import operator
import random
import sys
import warnings

import numpy as np
import scipy.sparse as sp

import tarvopy as tv
from tarvopy import _attrutil, _debug, _util, genfunc, nlfunc

PLACES = {
    "indices": ([0, 9, 1, 3, 1], [0, -5, 1, 3, 1], [0, 2**33, 1, 3, 1], [0.0, 2.0, 1.0, 3.0, 1.0], [[0] * 5] * 5, []),
    "indptr": ([0, 5, 2, 1, 5], [0, -5, 2, 1, 5], [0, 2, 3, 4, 500], [0, 2, 3, 4, 2**40], [0, 2], []),
    "data": ([1.0], [], [1j] * 5, [None] * 5),
    "_shape": ((9, 9), (2**40, 2**40), (4, "a"), (-4, 4), (4,)),
}
FORMATS = (sp.csr_matrix, sp.csc_matrix, sp.csr_array, sp.csc_array)
VIEWS = ((2**40,), (2**40, 4), (4, 2**40), (2**40, 1, 4), (2**59,))
NUMBERS = np.array([[1.0, 0, 2, 0], [0, 3, 0, 0], [0, 0, 0, 4], [0, 1, 0, 0]])
OPERATORS = [
    getattr(operator, f"{place}{name}")
    for place in ("", "i")
    for name in ["add", "sub", "mul", "truediv", "matmul", "pow"]
]
OPERATORS += [operator.le, operator.ge, operator.eq, operator.getitem]
UNCALLED = {"optimize", "report", "__init_subclass__", "__subclasshook__", "__class__", "__dir__"}


def subjects():
    """A model and one object of each class by name."""
    m = tv.Model("m")
    x, y = m.addMVar(4, ub=3.0), m.addMVar((2, 2))
    v, w = m.addVar(), m.addVar()
    gone = m.addVar()
    m.remove(gone)
    return {
        "m": m, "x": x, "y": y, "v": v, "w": w, "gone": gone, "pending": m.addVar(), "foreign": tv.Model().addMVar(4),
        "linear": 2 * v + w + 1, "quadratic": v * w + v, "nonlinear": nlfunc.sin(v) + w, "general": genfunc.max(v, w),
        "compact": sp.csr_matrix(NUMBERS) @ x + 1, "sum": 2 * x + 1, "squares": x * x + x, "curves": nlfunc.exp(x),
        "rows": m.addConstr(NUMBERS @ x <= 9), "row": m.addConstr(v + w <= 3), "qrows": m.addConstr(x * x <= 9),
        "nlrows": m.addConstr(nlfunc.exp(x) <= 9), "genrows": m.addConstr(x == genfunc.abs(y.reshape(4))),
        "comparison": x <= 1, "params": m.params,
    }  # fmt: skip


def interferences(own):
    """What an operand does to the others while it is read."""
    m, arrays = own["m"], [own[name] for name in ("x", "compact", "sum", "squares", "curves", "rows")]
    states = ("_vararr", "_learr", "_matmulparts", "_const", "_quadparts", "_ndle", "_qearr", "_nlearr", "_constrarr")

    def each(change):
        for array in arrays:
            for name in states:
                with contextlib.suppress(AttributeError, TypeError, ValueError, tv.TarvoError):
                    change(array, name)

    def remove():
        m.remove([own["x"], own["row"]])
        m.update()

    def grow():
        own["linear"].addTerms([1.0] * 2000, [own["v"]] * 2000)
        own["sum"] += own["x"]
        own["squares"] += own["x"]

    foreign = np.array([None, 3], object)
    return [
        m.close, m.update, remove, grow, gc.collect, lambda: 1 / 0, lambda: each(delattr), lambda: each(getattr),
        lambda: each(lambda array, name: setattr(array, name, foreign)), lambda: each(lambda a, _: a.__dict__.clear()),
        lambda: each(lambda array, _: setattr(array, "__dict__", {})),
        lambda: [own[name].clear() for name in ("sum", "linear")],
    ]  # fmt: skip


def misbehaving(act, answer):
    """An object each of whose hooks acts and then answers the same."""
    hooks = [
        "array",
        "index",
        "float",
        "int",
        "len",
        "iter",
        "getitem",
        "str",
        "bool",
        "hash",
        "eq",
        "complex",
        "fspath",
    ]
    chosen = {f"__{name}__": lambda self, *given, **named: (act(), answer)[1] for name in hooks}
    return type("Misbehaving", (), chosen)()


def damaged(draw):
    """A sparse matrix with an array that does not fit. What SciPy does with it by itself, as when somebody iterates
    over it, may crash, so it goes where numbers are read.
    """
    matrix = draw.choice(FORMATS)(NUMBERS)
    name = draw.choice(list(PLACES))
    value = draw.choice(PLACES[name])
    object.__setattr__(matrix, name, value if name == "_shape" else np.array(value))
    return matrix


def operand(draw, own):
    def acting():
        answers = ([1.0] * 4, np.ones(4), 1, 2.0, "wrong", -1, 2**62, None, float("nan"), np.empty(4, object))
        return misbehaving(draw.choice(interferences(own)), draw.choice(answers))

    def half_made():
        cls = draw.choice(
            [tv.Model, tv.MVar, tv.MLinExpr, tv.MQuadExpr, tv.MNLExpr, tv.MConstr, tv.NLExpr, tv.QuadExpr]
        )
        return cls.__new__(cls)

    plain = [
        2**63,
        10**400,
        1j,
        "a\0b",
        "\ud800",
        (2**31, 2**31),
        (-1, 2),
        slice("a", 1.5),
        np.matrix(NUMBERS),
        None,
        [[]],
    ]
    plain += [
        np.ones(4, complex),
        np.array([own["v"], 1.0, own["foreign"], None], object),
        np.ma.ones(4),
        2.0,
        np.ones(4),
    ]
    makers = (
        lambda: np.broadcast_to(draw.choice([1.0, 1, True]), draw.choice(VIEWS)),
        acting, acting, lambda: [acting()] * 4, lambda: (0, acting()), half_made,
        lambda: draw.choice(plain), lambda: draw.choice(list(own.values())), lambda: sp.coo_array((4, 2**31 + 5)),
        lambda: damaged(draw),
    )  # fmt: skip
    return draw.choice(makers)()


FUNCTIONS = [
    tv.concatenate,
    tv.hstack,
    tv.vstack,
    tv.quicksum,
    tv.LinExpr,
    tv.QuadExpr,
    tv.MVar,
    tv.MLinExpr,
    tv.MQuadExpr,
]
FUNCTIONS += [getattr(module, name) for module in (nlfunc, genfunc) for name in module.__all__]
FUNCTIONS += [value for module in (_util, _attrutil) for value in vars(module).values() if callable(value)]
MODEL = [
    "addVar",
    "addMVar",
    "addConstr",
    "addRange",
    "addSOS",
    "setObjective",
    "remove",
    "setCoeff",
    "getCoeff",
    "getRow",
    "getAttr",
    "setAttr",
]


def case(draw):
    own = subjects()
    given = [operand(draw, own) for _ in range(draw.randint(1, 3))]
    subject = draw.choice(list(own.values()))

    def member():
        found = getattr(subject, draw.choice([name for name in dir(subject) if name not in UNCALLED]))
        return found(*given) if callable(found) else found

    call = draw.choice([
        member,
        lambda: draw.choice(OPERATORS)(subject, given[0]),
        lambda: getattr(own["m"], draw.choice(MODEL))(*given),
        lambda: draw.choice(FUNCTIONS)(*given),
        lambda: draw.choice(OPERATORS[:-1])(subject, damaged(draw)),
        lambda: draw.choice(OPERATORS[:-1])(damaged(draw), subject),
        lambda: own["m"].addConstr(draw.choice([own["x"], own["curves"], own["squares"]]) <= damaged(draw)),
        lambda: genfunc.max(own["x"], damaged(draw)),
    ])  # fmt: skip
    try:
        call()
        outcome = "fine"
    except SystemError:
        raise
    except Exception as error:  # any other is an answer
        outcome = type(error).__name__
    if not own["m"]._cmodel._closed:
        own["m"].NumVars
    return outcome


if __name__ == "__main__":
    first, count = int(sys.argv[1]), int(sys.argv[2])
    warnings.simplefilter("ignore")
    outcomes = collections.Counter()
    for number in range(first, first + count):
        faulthandler.dump_traceback_later(30, exit=True)
        _debug.eager(number % 3 == 0)
        print(number, file=sys.stderr)
        outcomes[case(random.Random(number))] += 1
    print(dict(outcomes))
