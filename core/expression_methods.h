// The methods that LinExpr and QuadExpr have alike, written once over the functions that linexpr.h and quadexpr.h give
// both (value_of, clear, copy, normalize, scale, text_of).
#pragma once

#include "quadexpr.h"

namespace tarvopy::core {

template <class Object> struct ExpressionMethods {
    static Object *expression(PyObject *self) { return reinterpret_cast<Object *>(self); }

    static PyObject *get_value(PyObject *self, PyObject *) {
        return border([&] { return check(PyFloat_FromDouble(value_of(expression(self)))); });
    }

    static PyObject *clear_contents(PyObject *self, PyObject *) {
        return border([&] {
            clear(expression(self));
            return Ref::none();
        });
    }

    static PyObject *make_copy(PyObject *self, PyObject *) {
        return border([&] { return copy(expression(self)); });
    }

    // Terms stand in plain lists always.
    static PyObject *flatten(PyObject *, PyObject *) { Py_RETURN_NONE; }

    static PyObject *merge_terms(PyObject *self, PyObject *) {
        return border([&] {
            normalize(expression(self));
            return Ref::none();
        });
    }

    static PyObject *multiply_by(PyObject *self, PyObject *factor) {
        return border([&] {
            double value = finite_number(factor, "Multiplier");
            scale(expression(self), {value, false});
            return Ref::none();
        });
    }

    static PyObject *refuse_pickling(PyObject *self, PyObject *) {
        PyErr_Format(PyExc_TypeError, "cannot pickle '%s' object: its variables belong to a model of this process",
                     Py_TYPE(self)->tp_name);
        return nullptr;
    }

    static PyObject *str(PyObject *self) {
        return border([&] { return text_of(expression(self)); });
    }
};

} // namespace tarvopy::core
