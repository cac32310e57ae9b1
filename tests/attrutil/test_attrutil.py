"""Bulk transfer of attributes: by position as lists, by id as arrays."""

import ctypes
from ctypes import PYFUNCTYPE, c_char_p, c_int, c_void_p, py_object

import numpy as np
import pytest

from native import CONSTR, VAR, NativeModel
from tarvopy import TRV, _attrutil
from tarvopy._attrutil import _attrlist, _getattrinfo, _gettypedattrlist, _prefetchattr, _settypedattrlist
from tarvopy._exception import NoDataError, TarvoError

CHAR, INT, DOUBLE, STRING = range(4)


class _AttrApi(ctypes.Structure):
    _fields_ = (
        ("version", c_int),
        ("get", PYFUNCTYPE(py_object, py_object, c_int, c_char_p, py_object)),
        ("set", PYFUNCTYPE(c_int, py_object, c_int, c_char_p, py_object, py_object)),
    )


def _load():
    get = ctypes.pythonapi.PyCapsule_GetPointer
    get.restype, get.argtypes = c_void_p, [py_object, c_char_p]
    return _AttrApi.from_address(get(_attrutil._C_API, b"tarvopy._attrutil._C_API"))


api = _load()


@pytest.fixture
def model():
    return NativeModel(4)


def test_info_is_kind_type_and_settable(model):
    assert _getattrinfo(model.handle, "LB") == (1, DOUBLE, 1)
    assert _getattrinfo(model.handle, "X") == (1, DOUBLE, 0)
    assert _getattrinfo(model.handle, "Sense") == (2, CHAR, 1)
    assert _getattrinfo(model.handle, "ConstrName") == (2, STRING, 1)
    assert _getattrinfo(None, "VType") == (1, CHAR, 1)
    with pytest.raises(AttributeError, match="there is no attribute 'Nope'"):
        _getattrinfo(model.handle, "Nope")
    with pytest.raises(TypeError):
        _getattrinfo(model.handle, 3)
    with pytest.raises(TypeError):
        _getattrinfo("model", "LB")
    assert "LB" in _attrlist(model.handle, 1)
    assert "LB" not in _attrlist(model.handle, 2)
    assert _prefetchattr(model.handle, "X") is None
    with pytest.raises(AttributeError):
        _prefetchattr(model.handle, "Nope")


@pytest.mark.parametrize(
    ("name", "code", "values"),
    [("UB", DOUBLE, [1.5, float("inf"), 2.0]), ("VType", CHAR, list("IBC")), ("VarName", STRING, ["a", "éé", "x[0]"])],
)
def test_values_go_in_and_come_out_in_index_order(model, name, code, values):
    untouched = _gettypedattrlist(model.handle, name, [1], code)
    _settypedattrlist(model.handle, name, [3, 0, 2], values)
    assert _gettypedattrlist(model.handle, name, [2, 0, 3, 3], code) == [values[2], values[1], values[0], values[0]]
    assert _gettypedattrlist(model.handle, name, [1], code) == untouched
    _settypedattrlist(model.handle, name, np.arange(4, dtype=np.int32), values[0])
    assert _gettypedattrlist(model.handle, name, range(4), code) == [values[0]] * 4


def test_positions_are_those_after_the_update(model):
    model.remove(VAR, 1)
    model.vars[2].LB = 7
    model.update()
    assert _gettypedattrlist(model.handle, "LB", [0, 1, 2], DOUBLE) == [0.0, 7.0, 0.0]


@pytest.mark.parametrize("position", [-1, -2, 4, 2**31, -(2**40)])
def test_positions_outside_the_model_are_refused(model, position):
    model.add_vars(1)  # pending: has no position
    for use in (
        lambda: _gettypedattrlist(model.handle, "LB", [0, position], DOUBLE),
        lambda: _settypedattrlist(model.handle, "LB", [0, position], [1.0, 2.0]),
    ):
        with pytest.raises(TarvoError) as caught:
            use()
        assert caught.value.code == TRV.Error.NOT_IN_MODEL
    assert model.vars[0].LB == 0.0


@pytest.mark.parametrize(
    ("name", "values", "error"),
    [
        ("LB", [1.0], None),
        ("LB", [1.0, 2.0, 3.0], ValueError),
        ("LB", [1.0, "a"], TypeError),
        ("LB", [1.0, float("nan")], TarvoError),
        ("LB", [1.0, None], TypeError),
        ("LB", np.ones(3), ValueError),
        ("VType", ["I", "Z"], TarvoError),
        ("VType", ["I", "CC"], TypeError),
        ("VType", ["I", "é"], (TypeError, TarvoError)),
        ("VarName", ["a", 3], TypeError),
        ("X", [1.0, 2.0], AttributeError),
        ("NumVars", [1, 2], AttributeError),
    ],
)
def test_a_failed_write_changes_nothing(model, name, values, error):
    if error is None:
        _settypedattrlist(model.handle, name, [0, 1], values)
        assert model.vars[1].LB == 1.0
        return
    with pytest.raises(error):
        _settypedattrlist(model.handle, name, [0, 1], values)
    x = model.vars[0]
    assert (x.LB, x.VType, x.VarName) == (0.0, "C", "C0")


def test_type_code_and_missing_data(model):
    with pytest.raises(ValueError, match="attribute 'LB' has the type code 2, not 0"):
        _gettypedattrlist(model.handle, "LB", [0], CHAR)
    with pytest.raises(NoDataError):
        _gettypedattrlist(model.handle, "X", [0], DOUBLE)
    model.solve_with([1.0, 2.0, 3.0, 4.0])
    assert _gettypedattrlist(model.handle, "X", [3, 0], DOUBLE) == [4.0, 1.0]


def test_values_that_act_while_they_are_read(model):
    import numbers

    values = []

    class Evil:
        def __init__(self, act):
            self.act = act

        def __float__(self):
            self.act()
            return 5.0

    numbers.Real.register(Evil)
    values += [Evil(values.clear), 6.0]
    _settypedattrlist(model.handle, "LB", [0, 1], values)
    assert (model.vars[0].LB, model.vars[1].LB) == (5.0, 6.0)
    with pytest.raises(TarvoError, match="closed"):
        _settypedattrlist(model.handle, "LB", [0], [Evil(model.handle._close)])


def test_arrays_by_id_have_shape_and_dtype(model):
    row = model.add_row([1.0], [0], -1.0, 2.0)
    pending = model.add_ids(2)
    ids = np.array([[3, 0], [pending, pending + 1]], dtype=np.int32)
    api.set(model.handle, VAR, b"LB", ids, np.array([[1.0, 2.0], [3.0, 4.0]]))
    got = api.get(model.handle, VAR, b"LB", ids)
    assert (got.dtype, got.tolist()) == (np.float64, [[1.0, 2.0], [3.0, 4.0]])
    api.set(model.handle, VAR, b"VType", ids, "I")
    kinds = api.get(model.handle, VAR, b"VType", np.arange(4, dtype=np.int32))
    assert (kinds.dtype, kinds.tolist()) == ("U1", ["I", "C", "C", "I"])
    api.set(model.handle, VAR, b"VarName", ids, ["a", "b", "c", "d"])
    names = api.get(model.handle, VAR, b"VarName", ids)
    assert (names.dtype, names.tolist()) == (object, [["a", "b"], ["c", "d"]])
    single = api.get(model.handle, CONSTR, b"Upper", np.array(0, dtype=np.int32))
    assert (single.shape, single.item(), row.RHS) == ((), 2.0, 2.0)
    assert api.get(model.handle, VAR, b"LB", np.zeros((0, 3), dtype=np.int32)).shape == (0, 3)


def test_arrays_of_almost_consecutive_ids_read_each_of_them():
    n = 3000
    model = NativeModel(n)
    lb = np.random.default_rng(1).random(n)
    ids = np.arange(n, dtype=np.int32)
    api.set(model.handle, VAR, b"LB", ids, lb)
    for start, place in [(0, 0), (0, 1), (0, 1023), (0, 1024), (7, 2048), (7, n - 8), (0, n - 1)]:
        some = ids[start:].copy()
        assert (api.get(model.handle, VAR, b"LB", some) == lb[some]).all()
        some[place] = 500
        assert (api.get(model.handle, VAR, b"LB", some) == lb[some]).all()


def test_arrays_by_id_refuse_what_does_not_fit(model):
    ids = np.arange(3, dtype=np.int32)
    with pytest.raises(AttributeError, match=r"^'tarvopy.Var' object has no attribute 'RHS'$"):
        api.get(model.handle, VAR, b"RHS", ids)
    with pytest.raises(AttributeError, match=r"^Attribute 'RC' cannot be set$"):
        api.set(model.handle, VAR, b"RC", ids, np.ones(3))
    with pytest.raises(ValueError, match="2 values for 3 elements"):
        api.set(model.handle, VAR, b"LB", ids, [1.0, 2.0])
    with pytest.raises(TarvoError):
        api.set(model.handle, VAR, b"LB", ids, np.array([1.0, np.nan, 2.0]))
    with pytest.raises(TarvoError):
        api.get(model.handle, VAR, b"LB", np.array([0, 99], dtype=np.int32))
    assert api.get(model.handle, VAR, b"LB", ids).tolist() == [0.0] * 3
    spread = np.arange(6.0)[::2]
    api.set(model.handle, VAR, b"LB", ids, spread)
    assert api.get(model.handle, VAR, b"LB", ids).tolist() == [0.0, 2.0, 4.0]
