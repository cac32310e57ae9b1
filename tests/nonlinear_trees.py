"""What nonlinear expressions are made of, and what they stand for.

shown(tree)         nested tuples: ("multiply", ("constant", 2.0), ("variable", 0)), variables by their index
tree_of(nlexpr)     the same of an NLExpr's tree
trees(e)            an object array of these, in the shape of a matrix object (or a scalar expression: no dimension)
expected(op, a, b)  the trees that an operation makes of those of its operands, broadcast
values(e, point)    the numbers that the elements stand for; `point` has the numbers of the variables by index
Numbering           which elements and nodes of several expressions are the same object
"""

import numpy as np
import scipy.sparse as sp

import tarvopy
from tarvopy._core import NLExpr, _ExprTree

MATRIX = (tarvopy.MVar, tarvopy.MLinExpr, tarvopy.MQuadExpr, tarvopy.MNLExpr, np.ndarray)

FUNCTIONS = {
    "exp": np.exp,
    "log": np.log,
    "log2": np.log2,
    "log10": np.log10,
    "sqrt": np.sqrt,
    "sin": np.sin,
    "cos": np.cos,
    "tan": np.tan,
    "tanh": np.tanh,
    "abs": np.abs,
    "logistic": lambda z: 1.0 / (1.0 + np.exp(-z)),
}
OPERATIONS = {
    "minus": np.subtract,
    "multiply": np.multiply,
    "divide": np.divide,
    "pow": lambda a, b: np.power(float(a), float(b)),
    "square": np.square,
    "uminus": np.negative,
    "plus": lambda *terms: sum(terms),
    **FUNCTIONS,
}


def shown(tree) -> tuple:
    if tree.op == "variable":
        return "variable", tree.data.index
    return (tree.op, tree.data) if tree.op == "constant" else (tree.op, *map(shown, tree.args))


def tree_of(expr) -> tuple:
    return shown(expr._root)


def _objects(things, shape) -> np.ndarray:
    result = np.empty(shape, dtype=object)
    for key, thing in zip(np.ndindex(shape), things, strict=True):
        result[key] = thing
    return result


def operand_trees(operand) -> np.ndarray:
    """The _ExprTree objects of any operand."""
    if sp.issparse(operand):
        operand = operand.toarray()
    if isinstance(operand, MATRIX):
        return np.asarray(tarvopy.MNLExpr._coerce_to_exprtree_array(operand))
    return _objects([NLExpr._coerce_to_exprtree(operand)], ())


def trees(operand) -> np.ndarray:
    made = operand_trees(operand)
    return _objects(map(shown, made.flat), made.shape)


def expected(op, *operands) -> np.ndarray:
    made = np.broadcast_arrays(*map(operand_trees, operands))
    build = getattr(_ExprTree, f"_from_{op}")
    return _objects((shown(build(*children)) for children in zip(*(m.flat for m in made), strict=True)), made[0].shape)


def values(expr, point) -> np.ndarray:
    """Each tree's value once, however often it occurs."""
    known = {}

    def value(tree):
        if tree.op == "constant":
            return tree.data
        if tree.op == "variable":
            return point[tree.data.index]
        if id(tree) not in known:
            known[id(tree)] = tree, OPERATIONS[tree.op](*map(value, tree.args))
        return known[id(tree)][1]

    made = operand_trees(expr)
    with np.errstate(all="ignore"):
        return np.array([value(tree) for tree in made.flat], dtype=float).reshape(made.shape)


class Numbering:
    """Objects and trees as they share each other: equal programs number alike."""

    def __init__(self):
        self.known, self.nodes = {}, []

    def of_object(self, thing) -> int:
        return self.known.setdefault(id(thing), (len(self.known), thing))[0]

    def of_tree(self, tree) -> int:
        if id(tree) not in self.known:
            inner = [self.of_tree(child) for child in tree.args]
            leaf = tree.data.index if tree.op == "variable" else tree.data
            self.nodes.append((tree.op, leaf, inner, self.of_object(tree)))
        return self.of_object(tree)
