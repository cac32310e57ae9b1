"""Random programs over MNLExpr, against the documented element-by-element arrays of nonlinear_reference.py.

Both run the same statements. In the end all arrays must hold the same trees and share the same elements and nodes,
however often one was looked at on the way.
"""

import operator

import numpy as np
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st

import tarvopy
from nonlinear_reference import Documented, pattern, trees_of
from tarvopy import _debug
from tarvopy._core import NLExpr
from tarvopy._matrixapi import MNLExpr

SHAPES = [(), (3,), (2, 3), (1, 3), (2, 1), (0,)]
BINARY = [operator.add, operator.sub, operator.mul, operator.truediv, operator.pow]
IN_PLACE = [operator.iadd, operator.isub, operator.imul, operator.itruediv, operator.ipow]
KEYS = [
    np.s_[...],
    np.s_[:],
    np.s_[1:],
    np.s_[::-1],
    np.s_[:, 1:],
    np.s_[None],
    np.s_[..., None],
    np.s_[0],
    np.s_[-1],
    np.s_[1, 2],
    np.s_[:, 0],
    np.s_[[0, 1, 0]],
    np.s_[..., [2, 2]],
    np.s_[np.int64(1)],
    (),
    np.s_[np.array([True, False, True])],
    np.s_[[], ...],
    7,
    "a",
]


def operands(model):
    x, y = model.addMVar((3,)), model.addMVar((2, 3))
    model.update()
    scalar = x[1].item()
    return [
        *(x, y, x[0], 2.0 * x + 1.0, np.eye(3) @ x, y - 1.0, x * x + x, y * y, (x[0] * x[1]) * 3.0),
        *(scalar, 2 * scalar + 1, scalar * scalar, NLExpr(scalar), 2, 3.5, -1),
        *(np.array(2.0), np.array([[2.0]]), np.arange(3), np.ones((2, 1)), np.zeros(0)),
        *(sp.csr_matrix(np.array([[1.0, 0.0, 2.0]])), np.array([1.0, 2.0], dtype=object)),
    ]


def attempt(statement, *args):
    try:
        return statement(*args), None
    except Exception as error:  # whatever it is, both must raise it
        return None, type(error)


class Program:
    """Pairs of arrays: ours, and the documented one."""

    def __init__(self):
        self.model = tarvopy.Model()
        self.operands = operands(self.model)
        self.pairs = []
        for source in self.operands[:9]:
            theirs = Documented(np.vectorize(NLExpr, otypes=[object])(trees_of(source)))
            self.pairs.append((MNLExpr._from_mlinexpr(source), theirs))

    def both(self, statement, mine, theirs):
        a, error = attempt(statement, *mine)
        b, expected = attempt(statement, *theirs)
        assert error == expected
        if isinstance(a, MNLExpr) and not any(a is pair[0] for pair in self.pairs):
            self.pairs.append((a, b))

    def operand(self, draw):
        choice = draw(st.integers(0, len(self.operands) + len(self.pairs) - 1))
        if choice < len(self.operands):
            return self.operands[choice], self.operands[choice]
        return self.pairs[choice - len(self.operands)]

    def step(self, draw):
        pair = draw(st.sampled_from(self.pairs))
        kind = draw(st.sampled_from(["binary", "reflected", "in place", "index", "assign", "negative", "copy", "look"]))
        if kind in ("binary", "reflected", "in place"):
            function = draw(st.sampled_from(IN_PLACE if kind == "in place" else BINARY))
            sides = zip(pair, self.operand(draw), strict=True)
            mine, theirs = (side[::-1] if kind == "reflected" else side for side in sides)
            self.both(function, mine, theirs)
        elif kind == "index":
            key = draw(st.sampled_from(KEYS))
            self.both(lambda e: e[key], pair[:1], pair[1:])
        elif kind == "assign":
            key, (mine, theirs) = draw(st.sampled_from(KEYS)), self.operand(draw)
            if not isinstance(mine, (sp.csr_matrix, tarvopy.LinExpr, tarvopy.QuadExpr)):
                self.both(operator.setitem, (pair[0], key, mine), (pair[1], key, theirs))
        elif kind == "look":
            assert pair[0]._nlearr.shape == pair[1]._nlearr.shape
        else:
            self.both(operator.neg if kind == "negative" else lambda e: e.copy(), pair[:1], pair[1:])


@settings(max_examples=200, deadline=None)
@given(st.data(), st.booleans())
def test_programs_give_the_documented_trees_and_share_what_is_shared(data, eager):
    _debug.eager(eager)
    try:
        program = Program()
        for _ in range(data.draw(st.integers(1, 12))):
            program.step(data.draw)
        assert [mine.shape for mine, _ in program.pairs] == [theirs._nlearr.shape for _, theirs in program.pairs]
        assert [repr(mine) for mine, _ in program.pairs] == [repr(theirs) for _, theirs in program.pairs]
        assert pattern([mine for mine, _ in program.pairs]) == pattern([theirs for _, theirs in program.pairs])
    finally:
        _debug.eager(False)
