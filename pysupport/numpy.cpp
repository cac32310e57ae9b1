#define PYSUPPORT_OWNS_NUMPY
#include "pysupport/numpy.h"

namespace pysupport {

void detail::bind_numpy() {
    if (_import_array() < 0)
        throw PythonError{};
}

bool numpy_loaded() {
    if (PyArray_API)
        return true;
    PyObject *modules = PyImport_GetModuleDict(); // borrowed
    // The inner module is the last that a working `import numpy` needs here; a half-imported NumPy does not have it.
    if (!modules || !PyDict_GetItemString(modules, "numpy._core._multiarray_umath"))
        return false;
    if (_import_array() < 0) {
        PyErr_Clear();
        return false;
    }
    return true;
}

} // namespace pysupport
