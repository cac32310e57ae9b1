"""Var and the other scalar handles: identity, index, attributes, text."""

import copy
import gc
import pickle

import pytest

from native import CONSTR, QCONSTR, VAR, NativeModel, api
from tarvopy import TRV, _core
from tarvopy._exception import NoDataError, TarvoError


@pytest.fixture
def model():
    return NativeModel(3)


def test_one_object_per_id_while_it_lives(model):
    x = model.vars[0]
    assert api.scalar(model.handle, VAR, 0) is x
    assert copy.copy(x) is x
    assert copy.deepcopy([x])[0] is x
    assert {x: 1}[api.scalar(model.handle, VAR, 0)] == 1


def test_hash_survives_the_object_and_differs_between_models(model):
    first = hash(model.vars[0])
    gc.collect()  # what other tests left behind
    alive = _core._counts()["Var"]
    model.vars.clear()
    gc.collect()
    assert _core._counts()["Var"] == alive - 3
    assert hash(api.scalar(model.handle, VAR, 0)) == first
    other = NativeModel(1)
    assert hash(other.vars[0]) != first


def test_objects_of_many_ids_come_and_go(model):
    first = model.add_ids(2000)
    kept = [api.scalar(model.handle, VAR, first + i) for i in range(0, 2000, 7)]
    for i in range(2000):
        assert api.scalar(model.handle, VAR, first + i)._colno == -1
    del kept[::2]
    assert all(api.scalar(model.handle, VAR, first + 14 * k + 7) is v for k, v in enumerate(kept))


def test_index_follows_update_and_removal(model):
    x, y, z = model.vars
    assert [v.index for v in model.vars] == [0, 1, 2]
    model.remove(VAR, 0)
    assert x.index == 0
    model.update()
    assert (x._colno, y._colno, z._colno) == (-2, 0, 1)
    assert (repr(x), str(x), repr(y)) == ("<Var (removed)>", "<Var (removed)>", "<Var C1>")
    pending = model.add_vars(1)[0]
    assert (pending.index, repr(pending), str(pending)) == (-1, "<Var *awaiting update*>", "C3")


def test_constraint_handle_has_row_number_attributes_and_identity(model):
    row = model.add_row([1.0, 2.0], [0, 1], 0.0, 5.0)
    assert repr(row) == "<Constr *awaiting update*>"
    model.update()
    assert (row._rowno, row.index, repr(row), str(row)) == (0, 0, "<Constr R0>", "R0")
    assert (row.Sense, row.RHS, row.Lower, row.Upper) == ("R", 5.0, 0.0, 5.0)
    row.Upper = 4
    assert row.RHS == 4.0
    assert row == api.scalar(model.handle, CONSTR, 0)
    assert row != model.vars[0]
    assert len({row, api.scalar(model.handle, CONSTR, 0)}) == 1
    with pytest.raises(AttributeError, match=r"^'tarvopy.Constr' object has no attribute 'LB'$"):
        row.LB


def test_quadratic_row_handle_follows_its_row(model):
    x, y = model.vars[:2]
    row, other = model.add_qrow(x * y + y, ">", 2.0), model.add_qrow(x * x, "=", 1.0)
    assert (repr(row), row.index, row.QSense, row.QRHS) == ("<QConstr *awaiting update*>", -1, ">", 2.0)
    model.update()
    assert (row._qconstrno, other.index, repr(row), str(other)) == (0, 1, "<QConstr Q0>", "Q1")
    row.QRHS, row.QName = 3, "cone"
    assert (row.QRHS, repr(row), row.getAttr("QName")) == (3.0, "<QConstr cone>", "cone")
    assert (hasattr(row, "QPi"), hasattr(row, "QSlack")) == (False, False)
    for name, text in (("QSense", "cannot be set"), ("QSlack", "cannot be set"), ("RHS", "has no attribute 'RHS'")):
        with pytest.raises(AttributeError, match=text):
            setattr(row, name, 1.0)
    model.solve_with([2.0, 5.0, 0.0])
    assert (row.QSlack, other.QSlack) == (3.0 - 15.0, 1.0 - 4.0)
    assert len({row, other, api.scalar(model.handle, QCONSTR, 0)}) == 2
    model.remove(QCONSTR, 0)
    assert row.index == 0
    model.update()
    assert (row.index, other.index, repr(row)) == (-2, 0, "<QConstr (removed)>")
    with pytest.raises(TarvoError) as caught:
        row.QRHS
    assert caught.value.code == TRV.Error.NOT_IN_MODEL
    pending = model.add_qrow(y * y)
    model.remove(QCONSTR, 2)
    assert (pending.index, repr(pending)) == (-2, "<QConstr (removed)>")


def test_attributes_read_and_write_the_store(model):
    x = model.vars[0]
    x.LB, x.UB, x.Obj, x.VType, x.VarName = 1, True, 2.5, "I", "größe"
    assert (x.LB, x.UB, x.Obj, x.VType, x.VarName, str(x)) == (1.0, 1.0, 2.5, "I", "größe", "größe")
    x.VarName = "(odd)"
    assert (str(x), repr(x)) == ("(odd)", "<Var (odd)>")
    x.setAttr("LB", -1)
    assert x.getAttr("LB") == -1.0
    assert {"LB", "VarName", "index", "_colno"} <= set(dir(x))
    assert "RHS" not in dir(x)


@pytest.mark.parametrize(
    ("name", "value", "error", "text"),
    [
        ("LB", float("nan"), TarvoError, "nan"),
        ("LB", "1", TypeError, "attribute 'LB' takes a number, not '1'"),
        ("LB", 1j, TypeError, "attribute 'LB' takes a number, not 1j"),
        ("VType", "CC", TypeError, "attribute 'VType' takes one character, not 'CC'"),
        ("VType", "Z", TarvoError, "VType"),
        ("VarName", 3, TypeError, "attribute 'VarName' takes a string, not 3"),
        ("X", 1.0, AttributeError, "Attribute 'X' cannot be set"),
        ("RHS", 1.0, AttributeError, "'tarvopy.Var' object has no attribute 'RHS'"),
        ("Wrong", 1.0, AttributeError, "'tarvopy.Var' object has no attribute 'Wrong'"),
        ("lower", 1.0, AttributeError, "lower"),
    ],
)
def test_wrong_attribute_write_is_refused(model, name, value, error, text):
    x = model.vars[0]
    with pytest.raises(error, match=text):
        setattr(x, name, value)
    assert (x.LB, x.VType, x.VarName) == (0.0, "C", "C0")


def test_solution_is_missing_until_there_is_one(model):
    x = model.vars[0]
    assert not hasattr(x, "X")
    with pytest.raises(NoDataError) as caught:
        x.X
    assert caught.value.code == TRV.Error.NO_DATA
    assert isinstance(caught.value, AttributeError)
    model.solve_with([1.0, 2.0, 3.0])
    assert x.X == 1.0


def test_attributes_of_a_removed_variable_are_refused(model):
    x = model.vars[0]
    model.remove(VAR, 0)
    model.update()
    for use in (lambda: x.LB, lambda: setattr(x, "LB", 1.0), lambda: x.VarName):
        with pytest.raises(TarvoError) as caught:
            use()
        assert caught.value.code == TRV.Error.NOT_IN_MODEL


def test_handles_refuse_pickling_subclassing_and_making(model):
    x = model.vars[0]
    with pytest.raises(TypeError, match=r"cannot pickle 'tarvopy.Var' object"):
        pickle.dumps(x)
    with pytest.raises(TypeError, match="not an acceptable base type"):
        type("Mine", (_core.Var,), {})
    with pytest.raises(TypeError, match="cannot create"):
        _core.Var()
    with pytest.raises(AttributeError):
        x.note = 1
