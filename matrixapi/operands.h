// What stands on the other side of an operator: kinds of operand, and numeric operands as plain arrays.
//
//   switch (kind_of(other)) { case Operand::Array: ...                one dispatch for every operator
//   Ref a = as_doubles(other)        a C-contiguous float64 ndarray (never a subclass), or empty: element by element
//   flat::Csr m = csr_of(sparse)     a checked copy of a SciPy matrix of any format
#pragma once

#include "flat_product.h"
#include "pysupport/error.h"
#include "pysupport/numpy.h"
#include "pysupport/sparse.h"

namespace tarvopy {

using pysupport::Ref;

enum class Operand {
    MVar,
    MLinExpr,
    MQuadExpr,
    MNLExpr,
    Var,
    LinExpr,
    QuadExpr,
    NLExpr,
    Array,
    Sparse,
    Scalar,
    Other,
};

// Arrays and SciPy's matrices are recognised only where NumPy and SciPy are loaded already: an operand cannot be one
// before.
Operand kind_of(PyObject *object);
bool is_scalar(PyObject *object); // a plain number, as _util._isscalar says

// The value of a number; throws for one that float() refuses (complex).
double number(PyObject *scalar);
// The exponent that keeps a power quadratic: the number 2; an array of one element, and that a 2.
bool is_two(PyObject *object);
bool is_array_of_two(PyObject *object);
// The number as Python or NumPy compute with it: a Fraction or a Decimal, which meet no float array, becomes a float.
Ref plain_scalar(PyObject *scalar);

// Bool, integer and float arrays of up to 8 bytes an element, exact ndarrays and numpy.matrix alike; empty for every
// other dtype and subclass.
Ref as_doubles(PyObject *array);
// The array itself, as an exact ndarray (a subclass is seen as its base): what the element-wise path works on.
Ref plain_array(PyObject *array);
// A float64 array; places named twice are sums. TypeError for entries that are no real numbers.
Ref to_dense(PyObject *sparse);

flat::Shape shape_of_array(PyObject *array);
// Of a Python shape tuple.
flat::Shape shape_of_tuple(PyObject *tuple);
inline const double *doubles(const Ref &array) {
    return static_cast<const double *>(PyArray_DATA(pysupport::as_array(array)));
}

// More elements than any operation here may have: a shape like (2**40,) costs nothing as a view of one number, and all
// memory as soon as somebody copies it. Asked before anything is copied.
inline constexpr int64_t most_elements = int64_t{1} << 31;
bool too_large(const flat::Shape &shape);
// ValueError for an array too large to be an operand, or, where it is broadcast with `self`, whose elements would be
// too many together with those of `self`; shapes that do not fit are no matter here.
void check_large_operand(PyObject *self, PyObject *array, bool is_broadcast);
// RecursionError for an array of objects that holds itself, however deep: NumPy, which computes with arrays within
// arrays element by element, would follow them until the stack ends.
void check_nesting(PyObject *array);
inline void need_bearable_operand(PyObject *self, PyObject *other, bool is_broadcast) {
    if (!pysupport::is_array(other))
        return;
    if (PyArray_SIZE(pysupport::as_array(other)) >= (1 << 20))
        check_large_operand(self, other, is_broadcast);
    if (PyArray_TYPE(pysupport::as_array(other)) == NPY_OBJECT)
        check_nesting(other);
}

// NumPy's broadcast of two shapes; ValueError naming both, also where the result is too large.
flat::Shape broadcast_shapes(const flat::Shape &a, const flat::Shape &b);
// Of a matrix product, by NumPy's rules; ValueError naming both.
flat::Shape matmul_shape(const flat::Shape &a, const flat::Shape &b);

// The axes of a stack of matrices, all but the last two.
flat::Shape leading(const flat::Shape &shape);

// Pointers, columns and lengths are checked (ValueError); int64, unsorted and doubled columns are fine and stay as they
// are.
flat::Csr csr_of(PyObject *sparse);
// The same where the result's shape was computed before: reading may run Python code (a format's own tocoo), so a
// matrix that is no longer of the expected shape is a ValueError.
flat::Csr csr_of(PyObject *sparse, const flat::Shape &expected);
// A checked copy of a SciPy matrix as it is stored, without any sorting: the rows, the columns of a csc_matrix (the
// rows of the transposed matrix), or the entries of a coo_matrix. Other formats are turned into rows.
struct StoredMatrix {
    enum Layout { Rows, Columns, Entries } layout = Rows;
    flat::Csr csr;     // rows, columns
    flat::Coo entries; // entries
};
StoredMatrix stored_matrix(PyObject *sparse, const flat::Shape &expected);
flat::Coo entries_of(const StoredMatrix &matrix); // in stored order
// Checked rows of the three arrays of a compressed matrix, in the given dimensions.
flat::Csr csr_from_arrays(PyObject *indptr, PyObject *indices, PyObject *data, int64_t rows, int64_t cols);
flat::Dense dense_of(const Ref &float_matrix); // of a two-dimensional float64 array

} // namespace tarvopy
