"""Type questions and model references of tarvopy._util."""

from decimal import Decimal
from fractions import Fraction

import numpy as np
import pytest

from native import NativeModel
from tarvopy import _util


@pytest.mark.parametrize(
    "number", [1, 1.5, True, np.float32(1), np.int8(1), np.bool_(0), np.longdouble(1), Fraction(1, 2), Decimal(1)]
)
def test_scalars(number):
    assert _util._isscalar(number) is True


@pytest.mark.parametrize(
    "other", ["1", b"1", 1j, np.complex64(1), np.array(1.0), [1], None, np.str_("1"), np.datetime64("2020"), object()]
)
def test_what_is_no_scalar(other):
    assert _util._isscalar(other) is False


def test_strings():
    assert _util._isstr("a") is True
    assert _util._isstr(np.str_("a")) is True
    assert _util._isstr(b"a") is False


def test_arrays_hold_the_very_same_objects():
    x, y, _ = NativeModel(3).vars
    e, equal = x + y, x + y
    match = _util._all_refs_match
    held = np.array([[e, x]], dtype=object)
    assert match() is True
    assert match(held) is True
    assert match(held, held.copy(), [e, x]) is True
    assert match(held, np.array([[equal, x]], dtype=object)) is False
    assert match(held, held[:, ::-1]) is False
    assert match(held, held[:, :1]) is False
    assert match(held, held.copy(), held[:, :1]) is False
    assert match(e, e) is True
    assert match(e, None) is False


def test_table_of_c_functions_holds_the_pointer_accessor():
    import ctypes

    name = b"void *(PyObject *)"
    get = ctypes.pythonapi.PyCapsule_GetPointer
    get.restype, get.argtypes = ctypes.c_void_p, [ctypes.py_object, ctypes.c_char_p]
    ptr = ctypes.PYFUNCTYPE(ctypes.c_void_p, ctypes.py_object)(get(_util.__capi__["_ptr"], name))
    model = NativeModel()
    assert ptr(model.handle) == model.pointer.value
    with pytest.raises(TypeError, match="a model handle is needed"):
        ptr(None)
    model.handle._close()
    with pytest.raises(Exception, match="the model is closed"):
        ptr(model.handle)
