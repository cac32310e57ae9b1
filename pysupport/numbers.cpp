#include "pysupport/numbers.h"

#include "pysupport/numpy.h"

namespace pysupport {

namespace {

// numbers.Real and decimal.Decimal. Fetched when the first unknown type with a __float__ comes by; kept for good.
PyObject *real_types() {
    static PyObject *types = nullptr;
    if (!types) {
        Ref numbers = check(PyImport_ImportModule("numbers"));
        Ref decimal = check(PyImport_ImportModule("decimal"));
        Ref real = check(PyObject_GetAttrString(numbers.get(), "Real"));
        Ref number = check(PyObject_GetAttrString(decimal.get(), "Decimal"));
        types = check(PyTuple_Pack(2, real.get(), number.get())).release();
    }
    return types;
}

bool is_numpy_scalar(PyObject *object) {
    return numpy_loaded() && PyArray_IsScalar(object, Generic);
}

bool is_real_numpy_scalar(PyObject *object) {
    if (PyArray_IsScalar(object, Bool))
        return true;
    return PyArray_IsScalar(object, Number) && !PyArray_IsScalar(object, ComplexFloating) &&
           !PyArray_IsScalar(object, Timedelta);
}

} // namespace

bool detail::is_foreign_number(PyObject *object) {
    const PyNumberMethods *methods = Py_TYPE(object)->tp_as_number;
    if (!methods || (!methods->nb_float && !methods->nb_index) || PyComplex_Check(object))
        return false;
    if (is_numpy_scalar(object))
        return is_real_numpy_scalar(object);
    if (is_array(object))
        return false;
    return check_status(PyObject_IsInstance(object, real_types())) == 1;
}

bool detail::foreign_number_value(PyObject *object, double *value) {
    if (!is_foreign_number(object))
        return false;
    *value = check_value(PyFloat_AsDouble(object));
    return true;
}

} // namespace pysupport
