"""MNLExpr: construction, elements and views, assignment, text, values, copies, memory, hostile data.

That all operators give the documented trees is the business of test_mnlexpr_programs.py.
"""

import copy
import gc
import pickle
import re
import tracemalloc

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from linear_values import Point
from nonlinear_reference import pattern, trees_of, value
from tarvopy import NoDataError, TarvoError, _debug, nlfunc
from tarvopy._core import NLExpr, _ExprTree
from tarvopy._matrixapi import MNLExpr


@pytest.fixture
def model():
    return tarvopy.Model()


def variables(model, shape):
    x = model.addMVar(shape)
    model.update()
    return x


@pytest.fixture
def x(model):
    return variables(model, 3)


@pytest.fixture
def e(mode, x):
    return nlfunc.exp(x)


def texts(expr):
    """Of a copy, so that the expression itself is not looked at."""
    return [str(nle) for nle in expr.copy()._nlearr.flat]


# ---- construction ----------------------------------------------------------------------------------------------------


def test_init_keeps_what_it_is_given(x):
    given = np.array([NLExpr(x[0].item()), None], dtype=object)
    e = MNLExpr(given)
    assert e._nlearr is given
    assert (e.shape, e.ndim, e.size) == ((2,), 1, 2)
    assert e.__dict__ == {"_nlearr": given}
    for use in (lambda: -e, lambda: e + 1, lambda: e.__iadd__(1), lambda: e.getValue(), lambda: e.copy()):
        with pytest.raises(TypeError, match="holds NLExpr objects, not 'NoneType'"):
            use()
    with pytest.raises(AttributeError):
        MNLExpr([1, 2]).shape
    with pytest.raises(TypeError, match="no array"):
        MNLExpr([1, 2]) + 1


@pytest.mark.parametrize("shape", [(), (1,), (3,), (2, 3), (0, 2)])
def test_made_from_other_arrays_the_elements_have_their_trees(mode, model, shape):
    x, y = variables(model, shape), variables(model, shape)
    made = [
        (MNLExpr._from_ndarray, np.full(shape, 2.5)),
        (MNLExpr._from_ndarray, np.ones(shape, dtype=bool)),
        (MNLExpr._from_mvar, x),
        (MNLExpr._from_mlinexpr, 2.0 * x - y + 3.0),
        (MNLExpr._from_mlinexpr, 1.0 * x),
        (MNLExpr._from_mquadexpr, x * y + 2.0 * x + 1.0),
        (MNLExpr._from_mquadexpr, x * x),
    ]
    for maker, source in made:
        expr = maker(source)
        assert type(expr) is MNLExpr
        assert expr.shape == shape
        expected = MNLExpr(np.vectorize(NLExpr, otypes=[object])(trees_of(source)))
        assert pattern([expr]) == pattern([expected])
        coerced = MNLExpr._coerce_to_exprtree_array(source)
        assert coerced.shape == shape
        assert coerced.dtype == object
        assert [str(tree) for tree in coerced.flat] == texts(expr)


def test_full_compact_and_looked_at_operands_have_the_same_trees(mode, model):
    x = variables(model, (3,))
    compact = np.array([[1.0, 0.0, 2.0], [0.0, 0.0, 0.0], [0.0, 1.0, 0.0]]) @ x + np.array([0.0, 0.0, 4.0])
    full, looked = compact.copy(), compact.copy()
    full._convert_to_full()
    looked._matmulparts
    linear = [MNLExpr._from_mlinexpr(form) for form in (compact, full, looked)]
    assert texts(linear[0]) == texts(linear[1]) == texts(linear[2]) == ["C0 + 2.0 * C2", "0.0", "C1 + 4.0"]
    product = x @ np.eye(3) @ x + x[0] + 2.0
    full, looked = product.copy(), product.copy()
    full._convert_to_full()
    looked._quadparts
    quadratic = [MNLExpr._from_mquadexpr(form) for form in (product, full, looked)]
    assert texts(quadratic[0]) == texts(quadratic[1]) == texts(quadratic[2])
    assert texts(quadratic[0]) == ["C0 + 2.0 + C0 ** 2 + C1 ** 2 + C2 ** 2"]


def test_an_element_of_one_term_is_that_term(mode, model):
    x = variables(model, (2,))
    linear = MNLExpr._from_mlinexpr(1.0 * x)._nlearr
    assert [nle._root.op for nle in linear] == ["variable", "variable"]
    constants = MNLExpr._from_mlinexpr(0.0 * x[:0].sum() + np.array([2.0, 0.0]))._nlearr
    assert [(nle._root.op, nle._root.data) for nle in constants] == [("constant", 2.0), ("constant", 0.0)]
    assert [nle._root.op for nle in MNLExpr._from_mquadexpr(x * x)._nlearr] == ["square", "square"]


def test_operands_of_two_models_go_element_by_element(mode, x):
    other = variables(tarvopy.Model(), 1)
    mixed = x.copy()
    mixed._vararr[1] = other[0].item()
    e = MNLExpr._from_mvar(mixed)
    assert [nle._root.data for nle in e._nlearr] == list(mixed._vararr)
    both = MNLExpr._from_mvar(x) + other
    assert [nle._root.args[1].data for nle in both._nlearr] == [other[0].item()] * 3


def test_what_is_no_array_of_expressions_is_refused(e, x):
    for bad in (None, "a", 2.0, x[0].item(), 2 * x[0].item(), e[0].item(), sp.eye(2).tocsr(), [1.0], object()):
        with pytest.raises(TypeError) as caught:
            MNLExpr._coerce_to_exprtree_array(bad)
        assert str(caught.value) == f"Unsupported operand '{bad}'"
    strange = x.copy()
    strange._vararr[1] = "a"
    for use in (lambda: MNLExpr._from_mvar(strange), lambda: e * strange):
        with pytest.raises(TypeError, match=r"_from_var\(\) takes a Var, not 'str'"):
            use()
    for array in (np.array(["a"]), np.array([None]), np.array([1j]), np.array([(1, 2)], dtype="i,i")):
        with pytest.raises(TypeError):
            MNLExpr._from_ndarray(array)
    for number in (np.inf, np.nan, np.array([1.0, np.inf, 1.0])):
        with pytest.raises(TarvoError, match=r"^Constant is infinite or NaN: (nan|inf)( at \[1\])?$"):
            e + number
    with pytest.raises(TypeError):
        MNLExpr._from_mvar(np.ones(3))
    with pytest.raises(TypeError):
        MNLExpr()


# ---- elements and views ----------------------------------------------------------------------------------------------


def test_a_single_element_is_an_array_without_axes_around_the_same_object(e):
    part, whole = e[1], e._nlearr
    assert (type(part), part.shape) == (MNLExpr, ())
    assert part._nlearr[()] is whole[1]
    taken = part.item()
    assert taken is not whole[1]
    assert taken._root is whole[1]._root
    assert e[(2,)]._nlearr[()] is e[np.int64(2)]._nlearr[()] is whole[2]


def test_an_element_taken_out_keeps_its_object_whatever_is_put_into_the_array(e):
    first, second = e[0], e[1]
    e._nlearr[0] = NLExpr(5.0)
    assert texts(first) == ["exp(C0)"]
    assert texts(e)[0] == "5.0"
    second._nlearr[()] = NLExpr(6.0)
    assert texts(e)[1] == "exp(C1)"


def test_slices_share_elements_and_index_arrays_copy_them(e):
    view, element, fancy, masked = e[1:], e[2], e[[0, 2]], e[np.array([True, False, True])]
    view[0] = 7.0
    element += 1.0
    assert texts(e) == ["exp(C0)", "7.0", "exp(C2) + 1.0"]
    assert texts(view) == texts(e)[1:]
    fancy[:] = 0.0
    assert texts(e)[0] == "exp(C0)"
    assert texts(masked) == ["exp(C0)", "exp(C2)"]
    assert view._nlearr[0] is e._nlearr[1]
    assert np.may_share_memory(view._nlearr, e._nlearr)


def test_in_place_operations_reach_views_and_elements_taken_out(e):
    backwards, element, fancy, double = e[::-1], e[0], e[[0]], e * 2.0
    e += 1.0
    e *= 2.0
    e **= 2
    assert texts(backwards)[2] == texts(element)[0] == "((exp(C0) + 1.0) * 2.0) ** 2"
    assert texts(fancy) == ["exp(C0)"]
    assert texts(double)[0] == "exp(C0) * 2.0"
    backwards -= 1.0
    assert texts(e)[0] == "((exp(C0) + 1.0) * 2.0) ** 2 - 1.0"


def test_operands_that_overlap_the_target_are_read_first(mode, x):
    e = MNLExpr._from_mvar(x)
    e[1:] += e[:-1]
    assert texts(e) == ["C0", "C1 + C0", "C2 + C1"]
    e[:] = e[::-1]
    assert texts(e) == ["C2 + C1", "C1 + C0", "C0"]
    e += e
    assert texts(e)[2] == "C0 + C0"
    e -= e[::-1]
    assert texts(e)[2] == "C0 + C0 - (C2 + C1 + C2 + C1)"


def test_an_object_that_stands_twice_in_an_array_changes_twice(x):
    one = NLExpr(x[0].item())
    e = MNLExpr(np.array([one, one], dtype=object))
    e += np.array([1.0, 2.0])
    assert str(one) == "C0 + 1.0 + 2.0"
    e[:] = np.array([3.0, 4.0])
    assert str(one) == "4.0"


def test_iteration_and_bad_keys(e, x):
    assert [texts(part) for part in e] == [["exp(C0)"], ["exp(C1)"], ["exp(C2)"]]
    with pytest.raises(TypeError, match="iteration over a 0-d array"):
        iter(e[0])
    for key in (3, -4, (0, 0), np.s_[0, 0], 10**30, "a", 1.5, [[5]], np.ones(2, dtype=bool)):
        with pytest.raises(IndexError):
            e[key]
        with pytest.raises(IndexError):
            e[key] = 1.0
    assert e[None, ..., None].shape == (1, 3, 1)
    assert e[0, ...].shape == ()
    assert e[()].shape == (3,)


def test_item_is_a_copy_of_the_only_element(e):
    with pytest.raises(ValueError, match="size 1"):
        e.item()
    nle = e[1:2].item()
    nle += 5.0
    assert type(nle) is NLExpr
    assert texts(e)[1] == "exp(C1)"


# ---- assignment ------------------------------------------------------------------------------------------------------


def test_assignment_replaces_trees_and_keeps_objects(e, x):
    objects = list(e._nlearr)
    e[:2] = x[0].item()
    assert list(e._nlearr) == objects
    assert objects[0]._root is objects[1]._root  # one tree for all selected elements
    e[:] = np.arange(3)
    e[2] = 2.0 * x[1] + 1.0
    assert texts(e) == ["0.0", "1.0", "2.0 * C1 + 1.0"]
    e[np.array([False, True, False])] = 9.0  # elements of a copy change, but its objects are the array's own
    assert texts(e)[1] == "9.0"
    e[[0, 0]] = np.array([1.0, 2.0])
    assert texts(e)[0] == "2.0"
    e[3:] = 1.0


def test_refused_assignments_change_nothing(e, x):
    before = texts(e)
    for bad in (None, "a", [1.0], 2 * x[0].item(), x[0].item() * x[0].item(), sp.eye(3).tocsr()):
        with pytest.raises(ValueError, match="^" + re.escape(f"Cannot assign {bad} to MNLExpr") + "$"):
            e[:] = bad
    with pytest.raises(ValueError, match="broadcast"):
        e[:] = np.ones(2)
    with pytest.raises(ValueError, match=r"\(3,\) doesn't match the broadcast shape \(2,3\)"):
        e[:] = np.ones((2, 3))
    with pytest.raises(ValueError, match="broadcast"):
        e[0] = np.ones(1)
    with pytest.raises(TarvoError):
        e[:] = np.nan
    assert texts(e) == before


# ---- the documented attribute ----------------------------------------------------------------------------------------


def test_the_array_can_be_replaced_and_deleted(e, x):
    view = e[1:]
    e._nlearr = np.array([NLExpr(1.0)], dtype=object)
    assert texts(e) == ["1.0"]
    assert texts(view) == ["exp(C1)", "exp(C2)"]
    del e._nlearr
    for use in (lambda: e._nlearr, lambda: e.shape, lambda: e + 1, lambda: repr(e), lambda: e.__delattr__("_nlearr")):
        with pytest.raises(AttributeError):
            use()
    e.__dict__ = {"_nlearr": view._nlearr, "note": 1}
    assert e.shape == (2,)
    assert e.note == 1


def test_the_dictionary_shows_the_array_first(mode, x):
    e = -nlfunc.sin(x)
    e.note = 1
    assert list(e.__dict__) == list(vars(e)) == ["_nlearr", "note"]


def test_copies(e, x):
    e.note = 1
    shallow, own = copy.copy(e), e.copy()
    assert shallow._nlearr is e._nlearr
    assert shallow.note == 1
    deep = copy.deepcopy(e)
    own += 1.0
    deep += 2.0
    assert texts(e)[0] == "exp(C0)"
    assert texts(own)[0] == "exp(C0) + 1.0"
    assert texts(deep)[0] == "exp(C0) + 2.0"
    assert texts(e[1:].copy()) == texts(e)[1:]
    with pytest.raises(TypeError, match="pickle"):
        pickle.dumps(e)


def test_an_array_that_was_resized_below_a_view_is_refused(mode, x):
    e = nlfunc.sin(x)
    view = e[:2]
    e._nlearr.base.resize(1, refcheck=False)
    for use in (lambda: view._nlearr, lambda: view + 1):
        if mode == "flat":
            with pytest.raises(ValueError, match="resized"):
                use()


# ---- text and values -------------------------------------------------------------------------------------------------


def test_text_is_the_shape_and_the_elements(e, x):
    assert repr(e) == "<MNLExpr (3,)>\narray([ exp(C0),  exp(C1),  exp(C2)])"
    assert repr(e[0]) == "<MNLExpr ()>\narray( exp(C0))"
    assert repr(e[:0]) == "<MNLExpr (0,)>\narray([])"
    wide = repr(nlfunc.sin(e[:2].copy()[:, None] * np.ones((2, 3))))
    assert wide.startswith("<MNLExpr (2, 3)>\narray([[ sin(exp(C0) * 1.0),")
    assert wide.endswith("])")
    assert "note" not in wide
    assert MNLExpr.__doc__.startswith("\n    Matrix nonlinear expression handle, acting as")
    assert (
        repr(MNLExpr(np.array([1.5]))) == "<MNLExpr (1,)>\narray([1.5])"
    )  # as it stands: without a comma the end goes


def test_values_at_the_last_solution(mode, model):
    x, y = variables(model, (2, 3)), variables(model, 3)
    e = nlfunc.sin(x) / (2.0 + y * y) - 3.0 ** nlfunc.cos(y)
    for expr in (e, e[1], e[:, ::2], e[0, 1]):
        with pytest.raises(NoDataError):
            expr.getValue()
    point = Point(model)
    exact = np.sin(point.of(x)) / (2.0 + point.of(y) ** 2) - 3.0 ** np.cos(point.of(y))
    for looked in (False, True):
        np.testing.assert_allclose(e.getValue(), exact)
        np.testing.assert_allclose(e.getValue(), value(point, e))
        np.testing.assert_allclose(e[1, ::-1].getValue(), exact[1, ::-1])
        np.testing.assert_allclose(e[0, 1].getValue(), exact[0, 1])
        np.testing.assert_allclose(e[[1, 1], [0, 2]].getValue(), exact[[1, 1], [0, 2]])
        if not looked:
            e._nlearr
    outside = nlfunc.log(x).getValue()
    assert np.isnan(outside[point.of(x) < 0]).all()
    assert e[:0].getValue().shape == (0, 3)


def test_values_are_those_of_the_elements_trees_to_the_last_bit(mode, model):
    x, thirds = variables(model, 4), np.array([0.1, 1 / 3, -0.7, 2.0])
    x.LB = x.UB = [0.0, -2.0, 0.1, 1 / 3]
    model.params.LogLevel = 0
    model.optimize()
    linear = np.vstack([thirds, -thirds]) @ x + 0.3 - x[::2]
    quadratic = x * x[::-1] + thirds * x * x[1] + thirds * x - 0.1
    sole = [-2.0 * x, x * x[::-1], sp.diags_array(-thirds) @ nlfunc.abs(x), 0.0 * (x * x), 0.0 * x - 0.0]
    for operand in (linear, quadratic, *sole):
        for e in (nlfunc.abs(operand), -MNLExpr._from_mlinexpr(operand)):
            exact = np.array([nle.getValue() for nle in e.copy()._nlearr.flat])
            np.testing.assert_array_equal(e.getValue(), exact)
            np.testing.assert_array_equal(np.signbit(e.getValue()), np.signbit(exact))


# ---- memory ----------------------------------------------------------------------------------------------------------


def test_an_operation_makes_no_object_whatever_its_size(model):
    x = model.addMVar((1000, 1000))
    model.update()
    before = _debug.counts()
    tracemalloc.start()
    e = 2.0 * nlfunc.sin(x[1:]) - x[:-1] / 3.0
    e += 1.0
    e = -(e[::2, 5:] ** 2)
    first = e[0]
    assert tracemalloc.get_traced_memory()[1] < 20_000
    tracemalloc.stop()
    some = e[:, [1, 2]]
    assert _debug.counts() == before
    assert (e.shape, first.shape, some.shape) == ((500, 995), (995,), (500, 2))


def test_expressions_let_go_of_everything(mode, model):
    x = variables(model, (4, 5))
    gc.collect()
    before = _debug.counts()
    for _ in range(3):
        e = nlfunc.exp(x) * 2.0 + x
        parts = [e[1], e[2, 3], e[:, ::2], e[[0, 1]]]
        parts[1]._nlearr
        e += e
        parts[2][...] = 1.0
        repr(e), [part.copy() for part in parts]
        del e, parts
    gc.collect()
    assert _debug.counts() == before


def kinds_of_nodes(x, v):
    """An array of each kind of node, large enough for single elements to be made alone."""
    n, A = MNLExpr._from_mvar(x), np.arange(36.0).reshape(6, 6) - 7
    return {
        "operations": nlfunc.sin(x) * 2 - v,
        "a number for all, a variable for all": n * 0 + NLExpr(v[0].item()),
        "sums": nlfunc.exp(x)[:, ::2].sum(axis=0)[None, :] + np.ones((6, 1)),
        "sparse product": sp.csr_array(A * (A % 3 == 0)) @ n,
        "dense product": n @ (np.arange(64.0).reshape(8, 8) % 3),
        "linear": nlfunc.exp(A @ x + 1 - x[0]),
        "quadratic": nlfunc.cos(x * x + 2 * x * v - x),
        "selected": tarvopy.concatenate((n * 2, nlfunc.log(x)))[[3, 1, 7, 11]],
        "long join": tarvopy.vstack([n[i % 6] * i for i in range(80)]),
        "part of a larger one": ((n[:, None, :] - n[None, :, :]) ** 2)[::-1, 1:, ::-2],
    }


def test_single_elements_have_the_trees_that_all_have(model):
    x, v = variables(model, (6, 8)), variables(model, 8)
    for name, e in kinds_of_nodes(x, v).items():
        first, last = (0,) * e.ndim, (-1,) * e.ndim
        users = e - e * v[0]
        early = {key: (e[key].item()._root, users[key].item()._root) for key in (first, last)}
        if name != "sums":
            users._nlearr  # makes all trees of e, too
        for key, (tree, user) in early.items():
            assert e._nlearr[key]._root is tree is user.args[0] is user.args[1].args[0], name
            assert users._nlearr[key]._root is user, name
        assert texts(e) == [str(nle) for nle in kinds_of_nodes(x, v)[name]._nlearr.flat], name


def test_looking_at_one_element_makes_its_tree_alone(model):
    x = nlfunc.exp(variables(model, 1000))
    distances = (x[:, None] - x[None, :]) ** 2
    before = _debug.counts()["_ExprTree"]
    assert "** 2" in repr(distances[0, 1])
    assert distances[0, 1].item()._root is distances[0, 1].item()._root
    assert _debug.counts()["_ExprTree"] - before == 6  # two variables, two exp, minus, square
    with pytest.raises(NoDataError):
        distances[2, 1].getValue()
    assert _debug.counts()["_ExprTree"] - before <= 10


def test_chains_of_a_hundred_thousand_operations(model):
    length = 100_000
    e = nlfunc.sin(variables(model, 2))
    before = _debug.counts()["_ExprTree"]
    for _ in range(length):
        e = -e
    for _ in range(length):
        e += 1.0
    tree = e[0].item()._root
    assert _debug.counts()["_ExprTree"] - before <= 5 * length + 6
    del e
    assert (tree.op, tree.args[0].op) == ("plus", "plus")
    del tree
    assert _debug.counts()["_ExprTree"] == before


# ---- hostile data ----------------------------------------------------------------------------------------------------


def test_keys_and_functions_that_change_the_array_while_it_is_read(mode, x):
    e = nlfunc.exp(x)

    class Key:
        def __index__(self):
            e._nlearr[0] = NLExpr(1.0)
            e.__iadd__(1.0)
            return 0

    assert texts(e[Key()]) == ["1.0 + 1.0"]

    def replace(root, tree):
        e._nlearr = np.array([], dtype=object)
        return _ExprTree._from_plus(root, tree)

    kept = e._nlearr
    e._idispatch_binary_op(1.0, replace)
    assert e.shape == (0,)
    assert str(kept[2]) == "exp(C2) + 1.0 + 1.0"
