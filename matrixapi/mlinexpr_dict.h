// The instance dictionary of MLinExpr, for the files that change its state.
//
// While a native form stands, the dictionary holds `_const` (compact) or nothing (full) beside what users put there;
// without one it holds all three documented attributes, in the order `_learr`, `_matmulparts`, `_const`.
#pragma once

#include "matrixapi/mlinexpr.h"

namespace tarvopy {

// What the dictionary has (borrowed), or AttributeError.
PyObject *documented(PyObject *expr, PyObject *name);
// Adds the documented attributes that are missing, in their order, before what users stored; what is there stays.
void show(PyObject *expr, PyObject *learr, PyObject *parts, PyObject *constant);
// The documented attributes get these values; the native form is dropped.
void store_documented(PyObject *expr, PyObject *learr, PyObject *parts, PyObject *constant);
void forget(PyObject *expr, PyObject *name);
// A dictionary that somebody else holds shows every change at once, as an ordinary object's does.
bool is_watched(PyObject *expr);
void install(PyObject *expr, std::unique_ptr<LinearNative> native);
// Everything that is not made yet.
void make_all(PyObject *expr);
// Of a compact expression.
Py_ssize_t number_of_parts(PyObject *expr);
// Whether the interpreter runs with assertions.
bool assertions_on();

} // namespace tarvopy
