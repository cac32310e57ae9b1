"""Both sides of a constraint as rows of the model, whatever the sides are and whatever state they are in."""

import itertools

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import looked, terms, variables
from tarvopy import TRV, _debug
from tarvopy._core import LinExpr
from tarvopy._matrixapi import MLinExpr


@pytest.fixture
def model():
    return tarvopy.Model()


def made(expr):
    expr._matmulparts
    return expr


def rows(model):
    """The matrix, dense, and the sides of all rows."""
    model.update()
    constraints = model.getConstrs()
    return model.getA().toarray(), np.array([c.Lower for c in constraints]), np.array([c.Upper for c in constraints])


def sides(model):
    """Sides of one meaning: (what is given, coefficients (row, variable), constants), all of shape (2, 3)."""
    x = variables(model, (2, 3))
    v, w = variables(model, 3, "v"), variables(model, (2, 1), "w")
    n = 11
    eye = np.eye(n)
    block = eye[:6].reshape(2, 3, n)
    row, column = np.broadcast_to(eye[6:9], (2, 3, n)), np.broadcast_to(eye[9:, None], (2, 3, n))
    zero, numbers = np.zeros((2, 3, n)), np.arange(6.0).reshape(2, 3)
    objects = np.empty(3, object)
    objects[:] = [v[0].item(), 2.0 * v[1].item() + 1.0, 5]
    object_row = np.stack([eye[6], 2 * eye[7], 0 * eye[8]])
    return {
        "variables": (x, block, 0),
        "row": (v, row, 0),
        "column": (w, column, 0),
        "transposed": (variables(model, (3, 2), "t").T, None, 0),
        "compact": (2 * v + 1, 2 * row, 1),
        "parts": (made(v + 3 * w[0] + 0), row + 3 * eye[9], 0),
        "flat": (x + v - 2, block + row, -2),
        "objects": (looked(x - w), block - column, 0),
        "matrix product": (
            sp.csr_matrix(np.diag([1.0, 2.0, 3.0])) @ v,
            row * np.array([1.0, 2.0, 3.0])[None, :, None],
            0,
        ),
        "scalar variable": (v[1].item(), np.broadcast_to(eye[7], (2, 3, n)), 0),
        "scalar expression": (3 * v[1].item() - 4, np.broadcast_to(3 * eye[7], (2, 3, n)), -4),
        "number": (7, zero, 7),
        "numpy scalar": (np.int32(-7), zero, -7),
        "array": (numbers, zero, numbers),
        "integers": (numbers.astype(np.int16)[:, ::-1], zero, numbers[:, ::-1]),
        "flags": (np.array([True, False, True]), zero, np.array([1, 0, 1])),
        "0-d": (np.array(3.0), zero, 3),
        "numpy matrix": (np.matrix(numbers), zero, numbers),
        "sparse": (sp.coo_matrix(numbers), zero, numbers),
        "sparse array": (sp.csc_array(numbers), zero, numbers),
        "object array": (objects, np.broadcast_to(object_row, (2, 3, n)), np.array([0, 1, 5])),
    }


NAMES = [name for name in sides(tarvopy.Model()) if name != "transposed"]


@pytest.mark.filterwarnings("ignore:the matrix subclass:PendingDeprecationWarning")
@pytest.mark.parametrize("left", NAMES)
def test_rows_are_the_difference_of_the_sides(mode, left):
    for right, sense in itertools.product(NAMES, "<>="):
        model = tarvopy.Model()
        table = sides(model)
        (lhs, a, ca), (rhs, b, cb) = table[left], table[right]
        kept = [(terms(s), s._is_compact()) if isinstance(s, MLinExpr) else None for s in (lhs, rhs)]
        if all(not isinstance(s, tarvopy.MVar | MLinExpr | tarvopy._core.Var | LinExpr) for s in (lhs, rhs)):
            continue  # no comparison of this package
        model.addConstr(
            tarvopy._core.TempConstr(lhs, {"<": TRV.LESS_EQUAL, ">": TRV.GREATER_EQUAL, "=": TRV.EQUAL}[sense], rhs)
        )
        got, lower, upper = rows(model)
        scalar = all(np.ndim(s) == 0 and not isinstance(s, tarvopy.MVar | MLinExpr | np.ndarray) for s in (lhs, rhs))
        shape = np.broadcast_shapes(
            *(() if np.ndim(s) == 0 and not hasattr(s, "shape") else s.shape for s in (lhs, rhs))
        )
        index = tuple(
            slice(0, 1) if scalar or extent == 1 else slice(None) for extent in (1,) * (2 - len(shape)) + shape
        )
        expected = (a - b)[index].reshape(-1, 11)
        side = np.broadcast_to(np.asarray(cb, float) - ca, (2, 3))[index].ravel()
        np.testing.assert_allclose(got[:, :11], expected, err_msg=f"{left} {sense} {right}")
        np.testing.assert_allclose(upper, np.inf if sense == ">" else side)
        np.testing.assert_allclose(lower, -np.inf if sense == "<" else side)
        assert kept == [(terms(s), s._is_compact()) if isinstance(s, MLinExpr) else None for s in (lhs, rhs)]


def test_rows_beyond_those_that_the_kernels_take_at_once(mode, model):
    n = 4000  # and so many that their terms are not copied
    before, x, y = (variables(model, k, name) for k, name in ((2, "b"), (n, "x"), (n, "y")))
    X, Y = x.reshape(-1, 2), y.reshape(-1, 2)  # which are no compact expressions
    D = sp.diags_array([np.arange(1.0, n), np.arange(2.0, n + 2)], offsets=[1, 0], format="csr")
    model.addConstr(3 * X - Y + before[1] <= 1)  # one term a row in each summand
    model.addConstr(D @ x + 2 * x[::-1] >= y)
    model.addConstr(5 * x[::-1] >= np.zeros((3, n)))  # a vector in another order, spread
    model.addConstr(7 * X[::-1] - Y - X >= 0)
    identity, one = sp.eye_array(n), sp.coo_array((np.ones(n), (np.arange(n), np.ones(n, int))), shape=(n, 2))
    nothing = sp.csr_array((n, 2))
    backwards = sp.csr_array(identity)[::-1]
    expected = [[one, 3 * identity, -identity], [nothing, D + 2 * backwards, -identity]]
    expected += [[nothing, 5 * backwards, None]] * 3
    turned = sp.csr_array(identity)[np.arange(n).reshape(-1, 2)[::-1].ravel()]
    expected += [[nothing, 7 * turned - identity, -identity]]
    model.update()
    assert abs(model.getA() - sp.block_array(expected, format="csr")).sum() == 0
    products = X * Y - 2 * X * before[0] + (X + Y) * (X - 1.0)
    for i in (0, 1023, 1024, n - 1):
        u, v = f"x[{i}]", f"y[{i}]"
        text = f"1.0 {u}*{v} - 2.0 {u}*b[0] + 1.0 {u}^2 + 1.0 {v}*{u} - 1.0 {u} - 1.0 {v}"
        assert str(products[i // 2, i % 2].item()) == text


SHAPES = [(100, 120), (100, 120), (120,), (100, 1), ()]
LARGE = [
    lambda x, y, r, c, d: x - y,
    lambda x, y, r, c, d: x[::-1],
    lambda x, y, r, c, d: x[:, ::-1] * np.arange(1.0, 121) + c + 2 * y - r - d,
    lambda x, y, r, c, d: d + 0.5 * (r + c) - x[:, ::-1] + 3,
    lambda x, y, r, c, d: x[1:] - x[:-1],
    lambda x, y, r, c, d: x[1:] - 2 * y[:-1] + x[1:],
    lambda x, y, r, c, d: np.linspace(0, 1, x.size).reshape(x.shape) * y - x,
    lambda x, y, r, c, d: x.reshape(-1)[1:] + y.reshape(-1)[1:] * np.arange(1.0, x.size) - 4 * d,
]


@pytest.mark.parametrize("which", [*([i] for i in range(len(LARGE))), range(len(LARGE)), range(len(LARGE))[::-1]])
@pytest.mark.parametrize("loaded", [False, True])
def test_large_sums_of_variables_mean_what_they_mean_of_numbers(model, which, loaded):
    """The store keeps such rows by summand, and hands columns to an engine, as long as nobody looks at a row."""
    x, y, r, c, d = (variables(model, shape, name) for name, shape in zip("xyrcd", SHAPES, strict=True))
    values = np.random.default_rng(7).integers(-50, 50, 2 * 12_000 + 221).astype(float)
    parts = np.split(values, np.cumsum([np.prod(shape, dtype=int) for shape in SHAPES])[:-1])
    expected, added = [], []
    for i in which:
        added.append(model.addConstr(LARGE[i](x, y, r, c, d) <= 5))
        expected.append(LARGE[i](*(part.reshape(shape) for part, shape in zip(parts, SHAPES, strict=True))).ravel())
    if loaded:
        model.prepare()
    model.update()
    upper = np.concatenate([rows.Upper.ravel() for rows in added])
    np.testing.assert_allclose(model.getA() @ values - upper, np.concatenate(expected) - 5, atol=1e-9)


def test_views_of_variables_keep_their_order(mode, model):
    x = variables(model, (2, 3))
    model.addConstr(x.T[::-1] <= 0)
    got, _, _ = rows(model)
    assert got.argmax(axis=1).tolist() == [2, 5, 1, 4, 0, 3]


def test_infinite_sides_are_no_bounds_and_nan_is_refused(mode, model):
    x = variables(model, 3)
    model.addConstr(x <= np.array([1.0, np.inf, 2.0]))
    model.addConstr(x[0].item() + 1 >= -np.inf)
    model.addConstr(x >= np.array([-np.inf, 1, 2], dtype=object))
    _, lower, upper = rows(model)
    assert upper.tolist() == [1.0, np.inf, 2.0] + [np.inf] * 4
    assert lower.tolist() == [-np.inf] * 5 + [1.0, 2.0]
    for bad in (
        np.nan,
        np.array([1.0, np.nan, 2.0]),
        np.array([1.0, None, 2.0]),
        np.array([1.0, float("nan"), 2.0], object),
    ):
        with pytest.raises((ValueError, TypeError, tarvopy.TarvoError)):
            model.addConstr(x <= bad)
    model.update()
    assert model.NumConstrs == 7


def test_terms_of_one_variable_are_summed_when_they_are_stored(mode, model):
    x = variables(model, 2)
    c = model.addConstr(x + x - 2 * x[0] <= 5 - x)
    model.update()
    assert [[(k, v.index) for k, v in model.getRow(c[i]).terms()] for i in range(2)] == [
        [(1.0, 0)],
        [(3.0, 1), (-2.0, 0)],
    ]


@pytest.mark.parametrize(("left", "right", "shapes"), [
    ((3,), (4,), r"\(3,\).*\(4,\)"), ((2, 3), (2,), r"\(2, ?3\).*\(2,\)"),
    ((70000,), (70000, 1), r"\(70000,\).*\(70000, ?1\)"),
])  # fmt: skip
def test_sides_that_do_not_fit_or_grow_too_large_name_both_shapes(mode, model, left, right, shapes):
    x = variables(model, left)
    for other in (np.zeros(right), MLinExpr.zeros(right)):
        with pytest.raises(ValueError, match=shapes):
            model.addConstr(x <= other)
    model.update()
    assert model.NumConstrs == 0


def test_variables_of_two_models_never_meet_in_a_row(mode, model):
    x, y = variables(model, 3), variables(tarvopy.Model(), 3)
    mixed = np.array([x[0].item(), y[0].item(), 1.0], dtype=object)
    foreign = [
        x <= y, x + 0 <= y + 0, x[0].item() <= y, x <= mixed, (x + y) <= 0,
        tarvopy._core.TempConstr(y, TRV.LESS_EQUAL, 0.0),
        x[:2] <= tarvopy.MVar(mixed[:2]),
    ]  # fmt: skip
    for temporary in foreign:
        with pytest.raises(tarvopy.TarvoError) as error:
            model.addConstr(temporary)
        assert error.value.code == TRV.Error.NOT_IN_MODEL
    model.update()
    assert model.NumConstrs == 0


def test_removed_variables_are_refused_by_the_store(mode, model):
    x = variables(model, 3)
    e = x + 1
    model.remove(x[1])
    model.update()
    with pytest.raises(tarvopy.TarvoError) as error:
        model.addConstr(e <= 0)
    assert error.value.code == TRV.Error.NOT_IN_MODEL
    model.addConstr(e[::2] <= 0)


NO_SIDES = [
    np.array(["a"]), np.array([1j]), np.array([object()]), np.array([np.datetime64(0, "s")]),
    np.zeros(1, [("a", float)]), "a", None, object(), 1j,
]  # fmt: skip


@pytest.mark.parametrize("side", NO_SIDES)
def test_what_is_no_side_is_refused(mode, model, side):
    x = variables(model, 1)
    for sides in ((x, side), (side, x + 1)):
        with pytest.raises((TypeError, ValueError, tarvopy.TarvoError)):
            model.addConstr(tarvopy._core.TempConstr(sides[0], TRV.LESS_EQUAL, sides[1]))
    model.update()
    assert model.NumConstrs == 0


def test_empty_sides_give_no_rows(mode, model):
    x = variables(model, 3)
    for side in (x[:0], x[:0] + 1, MLinExpr._zeros_full((0, 3)), sp.csr_matrix((0, 3)) @ x):
        model.addConstr(side <= np.zeros(side.shape))
    model.update()
    assert model.NumConstrs == 0


def test_adding_rows_makes_no_objects(model):
    x = variables(model, (30, 40))
    before = _debug.counts()
    model.addConstr(x + 2 * x.T.reshape(30, 40) - 1 <= x.sum(axis=0))
    model.addConstr(sp.random(20, 40, 0.5, "csr", random_state=1) @ x[0] >= 1)
    model.update()
    assert _debug.counts() == before
