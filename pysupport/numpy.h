// NumPy's C interface, bound on first use, so that importing an extension imports no NumPy.
//
// Call need_numpy() at every entry that may meet an array: a PyArray_Check before the table is bound is a crash.
// `is_array` is safe before that: an object cannot be an array while nobody has imported NumPy.
#pragma once

#include "pysupport/error.h"

#define NPY_NO_DEPRECATED_API NPY_2_0_API_VERSION
#define NPY_TARGET_VERSION NPY_2_0_API_VERSION
#define PY_ARRAY_UNIQUE_SYMBOL tarvopy_array_api
#ifndef PYSUPPORT_OWNS_NUMPY
#define NO_IMPORT_ARRAY
#endif
#include <numpy/ndarrayobject.h>

namespace pysupport {

namespace detail {
void bind_numpy(); // throws what the import raises
}

inline void need_numpy() {
    if (!PyArray_API)
        detail::bind_numpy();
}

// True once somebody in this process has imported NumPy (and binds the table then).
bool numpy_loaded();

inline bool is_array(PyObject *object) {
    return (PyArray_API || numpy_loaded()) && PyArray_Check(object);
}

inline PyArrayObject *as_array(PyObject *object) {
    return reinterpret_cast<PyArrayObject *>(object);
}
inline PyArrayObject *as_array(const Ref &object) {
    return as_array(object.get());
}

} // namespace pysupport
