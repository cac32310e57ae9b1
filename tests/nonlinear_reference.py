"""Arrays of nonlinear expressions as they are documented: element by element with NumPy's own means, slow and plain.

Documented(array)       what MNLExpr(array) must be like: operators, indexing, assignment
trees_of(value)         an array of trees, as operands are read
pattern(expressions)    shapes, elements and trees with every object numbered at its first appearance: equal for two
                        lists of arrays that hold the same expressions and share the same objects and nodes
value(point, expr)      what the elements stand for, computed by NumPy from the trees
"""

import itertools
import operator

import numpy as np
import scipy.sparse as sp

from tarvopy._core import LinExpr, NLExpr, QuadExpr, Var, _ExprTree
from tarvopy._matrixapi import MLinExpr, MNLExpr, MQuadExpr, MVar

FLAGS = ["refs_ok", "external_loop", "buffered", "zerosize_ok"]
TARGET, SOURCE = ["readonly", "no_broadcast"], ["readonly", "copy"]


def each(function, *arrays):
    return np.vectorize(function, otypes=[object])(*arrays)


def quadratic_tree(le, qe):
    trees = list(itertools.chain(_ExprTree._linexpr_terms(le), _ExprTree._quadexpr_terms(qe)))
    return trees[0] if len(trees) == 1 else _ExprTree._from_plus(*trees)


def trees_of(value):
    if sp.issparse(value):
        value = value.toarray()
    if isinstance(value, (Documented, MNLExpr)):
        return each(lambda element: element._root, value._nlearr)
    if isinstance(value, MVar):
        return each(_ExprTree._from_var, value.copy()._vararr)
    if isinstance(value, MLinExpr):
        full = value.copy()
        full._convert_to_full()
        return each(_ExprTree._from_linexpr, full._learr)
    if isinstance(value, MQuadExpr):
        full = value.copy()
        full._convert_to_full()
        full._ndle._convert_to_full()
        return each(quadratic_tree, full._ndle._learr, full._qearr)
    if isinstance(value, np.ndarray):
        return each(_ExprTree._from_constant, value)
    return NLExpr._coerce_to_exprtree(value)


def is_operand(value):
    kinds = (Documented, MVar, MLinExpr, MQuadExpr, np.ndarray, Var, LinExpr, QuadExpr, NLExpr, int, float)
    return isinstance(value, kinds) or sp.issparse(value)


class Documented:
    __array_priority__ = 100

    def __init__(self, nlearr):
        self._nlearr = nlearr

    def new(self, builder, *tree_arrays):
        return Documented(each(lambda *trees: NLExpr(builder(*trees)), *tree_arrays))

    def binary(self, other, builder):
        return self.new(builder, trees_of(self), trees_of(other)) if is_operand(other) else NotImplemented

    def reflected(self, other, builder):
        return self.new(builder, trees_of(other), trees_of(self)) if is_operand(other) else NotImplemented

    def update(self, target, trees, builder):
        with np.nditer([target, trees], FLAGS, [TARGET, SOURCE], [np.dtype("O")] * 2) as iterator:
            for chunk, sources in iterator:
                for element, tree in zip(chunk, sources, strict=True):
                    element._root = builder(element._root, tree)

    def in_place(self, other, builder):
        if not is_operand(other):
            return NotImplemented
        self.update(self._nlearr, trees_of(other), builder)
        return self

    def __neg__(self):
        return self.new(_ExprTree._from_uminus, trees_of(self))

    def __pow__(self, other):
        if isinstance(other, np.ndarray) and other.size == 1 and other.item() == 2.0:
            spread = self._nlearr.reshape(np.broadcast_shapes(self._nlearr.shape, other.shape))
            return Documented(spread) ** 2
        if isinstance(other, (int, float)) and other == 2.0:
            return self.new(_ExprTree._from_square, trees_of(self))
        return self.binary(other, _ExprTree._from_pow)

    def __ipow__(self, other):
        if isinstance(other, (int, float)) and other == 2.0:
            return self.in_place(0.0, lambda root, _: _ExprTree._from_square(root))
        return self.in_place(other, _ExprTree._from_pow)

    def __rpow__(self, other):
        return self.reflected(other, _ExprTree._from_pow)

    def __getitem__(self, key):
        selected = self._nlearr[key]
        if isinstance(selected, NLExpr):
            return Documented(np.array(selected))
        if not np.may_share_memory(selected, self._nlearr):
            return Documented(each(NLExpr.copy, selected))
        return Documented(selected)

    def __setitem__(self, key, value):
        self.update(self._nlearr[key], trees_of(value), lambda _, tree: tree)

    def __repr__(self):
        with np.printoptions(formatter={"object": lambda element: f" {element}"}):
            text = repr(self._nlearr)
        return f"<MNLExpr {self._nlearr.shape}>\n{text[: text.rfind(',')]})"

    def copy(self):
        return Documented(each(NLExpr.copy, self._nlearr))


def _add_operators(name, builder):
    setattr(Documented, f"__{name}__", lambda self, other: self.binary(other, builder))
    setattr(Documented, f"__r{name}__", lambda self, other: self.reflected(other, builder))
    setattr(Documented, f"__i{name}__", lambda self, other: self.in_place(other, builder))


_add_operators("add", _ExprTree._from_plus)
_add_operators("sub", _ExprTree._from_minus)
_add_operators("mul", _ExprTree._from_multiply)
_add_operators("truediv", _ExprTree._from_divide)


# ---- looking at expressions ------------------------------------------------------------------------------------------


class Numbers(dict):
    """Objects numbered in the order in which they appear; keeps them alive."""

    def of(self, item):
        known = id(item) in self
        return known, self.setdefault(id(item), (len(self), item))[0]


def described(tree, numbers):
    known, number = numbers.of(tree)
    if known:
        return number
    if tree.op in ("constant", "variable"):
        return number, tree.op, tree.data if tree.op == "constant" else tree.data.index
    return number, tree.op, *(described(child, numbers) for child in tree.args)


def pattern(expressions):
    numbers = Numbers()
    return [
        (e._nlearr.shape, [(numbers.of(nle), described(nle._root, numbers)) for nle in e._nlearr.flat])
        for e in expressions
    ]


OPERATIONS = {
    "minus": np.subtract,
    "multiply": np.multiply,
    "divide": np.divide,
    "pow": np.power,
    "uminus": operator.neg,
    "square": np.square,
    "logistic": lambda x: 1 / (1 + np.exp(-x)),
}


def tree_value(numbers, tree):
    if tree.op == "constant":
        return tree.data
    if tree.op == "variable":
        return numbers[tree.data.index]
    values = [np.float64(tree_value(numbers, child)) for child in tree.args]
    if tree.op == "plus":
        return sum(values)
    return OPERATIONS.get(tree.op, getattr(np, tree.op, None))(*values)


def value(point, expr):
    with np.errstate(all="ignore"):
        values = [float(tree_value(point.numbers, nle._root)) for nle in expr.copy()._nlearr.flat]
    return np.array(values).reshape(expr.shape)
