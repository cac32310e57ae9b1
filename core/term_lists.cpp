#include "term_lists.h"

#include "operators.h"

namespace tarvopy::core {

Ref untracked_list(Py_ssize_t n) {
    Ref list = check(PyList_New(n));
    PyObject_GC_UnTrack(list.get());
    return list;
}

Scaling divisor(PyObject *number) {
    double value = finite_number(number, "Divisor");
    if (value == 0.0)
        fail(PyExc_ZeroDivisionError, "division of an expression by zero");
    return {value, true};
}

void fill_vars(const Ref &list, Py_ssize_t at, Items vars) {
    for (PyObject *var : vars)
        PyList_SET_ITEM(list.get(), at++, Py_NewRef(var));
}

void fill_coeffs(const Ref &list, Py_ssize_t at, Items coeffs, const Scaling &scaling) {
    if (scaling.is_identity())
        return fill_vars(list, at, coeffs);
    PyObject *last = nullptr, *last_scaled = nullptr; // borrowed
    for (PyObject *coeff : coeffs) {
        if (coeff != last) {
            last = coeff;
            last_scaled = check(PyFloat_FromDouble(scaling(PyFloat_AS_DOUBLE(last)))).release();
        } else {
            Py_INCREF(last_scaled);
        }
        PyList_SET_ITEM(list.get(), at++, last_scaled);
    }
}

Ref copied_vars(Items vars) {
    Ref list = untracked_list(static_cast<Py_ssize_t>(vars.size()));
    fill_vars(list, 0, vars);
    return list;
}

Ref scaled_coeffs(Items coeffs, const Scaling &scaling) {
    Ref list = untracked_list(static_cast<Py_ssize_t>(coeffs.size()));
    fill_coeffs(list, 0, coeffs, scaling);
    return list;
}

} // namespace tarvopy::core
