// Lists that nobody hands to Python code.
#pragma once

#include "pysupport/ref.h"

namespace pysupport {

// Drops what stands behind the first `size` items. PyList_SetSlice may need memory for that, which is missing when an
// append is taken back because there was none.
inline void truncate(PyObject *list, Py_ssize_t size) {
    for (Py_ssize_t last = PyList_GET_SIZE(list) - 1; last >= size; --last) {
        PyObject *item = PyList_GET_ITEM(list, last);
        Py_SET_SIZE(list, last);
        Py_DECREF(item);
    }
}

} // namespace pysupport
