"""Attributes of the model's elements on whole handles: reading, writing, refusals, pending and empty handles."""

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV, _debug
from tarvopy._attrutil import _attrlist
from tarvopy._exception import TarvoError
from tarvopy._matrixapi import MVar


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture(params=["block", "strided", "picked", "objects", "pending"])
def handle(request, mode, model):
    """The variables 0 2 4 / 6 8 10 of twelve, however a handle may hold them."""
    x = model.addMVar((2, 6), name="x")
    if request.param != "pending":
        model.update()
    if request.param == "block":
        return MVar.fromlist(x[:, ::2].reshape(-1).tolist()).reshape(2, 3)
    if request.param == "picked":
        return x[:, [0, 2, 4]]
    part = x[:, ::2]
    if request.param == "objects":
        part._vararr
    return part


def test_values_come_back_in_the_handles_shape_and_the_attributes_dtype(handle):
    assert (handle._typename, handle._typeenum) == ("MVar", 1)
    assert handle.LB.dtype == np.float64
    assert handle.LB.shape == (2, 3)
    np.testing.assert_array_equal(handle.VarName, [["x[0,0]", "x[0,2]", "x[0,4]"], ["x[1,0]", "x[1,2]", "x[1,4]"]])
    assert handle.VarName.dtype == object
    assert handle.getAttr("VType").dtype == np.dtype("U1")
    handle.prefetchAttr("UB")


VALUES = [
    (3, 3.0),
    (np.float32(2.5), 2.5),
    (np.array(4), 4.0),
    (np.array([[[7.0]]]), 7.0),
    (np.arange(6).reshape(2, 3), np.arange(6.0).reshape(2, 3)),
    (np.arange(6.0).reshape(3, 2).T, np.arange(6.0).reshape(3, 2).T),
    (np.array([[True, False, True]] * 2), np.array([[1.0, 0.0, 1.0]] * 2)),
    ([[1, 2, 3], [4, 5, 6]], np.arange(1.0, 7).reshape(2, 3)),
    ((row for row in ([1.0, 2.0, 3.0], [4.0, 5.0, 6.0])), np.arange(1.0, 7).reshape(2, 3)),
    (np.array([[1, 2, 3], [4, 5, 6]], dtype=object), np.arange(1.0, 7).reshape(2, 3)),
    (np.inf, np.inf),
]


def test_every_form_of_value_reaches_the_elements(handle, model):
    for value, expected in VALUES:
        if not hasattr(value, "__next__"):  # a generator serves one test only
            handle.UB = value
            np.testing.assert_array_equal(handle.UB, np.broadcast_to(expected, (2, 3)))
    handle.setAttr(attrname="UB", value=(row for row in ([1.0, 2.0, 3.0], [4.0, 5.0, 6.0])))
    np.testing.assert_array_equal(handle.UB, [[1, 2, 3], [4, 5, 6]])
    model.update()
    others = [v.UB for v in model.getVars() if v.index % 2]
    assert others == [np.inf] * 6
    handle.VType = "I"
    assert (handle.VType == "I").all()
    handle.VType = [["B", "C", "I"], ["C", "C", "C"]]
    assert handle.VType.tolist() == [["B", "C", "I"], ["C", "C", "C"]]
    handle.VarName = np.array([["a", "b", "c"], ["d", "e", "f"]])
    assert handle.VarName.tolist() == [["a", "b", "c"], ["d", "e", "f"]]


class Evil:
    def __float__(self):
        raise RuntimeError("evil")

    __index__ = __float__


@pytest.mark.parametrize(
    ("name", "value", "error", "text"),
    [
        ("LB", np.arange(3.0), AttributeError, "Shape mismatch"),
        ("LB", np.zeros((3, 2)), AttributeError, "Shape mismatch"),
        ("LB", np.zeros(0), AttributeError, "Shape mismatch"),
        ("LB", [1.0, 2.0, 3.0], AttributeError, "Shape mismatch"),
        ("LB", [[1.0], [1.0, 2.0]], (AttributeError, ValueError), ""),
        ("LB", object(), AttributeError, "Use scalar or ndarray to set attribute"),
        ("LB", None, AttributeError, "Use scalar or ndarray to set attribute"),
        ("LB", np.nan, (ValueError, TarvoError), ""),
        ("LB", np.full((2, 3), np.nan), (ValueError, TarvoError), ""),
        ("LB", np.array([[1.0, 2.0, Evil()], [1, 2, 3]], dtype=object), TypeError, "Evil"),
        ("LB", np.full((2, 3), 1j), (TypeError, ValueError), ""),
        ("LB", "text", (TypeError, ValueError), ""),
        ("VType", 3, (TypeError, ValueError), ""),
        ("VType", "CB", (TypeError, ValueError, TarvoError), ""),
        ("X", 1.0, AttributeError, "Attribute 'X' cannot be set"),
        ("RHS", 1.0, AttributeError, "'tarvopy.Var' object has no attribute 'RHS'"),
        ("Nothing", 1.0, AttributeError, "Nothing"),
    ],
)
def test_a_refused_write_changes_nothing(handle, name, value, error, text):
    handle.LB = before = np.arange(6.0).reshape(2, 3)
    with pytest.raises(error) as caught:
        handle.setAttr(name, value)
    assert text in str(caught.value)
    np.testing.assert_array_equal(handle.LB, before)
    assert (handle.VType == "C").all()


@pytest.mark.parametrize(
    ("name", "text"),
    [
        ("_nothing", "'tarvopy.MVar' object has no attribute '_nothing'"),
        ("RHS", "'tarvopy.Var' object has no attribute 'RHS'"),
        ("ConstrName", "'tarvopy.Var' object has no attribute 'ConstrName'"),
        ("NumVars", "'tarvopy.Var' object has no attribute 'NumVars'"),
    ],
)
def test_attributes_of_other_kinds_are_refused(handle, name, text):
    with pytest.raises(AttributeError) as error:
        getattr(handle, name)
    assert str(error.value) == text


def test_names_that_are_no_text_are_errors(handle):
    for name in (3, None, b"LB"):
        with pytest.raises(TypeError):
            handle.getAttr(name)
        with pytest.raises(TypeError):
            handle.setAttr(name, 1.0)


def test_no_name_is_cut_short_at_a_nul_or_fails_to_encode(handle, model):
    scalar = handle[0, 0].item()
    for name in ("LB\0", "LB\0UB", "\udc80", ""):
        for owner in (handle, scalar, model):
            assert not hasattr(owner, name)
            with pytest.raises(AttributeError):
                owner.getAttr(name)
        for write in (handle.setAttr, scalar.setAttr):
            with pytest.raises(AttributeError):
                write(name, 1.0)
        with pytest.raises(AttributeError):
            model.setAttr(name.replace("LB", "ModelSense"), -1)
    assert (handle.LB == 0.0).all()
    assert model.ModelSense == 1


def test_completion_lists_the_attributes_sorted_and_makes_nothing(mode, model):
    x = model.addMVar(2)
    x._note = 1
    before = _debug.counts()["Var"]
    names = dir(x)
    assert _debug.counts()["Var"] == before
    assert {"LB", "X", "_note", "_vararr", "_cmodel", "reshape"} <= set(names)
    assert "RHS" not in names
    assert names == sorted(dir(MVar) + list(vars(x)) + _attrlist(x._cmodel, 1))  # vars() makes the elements
    assert names == dir(x)
    assert "LB" in dir(MVar([]))


def test_empty_handles_read_empty_and_write_nothing(mode, model):
    x = model.addMVar((2, 3))[:0]
    assert x._cmodel is None
    assert (x.LB.shape, x.LB.dtype) == ((0, 3), np.float64)
    assert x.getAttr("whatever").shape == (0, 3)
    x.LB = 3.0
    x.LB = np.zeros((5, 5))
    x.prefetchAttr("LB")
    for wrong in (lambda: x.setAttr("whatever", 1), lambda: x.prefetchAttr("whatever"), lambda: x.setAttr("X", 1)):
        with pytest.raises(AttributeError):
            wrong()


def test_removed_elements_and_closed_models_are_refused(mode, model):
    x = model.addMVar(3)
    model.update()
    model.remove(x[1])
    model.update()
    assert x[[0, 2]].LB.tolist() == [0.0, 0.0]
    for use in (lambda: x.LB, lambda: x.setAttr("LB", 1.0)):
        with pytest.raises(TarvoError) as error:
            use()
        assert error.value.code == TRV.Error.NOT_IN_MODEL
    assert x[[0, 2]].LB.tolist() == [0.0, 0.0]
    model.close()
    for use in (lambda: x.LB, lambda: x.setAttr("LB", 1.0), lambda: x._idxarr()):
        with pytest.raises(TarvoError):
            use()
    assert repr(x).startswith("<MVar (3,)")


def test_no_public_attribute_is_stored_on_the_handle(model):
    x = model.addMVar(2)
    with pytest.raises(AttributeError):
        x.colour = "red"
    assert list(vars(x)) == ["_vararr", "_cmodel"]
