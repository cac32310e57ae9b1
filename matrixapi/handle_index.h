// Indexing by ints and slices without NumPy, and the marks that the handles print.
#pragma once

#include "matrixapi/handle.h"

namespace tarvopy {

// The part of a layout under a key of ints, slices, None and at most one Ellipsis, as NumPy means it; `element` where
// all axes get an int. False for any other key and for an index out of range. Runs no Python code.
bool basic_cut(const Layout &layout, PyObject *key, Layout &part, bool &element);

// The part of a native handle under such a key: an element (a block of its own), or a view. Empty for any other key and
// for an index out of range: NumPy answers those. An x[i, j] costs a third of NumPy's way over an array view.
Ref basic_index(const IdsNative &native, PyObject *key);

struct IndexMarks {
    bool pending = false; // some index is -1
    bool removed = false; // some index is -2 or less
    int32_t largest = -1;
};
IndexMarks index_marks(PyObject *self, const HandleClass &of);

} // namespace tarvopy
