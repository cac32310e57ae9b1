#include "operands.h"

#include "base.h"
#include "mlinexpr.h"
#include "names.h"
#include "pysupport/numbers.h"
#include "pysupport/shapes.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace tarvopy {

using namespace pysupport;

// ---- kinds ---------------------------------------------------------------------------------------------------------

namespace {

PyTypeObject *type(PyObject *cls) {
    return reinterpret_cast<PyTypeObject *>(cls);
}

Operand matrix_kind(PyObject *object) {
    if (PyObject_TypeCheck(object, type(mod.MVar)))
        return Operand::MVar;
    if (PyObject_TypeCheck(object, type(mod.MLinExpr)))
        return Operand::MLinExpr;
    if (PyObject_TypeCheck(object, type(mod.MQuadExpr)))
        return Operand::MQuadExpr;
    return PyObject_TypeCheck(object, type(mod.MNLExpr)) ? Operand::MNLExpr : Operand::Other;
}

} // namespace

Operand kind_of(PyObject *object) {
    if (PyFloat_CheckExact(object) || PyLong_CheckExact(object))
        return Operand::Scalar;
    if (is_matrix(object))
        return matrix_kind(object);
    const CoreApi &core = *mod.core;
    if (PyObject_TypeCheck(object, core.Var))
        return Operand::Var;
    if (PyObject_TypeCheck(object, core.LinExpr))
        return Operand::LinExpr;
    if (PyObject_TypeCheck(object, core.QuadExpr))
        return Operand::QuadExpr;
    if (PyObject_TypeCheck(object, core.NLExpr))
        return Operand::NLExpr;
    if (is_array(object))
        return Operand::Array;
    if (is_sparse(object))
        return Operand::Sparse;
    return is_scalar(object) ? Operand::Scalar : Operand::Other;
}

bool is_scalar(PyObject *object) {
    return is_number(object);
}

double number(PyObject *scalar) {
    double value;
    if (!number_value(scalar, &value))
        fail(PyExc_TypeError, "'%.200s' object is not a number", Py_TYPE(scalar)->tp_name);
    return value;
}

bool is_two(PyObject *object) {
    return is_scalar(object) && number(object) == 2.0;
}

bool is_array_of_two(PyObject *object) {
    return is_array(object) && PyArray_SIZE(as_array(object)) == 1 &&
           is_two(check(PyObject_CallMethodNoArgs(object, names.item)).get());
}

Ref plain_scalar(PyObject *scalar) {
    bool plain = PyFloat_Check(scalar) || PyLong_Check(scalar) || (numpy_loaded() && PyArray_IsScalar(scalar, Generic));
    return plain ? Ref::borrow(scalar) : check(PyFloat_FromDouble(number(scalar)));
}

// ---- arrays --------------------------------------------------------------------------------------------------------

namespace {

bool is_numpy_matrix(PyObject *array) {
    return std::string_view(Py_TYPE(array)->tp_name) == "matrix";
}

// The number types whose every value (to rounding) is a double; longdouble is not among them.
bool reads_as_double(int type) {
    return PyTypeNum_ISBOOL(type) || PyTypeNum_ISINTEGER(type) || type == NPY_HALF || type == NPY_FLOAT ||
           type == NPY_DOUBLE;
}

} // namespace

Ref as_doubles(PyObject *array) {
    PyArrayObject *given = as_array(array);
    if (!reads_as_double(PyArray_TYPE(given)) || (!PyArray_CheckExact(array) && !is_numpy_matrix(array)))
        return {};
    return check(
        PyArray_FROMANY(array, NPY_DOUBLE, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST));
}

Ref plain_array(PyObject *array) {
    return check(PyArray_EnsureArray(Ref::borrow(array).release()));
}

flat::Dense dense_of(const Ref &float_matrix) {
    PyArrayObject *array = as_array(float_matrix);
    int64_t item = sizeof(double);
    return {doubles(float_matrix), PyArray_DIM(array, 0), PyArray_DIM(array, 1), PyArray_STRIDE(array, 0) / item,
            PyArray_STRIDE(array, 1) / item};
}

// ---- shapes --------------------------------------------------------------------------------------------------------

flat::Shape shape_of_array(PyObject *array) {
    PyArrayObject *given = as_array(array);
    return {PyArray_DIMS(given), PyArray_DIMS(given) + PyArray_NDIM(given)};
}

flat::Shape shape_of_tuple(PyObject *tuple) {
    flat::Shape shape;
    if (!PyTuple_Check(tuple))
        fail(PyExc_TypeError, "a shape must be a tuple, not '%.200s'", Py_TYPE(tuple)->tp_name);
    for (Py_ssize_t d = 0; d < PyTuple_GET_SIZE(tuple); ++d)
        shape.push_back(check_value(PyLong_AsLongLong(PyTuple_GET_ITEM(tuple, d))));
    return shape;
}

bool too_large(const flat::Shape &shape) {
    if (std::find(shape.begin(), shape.end(), 0) != shape.end())
        return false;
    int64_t size = 1;
    for (int64_t extent : shape)
        if (__builtin_mul_overflow(size, extent, &size) || size > most_elements)
            return true;
    return false;
}

namespace {

flat::Shape of_bearable_size(flat::Shape result, const flat::Shape &a, const flat::Shape &b) {
    if (too_large(result))
        fail(PyExc_ValueError, "the result of an operation on shapes %S and %S has more than 2**31 elements",
             shape_tuple(a).get(), shape_tuple(b).get());
    return result;
}

} // namespace

flat::Shape broadcast_shapes(const flat::Shape &a, const flat::Shape &b) {
    return a == b ? a : of_bearable_size(shapes::broadcast(a, b), a, b);
}

flat::Shape matmul_shape(const flat::Shape &a, const flat::Shape &b) {
    return of_bearable_size(shapes::matmul(a, b), a, b);
}

void check_large_operand(PyObject *self, PyObject *array, bool is_broadcast) {
    flat::Shape shape = shape_of_array(array);
    if (too_large(shape))
        fail(PyExc_ValueError, "an operand of shape %S has more than 2**31 elements", shape_tuple(shape).get());
    flat::Shape own = shape_of_tuple(check(PyObject_GetAttr(self, names.shape)).get());
    if (is_broadcast && shapes::try_broadcast(own, shape))
        broadcast_shapes(own, shape);
}

namespace {

// How deep arrays of objects are nested in each other. An array that stands in several places is looked at once.
class Nesting {
  public:
    int height_of(PyObject *array, int depth) {
        if (depth > limit)
            refuse();
        if (auto known = heights_.find(array); known != heights_.end())
            return known->second;
        Ref plain = check(PyArray_FROM_OTF(array, NPY_OBJECT, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY));
        auto **elements = static_cast<PyObject **>(PyArray_DATA(as_array(plain)));
        int height = 0;
        for (npy_intp i = 0; i < PyArray_SIZE(as_array(plain)); ++i)
            if (elements[i] && is_array(elements[i]) && PyArray_TYPE(as_array(elements[i])) == NPY_OBJECT)
                height = std::max(height, 1 + height_of(elements[i], depth + 1));
        if (height > limit)
            refuse();
        return heights_[array] = height;
    }

  private:
    static constexpr int limit = 64; // as many as an array has dimensions
    std::unordered_map<PyObject *, int> heights_;

    [[noreturn]] static void refuse() {
        fail(PyExc_RecursionError, "arrays are nested more than %d deep, or hold themselves", limit);
    }
};

} // namespace

void check_nesting(PyObject *array) {
    Nesting().height_of(array, 0);
}

flat::Shape leading(const flat::Shape &shape) {
    return shape.size() > 2 ? flat::Shape(shape.begin(), shape.end() - 2) : flat::Shape();
}

} // namespace tarvopy
