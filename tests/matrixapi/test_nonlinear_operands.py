"""What variables, linear and quadratic expressions make of nonlinear operations: the trees, and who keeps what."""

import operator

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from nonlinear_trees import FUNCTIONS, expected, trees
from tarvopy import MLinExpr, MNLExpr, MQuadExpr, _debug, nlfunc
from tarvopy._core import NLExpr

OPERATORS = {
    "plus": operator.add,
    "minus": operator.sub,
    "multiply": operator.mul,
    "divide": operator.truediv,
    "pow": operator.pow,
}


class Operands:
    def __init__(self):
        self.model = model = tarvopy.Model()
        self.x = model.addMVar(3, name="x")
        self.y = model.addMVar((2, 3), name="y")
        self.v, w = model.addVar(name="v"), model.addVar(name="w")
        model.update()
        z = self.x
        self.matrices = {
            "variables": self.x,
            "compact": 2.0 * z - 1.0,
            "full": self.y - 3.0,
            "quadratic": self.y * z + z - 2.0,
            "compact quadratic": z @ z - 1.0,
        }
        self.nonlinear = {"array": nlfunc.sin(z) + 1.0, "scalar": nlfunc.exp(w)}
        self.scalars = {"Var": self.v, "LinExpr": self.v + 2.0 * w, "QuadExpr": self.v * w - 1.0}
        self.numbers = {
            "number": -2.5,
            "NumPy number": np.float32(3.0),
            "vector": np.array([1.0, 2.0, -3.0]),
            "integers": np.array([[4], [5]]),
            "single": np.array([[3]]),
        }

    def everything(self):
        return {**self.matrices, **self.nonlinear, **self.scalars, **self.numbers}


@pytest.fixture
def given(mode):
    return Operands()


def degree(operand):
    if isinstance(operand, MNLExpr | NLExpr):
        return 3
    if isinstance(operand, MQuadExpr | tarvopy.QuadExpr):
        return 2
    return int(isinstance(operand, tarvopy.MVar | MLinExpr | tarvopy.Var | tarvopy.LinExpr))


def is_nonlinear(op, a, b):
    if 3 in (degree(a), degree(b)):
        return True
    if op in ("plus", "minus"):
        return False
    return degree(a) + degree(b) > 2 if op == "multiply" else degree(b) > 0 or op == "pow"


def looks(given):
    return [trees(operand).tolist() for operand in given.everything().values()]


@pytest.mark.parametrize("op", OPERATORS)
@pytest.mark.parametrize("name", ["variables", "compact", "full", "quadratic", "compact quadratic"])
def test_every_operand_on_either_side_gives_the_node_over_both_sides_trees(given, op, name):
    self = given.matrices[name]
    before = looks(given)
    for other in given.everything().values():
        for a, b in ((self, other), (other, self)):
            if not is_nonlinear(op, a, b):
                continue
            result = OPERATORS[op](a, b)
            assert type(result) is MNLExpr
            # Variables take a scalar's sum and product as their own, on whichever side they stand.
            scalar = isinstance(a, NLExpr | tarvopy.QuadExpr)
            swapped = scalar and b is given.x and op in ("plus", "multiply")
            assert trees(result).tolist() == (expected(op, b, a) if swapped else expected(op, a, b)).tolist()
    assert looks(given) == before


def test_squares_are_square_nodes_where_no_product_stays_quadratic(given):
    q, e = given.matrices["quadratic"], given.matrices["compact"]
    for two in (2, 2.0, np.int8(2), np.array(2.0), np.array([2])):
        result = q**two
        assert trees(result).tolist() == expected("square", q).tolist()
        assert type(e**two) is MQuadExpr
        assert type(given.x**two) is MQuadExpr
    assert (q ** np.array([[[2.0]]])).shape == (1, 2, 3)
    assert trees(q ** np.array([2.0, 2.0, 3.0])).tolist() == expected("pow", q, np.array([2.0, 2.0, 3.0])).tolist()
    for exponent in (0, 1):
        assert trees(q**exponent).tolist() == expected("pow", q, exponent).tolist()
        assert trees(given.x**exponent).tolist() == expected("pow", given.x, exponent).tolist()
        assert type(e**exponent) is MLinExpr


def test_an_array_of_one_exponent_is_that_exponent_in_the_broadcast_shape(given):
    e, half = given.matrices["compact"], np.array([[0.5]])
    for exponent in (half, half.astype(object)):
        assert trees(e**exponent).tolist() == expected("pow", e, half).tolist()
    for scalar in (given.v, given.nonlinear["scalar"], given.scalars["LinExpr"]):
        for self in (e, given.x):
            assert trees(self ** np.array(scalar, dtype=object)).tolist() == expected("pow", self, scalar).tolist()
    for strange in (np.array("a"), np.array(None), np.array({}, dtype=object)):
        with pytest.raises(TypeError):
            e**strange


def test_sparse_matrices_are_made_dense(given):
    matrix = sp.csr_array([[0.0, 2.0, 1.0], [3.0, 0.0, -1.0]])
    for self in (given.x, given.matrices["compact"], given.matrices["quadratic"]):
        assert trees(matrix / self).tolist() == expected("divide", matrix.toarray(), self).tolist()
        for made in (matrix, sp.csc_matrix(matrix)):
            assert trees(self**made).tolist() == expected("pow", self, matrix.toarray()).tolist()


def test_new_nodes_stand_over_the_operands_own_trees(given):
    n, mn = given.nonlinear["scalar"], given.nonlinear["array"]
    e, q = given.matrices["compact"], given.matrices["quadratic"]
    for self in (e, q, given.x):
        assert all(element._root.args[1] is n._root for element in (self - n)._nlearr.flat)
        result = mn / self
        assert result._nlearr.flat[2]._root.args[0] is mn._nlearr[2]._root


def test_compact_expressions_stay_compact(given):
    e, q = given.matrices["compact"], given.matrices["compact quadratic"]
    for other in (given.nonlinear["scalar"], given.v):
        e - given.nonlinear["scalar"], e / other, e**other, other / e, q * other, other**q
    assert e._is_compact()
    assert q._is_compact()


def in_place(op, receiver, operand):
    return getattr(operator, op)(receiver, operand)


@pytest.mark.parametrize(
    ("receiver", "op", "operand", "node"),
    [
        ("compact", "iadd", "nonlinear", "plus"),
        ("full", "isub", "nonlinear", "minus"),
        ("compact", "imul", "nonlinear", "multiply"),
        ("compact", "imul", "quadratic", "multiply"),
        ("full", "itruediv", "variables", "divide"),
        ("compact", "ipow", "variables", "pow"),
        ("quadratic", "iadd", "nonlinear", "plus"),
        ("quadratic", "isub", "nonlinear", "minus"),
        ("quadratic", "imul", "variables", "multiply"),
        ("quadratic", "itruediv", "quadratic", "divide"),
        ("quadratic", "ipow", "nonlinear", "pow"),
        ("variables", "iadd", "nonlinear", "plus"),
        ("variables", "itruediv", "compact", "divide"),
    ],
)
def test_in_place_operators_that_become_nonlinear_give_a_new_object(given, receiver, op, operand, node):
    self = given.matrices[receiver]
    other = given.nonlinear["array"] if operand == "nonlinear" else given.matrices[operand]
    before = looks(given)
    result = getattr(operator, op)(self, other)
    assert type(result) is MNLExpr
    assert trees(result).tolist() == expected(node, self, other).tolist()
    assert looks(given) == before


def test_shapes_that_do_not_fit_are_named_and_nothing_changes(given):
    before = looks(given)
    four = nlfunc.sin(given.model.addMVar(4))
    given.model.update()
    for self in given.matrices.values():
        if self.shape in ((), (1,)):
            continue
        for op in ("plus", "minus", "multiply", "divide", "pow"):
            for a, b in ((self, four), (four, self)):
                with pytest.raises(ValueError, match="shape"):
                    OPERATORS[op](a, b)
    assert looks(given) == before


def test_object_arrays_count_by_the_degree_of_their_elements(given):
    v, n = given.v, given.nonlinear["scalar"]
    before = looks(given)
    for elements, least in [((v, 2.0, v), 1), ((1.0, v * v, v), 2), ((v, v * v, n), 3)]:
        array = np.array(elements, dtype=object)
        for name in ("variables", "compact", "full", "quadratic"):
            self = given.matrices[name]
            for op, function in OPERATORS.items():
                if not (least == 3 or op in ("divide", "pow") or (op == "multiply" and degree(self) + least > 2)):
                    continue
                assert trees(function(self, array)).tolist() == expected(op, self, array).tolist()
                if op != "divide" or least == 3:
                    swapped = self is given.x and op in ("plus", "multiply")
                    both = (self, array) if swapped else (array, self)
                    assert trees(function(array, self)).tolist() == expected(op, *both).tolist()
                result = getattr(operator, {"plus": "iadd", "minus": "isub", "multiply": "imul"}.get(op, "itruediv"))
                if op != "pow":
                    assert trees(result(self, array)).tolist() == expected(op, self, array).tolist()
    assert looks(given) == before


@pytest.mark.parametrize("name", ["variables", "compact", "full", "quadratic"])
def test_sums_with_arrays_of_scalar_quadratics_are_quadratic(given, name):
    v, self = given.v, given.matrices[name]
    square = (given.x * given.x)[1]
    before = looks(given)
    for elements in ((1.0, v * v - 5.0, v), (v * v, square, 2.0 * v + 1.0)):
        array = np.empty(3, dtype=object)
        array[:] = elements
        scalars = [square.item() if element is square else element for element in elements]
        for op, result in [
            (operator.add, self + array),
            (operator.sub, self - array),
            (operator.add, operator.iadd(0.0 + self, array)),
            (operator.sub, operator.isub(0.0 + self, array)),
            (lambda a, b: a + b, array + self),
            (lambda a, b: -1.0 * a + b, array - self),
        ]:
            assert type(result) is MQuadExpr
            assert result.shape == self.shape
            for i in np.ndindex(self.shape):
                assert str(result[i].item()) == str(op(self[i].item(), tarvopy.QuadExpr(scalars[i[-1]])))
        assert array[0] is elements[0]
        target = given.matrices["quadratic"].copy()
        target[1] = array
        assert [str(e.item()) for e in target[1]] == [str(tarvopy.QuadExpr(scalar)) for scalar in scalars]
    assert looks(given) == before
    for wrong in (None, "a", np.ones(2)):
        with pytest.raises(TypeError):
            self + np.array([v * v, wrong, 1.0], dtype=object)


@pytest.mark.parametrize("name", ["variables", "compact", "full"])
def test_arrays_of_scalar_linear_expressions_take_part_as_expressions(given, name):
    v, self = given.v, given.matrices[name]
    array = np.array([v, 2.0, v - 1.0], dtype=object)
    for op, result, kind in [
        (operator.add, self + array, MLinExpr),
        (operator.add, operator.iadd(0.0 + self, array), MLinExpr),
        (operator.sub, operator.isub(0.0 + self, array), MLinExpr),
        (operator.mul, self * array, MQuadExpr),
        (operator.mul, operator.imul(1.0 * self, array), MQuadExpr),
        (operator.mul, array * self, MQuadExpr),
    ]:
        assert type(result) is kind
        for i in np.ndindex(self.shape):
            whole = tarvopy.QuadExpr(op(tarvopy.LinExpr(self[i].item()), array[i[-1]]))
            assert sorted(str(result[i].item()).split(" ")) == sorted(str(whole).split(" "))


def test_matrix_products_of_a_degree_beyond_two_multiply_term_by_term(given):
    square = given.model.addMVar((3, 3), name="s")
    given.model.update()
    q, n = square * square + 1.0, nlfunc.exp(square)
    for a, b in [
        (q, square),
        (square, q),
        (q, 2.0 * square),
        (2.0 * square - 1.0, q),
        (q, q),
        (square, n),
        (n, square),
        (2.0 * square, n),
        (q, n),
        (n, q),
    ]:
        result = a @ b
        assert type(result) is MNLExpr
        assert result.shape == (3, 3)
        left, right = trees(a), trees(b)
        for i, j in np.ndindex(3, 3):
            terms = tuple(("multiply", left[i, k], right[k, j]) for k in range(3))
            assert trees(result)[i, j] == ("plus", *terms)
    with pytest.raises(ValueError, match="inner dimensions 3 and 2 differ"):
        q @ given.matrices["full"]


# ---- functions -----------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("function", FUNCTIONS)
def test_functions_go_over_every_element(given, function):
    apply = getattr(nlfunc, function)
    for operand in (*given.matrices.values(), given.nonlinear["array"]):
        result = apply(operand)
        assert type(result) is MNLExpr
        assert trees(result).tolist() == expected(function, operand).tolist()
        assert apply(result).shape == operand.shape
    for operand in (given.nonlinear["scalar"], *given.scalars.values(), 2.5):
        assert type(apply(operand)) is NLExpr
    assert trees(apply(given.x.nl)).tolist() == expected(function, given.x).tolist()
    for strange in ("a", None, np.ones(3), [given.v]):
        with pytest.raises(TypeError, match=f"^nlfunc.{function}"):
            apply(strange)


def test_operations_on_arrays_make_no_element():
    model = tarvopy.Model()
    x, y = model.addMVar((300, 400)), model.addMVar(400)
    before = _debug.counts()
    e = nlfunc.sin(x) * 2.0 + y**3 - 1.0 / (x + 2.0) + nlfunc.exp(x * y) / y
    e = tarvopy.vstack([e, x, (x * y)[:2], np.ones((2, 400))])
    e += nlfunc.log(y)
    e = e[1:] @ np.ones(400)
    assert e.shape == (603,)
    assert _debug.counts() == before


def test_expressions_over_two_models_are_built_and_refused_by_both(mode):
    own, other = (tarvopy.Model() for _ in range(2))
    a, b = own.addMVar(3), other.addMVar(3)
    for build in (
        lambda: a + nlfunc.sin(b),
        lambda: (2.0 * a) * (b * b),
        lambda: a / b,
        lambda: (a * a) @ (2.0 * b),
        lambda: tarvopy.vstack([a, nlfunc.sin(b)]),
        lambda: nlfunc.exp(a.nl**b),
    ):
        for model in (own, other):
            with pytest.raises(tarvopy.TarvoError) as error:
                model.addConstr(build() <= 1.0)
            assert error.value.code == tarvopy.TRV.Error.NOT_IN_MODEL
            model.update()
            assert model.NumNLConstrs == 0
