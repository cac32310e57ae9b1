// Which objects count as plain numbers, and their value as a double.
//
//   double value;
//   if (number_value(object, &value)) ...       false: not a number, nothing raised
//
// Numbers are float, int and bool, NumPy's real scalars (np.float64, np.int32, np.bool_, ...), and what Python itself
// calls a real number: instances of numbers.Real (Fraction) and decimal.Decimal. Not numbers: complex values, strings,
// dates and durations, arrays of any kind (0-dimensional ones too), and other objects that merely have a __float__,
// such as a table column of length one.
#pragma once

#include "pysupport/error.h"

namespace pysupport {

namespace detail {
bool is_foreign_number(PyObject *object);
bool foreign_number_value(PyObject *object, double *value);
} // namespace detail

// May run Python code (an instance check) only for types that Python and NumPy do not define.
inline bool is_number(PyObject *object) {
    return PyFloat_Check(object) || PyLong_Check(object) || detail::is_foreign_number(object);
}

// May run the object's __float__; throws what that raises, and OverflowError for an int beyond the doubles.
inline bool number_value(PyObject *object, double *value) {
    if (PyFloat_Check(object)) {
        *value = PyFloat_AS_DOUBLE(object);
        return true;
    }
    if (PyLong_Check(object)) {
        *value = check_value(PyLong_AsDouble(object));
        return true;
    }
    return detail::foreign_number_value(object, value);
}

} // namespace pysupport
