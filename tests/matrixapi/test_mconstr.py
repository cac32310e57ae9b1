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


def test_quadratic_rows_name_their_own_class_and_count(mode, model):
    x = model.addMVar((2, 2), name="x")
    rows = model.addConstr(x * x <= 1.0, name="q")
    assert type(rows) is MQConstr
    assert (rows._typename, rows._typeenum, rows.shape) == ("MQConstr", 4, (2, 2))
    assert repr(rows) == "<MQConstr (2, 2) *awaiting model update*>"
    assert rows._numqconstrs() == 0
    model.update()
    assert repr(rows) == "<MQConstr (2, 2)>"
    assert rows._numqconstrs() == 4
    assert rows[1, 0] is rows._qconstrarr[1, 0]
    assert type(rows[0]) is MQConstr
    assert MQConstr(qconstrarr=rows._qconstrarr)._qconstrarr is rows._qconstrarr
    np.testing.assert_array_equal(rows._idxarr(), [[0, 1], [2, 3]])
    assert rows._idxarr().dtype == np.int32
    rows.QRHS = [[1, 2], [3, 4]]
    rows.prefetchAttr("QRHS")
    np.testing.assert_array_equal(rows.getAttr(attrname="QRHS"), [[1, 2], [3, 4]])
    assert rows.QName[0, 1] == "q[0,1]"
    for use in (lambda: rows.getAttr("RHS"), lambda: rows.setAttr("RHS", 1)):
        with pytest.raises(AttributeError) as error:
            use()
        assert str(error.value) == "'tarvopy.MQConstr' object has no attribute 'RHS'"
    with pytest.raises(AttributeError, match=r"^Attribute 'QSense' cannot be set$"):
        rows.QSense = "<"
    model.remove(rows[0])
    model.update()
    assert repr(rows) == "<MQConstr (2, 2) (some removed)>"
    with pytest.raises(TarvoError):
        rows.QRHS


class Fake:
    """A row of which only the position and the model are known."""

    def __init__(self, model, index):
        self._cmodel = model._cmodel
        self._qconstrno = self._genconstrno = self._nlconstrno = index


def fakes(cls, model, *indices):
    return cls(np.array([Fake(model, index) for index in indices]))


def test_text_reads_a_count_where_the_class_has_one(rows, model):
    """The model holds no quadratic, general or nonlinear row."""
    awaiting, removed = " *awaiting model update*", " (some removed)"
    for indices, text in [([0], ""), ([1], awaiting), ([0, -2], removed), ([-1, -2], awaiting + removed)]:
        assert repr(fakes(MQConstr, model, *indices)) == f"<MQConstr ({len(indices)},){text}>"
    for cls in (MGenConstr, MNLConstr):
        for indices, text in [([0, 99], ""), ([5, -1], awaiting), ([5, -3], removed), ([-1, -2], awaiting + removed)]:
            assert repr(fakes(cls, model, *indices)) == f"<{cls.__name__} (2,){text}>"


def test_members_and_texts_of_the_classes(model):
    assert MQConstr.__doc__ == (
        "Matrix quadratic constraint handle, acting as an array of QConstr objects.\n"
        "    Usually you don't create such objects directly, but receive them as a\n"
        "    result of Model.addConstr(MQuadExpr ...).\n    "
    )
    for cls in (MGenConstr, MNLConstr):
        assert cls.__doc__ is None
        assert not {"prefetchAttr", "_numrows", "_numqconstrs"} & set(dir(cls))
        assert fakes(cls, model, 3)._idxarr().tolist() == [3]
        with pytest.raises(AssertionError):
            cls(constrarr=[])
        with pytest.raises(AttributeError, match=f"^'tarvopy.{cls.__name__}' object has no attribute '_nothing'$"):
            cls.fromlist([])._nothing
        with pytest.raises(ValueError, match="size 1"):
            fakes(cls, model, 0, 1).item()


def test_type_number_of_nonlinear_rows_is_a_class_attribute_looked_up_at_use(model, monkeypatch):
    class Child(MNLConstr):
        _attrtype = 5

    handle, child = fakes(MNLConstr, model, -1), fakes(Child, model, -1)
    assert (handle._typeenum, child._typeenum) == (6, 5)
    monkeypatch.setattr(MNLConstr, "_attrtype", 1)
    assert handle._typeenum == 1
    assert "LB" in dir(handle)
    for use in (lambda: handle.getAttr("NLName"), lambda: child.getAttr("NLName")):
        with pytest.raises(AttributeError, match=r"^'tarvopy\.NLConstr' object has no attribute 'NLName'$"):
            use()
    with pytest.raises(AttributeError, match=r"^'tarvopy\.MNLConstr' object has no attribute 'NLName'$"):
        handle.setAttr("NLName", "n")
    with pytest.raises(TarvoError, match="not yet been added"):  # past the test of the type
        handle.getAttr("LB")


@pytest.mark.parametrize(
    ("cls", "name", "fixed", "element"),
    [(MGenConstr, "GenName", "GenType", "GenConstr"), (MNLConstr, "NLName", "NLSlack", "NLConstr")],
)
def test_general_and_nonlinear_rows_must_be_in_the_model(model, cls, name, fixed, element):
    for indices, text in [([-1, -2], "has not yet been added to the model"), ([0, -2], "was removed from the model")]:
        handle = fakes(cls, model, *indices)
        for use in (lambda h=handle: h.getAttr(name), lambda h=handle: h.setAttr(name, "n")):
            with pytest.raises(TarvoError) as error:
                use()
            assert (error.value.code, str(error.value)) == (TRV.Error.NOT_IN_MODEL, f"{element} {text}")
        with pytest.raises(AttributeError, match=f"^'tarvopy.{element}' object has no attribute 'RHS'$"):
            handle.getAttr("RHS")
        with pytest.raises(AttributeError, match=f"^'tarvopy.{cls.__name__}' object has no attribute 'RHS'$"):
            handle.setAttr("RHS", 1)
        with pytest.raises(AttributeError, match=f"^Attribute '{fixed}' cannot be set$"):
            handle.setAttr(fixed, 1.0)
        with pytest.raises(AttributeError, match=r"^Shape mismatch$"):
            handle.setAttr(name, np.array(["a", "b", "c"]))
    empty = cls.fromlist([[], []])
    assert empty._cmodel is None
    assert empty.getAttr("whatever").shape == (2, 0)


def test_nonlinear_rows_of_a_model(mode, model):
    v = model.addVar(name="v")
    scalars = [model.addConstr(tarvopy.nlfunc.exp(v) <= k, name=f"n{k}") for k in range(4)]
    rows = MNLConstr.fromlist([scalars[:2], scalars[2:]])
    assert (type(rows), rows._cmodel, rows._typename, rows.shape) == (MNLConstr, model._cmodel, "MNLConstr", (2, 2))
    assert repr(rows) == "<MNLConstr (2, 2) *awaiting model update*>"
    with pytest.raises(TarvoError, match=r"^NLConstr has not yet been added to the model$"):
        rows.NLName
    model.update()
    assert repr(rows) == "<MNLConstr (2, 2)>"
    assert rows._idxarr().tolist() == [[0, 1], [2, 3]]
    assert rows[1, 0] is scalars[2]
    assert rows.tolist() == [scalars[:2], scalars[2:]]
    rows[1].NLName = ["c", "d"]
    assert rows.NLName.tolist() == [["n0", "n1"], ["c", "d"]]
    assert {"NLName", "NLSlack", "_attrtype", "_constrarr"} <= set(dir(rows))
    with pytest.raises(AttributeError, match="NLSlack"):  # no solution yet
        rows.NLSlack
    model.remove(rows[0])
    model.update()
    assert repr(rows) == "<MNLConstr (2, 2) (some removed)>"
    assert rows._idxarr()[1].tolist() == [0, 1]
    assert rows[1].NLName.tolist() == ["c", "d"]
    with pytest.raises(TarvoError, match=r"^NLConstr was removed from the model$"):
        rows.setAttr("NLName", "x")
