"""A model as plain arrays, for comparing with arrays made by hand."""

from types import SimpleNamespace

from tarvopy.problem import Problem


def arrays(m):
    """Copies of everything an engine would get; A is dense."""
    m.update()
    p = Problem.of(m._cmodel)
    fields = ("lb", "ub", "obj", "lower", "upper")
    vtype = "".join(letter.decode() for letter in p.vtype.tolist())
    return SimpleNamespace(
        **{name: getattr(p, name).copy() for name in fields},
        vtype=vtype,
        A=m.getA().toarray(),
        constant=p.objconstant,
        sense=p.sense,
    )


def shape_of(m):
    """(variables, rows, nonzeros) after an update: what a refused call must not change."""
    return m.NumVars, m.NumConstrs, m.NumNZs
