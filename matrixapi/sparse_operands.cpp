// SciPy's matrices as operands: checked copies of what they store.
//
// SciPy's compiled conversions trust the arrays of a matrix: with an index out of range or too few pointers tocsr() and
// toarray() read and write beyond memory. So nothing of SciPy but attributes, and tocoo() of the formats that have no
// arrays of their own kind here, is called before they were looked at.
#include "mlinexpr.h"
#include "names.h"
#include "operands.h"
#include "pysupport/shapes.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// An integer array of any width, as int32 or int64.
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

// Rows and columns of the matrix that a sparse array is: a vector is one row.
std::pair<int64_t, int64_t> extents_of(const flat::Shape &shape) {
    if (shape.empty() || shape.size() > 2)
        fail(PyExc_ValueError, "a sparse matrix must have one or two dimensions, not %zd",
             static_cast<Py_ssize_t>(shape.size()));
    if (shape[0] < 0 || shape.back() < 0)
        fail(PyExc_ValueError, "a sparse matrix of shape %S", shape_tuple(shape).get());
    return {shape.size() == 1 ? 1 : shape[0], shape.back()};
}

StoredMatrix stored_as(PyObject *sparse, const flat::Shape &shape) {
    auto [rows, cols] = extents_of(shape);
    if (has_format(sparse, "csr"))
        return {StoredMatrix::Rows, csr_of_attributes(sparse, rows, cols), {}};
    if (has_format(sparse, "csc"))
        return {StoredMatrix::Columns, csr_of_attributes(sparse, cols, rows), {}};
    Ref entries =
        has_format(sparse, "coo") ? Ref::borrow(sparse) : check(PyObject_CallMethod(sparse, "tocoo", nullptr));
    if (sparse_shape(entries.get()) != shape)
        fail(PyExc_ValueError, "tocoo() of a sparse matrix of shape %S gave one of shape %S", shape_tuple(shape).get(),
             shape_tuple(sparse_shape(entries.get())).get());
    return {StoredMatrix::Entries, {}, coo_of_attributes(entries.get(), rows, cols)};
}

} // namespace

flat::Csr csr_of(PyObject *sparse) {
    need_numpy();
    StoredMatrix matrix = stored_as(sparse, sparse_shape(sparse));
    switch (matrix.layout) {
    case StoredMatrix::Rows:
        return std::move(matrix.csr);
    case StoredMatrix::Columns:
        return flat::transposed(matrix.csr);
    default:
        return flat::compressed(matrix.entries);
    }
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
    bool by_rows = expected.size() == 1 || !(has_format(sparse, "coo") || has_format(sparse, "csc"));
    if (by_rows)
        return {StoredMatrix::Rows, csr_of(sparse, expected), {}};
    flat::Shape shape = sparse_shape(sparse);
    if (shape != expected)
        fail_changed(expected, shape.at(0), shape.back());
    return stored_as(sparse, shape);
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

namespace {

// An n-dimensional coo_array as the matrix of one row that has its elements in C order.
Ref as_one_row(PyObject *sparse, const flat::Shape &shape) {
    Ref row = shape_tuple({1, flat::size_of(shape)});
    return check(PyObject_CallMethodOneArg(sparse, names.reshape, row.get()));
}

} // namespace

Ref to_dense(PyObject *sparse) {
    need_numpy();
    flat::Shape shape = sparse_shape(sparse);
    if (too_large(shape))
        fail(PyExc_ValueError, "a sparse matrix of shape %S has more than 2**31 elements", shape_tuple(shape).get());
    Ref matrix = shape.size() > 2 ? as_one_row(sparse, shape) : Ref::borrow(sparse);
    flat::Coo entries = entries_of(stored_as(matrix.get(), sparse_shape(matrix.get())));
    if (entries.rows * entries.cols != flat::size_of(shape))
        fail_changed(shape, entries.rows, entries.cols);
    Ref dense = check(PyArray_ZEROS(static_cast<int>(shape.size()), shape.data(), NPY_DOUBLE, 0));
    double *to = static_cast<double *>(PyArray_DATA(as_array(dense)));
    for (int64_t k = 0; k < entries.nnz(); ++k)
        to[entries.row[k] * entries.cols + entries.col[k]] += entries.value[k];
    return dense;
}

} // namespace tarvopy
