// SciPy's matrices where a user may give one.
//
// SciPy's compiled conversions trust the arrays of a matrix, and its own iteration converts: with an index out of range
// or too few pointers both read and write beyond memory. So what takes sequences refuses such a matrix, and what has a
// use for one goes through a checked copy.
#pragma once

#include "pysupport/ref.h"

namespace pysupport {

// Imports nothing: nobody has such a matrix before scipy.sparse is there.
bool is_sparse(PyObject *object);

// In SciPy's own class for the format (or as coordinates), with indices and pointers that fit its shape; ValueError.
Ref checked_copy(PyObject *sparse);

// TypeError for a sparse matrix: "reshape() takes numbers, not 'csr_array'", the first part being `what`.
void refuse_sparse(PyObject *object, const char *what);

// The items of a sequence in a tuple of their own, which nothing that runs while they are read can change.
Ref own_items(PyObject *sequence, const char *what);

} // namespace pysupport
