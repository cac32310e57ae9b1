"""Constraint handles: construction, indexing, text, rows and attributes, flat and eager."""

import copy

import numpy as np
import pytest

import tarvopy
from tarvopy import TRV
from tarvopy._exception import TarvoError
from tarvopy._matrixapi import MConstr, MGenConstr, MNLConstr, MQConstr


@pytest.fixture
def model():
    return tarvopy.Model()


@pytest.fixture
def rows(mode, model):
    x = model.addMVar((2, 3), name="x")
    return model.addConstr(x <= np.arange(6.0).reshape(2, 3), name="c")


def test_rows_of_a_comparison_come_as_a_handle_of_its_shape(rows, model):
    assert type(rows) is MConstr
    assert (rows.shape, rows.ndim, rows.size, rows._typename, rows._typeenum) == ((2, 3), 2, 6, "MConstr", 2)
    np.testing.assert_array_equal(rows._idxarr(), np.full((2, 3), -1))
    model.update()
    np.testing.assert_array_equal(rows._idxarr(), np.arange(6).reshape(2, 3))
    assert [[c.index for c in row] for row in rows.tolist()] == [[0, 1, 2], [3, 4, 5]]
    assert rows._numrows() == 6


def test_indexing_gives_the_constraint_itself_or_a_copy_of_a_part(rows, model):
    model.update()
    one = rows[1, 2]
    assert one is rows._constrarr[1, 2]
    assert one.index == 5
    part = rows[:, 1]
    assert type(part) is MConstr
    np.testing.assert_array_equal(part._idxarr(), [1, 4])
    assert not np.shares_memory(part._constrarr, rows._constrarr)
    assert rows[[0, 0]].shape == (2, 3)
    assert rows[1:][0, 0].index == 3
    assert rows[..., 0, 0].shape == ()
    assert rows[0, 0:1].item() is rows[0, 0]
    assert [row.shape for row in rows] == [(3,), (3,)]
    for key, error in [((2, 0), IndexError), ("a", IndexError), ((0, 0, 0), IndexError)]:
        with pytest.raises(error):
            rows[key]
    with pytest.raises(ValueError, match="size 1"):
        rows.item()


def test_construction_keeps_the_array_and_fromlist_checks_its_elements(rows, model):
    array = rows._constrarr
    same = MConstr(constrarr=array)
    assert same._constrarr is array
    assert same._cmodel is rows._cmodel
    assert MConstr.fromlist(rows.tolist()).shape == (2, 3)
    assert MConstr.fromlist([])._cmodel is None
    with pytest.raises(ValueError, match="expects a list") as error:
        MConstr.fromlist([rows[0, 0], 2.5, None])
    assert str(error.value) == "MConstr.fromlist expects a list of Constrs, '2.5' is not valid input"
    with pytest.raises(AssertionError):
        MConstr([rows[0, 0]])
    assert copy.deepcopy(rows)._constrarr[1, 1] is rows[1, 1]


def test_text_tells_pending_and_removed_rows(rows, model):
    assert repr(rows) == "<MConstr (2, 3) *awaiting model update*>"
    model.update()
    assert repr(rows) == "<MConstr (2, 3)>"
    model.remove(rows[0])
    model.update()
    assert repr(rows) == "<MConstr (2, 3) (some removed)>"
    pending = model.addConstr(model.addMVar(1) <= 1)
    both = MConstr.fromlist([pending[0], rows[0, 0], rows[1, 0]])
    assert repr(both) == "<MConstr (3,) *awaiting model update* (some removed)>"
    assert repr(MConstr.fromlist([])) == "<MConstr (0,)>"
    assert MConstr.fromlist([])._numrows() is None


class Row:
    """A row of which only the position and the model are known."""

    def __init__(self, model, rowno):
        self._cmodel, self._rowno = model._cmodel, rowno


@pytest.mark.parametrize(("rowno", "marked"), [(5, False), (6, False), (7, True)])
def test_a_row_at_the_count_is_not_pending_and_one_beyond_it_is(rows, model, rowno, marked):
    model.update()
    handle = MConstr(np.array([Row(model, rowno)]))
    assert ("awaiting" in repr(handle)) is marked


def test_attributes_of_rows(rows, model):
    np.testing.assert_array_equal(rows.RHS, np.arange(6.0).reshape(2, 3))
    rows.RHS = [[1, 2, 3], [4, 5, 6]]
    model.update()
    np.testing.assert_array_equal(rows[:, 1].RHS, [2, 5])
    assert (rows.Sense == "<").all()
    assert rows.ConstrName[1, 2] == "c[1,2]"
    rows.prefetchAttr("RHS")
    assert MConstr.fromlist([]).prefetchAttr("whatever") is None
    with pytest.raises(AttributeError) as error:
        rows.getAttr("LB")
    assert str(error.value) == "'tarvopy.Constr' object has no attribute 'LB'"
    with pytest.raises(AttributeError) as error:
        rows.LB = 1
    assert str(error.value) == "'tarvopy.Constr' object has no attribute 'LB'"
    with pytest.raises(AttributeError, match=r"'tarvopy\.MConstr' object has no attribute '_nothing'"):
        rows._nothing
    assert "RHS" in dir(rows)
    assert "LB" not in dir(rows)
    model.remove(rows[0, 0])
    model.update()
    with pytest.raises(TarvoError) as error:
        rows.RHS
    assert error.value.code == TRV.Error.NOT_IN_MODEL


def test_the_other_kinds_of_constraint_have_handles_of_the_same_make():
    for cls, text, number in [(MQConstr, "QConstr", 4), (MGenConstr, "GenConstr", 5), (MNLConstr, "NLConstr", 6)]:
        empty = cls.fromlist([])
        assert (empty._typename, empty._typeenum, repr(empty)) == (cls.__name__, number, f"<{cls.__name__} (0,)>")
        assert empty.getAttr("whatever").shape == (0,)
        shown = "1" if cls is MQConstr else "{obj}"
        with pytest.raises(ValueError, match="expects a list") as error:
            cls.fromlist([1])
        assert str(error.value) == f"{cls.__name__}.fromlist expects a list of {text}s, '{shown}' is not valid input"
    assert MQConstr.fromlist([])._numqconstrs() is None
    assert not hasattr(MGenConstr, "prefetchAttr")
    assert (MGenConstr.__doc__, MNLConstr.__doc__, MNLConstr._attrtype) == (None, None, 6)


class Pending:
    """A general or nonlinear constraint of which only position and model are known."""

    def __init__(self, model, index):
        self._cmodel = model._cmodel
        self._genconstrno = self._nlconstrno = index


@pytest.mark.parametrize(
    ("cls", "attribute", "element"), [(MGenConstr, "GenName", "GenConstr"), (MNLConstr, "NLName", "NLConstr")]
)
def test_general_and_nonlinear_rows_must_be_in_the_model(model, cls, attribute, element):
    for indices, text in [([-1, -2], "has not yet been added to the model"), ([0, -2], "was removed from the model")]:
        handle = cls(np.array([Pending(model, index) for index in indices]))
        for use in (lambda h=handle: h.getAttr(attribute), lambda h=handle: h.setAttr(attribute, "n")):
            with pytest.raises(TarvoError) as error:
                use()
            assert (error.value.code, str(error.value)) == (TRV.Error.NOT_IN_MODEL, f"{element} {text}")
        with pytest.raises(AttributeError, match=f"'tarvopy.{element}' object has no attribute 'RHS'"):
            handle.getAttr("RHS")
        with pytest.raises(AttributeError, match=f"'tarvopy.{cls.__name__}' object has no attribute 'RHS'"):
            handle.setAttr("RHS", 1)
