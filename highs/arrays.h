// arrays.h: NumPy arrays as spans, and options as Python values.
//
//   std::span<const double> lb = doubles(object, "lb", ncols);      one-dimensional, contiguous, exactly this type and
//   length std::span<double> x = writable_doubles(object, "x", ncols);
//
// Nothing is converted and nothing copied: what is handed over in bulk is in the right form already, so any other form
// is a mistake of the caller (TypeError, ValueError). The spans live as long as the arrays.
#pragma once

#include "handover.h"
#include "pysupport/numpy.h"

#include <cstdint>
#include <span>

namespace tarvopy::highs {

inline constexpr npy_intp any_length = -1;

std::span<const double> doubles(PyObject *object, const char *name, npy_intp length = any_length);
// As doubles, or one number for all in an array whose stride is 0.
Numbers numbers(PyObject *object, const char *name, npy_intp length);
npy_intp length_of(PyObject *object, const char *name);
std::span<const int32_t> integers(PyObject *object, const char *name, npy_intp length = any_length);
// Single characters, dtype "S1".
std::span<const char> characters(PyObject *object, const char *name, npy_intp length = any_length);
std::span<double> writable_doubles(PyObject *object, const char *name, npy_intp length);
// Every entry stands for a position below `end`, and they ascend (HiGHS wants sets that way).
std::span<const int32_t> ascending_positions(PyObject *object, const char *name, int32_t end);

// New arrays of the given length.
pysupport::Ref new_doubles(npy_intp length);
pysupport::Ref new_integers(npy_intp length);

} // namespace tarvopy::highs
