// Reading the coefficients and variables that addTerms is given.
#include "operators.h"
#include "pysupport/numbers.h"
#include "pysupport/numpy.h"
#include "pysupport/sparse.h"
#include "term_lists.h"

namespace tarvopy::core {

namespace {

// A view of one number may have any shape and costs nothing before it is made a list.
void need_bearable(PyObject *array, const char *what) {
    constexpr npy_intp most = npy_intp{1} << 31;
    npy_intp size = PyArray_SIZE(pysupport::as_array(array));
    if (size > most)
        fail(PyExc_ValueError, "%s are an array of %zd elements, more than 2**31", what, size);
}

// Arrays as lists, in C order: NumPy's, and MVar through its own reshape and tolist. Other objects as they are.
Ref without_arrays(PyObject *object, const char *what) {
    if (PyList_Check(object) || PyTuple_Check(object))
        return Ref::borrow(object);
    if (pysupport::is_array(object)) {
        need_bearable(object, what);
        Ref plain = check(PyArray_FROM_OF(object, NPY_ARRAY_ENSUREARRAY)); // a numpy.matrix stays two-dimensional
        Ref flat = check(PyArray_Ravel(pysupport::as_array(plain), NPY_CORDER));
        return check(PyArray_ToList(pysupport::as_array(flat)));
    }
    if (!PyObject_HasAttrString(object, "tolist") || !PyObject_HasAttrString(object, "reshape"))
        return Ref::borrow(object);
    Ref flat = check(PyObject_CallMethod(object, "reshape", "i", -1));
    return check(PyObject_CallMethod(flat.get(), "tolist", nullptr));
}

// What an argument of addTerms holds, as a tuple: nothing that runs while its items are read can change it.
Ref given_items(PyObject *object, const char *what) {
    if (PyUnicode_Check(object) || PyBytes_Check(object))
        fail(PyExc_TypeError, "%s cannot be given as a string", what);
    if (pysupport::is_sparse(object))
        fail(PyExc_TypeError, "%s cannot be given as a sparse matrix", what);
    return check(PySequence_Tuple(without_arrays(object, what).get()));
}

// Exact floats, checked; every __float__ has run when this returns.
Ref float_list(PyObject *numbers) {
    Ref items = given_items(numbers, "coefficients");
    Ref floats = untracked_list(PyTuple_GET_SIZE(items.get()));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
        PyObject *item = PyTuple_GET_ITEM(items.get(), i);
        double value = finite_number(item, "Coefficient");
        PyList_SET_ITEM(floats.get(), i,
                        PyFloat_CheckExact(item) ? Py_NewRef(item) : check(PyFloat_FromDouble(value)).release());
    }
    return floats;
}

Ref repeated(PyObject *number, Py_ssize_t n) {
    Ref value = check(PyFloat_FromDouble(finite_number(number, "Coefficient")));
    Ref floats = untracked_list(n);
    for (Py_ssize_t i = 0; i < n; ++i)
        PyList_SET_ITEM(floats.get(), i, Py_NewRef(value.get()));
    return floats;
}

} // namespace

Ref variables_given(PyObject *vars) {
    Ref items = is_var(vars) ? check(PyTuple_Pack(1, vars)) : given_items(vars, "variables");
    Ref list = untracked_list(PyTuple_GET_SIZE(items.get()));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
        PyObject *item = PyTuple_GET_ITEM(items.get(), i);
        if (!is_var(item))
            fail(PyExc_TypeError, "variables must be Var objects, not '%.200s'", Py_TYPE(item)->tp_name);
        PyList_SET_ITEM(list.get(), i, Py_NewRef(item));
    }
    return list;
}

Ref coefficients_given(PyObject *coeffs, Py_ssize_t n) {
    return pysupport::is_number(coeffs) ? repeated(coeffs, n) : float_list(coeffs);
}

} // namespace tarvopy::core
