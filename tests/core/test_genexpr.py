"""General functions as objects: what they show, what they stand beside, and what refuses them."""

import copy
import gc
import operator
import pickle
import weakref

import numpy as np
import pytest

from native import NativeModel
from tarvopy import GenExpr, TempConstr, genfunc, nlfunc

MODEL = NativeModel(3)
X, Y, Z = MODEL.vars


def test_text_shows_the_call():
    assert str(genfunc.max(X, 2 * Y + 1, 3)) == "max(C0, 2.0 C1 + 1.0, 3)"
    assert repr(genfunc.abs(X)) == "<GenExpr: abs(C0)>"
    assert str(genfunc.pwl(X, [0, 1], [0, 2])) == "pwl(C0, [0.0, 1.0], [0.0, 2.0])"
    assert str(GenExpr("min", (np.ones((2, 3)),), (0, 1))) == "min(<ndarray (2, 3)>, axis=(0, 1))"
    assert str(genfunc.indicator(X, 1, Y <= 2)) == "indicator(C0, 1, <TempConstr: C1 <= 2>)"


@pytest.mark.parametrize("other", [X, X + Y, 3.0, np.float64(3), np.array([1.0, 2]), np.array([X, Y])])
def test_equations_hold_both_sides_as_given(other):
    g = genfunc.max(X, 3.0)
    left, right = other == g, g == other
    assert [type(left), type(right), left.sense, right.sense] == [TempConstr, TempConstr, "=", "="]
    assert right.lhs is g
    assert right.rhs is other
    assert any(side is g for side in (left.lhs, left.rhs))


def test_everything_but_an_equation_is_refused_with_advice():
    g = genfunc.min(X, Y)
    array = np.ones(2)
    for a in (X, X + 1, X * Y, nlfunc.exp(X), 2.0, array):
        for compare in (operator.le, operator.ge, operator.lt, operator.gt, operator.ne):
            for left, right in ((a, g), (g, a)):
                with pytest.raises(TypeError, match=r"only == is taken with genfunc.min\(\): add a variable v"):
                    compare(left, right)
        for compute in (operator.add, operator.sub, operator.mul, operator.truediv, operator.pow, operator.iadd):
            for left, right in ((a, g), (g, a)):
                with pytest.raises(TypeError, match=r"genfunc.min\(\) is no expression to compute with"):
                    compute(left, right)
    for compute in (operator.neg, operator.pos, abs):
        with pytest.raises(TypeError, match="no expression"):
            compute(g)
    implied = genfunc.indicator(X, 1, Y <= 2)
    for left, right in ((X, implied), (implied, X), (implied, 1.0)):
        with pytest.raises(TypeError, match="is a constraint already"):
            operator.eq(left, right)
    with pytest.raises(TypeError, match="is a constraint, not a value"):
        implied + 1


def test_it_is_immutable_copies_as_itself_and_refuses_pickling_and_hashing():
    g = genfunc.max(X, 3.0)
    assert (g.name, g.args, g.axis) == ("max", (X, 3.0), None)
    assert copy.copy(g) is g
    assert copy.deepcopy(g) is g
    with pytest.raises(AttributeError):
        g.args = ()
    with pytest.raises(TypeError, match=r"cannot pickle 'tarvopy.GenExpr' object"):
        pickle.dumps(g)
    with pytest.raises(TypeError, match="unhashable"):
        hash(g)


def test_unknown_functions_and_axes_are_refused():
    with pytest.raises(ValueError, match="'sum' is no general function"):
        GenExpr("sum", (X,))
    with pytest.raises(ValueError, match="axis -1 is no index"):
        GenExpr("max", (X,), (-1,))
    with pytest.raises(TypeError, match="axis is None or a tuple"):
        GenExpr("max", (X,), 1)
    with pytest.raises(TypeError):
        GenExpr("max", 3)


def test_a_cycle_through_it_is_collected():
    class Node(list):
        pass

    node = Node()
    node.append(GenExpr("max", (node,)))
    alive = weakref.ref(node)
    del node
    gc.collect()
    assert alive() is None
