"""Matrix products and sums of nonlinear expressions: values are NumPy's, element trees those of the documented kernels,
and tapes those of the trees."""

import numpy as np
import pytest
import scipy.sparse as sp
from hypothesis import given, settings
from hypothesis import strategies as st

import tarvopy
from linear_values import variables
from nonlinear_values import difference, nlrows
from tarvopy import _debug, nlfunc
from tarvopy._core import NLExpr, _ExprTree
from tarvopy._matrixapi import MNLExpr
from tarvopy._util import _dense_matmul_kernel, _sparse_left_matmul_kernel, _sparse_right_matmul_kernel

SHAPES = [(3,), (2,), (1,), (0,), (2, 3), (3, 2), (1, 3), (3, 1), (0, 3), (2, 2, 3), (2, 1, 3, 2), (3, 0), ()]
FORMATS = ["csr", "csc", "coo", "lil"]


def numbers_for(shape, start):
    return np.asarray(0.5 + 0.25 * ((np.arange(np.prod(shape, dtype=int)) * 5 + start) % 7).reshape(shape))


class World:
    """`make(kind, shape)` gives an operand and the numbers it stands for."""

    def __init__(self):
        self.model, self.numbers = tarvopy.Model(), np.empty(0)

    def make(self, kind, shape):
        numbers = numbers_for(shape, len(self.numbers))
        if kind == "array":
            return numbers, numbers
        x = variables(self.model, shape)
        self.numbers = np.append(self.numbers, numbers.ravel())
        return {
            "variables": lambda: (x, numbers),
            "linear": lambda: (2 * x - 1, 2 * numbers - 1),
            "quadratic": lambda: (x * x - x, numbers**2 - numbers),
            "nonlinear": lambda: (nlfunc.sin(x) * 2, 2 * np.sin(numbers)),
            "part": lambda: (nlfunc.log(x)[::-1], np.log(numbers)[::-1]) if shape else (nlfunc.log(x), np.log(numbers)),
        }[kind]()


def agrees(world, expr, expected):
    assert isinstance(expr, MNLExpr)
    assert expr.shape == np.shape(expected)
    if expr.size:
        found = difference(world.model, expr, 0.0, world.numbers)
        np.testing.assert_allclose(found, expected, rtol=1e-12, atol=1e-12)


def outcome(function):
    try:
        return function()
    except ValueError:
        return ValueError


OTHERS = st.sampled_from(["array", "variables", "linear", "quadratic", "nonlinear", "part"])


@settings(max_examples=150)
@given(st.sampled_from(SHAPES), st.sampled_from(SHAPES), OTHERS, st.sampled_from(["nonlinear", "part"]), st.booleans())
def test_dense_products_are_numpys(left, right, kind, own, swapped):
    world = World()
    (a, A), (b, B) = world.make(own, left), world.make(kind, right)
    if swapped:
        a, b, A, B = b, a, B, A
    expected = outcome(lambda: np.matmul(A, B))
    found = outcome(lambda: a @ b)
    if expected is ValueError:
        assert found is ValueError
    else:
        agrees(world, found, expected)


@settings(max_examples=100)
@given(st.sampled_from(SHAPES), st.integers(0, 3), st.integers(0, 3), st.sampled_from(FORMATS), st.integers(0, 99))
def test_sparse_products_are_numpys(shape, rows, columns, form, seed):
    world = World()
    x, X = world.make("part", shape)
    dense = np.random.default_rng(seed).integers(-1, 2, (rows, columns)).astype(float)
    sparse = sp.csr_matrix(dense).asformat(form)
    for product, numeric in [
        (lambda: sparse @ x, lambda: np.matmul(dense, X)),
        (lambda: x @ sparse, lambda: np.matmul(X, dense)),
    ]:
        expected, found = outcome(numeric), outcome(product)
        if expected is ValueError:
            assert found is ValueError
        else:
            agrees(world, found, expected)


@given(st.sampled_from(SHAPES), st.data())
def test_sums_are_numpys(shape, data):
    world = World()
    x, X = world.make("part", shape)
    several = st.sets(st.integers(0, len(shape) - 1)).map(tuple) if shape else st.just(())
    axis = data.draw(st.one_of(st.none(), several, st.sampled_from(range(-len(shape), len(shape)) or [None])))
    agrees(world, x.sum(axis=axis), X.sum(axis=axis))


def trees(expr):
    return MNLExpr._coerce_to_exprtree_array(expr)


def test_element_trees_are_those_of_the_kernels(mode):
    x = variables(tarvopy.Model(), (2, 3))
    e, f, A = nlfunc.sin(x) * 2, nlfunc.exp(x)[::-1].sum(axis=0), np.array([[1.0, 0.0, 2.0], [0.0, 0.0, -1.0]])
    S, add = sp.csr_array(A), MNLExpr._sum_terms
    multiply, right, left = (
        _ExprTree._from_multiply,
        MNLExpr._multiply_term_sparse_right,
        MNLExpr._multiply_term_sparse_left,
    )
    for found, kernel, a, b, times in [
        (e @ f, _dense_matmul_kernel, trees(e), trees(f), multiply),
        (e @ A.T, _dense_matmul_kernel, trees(e), trees(A.T), multiply),
        (A.T @ e, _dense_matmul_kernel, trees(A.T), trees(e), multiply),
        (x.T @ e, _dense_matmul_kernel, trees(x.T), trees(e), multiply),
        (e @ S.T, _sparse_right_matmul_kernel, trees(e), S.T, right),
        (S.T @ e, _sparse_left_matmul_kernel, S.T, trees(e), left),
        (sp.coo_array(A[:1]) @ f, _sparse_left_matmul_kernel, S[:1], trees(f), left),
    ]:
        assert repr(found) == repr(MNLExpr(kernel(a, b, f_multiply=times, f_sum=add)))


def test_tapes_of_products_are_those_of_their_trees():
    def rows(eager):
        m = tarvopy.Model()
        _debug.eager(eager)
        try:
            x = variables(m, (2, 3))
            e, f = nlfunc.sin(x) * 2, nlfunc.sin(x.T) + 1
            S = sp.random_array((3, 4), density=0.5, rng=np.random.default_rng(1))
            made = [e @ f, S.T @ f, x @ S.tocsc() @ nlfunc.cos(x[:, 0].sum() + np.zeros(4)), (e @ S).sum(axis=0)]
            made += [e[0] @ e[1], -(e @ f) * (e @ S).sum(), (f @ e)[::2, 1] - x[1, ::2]]
        finally:
            _debug.eager(False)
        for expr in made:
            m.addConstr(expr <= 0)
        return nlrows(m)

    assert rows(eager=False) == rows(eager=True)


# ---- the documented corners -----------------------------------------------------------------------------------------


def texts(expr):
    return [str(element) for element in expr._nlearr.flat]


def test_inner_extents_of_one_and_none(mode):
    x = variables(tarvopy.Model(), (2, 1))
    e, f = nlfunc.sin(x), nlfunc.cos(x.T)
    assert texts(e @ f)[1] == "sin(x[0,0]) * cos(x[1,0])"
    assert (e @ f)._nlearr[0, 1]._root.op == "multiply"
    assert texts(e[:, :0] @ f[:0]) == ["0.0"] * 4
    assert texts(sp.csr_array((2, 2)) @ e) == ["0.0", "0.0"]
    assert e[:1].sum()._nlearr.item()._root is e._nlearr[0, 0]._root
    assert texts(e[:0].sum()) == ["0.0"]


def test_zeros_of_a_dense_matrix_are_factors_and_those_of_a_sparse_one_are_left_out(mode):
    x = variables(tarvopy.Model(), 2)
    e, A = nlfunc.sin(x), np.array([[0.0, 3.0]])
    assert texts(A @ e) == ["0.0 * sin(x[0]) + 3.0 * sin(x[1])"]
    assert texts(e @ A.T) == ["sin(x[0]) * 0.0 + sin(x[1]) * 3.0"]
    assert texts(sp.csr_array(A) @ e) == ["3.0 * sin(x[1])"]
    assert texts(e @ sp.coo_array(A.T)) == ["sin(x[1]) * 3.0"]
    stored = sp.csr_array(([0.0, 1.0, 2.0], [1, 0, 0], [0, 3]), shape=(1, 2))
    assert texts(stored @ e) == ["3.0 * sin(x[0]) + 0.0 * sin(x[1])"]  # equal places are one entry
    assert stored.indices.tolist() == [1, 0, 0]


def test_products_share_the_operands_trees(mode):
    x = variables(tarvopy.Model(), (2, 2))
    e = nlfunc.sin(x)
    p = e @ e
    element = p._nlearr[1, 0]._root
    assert element.args[0].args[0] is e._nlearr[1, 0]._root
    assert element.args[0].args[1] is e._nlearr[0, 0]._root
    assert p._nlearr[1, 1]._root.args[0].args[0] is element.args[0].args[0]


def test_an_operand_changed_afterwards_is_the_old_one_in_the_product(mode):
    x = variables(tarvopy.Model(), 2)
    e = nlfunc.sin(x)
    p, total = e @ e, e.sum()
    e += 1.0
    assert texts(p) == ["sin(x[0]) * sin(x[0]) + sin(x[1]) * sin(x[1])"]
    assert texts(total) == ["sin(x[0]) + sin(x[1])"]
    e @= np.eye(2)  # another object
    assert e.shape == (2,)


def test_refusals(mode):
    x = variables(tarvopy.Model(), (2, 3))
    e = nlfunc.sin(x)
    for other in (2.0, "a", None, [1.0, 2.0, 3.0], e._nlearr[0, 0], x[0, 0].item()):
        assert e.__matmul__(other) is NotImplemented
        assert e.__rmatmul__(other) is NotImplemented
        with pytest.raises(TypeError, match="unsupported operand"):
            e @ other
    with pytest.raises(ValueError, match=r"^matrix product of shapes \(2,3\) \(2,3\): the inner"):
        e @ e
    with pytest.raises(ValueError, match=r"\(2,3\) \(\): each operand needs"):
        e @ np.array(1.0)
    with pytest.raises(ValueError, match=r"\(4,4\) \(2,3\)"):
        sp.eye_array(4) @ e
    for bad in (np.array([1j, 0, 0]), np.array(["a", "b", "c"]), np.array([None, 1, 2], object)):
        with pytest.raises(TypeError):
            e @ bad
    for bad in (np.nan, np.inf):
        with pytest.raises(tarvopy.TarvoError, match="Constant is infinite or NaN"):
            e @ np.array([1.0, bad, 0.0])
        with pytest.raises(tarvopy.TarvoError, match="Constant is infinite or NaN"):
            sp.csr_array([[1.0, bad]]) @ e
    with pytest.raises(TypeError, match="real numbers"):
        sp.csr_array([[1j, 2]]) @ e
    for axis, text in [(2, "2"), ((0, 0), r"\(0, 0\)"), ("a", "a"), (-3, "-3")]:
        with pytest.raises(tarvopy.TarvoError, match=rf"^Invalid axis specifications: {text}$"):
            e.sum(axis=axis)


def test_callbacks_of_the_kernels():
    x = variables(tarvopy.Model(), ()).item()
    tree = NLExpr(x)._root
    alone = MNLExpr._sum_terms([tree])
    assert isinstance(alone, NLExpr)
    assert alone._root is tree
    assert MNLExpr._sum_terms((tree, tree))._root.args == (tree, tree)
    assert str(MNLExpr._sum_terms([])) == "0.0"
    left, right = MNLExpr._multiply_term_sparse_left(2, tree), MNLExpr._multiply_term_sparse_right(tree, np.float32(2))
    assert [child.op for child in left.args + right.args] == ["constant", "variable", "variable", "constant"]
    for call in [
        lambda: MNLExpr._sum_terms([1.0]),
        lambda: MNLExpr._sum_terms(3),
        lambda: MNLExpr._multiply_term_sparse_left("a", tree),
        lambda: MNLExpr._multiply_term_sparse_right(2.0, 2.0),
    ]:
        with pytest.raises(TypeError):
            call()


def test_sparse_products_touch_stored_entries_only():
    """A product by way of dense rows would take 10**10 of them."""
    n = 100_000
    m = tarvopy.Model()
    x = variables(m, n)
    ring = sp.csr_array((np.ones(n), (np.arange(n) + 1) % n, np.arange(n + 1)), shape=(n, n))
    m.addConstr(ring @ nlfunc.sin(x) <= nlfunc.cos(x) @ ring)
    m.update()
    assert m.NumNLConstrs == n
