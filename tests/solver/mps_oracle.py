"""HiGHS' own file reader, through its C interface, as the second opinion of the file tests.

oracle = read("afiro.mps")          None when HiGHS refuses the file
oracle["lb"], oracle["matrix"]      the keys of store.snapshot, so that two dictionaries can be compared entry by entry
"""

import ctypes
import functools
from pathlib import Path

import highsbox
import numpy as np

COLWISE, ERROR = 1, -1
# HighsVarType: continuous, integer, semi-continuous, semi-integer, implied integer.
VTYPES = np.array(list("CISNI"))


@functools.cache
def library() -> ctypes.CDLL:
    found = ctypes.CDLL(str(Path(highsbox.highs_lib_dir()) / "libhighs.so"))
    found.Highs_create.restype = ctypes.c_void_p
    return found


def read(path: object) -> dict | None:
    highs = library()
    handle = ctypes.c_void_p(highs.Highs_create())
    try:
        highs.Highs_setBoolOptionValue(handle, b"output_flag", 0)
        highs.Highs_setDoubleOptionValue(
            handle, b"small_matrix_value", ctypes.c_double(1e-12)
        )  # it drops what is smaller
        if highs.Highs_readModel(handle, str(path).encode()) == ERROR:
            return None
        return _data(highs, handle)
    finally:
        highs.Highs_destroy(handle)


def _data(highs: ctypes.CDLL, handle: ctypes.c_void_p) -> dict:
    nvars, nrows = highs.Highs_getNumCol(handle), highs.Highs_getNumRow(handle)
    nnz = highs.Highs_getNumNz(handle)
    counts = [ctypes.c_int() for _ in range(4)]
    constant = ctypes.c_double()
    obj, lb, ub = (np.zeros(nvars) for _ in range(3))
    lower, upper = (np.zeros(nrows) for _ in range(2))
    start, index, value = np.zeros(nvars + 1, np.int32), np.zeros(nnz, np.int32), np.zeros(nnz)
    kinds = np.zeros(max(nvars, 1), np.int32)
    arrays = (obj, lb, ub, lower, upper, start, index, value, kinds)
    places = [ctypes.c_void_p(array.ctypes.data) for array in arrays]
    sizes = [ctypes.byref(count) for count in counts]
    highs.Highs_getLp(handle, COLWISE, *sizes, ctypes.byref(constant), *places)
    start[-1] = nnz
    columns = np.repeat(np.arange(nvars), np.diff(start))
    return {
        "vars": [_name(highs.Highs_getColName, handle, i) for i in range(nvars)],
        "rows": [_name(highs.Highs_getRowName, handle, i) for i in range(nrows)],
        "lb": lb.tolist(),
        "ub": ub.tolist(),
        "obj": obj.tolist(),
        "vtype": "".join(VTYPES[kinds[:nvars]]),
        "lower": lower.tolist(),
        "upper": upper.tolist(),
        "constant": constant.value,
        "sense": counts[3].value,
        "matrix": {(int(i), int(j)): float(v) for i, j, v in zip(index, columns, value, strict=True) if v != 0},
    }


def _name(getter: object, handle: ctypes.c_void_p, position: int) -> str:
    text = ctypes.create_string_buffer(512)
    getter(handle, position, text)
    return text.value.decode()
