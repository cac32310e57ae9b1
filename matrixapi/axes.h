// The axes of a reduction: sum(axis=...) of variables and of expressions.
//
//   axes = result_axes(axis, 3)         axis=1: {0, -1, 1}; axis=None: {-1, -1, -1}
//   kept_shape({2, 3, 4}, axes)         {2, 4}
#pragma once

#include "matrixapi/flat.h"
#include "pysupport/error.h"

namespace tarvopy {

// For each axis its place in the result, -1 where it is summed away. TarvoError "Invalid axis specifications: ..." for
// what _util refuses.
std::vector<int> result_axes(PyObject *axis, size_t ndim);
flat::Shape kept_shape(const flat::Shape &shape, const std::vector<int> &axes);
// For each element in C order, the place of its sum in the result.
std::vector<int64_t> places_of_sums(const flat::Shape &shape, const std::vector<int> &axes);

} // namespace tarvopy
