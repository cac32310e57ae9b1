"""The structs of tarvo.h and tarvo_engine.h for ctypes, field by field, and arrays as its functions take them."""

import ctypes as c

import numpy as np

i32p, i64p, f64p = c.POINTER(c.c_int32), c.POINTER(c.c_int64), c.POINTER(c.c_double)


def layout(*groups):
    """Fields of a struct from groups ("names of one type", type)."""
    return [(name, type_) for names, type_ in groups for name in names.split()]


class Names(c.Structure):
    _fields_ = layout(
        ("form", c.c_int),
        ("prefix", c.c_char_p),
        ("ndim", c.c_int),
        ("shape", i64p),
        ("text", c.c_char_p),
        ("offset", i64p),
    )


class OpenRows(c.Structure):
    _fields_ = layout(("ptr", i64p), ("var", i32p), ("coef", f64p))


class Data(c.Structure):
    _fields_ = layout(
        ("nvars nrows", c.c_int32),
        ("nnz", c.c_int64),
        ("lb ub obj", f64p),
        ("vtype", c.POINTER(c.c_char)),
        ("lower upper", f64p),
        ("objconstant", c.c_double),
        ("sense nintegral nsemi", c.c_int),
        ("start", f64p),
        ("nqobj", c.c_int64),
        ("nqrows nqlinear", c.c_int32),
        ("nqterms nqlinterms", c.c_int64),
        ("qsense", c.POINTER(c.c_char)),
        ("qrhs", f64p),
        ("nnlrows", c.c_int32),
        ("nnlcodes nnlobj", c.c_int64),
        ("nllower nlupper", f64p),
        ("ngens", c.c_int32),
    )


class Steps(c.Structure):
    _fields_ = layout(("lb ub lower upper", c.c_int))


class Matrix(c.Structure):
    _fields_ = layout(("nmajor nnz", c.c_int64), ("start index", i32p), ("value", f64p))


class QRows(c.Structure):
    _fields_ = layout(
        ("ptr", i64p), ("var", i32p), ("coef", f64p), ("qptr", i64p), ("var1 var2", i32p), ("qcoef", f64p)
    )


class QMatrix(c.Structure):
    _fields_ = layout(
        ("nrows nnz nquad", c.c_int64),
        ("start index", i32p),
        ("value", f64p),
        ("qstart qvar1 qvar2", i32p),
        ("qvalue", f64p),
    )


class NlRows(c.Structure):
    _fields_ = layout(
        ("ptr", i64p),
        ("var", i32p),
        ("coef", f64p),
        ("codeptr", i64p),
        ("code", i32p),
        ("nconstants", c.c_int64),
        ("constant", f64p),
    )


class Removal(c.Structure):
    _fields_ = layout(("kind", c.c_int), ("n", c.c_int64), ("ids", i32p))


class NlTape(c.Structure):
    _fields_ = layout(("ncodes", c.c_int64), ("code", i32p), ("nconstants", c.c_int64), ("constant", f64p))


class Gens(c.Structure):
    _fields_ = layout(
        ("ngens", c.c_int64),
        ("argptr ptr", i64p),
        ("var", i32p),
        ("coef constant", f64p),
        ("dataptr", i64p),
        ("data", f64p),
    )


class GenMatrix(c.Structure):
    _fields_ = layout(
        ("ngens nargs nnz ndata", c.c_int64),
        ("type", i32p),
        ("argptr ptr dataptr", i64p),
        ("index", i32p),
        ("value constant data", f64p),
    )


class Cones(c.Structure):
    _fields_ = layout(
        ("ncones nrows nnz", c.c_int64),
        ("qrow cone start index", i32p),
        ("value offset", f64p),
        ("form", c.POINTER(c.c_char)),
        ("weight", f64p),
    )


class Changes(c.Structure):
    _fields_ = layout(
        ("structure quadratic objconstant sense", c.c_int),
        ("nbounds ncosts nsides ncoefs", c.c_int64),
        ("bounds costs sides coefrows coefvars", i32p),
    )


class Result(c.Structure):
    _fields_ = layout(
        ("status has_x has_duals", c.c_int),
        ("objval bound gap runtime itercount nodecount", c.c_double),
        ("engine", c.c_char_p),
        ("noduals", c.c_char_p),
    )


class Residuals(c.Structure):
    _fields_ = layout(
        ("row bound integral dual complementarity", c.c_double),
        ("worstrow worstbound worstintegral worstdual worstcomplementarity", c.c_int32),
        ("rowscale boundscale dualscale complementarityscale", c.c_double),
    )


class Offender(c.Structure):
    _fields_ = layout(("violation scale", c.c_double), ("element", c.c_int32))


class AttrInfo(c.Structure):
    _fields_ = [("name", c.c_char_p), ("kind", c.c_int), ("type", c.c_int), ("settable", c.c_int)]


def f64_array(values):
    return np.ascontiguousarray(np.atleast_1d(np.asarray(values, dtype=np.float64)))


def i32_array(values):
    return np.ascontiguousarray(np.atleast_1d(np.asarray(values, dtype=np.int32)))


def ptr_to(array, type_):
    return None if array is None else array.ctypes.data_as(type_)


def step_of(array, n):
    return c.c_int(1 if len(array) > 1 or n == 1 else 0)


def copied(pointer, n, dtype):
    return np.ctypeslib.as_array(pointer, (n,)).copy() if n else np.empty(0, dtype)
