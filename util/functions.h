// The functions of tarvopy._util, one file for each group.
#pragma once

#include "collaborators/core.h"
#include "pysupport/shapes.h"

namespace tarvopy::util {

extern const CoreApi *core;

using Function = PyObject *(PyObject *, PyObject *const *, Py_ssize_t, PyObject *);

// ---- shape_functions.cpp
Function broadcast_shapes, axis_to_axeslist, matmul_shape;

// ---- matmul_kernels.cpp
Function dense_matmul_kernel, sparse_right_matmul_kernel, sparse_left_matmul_kernel;

// ---- same_elements.cpp
PyObject *all_refs_match(PyObject *, PyObject *const *args, Py_ssize_t nargs);

} // namespace tarvopy::util
