"""The native interfaces below the Python names, through ctypes: the store's C functions and the table of ``_core``.

model = NativeModel(3)          a model handle with three variables, x0, x1, x2, after its update
model.vars                      their Var objects
"""

import ctypes
from ctypes import POINTER, PYFUNCTYPE, c_char_p, c_double, c_int, c_int32, c_int64, c_ssize_t, c_void_p, py_object
from pathlib import Path

import numpy as np

from tarvopy import _core

VAR, CONSTR, QCONSTR = 1, 2, 4


class _CoreApi(ctypes.Structure):
    _fields_ = (
        ("version", c_int),
        ("linexpr_size", c_ssize_t),
        ("quadexpr_size", c_ssize_t),
        ("exprtree_size", c_ssize_t),
        ("nlexpr_size", c_ssize_t),
        ("types", py_object * 12),
        ("TarvoError", py_object),
        ("store", PYFUNCTYPE(c_void_p, py_object)),
        ("raise_", c_void_p),
        ("raise_error", c_void_p),
        ("scalar", PYFUNCTYPE(py_object, py_object, c_int, c_int32)),
        ("scalars", PYFUNCTYPE(c_int, py_object, c_int, c_int64, c_void_p, c_int64, c_void_p)),
        ("linexpr_new", PYFUNCTYPE(py_object, c_double)),
        (
            "linexprs",
            PYFUNCTYPE(c_int, py_object, c_int64, c_void_p, c_void_p, c_void_p, c_double, c_void_p, c_void_p),
        ),
        ("linexpr_add", PYFUNCTYPE(c_int, py_object, py_object, c_double)),
        ("linexpr_scale", PYFUNCTYPE(c_int, py_object, c_double)),
        ("linexpr_copy", PYFUNCTYPE(py_object, py_object)),
        ("linexpr_clear", PYFUNCTYPE(c_int, py_object)),
        ("linexpr_normalize", PYFUNCTYPE(c_int, py_object)),
        ("linexpr_assign", PYFUNCTYPE(c_int, py_object, py_object)),
        ("quadexpr_new", PYFUNCTYPE(py_object)),
        (
            "quadexprs",
            PYFUNCTYPE(c_int, py_object, c_int64, c_void_p, c_void_p, c_void_p, c_void_p, c_double, c_void_p),
        ),
        ("quadexpr_linear", PYFUNCTYPE(c_void_p, py_object)),
        ("quadexpr_add", PYFUNCTYPE(c_int, py_object, py_object, c_double)),
        ("quadexpr_scale", PYFUNCTYPE(c_int, py_object, c_double)),
        ("quadexpr_copy", PYFUNCTYPE(py_object, py_object)),
        ("quadexpr_clear", PYFUNCTYPE(c_int, py_object)),
        ("quadexpr_normalize", PYFUNCTYPE(c_int, py_object)),
        ("quadexpr_assign", PYFUNCTYPE(c_int, py_object, py_object)),
        ("tree_constant", PYFUNCTYPE(py_object, c_double)),
        ("tree_variables", PYFUNCTYPE(c_int, py_object, c_int64, c_void_p, c_int64, c_void_p)),
        ("tree_of", PYFUNCTYPE(py_object, py_object)),
        ("linexpr_terms", PYFUNCTYPE(py_object, py_object)),
        ("quadexpr_terms", PYFUNCTYPE(py_object, py_object)),
        ("tree_node", PYFUNCTYPE(py_object, c_int32, c_int64, c_void_p)),
        ("tree_nodes", PYFUNCTYPE(c_int, c_int32, c_int64, c_int64, c_void_p, c_void_p)),
        ("tree_value", PYFUNCTYPE(c_int, py_object, POINTER(c_double))),
        ("nlexpr_new", PYFUNCTYPE(py_object, py_object)),
        ("nlexprs", PYFUNCTYPE(c_int, c_int64, c_void_p, c_void_p)),
        ("nlexpr_set_root", PYFUNCTYPE(c_int, py_object, py_object)),
        ("tempconstr", PYFUNCTYPE(py_object, py_object, py_object, py_object)),
    )


def _core_api() -> _CoreApi:
    get = ctypes.pythonapi.PyCapsule_GetPointer
    get.restype, get.argtypes = c_void_p, [py_object, c_char_p]
    return _CoreApi.from_address(get(_core._C_API, b"tarvopy._core._C_API"))


api = _core_api()
store = ctypes.CDLL(str(Path(_core.__file__).with_name("libtarvo140.so")))
store.TRVgeterrormsg.restype = c_char_p


def _doubles(values) -> np.ndarray:
    return np.ascontiguousarray(values, dtype=np.float64)


def _taken(out) -> list:
    """The objects of an array of new references, which ctypes knows nothing of."""
    result = list(out)
    for item in result:
        ctypes.pythonapi.Py_DecRef(py_object(item))
    return result


class NativeModel:
    """A model handle filled through the store's C functions, without the package's face."""

    def __init__(self, nvars: int = 0, *, update: bool = True) -> None:
        self.handle = _core._Model("native")
        self.vars = self.add_vars(nvars) if nvars else []
        if update:
            self.update()

    @property
    def pointer(self) -> c_void_p:
        return c_void_p(api.store(self.handle))

    def call(self, name: str, *args) -> None:
        code = getattr(store, name)(self.pointer, *args)
        assert code == 0, (code, store.TRVgeterrormsg(self.pointer))

    def add_ids(self, n: int) -> int:
        lb, ub, obj = c_double(0), c_double(1e30), c_double(0)
        first = c_int32()
        step = c_int(0)
        refs = [part for value in (lb, ub, obj) for part in (ctypes.byref(value), step)]
        self.call("TRVaddvars", c_int64(n), *refs, ctypes.byref(ctypes.c_char(b"C")), step, None, ctypes.byref(first))
        return first.value

    def add_vars(self, n: int) -> list:
        first = self.add_ids(n)
        return [api.scalar(self.handle, VAR, i) for i in range(first, first + n)]

    def add_row(self, coefs, ids, lower: float = 0.0, upper: float = 0.0):
        ptr = np.array([0, len(ids)], dtype=np.int64)
        ids, coefs = np.array(ids, dtype=np.int32), _doubles(coefs)
        first, step = c_int32(), c_int(0)
        arrays = [c_void_p(a.ctypes.data) for a in (ptr, ids, coefs)]
        sides = [part for value in (lower, upper) for part in (ctypes.byref(c_double(value)), step)]
        self.call("TRVaddrows", c_int64(1), *arrays, *sides, None, ctypes.byref(first))
        return api.scalar(self.handle, CONSTR, first.value)

    def add_qrow(self, expr, sense: str = "<", rhs: float = 0.0):
        """A quadratic row with the terms of a QuadExpr over this model's variables, all of them in the model."""

        class Rows(ctypes.Structure):
            _fields_ = [(name, c_void_p) for name in ("ptr", "var", "coef", "qptr", "var1", "var2", "qcoef")]

        linear, quadratic = list(expr.getLinExpr().terms()), list(expr.terms())
        arrays = [
            np.array([0, len(linear)], np.int64),
            np.array([v.index for _, v in linear], np.int32),
            _doubles([c for c, _ in linear]),
            np.array([0, len(quadratic)], np.int64),
            *(np.array([term[k].index for term in quadratic], np.int32) for k in (1, 2)),
            _doubles([c for c, _, _ in quadratic]),
        ]
        rows, step, first = Rows(*(a.ctypes.data for a in arrays)), c_int(0), c_int32()
        sides = [ctypes.byref(ctypes.c_char(sense.encode())), step, ctypes.byref(c_double(rhs)), step]
        self.call("TRVaddqrows", c_int64(1), ctypes.byref(rows), *sides, None, ctypes.byref(first))
        return api.scalar(self.handle, QCONSTR, first.value)

    def remove(self, kind: int, element_id: int) -> None:
        self.call("TRVremove", c_int(kind), c_int64(1), ctypes.byref(c_int32(element_id)))

    def update(self) -> None:
        self.call("TRVupdatemodel")

    def solve_with(self, x) -> None:
        """Commits x as an optimal solution."""

        class Result(ctypes.Structure):
            _fields_ = (
                [(name, c_int) for name in ("status", "has_x", "has_duals")]
                + [(name, c_double) for name in ("objval", "bound", "gap", "runtime", "itercount", "nodecount")]
                + [("engine", c_char_p), ("noduals", c_char_p)]
            )

        arrays = [POINTER(c_double)() for _ in range(3)]
        self.call("TRVopensolution", *[ctypes.byref(array) for array in arrays], None)
        for i, value in enumerate(x):
            arrays[0][i] = value
        nan = float("nan")
        self.call("TRVcommitsolution", ctypes.byref(Result(1, 1, 0, 0.0, 0.0, nan, 0.0, nan, nan, b"none")))

    def linexprs(self, ptr, ids, coef=None, scale: float = 1.0, constants=None) -> list:
        """One LinExpr a row of the CSR arrays."""
        ptr, ids = np.asarray(ptr, np.int64), np.asarray(ids, np.int32)
        optional = [None if a is None else _doubles(a) for a in (coef, constants)]
        pointers = [None if a is None else a.ctypes.data for a in optional]
        n = len(ptr) - 1
        out = (py_object * n)()
        api.linexprs(
            self.handle, n, ptr.ctypes.data, ids.ctypes.data, pointers[0], scale, pointers[1], ctypes.addressof(out)
        )
        return _taken(out)

    def quadexprs(self, ptr, ids1, ids2, coef=None, scale: float = 1.0) -> list:
        """One QuadExpr a row of the arrays."""
        ptr, ids1, ids2 = np.asarray(ptr, np.int64), np.asarray(ids1, np.int32), np.asarray(ids2, np.int32)
        ids1, ids2 = np.ascontiguousarray(ids1), np.ascontiguousarray(ids2)
        coef = None if coef is None else _doubles(coef)
        pointers = [None if a is None else a.ctypes.data for a in (ptr, ids1, ids2, coef)]
        n = len(ptr) - 1
        out = (py_object * n)()
        api.quadexprs(self.handle, n, *pointers, scale, ctypes.addressof(out))
        return _taken(out)
