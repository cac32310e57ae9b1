// How arrays of expressions print.
#pragma once

#include "matrixapi/names.h"

namespace tarvopy {

// repr of an object array, a space before each element's text, without its last comma and what follows: it lacks the
// closing parenthesis.
Ref printed_elements(const Ref &array);

// What format() makes of an object, for a message. A sparse matrix is checked first: SciPy crashes over the text of a
// damaged one.
Ref text_of(PyObject *object);

} // namespace tarvopy
