"""MVar: construction, structure, indexing, sums, text and instance attributes, flat and eager."""

import copy
import pickle

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import tarvopy
from tarvopy import _debug
from tarvopy._core import Var
from tarvopy._exception import TarvoError
from tarvopy._matrixapi import MConstr, MLinExpr, MVar


@pytest.fixture
def model():
    return tarvopy.Model()


def updated(model, shape):
    x = model.addMVar(shape, name="x")
    model.update()
    return x


# ---- structure: the same program on an array of numbers is the oracle ------------------------------------------------


def wrapped(array):
    """What a handle keeps of an array: a writeable one as it is, a scalar or a read-only one as a copy."""
    if not isinstance(array, np.ndarray):
        return np.array(array)
    return array if array.flags.writeable else array.copy("A")


INDICES = [
    0, -1, (0, 0), (0, -1), (-1, slice(None)), slice(None, None, -1), slice(1, None), (slice(None), 0),
    (Ellipsis, 0), Ellipsis, None,
    (slice(None), None), [0, 0], ([0], slice(None)), (0, [0, 0]), (slice(1, 1),), (Ellipsis, slice(None, None, 2)),
    np.int64(0), True,
    (slice(-3, 2), slice(2, 0, -1)), 7, (0, 0, 0, 0, 0), slice(5, 2), (Ellipsis, Ellipsis), "a", 1.0,
    slice(None, None, 0),
]  # fmt: skip

OPERATIONS = st.one_of(
    st.sampled_from(INDICES).map(lambda key: lambda a: a[key]),
    st.sampled_from([(), (-1,), (1, -1), (6,), (2, 3), ((3, 2),), (2, -1)]).map(lambda s: lambda a: a.reshape(*s)),
    st.sampled_from([(-1,), (2, -1)]).map(lambda s: lambda a: a.reshape(s, order="F")),
    st.sampled_from([(), (1, 0), ((1, 0),), (0, 2, 1)]).map(lambda axes: lambda a: a.transpose(*axes)),
    st.sampled_from([{}, {"offset": 1}, {"axis1": 1, "axis2": 0}]).map(lambda k: lambda a: a.diagonal(**k)),
    st.sampled_from(
        [lambda a: a.T, lambda a: a.copy(), lambda a: a._squeeze() if isinstance(a, MVar) else a.squeeze()]
    ),
)


def outcome(operation, array):
    try:
        return operation(array), None
    except (ValueError, IndexError, TypeError) as error:
        return None, (type(error), str(error))


@settings(max_examples=250, deadline=None)
@given(
    shape=st.sampled_from([(), (1,), (4,), (2, 3), (3, 2, 2), (0, 3), (1, 4), (1, 2, 1, 3, 1, 2)]),
    steps=st.lists(st.tuples(st.integers(0, 9), OPERATIONS, st.sampled_from(["", "", "look", "write"])), max_size=8),
    eager=st.booleans(),
)
def test_structure_indexing_and_shared_memory_follow_numpy(shape, steps, eager):
    model = tarvopy.Model()
    former = _debug.eager(eager)
    try:
        handles = [updated(model, shape)]
    finally:
        _debug.eager(former)
    other = model.addMVar(100)
    model.update()
    numbers = [np.arange(handles[0].size).reshape(shape)]
    for count, (at, operation, action) in enumerate(steps):
        at %= len(handles)
        got, error = outcome(operation, handles[at])
        expected, expected_error = outcome(operation, numbers[at])
        assert error == expected_error
        if error is None:
            handles.append(got)
            numbers.append(wrapped(expected))
        if action:
            handles[at]._vararr
        if action == "write" and numbers[at].size:
            handles[at]._vararr.flat[0] = other._vararr[count]
            numbers[at].flat[0] = other._idxarr()[count]
        for handle, number in zip(handles, numbers, strict=True):
            assert type(handle) is MVar
            assert handle.shape == number.shape
            assert (handle.ndim, handle.size) == (number.ndim, number.size)
            np.testing.assert_array_equal(handle._idxarr(), number)


def test_indexing_down_to_one_element_gives_an_mvar_of_its_own(mode, model):
    x = updated(model, (2, 3))
    one = x[1, 2]
    assert type(one) is MVar
    assert one.shape == ()
    assert one.item() is x._vararr[1, 2]
    x._vararr[1, 2] = x._vararr[0, 0]
    assert one._idxarr() == 5


def test_views_share_elements_and_each_variable_is_one_object(mode, model):
    x = updated(model, (3, 4))
    row, column, picked = x[1], x.T[2], x[[1]]
    assert np.shares_memory(row._vararr, x._vararr)
    assert np.shares_memory(column._vararr, x._vararr)
    assert not np.shares_memory(picked._vararr, x._vararr)
    assert row._vararr[2] is column._vararr[1] is picked._vararr[0, 2] is x.tolist()[1][2] is x[1, 2].item()
    assert not np.shares_memory(x.diagonal()._vararr, x._vararr)  # NumPy's diagonal is read-only, so it is copied
    assert x.diagonal()._vararr.flags.writeable


def test_reading_elements_of_a_small_part_makes_no_others(model):
    x = updated(model, 1000)
    before = _debug.counts()["Var"]
    kept = [*x[10:12].tolist(), x[5].item()]
    assert _debug.counts()["Var"] - before == len(kept) == 3


# ---- construction ----------------------------------------------------------------------------------------------------


def test_constructors_wrap_what_numpy_makes_of_their_argument(mode, model):
    x = updated(model, (2, 2))
    array = np.array(x.tolist(), dtype=object)
    assert MVar(array)._vararr is array
    assert MVar(arr=x.tolist()).shape == (2, 2)
    array.flags.writeable = False
    assert MVar(array)._vararr is not array
    assert MVar(array)._vararr.flags.writeable
    assert MVar(np.empty((0, 3), dtype=object))._cmodel is None
    zero = MVar.fromvar(x[0, 0].item())
    assert (zero.shape, zero.item()) == ((), array[0, 0])
    line = MVar.fromlist(array.ravel().tolist())
    assert line.shape == (4,)
    assert line._cmodel is x._cmodel
    assert MVar.fromlist([]).shape == (0,)


def test_fromlist_takes_as_many_as_the_length_says(model):
    x = updated(model, 3)

    class Lying(list):
        def __len__(self):
            return self.said

    variables = Lying(x.tolist())
    variables.said = 2
    assert [v.index for v in MVar.fromlist(variables).tolist()] == [0, 1]
    variables.said = 4
    with pytest.raises(ValueError, match="iterator too short: Expected 4 but iterator had only 3 items"):
        MVar.fromlist(variables)


def test_fromlist_names_the_element_that_is_no_variable(model):
    x = updated(model, 2)
    with pytest.raises(ValueError, match="expects a list") as error:
        MVar.fromlist([x[0].item(), 3.5, "z"])
    assert str(error.value) == "MVar.fromlist expects a list of Vars, '3.5' is not valid input"


@pytest.mark.parametrize(
    ("call", "text"),
    [
        (lambda x: x.sum(1, 2), "sum() takes at most 2 positional arguments (3 given)"),
        (lambda x: x.copy(1), "copy() takes exactly 1 positional argument (2 given)"),
        (lambda x: x.getAttr(), "getAttr() takes exactly 2 positional arguments (1 given)"),
        (lambda x: x.__add__(), "__add__() takes exactly 2 positional arguments (1 given)"),
        (lambda x: MVar.fromlist(), "fromlist() takes exactly 1 positional argument (0 given)"),
        (lambda x: x.sum(axes=1), "sum() got an unexpected keyword argument 'axes'"),
        (lambda x: x.reshape(3, copy=True), "reshape() got an unexpected keyword argument 'copy'"),
    ],
)
def test_wrong_arguments_are_named(model, call, text):
    with pytest.raises(TypeError) as error:
        call(updated(model, 3))
    assert str(error.value) == text


# ---- the instance's own attributes -----------------------------------------------------------------------------------


def test_instance_attributes_are_ordinary(mode, model):
    x = updated(model, 3)
    x._note = 1
    assert list(x.__dict__) == ["_vararr", "_cmodel", "_note"] == list(vars(x))
    y = updated(model, 3)
    y._vararr = x._vararr
    assert y[0].item() is x[0].item()
    del y._vararr
    assert list(vars(y)) == ["_cmodel"]
    for use in (lambda: y._vararr, lambda: y.transpose(), lambda: y + 1, lambda: y.sum()):
        with pytest.raises(AttributeError, match=r"'tarvopy\.MVar' object has no attribute '_vararr'"):
            use()
    z = updated(model, 3)
    z._cmodel = None
    with pytest.raises(ValueError, match="reshape"):
        z.getAttr("LB")
    del z._cmodel
    assert list(vars(z)) == ["_vararr"]
    object.__setattr__(z, "__dict__", {"_vararr": x._vararr})
    assert z[1].item() is x[1].item()


def test_copies_share_variables_and_pickling_is_refused(mode, model):
    x = updated(model, (2, 2))
    shallow, deep = copy.copy(x), copy.deepcopy(x)
    assert shallow._vararr is x._vararr
    assert deep._vararr is not x._vararr
    assert all(a is b for a, b in zip(deep._vararr.flat, x._vararr.flat, strict=True))
    assert deep._cmodel is x._cmodel
    with pytest.raises(TypeError, match="pickle"):
        pickle.dumps(x)


def test_children_of_the_class_work_like_it(mode, model):
    class Child(MVar):
        def __init__(self, arr):
            super().__init__(arr)
            self._extra = 1

        def __getitem__(self, key):
            return super().__getitem__(key).item()

    x = updated(model, 3)
    child = Child(x.tolist())
    assert child._extra == 1
    assert list(child) == x.tolist()
    assert type(child.copy()) is MVar
    assert type(child + 1) is MLinExpr


def test_iteration_has_numpys_meaning_and_there_is_no_length(mode, model):
    x = updated(model, (2, 3))
    rows = list(x)
    assert [row.shape for row in rows] == [(3,), (3,)]
    np.testing.assert_array_equal(rows[1]._idxarr(), [3, 4, 5])
    with pytest.raises(TypeError, match="iteration over a 0-d array"):
        iter(x[0, 0])
    with pytest.raises(TypeError):
        len(x)
    with pytest.raises(TypeError, match="unhashable"):
        hash(x)


# ---- text, sums, data ------------------------------------------------------------------------------------------------


def test_repr_shows_shape_marks_and_variables(mode, model):
    x = model.addMVar(2, name="x")
    model.update()
    y = model.addMVar(1, name="y")
    assert repr(x) == "<MVar (2,)>\narray([<Var x[0]>, <Var x[1]>])"
    assert repr(y) == "<MVar (1,) *awaiting update*>\narray([<Var *awaiting update*>])"
    model.remove(x[0])
    model.update()
    z = model.addMVar((), name="z")
    both = MVar([x[0].item(), z.item()])
    assert repr(both).startswith("<MVar (2,) *awaiting update* (some removed)>\n")
    assert repr(MVar([])) == "<MVar (0,)>\narray([])"
    np.testing.assert_array_equal(both._idxarr(), [-2, -1])


def terms(expr):
    return [(c, v.index) for c, v in expr.terms()]


@pytest.mark.parametrize(
    ("axis", "shape", "first"),
    [
        (None, (), [0, 1, 2, 3, 4, 5]),
        (0, (3,), [0, 3]),
        (1, (2,), [0, 1, 2]),
        (-1, (2,), [0, 1, 2]),
        ((0, 1), (), [0, 1, 2, 3, 4, 5]),
        ((), (2, 3), [0]),
    ],
)
@pytest.mark.parametrize("transposed", [False, True])
def test_sum_appends_one_term_a_variable_in_c_order(mode, model, axis, shape, first, transposed):
    x = updated(model, (3, 2)).T if transposed else updated(model, (2, 3))
    order = x._idxarr()
    total = x.sum(axis)
    assert type(total) is MLinExpr
    assert not total._is_compact()
    assert total.shape == shape
    expected = [(1.0, int(order.flat[k])) for k in first]
    assert terms(total._learr.flat[0]) == expected


def test_sum_of_nothing_of_repetitions_and_over_no_such_axis(mode, model):
    x = updated(model, (2, 3))
    empty = x[:0].sum()
    assert (empty.shape, terms(empty.item())) == ((), [])
    assert x[:0].sum(0).shape == (3,)
    twice = x[[0, 0]].sum(0)
    assert terms(twice._learr[1]) == [(1.0, 1), (1.0, 1)]
    with pytest.raises(TarvoError) as error:
        x.sum(axis=2)
    assert (error.value.code, str(error.value)) == (-1, "Invalid axis specifications: 2")


def test_indexed_data_picks_entries_of_a_vector_over_the_model(mode, model):
    updated(model, 4)
    x = updated(model, (2, 2))
    np.testing.assert_array_equal(x._indexed_data(range(8), "int64"), [[4, 5], [6, 7]])
    assert x.T._indexed_data(np.arange(8.0), np.float32).dtype == np.float32
    with pytest.raises(IndexError):
        x._indexed_data([1.0], float)


# ---- elements that are no variables, or of several models ------------------------------------------------------------


class Foreign:
    _cmodel = "model"
    _colno = 3
    X = 1.5

    def __init__(self):
        self.LB = 0.0


def test_foreign_elements_are_asked_by_name(mode, model):
    x = MVar(np.array([[Foreign(), Foreign()]]))
    assert x._cmodel == "model"
    np.testing.assert_array_equal(x._idxarr(), [[3, 3]])
    np.testing.assert_array_equal(x.X, [[1.5, 1.5]])
    x.LB = [[1.0, 2.0]]
    np.testing.assert_array_equal(x.LB, [[1.0, 2.0]])
    assert x.T.shape == (2, 1)
    assert "_vararr" in dir(x)
    with pytest.raises(TypeError):
        x.sum()
    with pytest.raises(AttributeError):
        MVar([1.0, 2.0])


def test_variables_of_two_models_keep_their_own_attributes(mode, model):
    other = tarvopy.Model()
    x, y = updated(model, 2), updated(other, 2)
    y.LB = 5.0
    both = MVar([x[0].item(), y[1].item()])
    np.testing.assert_array_equal(both.LB, [0.0, 5.0])
    both.UB = 7.0
    assert (x.UB[0], y.UB[1]) == (7.0, 7.0)
    assert terms(both.sum().item()) == [(1.0, 0), (1.0, 1)]


def test_methods_refuse_instances_of_other_classes(model):
    x = updated(model, 2)
    rows = model.addConstr(x <= 1)
    for method in ("sum", "copy", "_idxarr"):
        with pytest.raises(AttributeError):
            getattr(MVar, method)(rows)
        with pytest.raises(TypeError):
            getattr(MVar, method)(3)
    assert isinstance(rows, MConstr)
    assert isinstance(x[0].item(), Var)
