#include "arrays.h"

namespace tarvopy::highs {

using namespace pysupport;

namespace {

PyArrayObject *plain_array(PyObject *object, const char *name, int typenum, npy_intp length) {
    need_numpy();
    if (!PyArray_Check(object))
        fail(PyExc_TypeError, "%s must be an array, not %.100s", name, Py_TYPE(object)->tp_name);
    auto *array = as_array(object);
    if (PyArray_NDIM(array) != 1 || !PyArray_ISCARRAY_RO(array) || PyArray_TYPE(array) != typenum)
        fail(PyExc_TypeError, "%s is a %d-dimensional array of %S in a form that is not taken as it is", name,
             PyArray_NDIM(array), reinterpret_cast<PyObject *>(PyArray_DESCR(array)));
    if (length != any_length && PyArray_DIM(array, 0) != length)
        fail(PyExc_ValueError, "%s has %zd entries, expected %zd", name, static_cast<Py_ssize_t>(PyArray_DIM(array, 0)),
             static_cast<Py_ssize_t>(length));
    return array;
}

template <class Value> std::span<Value> span_of(PyArrayObject *array) {
    return {static_cast<Value *>(PyArray_DATA(array)), static_cast<size_t>(PyArray_DIM(array, 0))};
}

Ref new_array(npy_intp length, int typenum) {
    return check(PyArray_SimpleNew(1, &length, typenum));
}

} // namespace

std::span<const double> doubles(PyObject *object, const char *name, npy_intp length) {
    return span_of<const double>(plain_array(object, name, NPY_DOUBLE, length));
}

npy_intp length_of(PyObject *object, const char *name) {
    need_numpy();
    if (PyArray_Check(object) && PyArray_NDIM(as_array(object)) == 1)
        return PyArray_DIM(as_array(object), 0);
    return static_cast<npy_intp>(doubles(object, name).size()); // which says what is wrong
}

Numbers numbers(PyObject *object, const char *name, npy_intp length) {
    need_numpy();
    const bool array = PyArray_Check(object) && PyArray_NDIM(as_array(object)) == 1;
    if (array && PyArray_STRIDE(as_array(object), 0) == 0 && PyArray_DIM(as_array(object), 0) == length && length > 0 &&
        PyArray_TYPE(as_array(object)) == NPY_DOUBLE && PyArray_ISBEHAVED_RO(as_array(object)))
        return {static_cast<const double *>(PyArray_DATA(as_array(object))), 0};
    return {doubles(object, name, length).data(), 1};
}

std::span<const int32_t> integers(PyObject *object, const char *name, npy_intp length) {
    return span_of<const int32_t>(plain_array(object, name, NPY_INT32, length));
}

std::span<const char> characters(PyObject *object, const char *name, npy_intp length) {
    auto *array = plain_array(object, name, NPY_STRING, length);
    if (PyArray_ITEMSIZE(array) != 1)
        fail(PyExc_TypeError, "%s must hold single characters (dtype \"S1\")", name);
    return span_of<const char>(array);
}

std::span<double> writable_doubles(PyObject *object, const char *name, npy_intp length) {
    auto *array = plain_array(object, name, NPY_DOUBLE, length);
    if (!PyArray_ISWRITEABLE(array))
        fail(PyExc_ValueError, "%s cannot be written to", name);
    return span_of<double>(array);
}

std::span<const int32_t> ascending_positions(PyObject *object, const char *name, int32_t end) {
    auto positions = integers(object, name);
    int32_t last = -1;
    for (int32_t position : positions) {
        if (position <= last || position >= end)
            fail(PyExc_ValueError, "%s must hold ascending positions below %d, %d follows %d", name, end, position,
                 last);
        last = position;
    }
    return positions;
}

Ref new_doubles(npy_intp length) {
    return new_array(length, NPY_DOUBLE);
}
Ref new_integers(npy_intp length) {
    return new_array(length, NPY_INT32);
}

} // namespace tarvopy::highs
