#include "operands.h"

#include "base.h"
#include "mlinexpr.h"
#include "names.h"
#include "pysupport/numbers.h"
#include "pysupport/shapes.h"

#include <string_view>

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

bool is_sparse(PyObject *object) {
    static PyObject *issparse = nullptr; // kept for the life of the process
    if (!issparse) {
        PyObject *module = PyDict_GetItemString(PyImport_GetModuleDict(), "scipy.sparse"); // borrowed
        if (!module || !(issparse = PyObject_GetAttrString(module, "issparse"))) {
            PyErr_Clear();
            return false;
        }
    }
    Ref answer = check(PyObject_CallOneArg(issparse, object));
    return answer.is(Py_True);
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

Ref to_dense(PyObject *sparse) {
    Ref dense = check(PyObject_CallMethodNoArgs(sparse, names.toarray));
    need_numpy();
    if (!PyArray_Check(dense.get()))
        fail(PyExc_TypeError, "toarray() of %.200s gave no array", Py_TYPE(sparse)->tp_name);
    return plain_array(dense.get());
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

flat::Shape broadcast_shapes(const flat::Shape &a, const flat::Shape &b) {
    return a == b ? a : shapes::broadcast(a, b);
}

flat::Shape matmul_shape(const flat::Shape &a, const flat::Shape &b) {
    return shapes::matmul(a, b);
}

flat::Shape leading(const flat::Shape &shape) {
    return shape.size() > 2 ? flat::Shape(shape.begin(), shape.end() - 2) : flat::Shape();
}

// ---- sparse matrices -----------------------------------------------------------------------------------------------

namespace {

// An integer array of any width, as int64.
Ref index_array(PyObject *given, const char *name) {
    if (!PyArray_Check(given) || !PyTypeNum_ISINTEGER(PyArray_TYPE(as_array(given))) ||
        PyArray_NDIM(as_array(given)) != 1)
        fail(PyExc_ValueError, "%s of a sparse matrix must be a one-dimensional array of integers", name);
    return check(PyArray_FROMANY(
        given,
        PyArray_ITEMSIZE(as_array(given)) <= 4 && PyArray_TYPE(as_array(given)) != NPY_UINT32 ? NPY_INT32 : NPY_INT64,
        1, 1, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST));
}

Ref value_array(PyObject *given) {
    if (!PyArray_Check(given) ||
        !(PyTypeNum_ISBOOL(PyArray_TYPE(as_array(given))) || PyTypeNum_ISINTEGER(PyArray_TYPE(as_array(given))) ||
          PyTypeNum_ISFLOAT(PyArray_TYPE(as_array(given)))))
        fail(PyExc_TypeError, "the entries of a sparse matrix must be an array of real numbers, not of %R",
             PyArray_Check(given) ? reinterpret_cast<PyObject *>(PyArray_DESCR(as_array(given)))
                                  : reinterpret_cast<PyObject *>(Py_TYPE(given)));
    return check(
        PyArray_FROMANY(given, NPY_DOUBLE, 0, 0, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST));
}

// Calls use(pointer to the entries) with the array's own width.
template <class Use> auto with_entries(const Ref &array, Use use) {
    void *data = PyArray_DATA(as_array(array));
    return PyArray_ITEMSIZE(as_array(array)) == 4 ? use(static_cast<const int32_t *>(data))
                                                  : use(static_cast<const int64_t *>(data));
}

flat::Buffer<int64_t> checked_pointers(const Ref &indptr, int64_t rows, int64_t available) {
    int64_t given = PyArray_SIZE(as_array(indptr));
    if (given != rows + 1)
        fail(PyExc_ValueError, "a sparse matrix with %lld rows needs %lld row pointers, not %lld",
             static_cast<long long>(rows), static_cast<long long>(rows + 1), static_cast<long long>(given));
    flat::Buffer<int64_t> result(rows + 1);
    with_entries(indptr, [&](auto *from) {
        int64_t *to = result.write(), last = 0;
        for (int64_t i = 0; i <= rows; ++i) {
            int64_t pointer = from[i];
            if (pointer < last || (i == 0 && pointer != 0))
                fail(PyExc_ValueError, "row pointers of a sparse matrix must not decrease from 0: entry %lld is %lld",
                     static_cast<long long>(i), static_cast<long long>(pointer));
            to[i] = last = pointer;
        }
        return 0;
    });
    if (result[rows] > available)
        fail(PyExc_ValueError, "row pointers of a sparse matrix end at %lld, but it has %lld entries",
             static_cast<long long>(result[rows]), static_cast<long long>(available));
    return result;
}

flat::Buffer<int32_t> checked_indices(const Ref &indices, int64_t nnz, int64_t limit, const char *what = "column") {
    flat::Buffer<int32_t> result(nnz);
    with_entries(indices, [&](auto *from) {
        // One test for all, kept out of the loop's way: the first bad entry is looked for only if there is one.
        if (flat::copy_columns(from, nnz, limit, result.write()))
            return 0;
        for (int64_t k = 0; k < nnz; ++k)
            if (from[k] < 0 || from[k] >= limit)
                fail(PyExc_ValueError, "%s index %lld of a sparse matrix is out of range for %lld %ss", what,
                     static_cast<long long>(from[k]), static_cast<long long>(limit), what);
        return 0;
    });
    return result;
}

void need_small(int64_t rows, int64_t cols) {
    if (cols > INT32_MAX || rows > INT32_MAX)
        fail(PyExc_ValueError, "a sparse matrix of shape (%lld, %lld) is too large", static_cast<long long>(rows),
             static_cast<long long>(cols));
}

void need_one_each(const Ref &indices, const Ref &values, const char *what) {
    if (PyArray_NDIM(as_array(values)) != 1 || PyArray_SIZE(as_array(indices)) != PyArray_SIZE(as_array(values)))
        fail(PyExc_ValueError, "a sparse matrix has %lld %s indices but %lld entries",
             static_cast<long long>(PyArray_SIZE(as_array(indices))), what,
             static_cast<long long>(PyArray_SIZE(as_array(values))));
}

bool has_format(PyObject *sparse, const char *format) {
    Ref own = check(PyObject_GetAttr(sparse, names.format));
    return PyUnicode_Check(own.get()) && PyUnicode_EqualToUTF8(own.get(), format);
}

flat::Shape sparse_shape(PyObject *sparse) {
    return shape_of_tuple(check(PyObject_GetAttr(sparse, names.shape)).get());
}

} // namespace

flat::Csr csr_from_arrays(PyObject *indptr, PyObject *indices, PyObject *data, int64_t rows, int64_t cols) {
    need_numpy();
    need_small(rows, cols);
    Ref pointers = index_array(indptr, "indptr"), columns = index_array(indices, "indices"), values = value_array(data);
    need_one_each(columns, values, "column");
    flat::Csr csr{rows, cols, checked_pointers(pointers, rows, PyArray_SIZE(as_array(values))), {}, {}};
    csr.index = checked_indices(columns, csr.nnz(), cols);
    csr.value = flat::Buffer<double>::copy_of(doubles(values), csr.nnz());
    return csr;
}

namespace {

flat::Csr csr_of_attributes(PyObject *compressed, int64_t rows, int64_t cols) {
    Ref indptr = check(PyObject_GetAttr(compressed, names.indptr));
    Ref indices = check(PyObject_GetAttr(compressed, names.indices));
    Ref data = check(PyObject_GetAttr(compressed, names.data));
    return csr_from_arrays(indptr.get(), indices.get(), data.get(), rows, cols);
}

flat::Coo coo_of_attributes(PyObject *sparse, int64_t rows, int64_t cols) {
    need_small(rows, cols);
    Ref row = index_array(check(PyObject_GetAttr(sparse, names.row)).get(), "row");
    Ref col = index_array(check(PyObject_GetAttr(sparse, names.col)).get(), "col");
    Ref values = value_array(check(PyObject_GetAttr(sparse, names.data)).get());
    need_one_each(row, values, "row");
    need_one_each(col, values, "column");
    int64_t nnz = PyArray_SIZE(as_array(values));
    return {rows,
            cols,
            checked_indices(row, nnz, rows, "row"),
            checked_indices(col, nnz, cols),
            flat::Buffer<double>::copy_of(doubles(values), nnz),
            true};
}

[[noreturn]] void fail_changed(const flat::Shape &expected, int64_t rows, int64_t cols) {
    fail(PyExc_ValueError, "a sparse matrix of shape %R became one of shape (%lld, %lld) while it was read",
         shape_tuple(expected).get(), static_cast<long long>(rows), static_cast<long long>(cols));
}

} // namespace

flat::Csr csr_of(PyObject *sparse) {
    need_numpy();
    Ref own = Ref::borrow(sparse);
    if (has_format(sparse, "coo") &&
        sparse_shape(sparse).size() == 1) // SciPy would add up its doubled entries in place
        own = check(PyObject_CallMethodNoArgs(sparse, names.copy));
    Ref csr = has_format(sparse, "csr") ? std::move(own) : check(PyObject_CallMethodNoArgs(own.get(), names.tocsr));
    flat::Shape shape = sparse_shape(csr.get());
    if (shape.size() == 1) // a one-dimensional sparse array is one row
        shape.insert(shape.begin(), 1);
    if (shape.size() != 2)
        fail(PyExc_ValueError, "a sparse matrix must have one or two dimensions, not %zd",
             static_cast<Py_ssize_t>(shape.size()));
    return csr_of_attributes(csr.get(), shape[0], shape[1]);
}

flat::Csr csr_of(PyObject *sparse, const flat::Shape &expected) {
    flat::Csr csr = csr_of(sparse);
    bool vector = expected.size() == 1; // read as one row
    if ((vector ? 1 : expected[0]) != csr.rows || expected.back() != csr.cols)
        fail_changed(expected, csr.rows, csr.cols);
    return csr;
}

StoredMatrix stored_matrix(PyObject *sparse, const flat::Shape &expected) {
    need_numpy();
    bool coo = expected.size() == 2 && has_format(sparse, "coo");
    bool csc = expected.size() == 2 && !coo && has_format(sparse, "csc");
    if (!coo && !csc)
        return {StoredMatrix::Rows, csr_of(sparse, expected), {}};
    flat::Shape shape = sparse_shape(sparse);
    if (shape != expected)
        fail_changed(expected, shape.at(0), shape.back());
    if (coo)
        return {StoredMatrix::Entries, {}, coo_of_attributes(sparse, shape[0], shape[1])};
    return {StoredMatrix::Columns, csr_of_attributes(sparse, shape[1], shape[0]), {}};
}

flat::Coo entries_of(const StoredMatrix &matrix) {
    switch (matrix.layout) {
    case StoredMatrix::Rows:
        return flat::entries_of(matrix.csr);
    case StoredMatrix::Columns:
        return flat::transposed(flat::entries_of(matrix.csr));
    default:
        return matrix.entries;
    }
}

} // namespace tarvopy
