// NumPy's functions on matrix objects: numpy.sum(x), numpy.dot(A, x), ...
#pragma once

#include "pysupport/error.h"

namespace tarvopy {

// The method __array_function__ of all matrix classes.
extern const PyMethodDef array_function_method;

} // namespace tarvopy
