"""concatenate, hstack and vstack: the class of the result, and joins that agree with NumPy's on numbers."""

import numpy as np
import pytest

import tarvopy
from nonlinear_trees import trees
from tarvopy import _debug, concatenate, hstack, vstack
from tarvopy._core import LinExpr, _ExprTree
from tarvopy._matrixapi import (
    MConstr,
    MLinExpr,
    MNLConstr,
    MNLExpr,
    MQuadExpr,
    MVar,
    _apply_array_manipulation_routine,
    _copy_learr,
)


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def x(mode, model):
    x = model.addMVar((2, 3), name="x")
    model.update()
    return x


def texts(expr):
    return np.vectorize(str, otypes=[object])(expr._learr).tolist()


JOINS = [
    (vstack, np.vstack, lambda a: [a, a[:1], a[1]]),
    (vstack, np.vstack, lambda a: (a[0], a[1, ::-1])),
    (hstack, np.hstack, lambda a: [a.T, a.T[:, :1]]),
    (hstack, np.hstack, lambda a: [a[0, 0], a[1, 2]]),
    (concatenate, np.concatenate, lambda a: [a, a[::-1]]),
    (concatenate, np.concatenate, lambda a: [a[:0], a]),
    (lambda t: concatenate(t, axis=1), lambda t: np.concatenate(t, axis=1), lambda a: [a, a[:, :0], a[:, [0, 0]]]),
    (lambda t: concatenate(t, axis=None), lambda t: np.concatenate(t, axis=None), lambda a: [a.T, a[0]]),
    (concatenate, np.concatenate, lambda a: [a[:0], a[:0]]),
]


@pytest.mark.parametrize("look", [False, True])
@pytest.mark.parametrize(("join", "oracle", "members"), JOINS)
def test_variables_stay_variables_and_keep_their_identity(x, join, oracle, members, look):
    if look:
        x._vararr
    joined = join(members(x))
    expected = oracle(members(np.arange(6).reshape(2, 3)))
    assert type(joined) is MVar
    assert joined.shape == expected.shape
    np.testing.assert_array_equal(joined._idxarr(), expected)
    assert all(v is x._vararr.flat[v.index] for v in joined._vararr.flat)
    assert not np.shares_memory(joined._vararr, x._vararr)


@pytest.mark.parametrize(("join", "oracle", "members"), JOINS)
def test_one_expression_or_array_among_them_makes_all_linear(x, join, oracle, members):
    numbers = np.arange(6.0).reshape(2, 3)
    expressions = [2.0 * e + 1.0 for e in members(x)]
    expected = oracle([2.0 * e + 1.0 for e in members(numbers)])
    joined = join([*members(x), *expressions])
    both = oracle([*members(numbers), *[2.0 * e + 1.0 for e in members(numbers)]])
    assert type(joined) is MLinExpr
    assert not joined._is_compact()
    assert joined.shape == both.shape
    assert join(expressions).shape == expected.shape
    value = np.vectorize(lambda e: e.getConstant() + sum(c * v.index for c, v in e.terms()), otypes=[float])
    if joined.size:
        np.testing.assert_array_equal(value(joined._learr), both)


def test_arrays_become_constants_and_results_share_nothing(x):
    row = x[0]
    joined = hstack([row, np.ones(2)])
    assert texts(joined) == ["1.0 x[0,0]", "1.0 x[0,1]", "1.0 x[0,2]", "1.0", "1.0"]
    e = row + 0.0
    joined = concatenate([e, e])
    joined += 1.0
    joined._learr[0].add(5.0)
    assert texts(e._to_full()) == ["1.0 x[0,0]", "1.0 x[0,1]", "1.0 x[0,2]"]
    assert texts(joined)[0] == "1.0 x[0,0] + 6.0"
    assert texts(joined)[3] == "1.0 x[0,0] + 1.0"
    assert type(concatenate([np.ones(2), np.zeros(1)])) is MLinExpr


def test_arrays_of_expressions_join_whatever_stands_beside_them(x):
    row = x[0]
    mixed = np.array([row[0].item(), 2.0, row[1].item() + 1.0], dtype=object)
    assert [str(e) for e in hstack([row + 1, mixed])._learr[2:]] == [
        "1.0 x[0,2] + 1.0",
        "1.0 x[0,0]",
        "2.0",
        "1.0 x[0,1] + 1.0",
    ]
    joined = hstack([row * row, mixed])
    assert type(joined) is MQuadExpr
    assert [str(e) for e in joined._ndle._learr[3:]] == ["1.0 x[0,0]", "2.0", "1.0 x[0,1] + 1.0"]


def test_a_join_of_blocks_makes_no_element_objects(model):
    x = model.addMVar((100, 100))
    before = _debug.counts()
    joined = vstack([x, x])
    mixed = hstack([x, 2.0 * x, np.ones((100, 1))])
    assert _debug.counts() == before
    assert (joined.shape, mixed.shape) == ((200, 100), (100, 201))


def test_constraint_handles_join_among_themselves(mode, model):
    x = model.addMVar((2, 2))
    a, b = model.addConstr(x <= 1), model.addConstr(x >= 0)
    model.update()
    joined = concatenate([a, b], axis=1)
    assert type(joined) is MConstr
    np.testing.assert_array_equal(joined._idxarr(), [[0, 1, 4, 5], [2, 3, 6, 7]])
    for wrong in ([a, x], [a, np.ones((2, 2))], [x, "text"], [x, [1, 2]], [x, None]):
        with pytest.raises(ValueError, match="Invalid") as error:
            vstack(wrong)
        assert str(error.value) == "Invalid types for array manipulation routine"


def test_errors_of_the_join_are_numpys(x):
    with pytest.raises(ValueError, match="dimension"):
        vstack([x, x.T])
    with pytest.raises(ValueError, match="at least one array"):
        concatenate([])
    with pytest.raises(np.exceptions.AxisError):
        concatenate([x, x], axis=2)
    with pytest.raises(TypeError):
        concatenate(3)


def test_variables_of_two_models_join_as_objects(x):
    other = tarvopy.Model()
    y = other.addMVar((2, 3))
    joined = vstack([x, y])
    assert joined._vararr[3, 2] is y._vararr[1, 2]
    assert vstack([x + 0, y]).shape == (4, 3)


def test_a_routine_of_the_callers_sees_the_elements(x):
    first = _apply_array_manipulation_routine(lambda arrays: arrays[1], [x, x[1]])
    assert all(a is b for a, b in zip(first.tolist(), x[1].tolist(), strict=True))
    with pytest.raises((AttributeError, TypeError)):
        _apply_array_manipulation_routine(lambda arrays: np.array([10**9]), [x])
    with pytest.raises((AttributeError, TypeError, AssertionError)):
        _apply_array_manipulation_routine(lambda arrays: [1], [x + 0])


def test_copied_elements_are_fresh(x):
    for source in (x, x[0], x + 1, x[0] + 1, np.ones((2, 2)), np.zeros((0, 2))):
        array = _copy_learr(source)
        assert array.shape == source.shape
        assert all(type(e) is LinExpr for e in array.flat)
        assert len({id(e) for e in array.flat}) == array.size
    with pytest.raises(AssertionError):
        _copy_learr("text")


def test_one_nonlinear_expression_makes_all_nonlinear(mode, model):
    x = model.addMVar((2, 3), name="x")
    model.update()
    n = tarvopy.nlfunc.sin(x)
    roots = [element._root for element in n._nlearr.flat] if mode == "eager" else None
    members = [n[1:], x, 2.0 * x[:1] - 1.0, x * x, np.arange(6.0).reshape(2, 3), n[:, ::-1]]
    for join, oracle in [(vstack, np.vstack), (concatenate, np.concatenate)]:
        joined = join(members)
        assert type(joined) is MNLExpr
        assert trees(joined).tolist() == oracle([trees(member) for member in members]).tolist()
    flat = concatenate([n, x.T.reshape(2, 3)], axis=None)
    assert flat.shape == (12,)
    # New elements over the members' own trees: what changes later in one is not seen in the other.
    roots = roots or [element._root for element in n._nlearr.flat]
    assert all(element._root is root for element, root in zip(flat._nlearr[:6], roots, strict=True))
    before = trees(flat).tolist()
    n += 1.0
    assert trees(flat).tolist() == before
    flat -= 1.0
    assert trees(n)[0, 0] == ("plus", ("sin", ("variable", 0)), ("constant", 1.0))
    assert hstack([n[:, 0], np.ones(2)]).shape == (4,)
    for wrong in (lambda: vstack([n, x[:, :2]]), lambda: hstack([n, x[0]]), lambda: concatenate([n, n], axis=2)):
        with pytest.raises(ValueError, match=r"dimension|axis"):
            wrong()
    with pytest.raises(TypeError, match="None"):
        vstack([n, np.array([1.0, None, 2.0], dtype=object)])


def test_arrays_of_scalar_expressions_count_by_the_degree_of_their_elements(mode, model):
    x = model.addMVar(2, name="x")
    v = model.addVar(name="v")
    model.update()
    arrays = [np.array(pair, dtype=object) for pair in ((v, 2.0), (v * v, v), (tarvopy.nlfunc.exp(v), v * v))]
    for degree, array in enumerate(arrays, 1):
        for least, member in enumerate((x, x * x, tarvopy.nlfunc.sin(x)), 1):
            joined = hstack([member, array])
            assert type(joined) is (MLinExpr, tarvopy.MQuadExpr, MNLExpr)[max(degree, least) - 1]
            assert trees(joined).tolist() == [*trees(member), *trees(hstack([array]))]
    assert [str(e.item()) for e in hstack(arrays[1:])] == ["v ** 2", "v", "exp(v)", "v ** 2"]
    for strange in (None, "text"):
        with pytest.raises(TypeError, match=r"NoneType|str"):
            hstack([x * x, np.array([v * v, strange], dtype=object)])


def test_a_routine_of_the_callers_sees_the_trees(mode, model):
    x = model.addMVar(3)
    n, seen = tarvopy.nlfunc.exp(x), []

    def joined(arrays):
        seen.extend(type(tree) for array in arrays for tree in array.flat)
        return np.concatenate(arrays)[::-1]

    result = _apply_array_manipulation_routine(joined, [n, x])
    assert set(seen) == {_ExprTree}
    assert trees(result).tolist() == trees(concatenate([n, x])[::-1]).tolist()
    with pytest.raises(TypeError, match="_ExprTree"):
        _apply_array_manipulation_routine(lambda arrays: np.array([1.0, None]), [n])


def test_handles_of_nonlinear_rows_do_not_join(model):
    empty = MNLConstr.fromlist([])
    for members in ([empty, empty], [empty, MConstr.fromlist([])], [tarvopy.nlfunc.exp(model.addMVar(2)), "a"]):
        with pytest.raises(ValueError, match=r"^Invalid types for array manipulation routine$"):
            vstack(members)
