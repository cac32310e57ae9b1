// Errors: one way in, one way out.
//
// Inside a method a failing C-API call throws PythonError, with Python's error indicator set; `border` at the method's
// edge turns that back into NULL (or -1), and std::bad_alloc into MemoryError, std::invalid_argument (from code without
// Python in it) into ValueError.
//
//   Ref shape = check(PyObject_GetAttr(a, names.shape));       Ref of a new reference, or throws
//   check_status(PyList_Append(list, item));                   throws when the call returned below 0
//   fail(PyExc_ValueError, "Shape mismatch: %R", shape);       sets the indicator and throws
#pragma once

#include "pysupport/ref.h"

#include <cstdint>
#include <new>
#include <stdexcept>
#include <type_traits>

namespace pysupport {

// Thrown only while Python's error indicator is set.
struct PythonError {};

inline Ref check(PyObject *new_reference) {
    if (!new_reference)
        throw PythonError{};
    return Ref::steal(new_reference);
}

inline int check_status(int status) {
    if (status < 0)
        throw PythonError{};
    return status;
}

// For calls whose error value may also be a result (PyLong_AsLong, PyFloat_AsDouble).
template <class Value> Value check_value(Value value) {
    if (value == static_cast<Value>(-1) && PyErr_Occurred())
        throw PythonError{};
    return value;
}

template <class... Arguments> [[noreturn]] void fail(PyObject *type, const char *format, Arguments... arguments) {
    PyErr_Format(type, format, arguments...);
    throw PythonError{};
}

namespace detail {
inline void translate() noexcept {
    try {
        throw;
    } catch (const PythonError &) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_SystemError, "an error without its exception");
    } catch (const std::bad_alloc &) {
        PyErr_NoMemory();
    } catch (const std::length_error &) {
        PyErr_NoMemory();
    } catch (const std::invalid_argument &error) {
        PyErr_SetString(PyExc_ValueError, error.what());
    } catch (const std::exception &error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
}
} // namespace detail

// Drops n references and leaves NULL: the slots may be those of an array, which drops what it holds when it ends.
inline void clear_slots(PyObject **slots, int64_t n) {
    while (n > 0)
        Py_CLEAR(slots[--n]);
}

// out[i] = make(i), n references; on failure none.
template <class Make> void fill_slots(PyObject **out, int64_t n, Make make) {
    int64_t made = 0;
    try {
        for (; made < n; ++made)
            out[made] = make(made).release();
    } catch (...) {
        clear_slots(out, made);
        throw;
    }
}

// Runs a body that returns a Ref, and gives its reference to the interpreter.
template <class Body> PyObject *border(Body &&body) noexcept {
    try {
        return body().release();
    } catch (...) {
        detail::translate();
        return nullptr;
    }
}

// Runs a body that returns nothing; 0 or -1.
template <class Body> int border_status(Body &&body) noexcept {
    try {
        body();
        return 0;
    } catch (...) {
        detail::translate();
        return -1;
    }
}

} // namespace pysupport
