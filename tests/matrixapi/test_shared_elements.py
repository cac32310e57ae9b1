"""Slices of linear and quadratic expressions share their elements with the whole, whether the objects exist or not."""

import numpy as np
import pytest

import tarvopy
from tarvopy import _debug

START = {"linear": lambda x, y: 2 * x + y + 1, "quadratic": lambda x, y: 2 * x * y + x + 1}


@pytest.fixture(params=START)
def kind(request):
    return request.param


def made():
    return {kind: _debug.counts()[kind] for kind in ("Var", "LinExpr", "QuadExpr")}


def cube(kind="linear"):
    m = tarvopy.Model()
    x, y = m.addMVar((4, 4, 4)), m.addMVar((4, 4, 4))
    m.update()
    return m, START[kind](x, y)


def elements(e):
    return e._qearr if isinstance(e, tarvopy.MQuadExpr) else e._learr


def texts(e):
    """Of all elements, those of both halves for a quadratic one."""
    return [str(v) for half in (elements(e), getattr(e, "_ndle", e)._learr) for v in half.ravel()]


def test_shifted_differences_make_no_objects(kind):
    m, e = cube(kind)
    before = made()
    slices = [e[1:], e[:-1], e[:, ::2, 1:][1], e[0, 0, 0], e[[0, 0, 3]], e[np.ones((4, 4, 4), bool)]]
    m.addConstr(slices[0] - slices[1] <= 1)
    m.update()
    del slices[::2]
    assert made() == before
    row = str(m.getRow((m.getConstrs() or m.getQConstrs())[0]))
    products, linear = "2.0 C16*C80 - 2.0 C0*C64 + 1.0 C16 - 1.0 C0", "2.0 C16 + 1.0 C80 - 2.0 C0 - 1.0 C64"
    assert row == (linear if kind == "linear" else products)


def test_one_look_makes_the_elements_of_all(mode, kind):
    _, e = cube(kind)
    whole, part, element, repeated = e, e[1:, ::2], e[1, 0, 0], e[[0, 1, 1]]
    assert elements(part[0])[0, 0] is elements(element)[()] is elements(whole)[1, 0, 0]
    if kind == "linear":
        assert elements(repeated)[1, 0, 0] is elements(repeated)[2, 0, 0] is elements(element)[()]
    else:  # an index array gives copies
        assert len({id(v) for v in (*elements(repeated)[1:, 0, 0], elements(element)[()])}) == 3
    assert elements(e[0:0]).shape == (0, 4, 4)


@pytest.mark.parametrize(
    ("change", "text"),
    [
        (lambda s: s.__iadd__(1.0), "2.0 C16 + 1.0 C80 + 2.0"),
        (lambda s: s.__isub__(s), "0.0"),
        (lambda s: s.__imul__(3.0), "6.0 C16 + 3.0 C80 + 3.0"),
        (lambda s: s.clear(), "0.0"),
        (lambda s: s.__setitem__((), 5.0), "5.0"),
    ],
)
def test_a_change_in_place_is_seen_by_all(mode, change, text):
    _, e = cube()
    part, other, copy = e[1], e[1, 0], e[1].copy()
    change(part)
    if text == "0.0":
        part._normalize()
    seen = [part._learr[0, 0], e._learr[1, 0, 0], other._learr[0]]
    assert [str(element) for element in seen] == [text] * 3
    assert (str(e._learr[0, 0, 0]), str(copy._learr[0, 0])) == ("2.0 C0 + 1.0 C64 + 1.0", "2.0 C16 + 1.0 C80 + 1.0")


def test_a_key_that_looks_or_changes_while_it_is_read(kind):
    class Key:
        def __init__(self, work):
            self.work = work

        def __index__(self):
            self.work()
            return 1

    for work in (elements, lambda e: e.__imul__(2.0), lambda e: e.clear()):
        _, e = cube(kind)
        part = e[Key(lambda e=e, work=work: work(e))]
        assert elements(part)[0, 0] is elements(e)[1, 0, 0]
