"""libtarvo140 as ctypes loads it, and names as its functions take them."""

import ctypes as c
import importlib.util
import pathlib

import numpy as np

from solver.store_layout import AttrInfo, Names, i64p, ptr_to


def _load():
    spec = importlib.util.find_spec("tarvopy")  # finds the folder without running the package
    for folder in spec.submodule_search_locations:
        path = pathlib.Path(folder) / "libtarvo140.so"
        if path.exists():
            return c.CDLL(str(path))
    raise FileNotFoundError("libtarvo140.so is not beside the package tarvopy")


lib = _load()
lib.TRVgeterrormsg.restype = c.c_char_p
lib.TRVfindattr.restype = c.POINTER(AttrInfo)
lib.TRVattrat.restype = c.POINTER(AttrInfo)
lib.TRVfree.argtypes = [c.c_void_p]
lib.TRVfree.restype = lib.TRVfreemodel.restype = lib.TRVdroprows.restype = lib.TRVpositions.restype = None
lib.TRVfreegenmatrix.restype = lib.TRVsetstop.restype = None
lib.TRVmalloc.restype, lib.TRVmalloc.argtypes, lib.TRVfree.argtypes = c.c_void_p, [c.c_size_t], [c.c_void_p]
lib.TRVfreematrix.restype = lib.TRVfreecones.restype = lib.TRVfreeqmatrix.restype = lib.TRVclearchanges.restype = None


def textblock(names):
    """One block of bytes and the offsets of the names in it."""
    encoded = [name.encode() for name in names]
    return b"".join(encoded), np.concatenate([[0], np.cumsum([len(e) for e in encoded])]).astype(np.int64)


def makenames(names):
    """None, a prefix and its shape, or a list of names, as the struct (its arrays must outlive the call)."""
    if names is None:
        return None, None
    if isinstance(names, tuple):
        prefix, shape = names
        dims = np.array(shape, dtype=np.int64)
        return Names(1, prefix.encode(), len(shape), ptr_to(dims, i64p), None, None), dims
    text, offset = textblock(names)
    return Names(2, None, 0, None, text, ptr_to(offset, i64p)), (text, offset)
