// Matrix products of object arrays in which the caller says what a product and a sum are.
//
//   _dense_matmul_kernel(A, B, f_multiply=mul, f_sum=add)     element (i, j) is add([mul(A[i, 0], B[0, j]), ...])
//
// The sparse kernels ask for the products of stored entries alone, in the order of the contracted index, and equal
// places are one entry. A list may be empty: a contracted extent of 0, a row without entries.
//
// The callbacks may do anything, the operands' arrays included: the kernels work on copies of these.
#include "functions.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"
#include "pysupport/sparse.h"

namespace tarvopy::util {

using namespace pysupport;
using shapes::Shape;

namespace {

// ---- operands -------------------------------------------------------------------------------------------------------

struct Objects {
    Ref array;
    Shape shape;
    explicit Objects(PyObject *given)
        : array(check(PyArray_FROMANY(given, NPY_OBJECT, 0, 0,
                                      NPY_ARRAY_CARRAY | NPY_ARRAY_ENSURECOPY | NPY_ARRAY_ENSUREARRAY))),
          shape(PyArray_DIMS(as_array(array)), PyArray_DIMS(as_array(array)) + PyArray_NDIM(as_array(array))) {}
    Ref at(int64_t i) const {
        PyObject *element = static_cast<PyObject **>(PyArray_DATA(as_array(array)))[i];
        return Ref::borrow(element ? element : Py_None);
    }
};

int64_t product(Shape::const_iterator first, Shape::const_iterator last) {
    int64_t size = 1;
    while (first != last)
        size *= *first++;
    return size;
}

// The rows of a left operand and the columns of a right one; a vector is one of them.
int64_t row_count(const Shape &left) {
    return left.size() > 1 ? left[left.size() - 2] : 1;
}
int64_t column_count(const Shape &right) {
    return right.size() > 1 ? right.back() : 1;
}

Shape stack_shape(const Shape &shape) {
    return shape.size() > 2 ? Shape(shape.begin(), shape.end() - 2) : Shape();
}

// The stored entries of a sparse matrix by row or by column, in ascending order of the other index, no place twice.
class Entries {
  public:
    Shape shape;

    enum Order { ByRow, ByColumn };
    Entries(PyObject *sparse, Order order) {
        shape = read_sparse_shape(sparse);
        // SciPy stores a vector as one row; as a right operand that is the one column it stands for.
        const char *conversion = order == ByRow || shape.size() == 1 ? "tocsr" : "tocsc";
        Ref compressed = check(PyObject_CallMethod(checked_copy(sparse).get(), conversion, nullptr));
        check(PyObject_CallMethod(compressed.get(), "sum_duplicates", nullptr));
        pointers_ = index_copy(compressed, "indptr");
        indices_ = index_copy(compressed, "indices");
        values_ = check(PyArray_FROMANY(check(PyObject_GetAttrString(compressed.get(), "data")).get(), NPY_OBJECT, 1, 1,
                                        NPY_ARRAY_CARRAY | NPY_ARRAY_ENSURECOPY | NPY_ARRAY_ENSUREARRAY));
    }
    // What the pointers and indices must hold for `lines` rows or columns over a contracted extent.
    void check_against(int64_t lines, int64_t inner) const {
        const int64_t stored = std::min(PyArray_SIZE(as_array(indices_)), PyArray_SIZE(as_array(values_)));
        bool good = PyArray_SIZE(as_array(pointers_)) == lines + 1 && begin(0) == 0 && end(lines - 1) <= stored;
        for (int64_t line = 0; good && line < lines; ++line)
            good = begin(line) <= end(line);
        for (int64_t k = 0; good && k < end(lines - 1); ++k)
            good = index(k) >= 0 && index(k) < inner;
        if (!good)
            fail(PyExc_ValueError, "a sparse matrix whose pointers or indices do not fit its shape");
    }
    int64_t begin(int64_t line) const { return integers(pointers_)[line]; }
    int64_t end(int64_t line) const { return integers(pointers_)[line + 1]; }
    int64_t index(int64_t k) const { return integers(indices_)[k]; }
    Ref value(int64_t k) const { return Ref::borrow(static_cast<PyObject **>(PyArray_DATA(as_array(values_)))[k]); }

  private:
    static const int64_t *integers(const Ref &array) {
        return static_cast<const int64_t *>(PyArray_DATA(as_array(array)));
    }
    static Ref index_copy(const Ref &compressed, const char *name) {
        Ref given = check(PyObject_GetAttrString(compressed.get(), name));
        return check(PyArray_FROMANY(given.get(), NPY_INT64, 1, 1,
                                     NPY_ARRAY_CARRAY | NPY_ARRAY_ENSURECOPY | NPY_ARRAY_ENSUREARRAY));
    }
    static Shape read_sparse_shape(PyObject *sparse) {
        Ref given = check(PyObject_GetAttrString(sparse, "shape"));
        Ref extents = check(PySequence_Tuple(given.get()));
        Shape shape;
        for (Py_ssize_t d = 0; d < PyTuple_GET_SIZE(extents.get()); ++d)
            shape.push_back(check_value(PyNumber_AsSsize_t(PyTuple_GET_ITEM(extents.get(), d), PyExc_ValueError)));
        if (shape.empty() || shape.size() > 2)
            fail(PyExc_ValueError, "a sparse matrix must have one or two dimensions, not %zd", shape.size());
        return shape;
    }

    Ref pointers_, indices_, values_;
};

// ---- the caller's arithmetic ----------------------------------------------------------------------------------------

class Arithmetic {
  public:
    explicit Arithmetic(const Arguments &given) : multiply_(given[2]), sum_(given[3]) {}
    void start() { terms_ = check(PyList_New(0)); }
    void multiply(const Ref &left, const Ref &right) {
        PyObject *factors[] = {left.get(), right.get()};
        Ref term = check(PyObject_Vectorcall(multiply_, factors, 2, nullptr));
        check_status(PyList_Append(terms_.get(), term.get()));
    }
    Ref sum() { return check(PyObject_CallOneArg(sum_, terms_.get())); }

  private:
    PyObject *multiply_, *sum_;
    Ref terms_;
};

Ref object_array(const Shape &shape) {
    std::vector<npy_intp> extents(shape.begin(), shape.end());
    return check(PyArray_SimpleNew(static_cast<int>(extents.size()), extents.data(), NPY_OBJECT));
}

void put(const Ref &result, int64_t i, Ref element) {
    PyObject *&place = static_cast<PyObject **>(PyArray_DATA(as_array(result)))[i];
    Ref old = Ref::steal(std::exchange(place, element.release()));
}

// ---- kernels --------------------------------------------------------------------------------------------------------

// Of each matrix in the result's stack the number of the operand's own, by NumPy's broadcasting rule.
std::vector<int64_t> stack_places(const Shape &own, const Shape &whole) {
    std::vector<int64_t> places(static_cast<size_t>(product(whole.begin(), whole.end())));
    for (size_t i = 0; i < places.size(); ++i) {
        auto rest = static_cast<int64_t>(i);
        int64_t stride = 1;
        for (size_t d = whole.size(); d-- > 0; rest /= whole[d]) {
            if (d + own.size() < whole.size())
                break;
            const int64_t extent = own[d + own.size() - whole.size()];
            places[i] += extent == 1 ? 0 : rest % whole[d] * stride;
            stride *= extent;
        }
    }
    return places;
}

Ref dense_product(const Objects &a, const Objects &b, Arithmetic arithmetic) {
    const Shape shape = shapes::matmul(a.shape, b.shape);
    const int64_t rows = row_count(a.shape), inner = a.shape.back(), columns = column_count(b.shape);
    const Shape stack = shapes::broadcast(stack_shape(a.shape), stack_shape(b.shape));
    const std::vector<int64_t> left = stack_places(stack_shape(a.shape), stack);
    const std::vector<int64_t> right = stack_places(stack_shape(b.shape), stack);
    Ref result = object_array(shape);
    int64_t to = 0;
    for (size_t matrix = 0; matrix < left.size(); ++matrix)
        for (int64_t i = 0; i < rows; ++i)
            for (int64_t j = 0; j < columns; ++j) {
                arithmetic.start();
                for (int64_t k = 0; k < inner; ++k)
                    arithmetic.multiply(a.at((left[matrix] * rows + i) * inner + k),
                                        b.at((right[matrix] * inner + k) * columns + j));
                put(result, to++, arithmetic.sum());
            }
    return result;
}

Ref sparse_right_product(const Objects &a, const Entries &sparse, Arithmetic arithmetic) {
    const Shape shape = shapes::matmul(a.shape, sparse.shape);
    const int64_t inner = a.shape.back(), columns = column_count(sparse.shape);
    const int64_t rows = product(a.shape.begin(), a.shape.end() - 1); // of all matrices of a stack
    sparse.check_against(columns, inner);
    Ref result = object_array(shape);
    for (int64_t i = 0; i < rows; ++i)
        for (int64_t j = 0; j < columns; ++j) {
            arithmetic.start();
            for (int64_t k = sparse.begin(j); k < sparse.end(j); ++k)
                arithmetic.multiply(a.at(i * inner + sparse.index(k)), sparse.value(k));
            put(result, i * columns + j, arithmetic.sum());
        }
    return result;
}

Ref sparse_left_product(const Entries &sparse, const Objects &b, Arithmetic arithmetic) {
    const Shape shape = shapes::matmul(sparse.shape, b.shape);
    const int64_t rows = row_count(sparse.shape), inner = sparse.shape.back(), columns = column_count(b.shape);
    const Shape stack = stack_shape(b.shape);
    sparse.check_against(rows, inner);
    Ref result = object_array(shape);
    int64_t to = 0;
    for (int64_t matrix = 0, matrices = product(stack.begin(), stack.end()); matrix < matrices; ++matrix)
        for (int64_t i = 0; i < rows; ++i)
            for (int64_t j = 0; j < columns; ++j) {
                arithmetic.start();
                for (int64_t k = sparse.begin(i); k < sparse.end(i); ++k)
                    arithmetic.multiply(sparse.value(k), b.at((matrix * inner + sparse.index(k)) * columns + j));
                put(result, to++, arithmetic.sum());
            }
    return result;
}

} // namespace

PyObject *dense_matmul_kernel(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_dense_matmul_kernel", {"A", "B", "f_multiply", "f_sum"}, 4};
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        return dense_product(Objects(given[0]), Objects(given[1]), Arithmetic(given));
    });
}

PyObject *sparse_right_matmul_kernel(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_sparse_right_matmul_kernel", {"A", "S", "f_multiply", "f_sum"}, 4};
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        return sparse_right_product(Objects(given[0]), Entries(given[1], Entries::ByColumn), Arithmetic(given));
    });
}

PyObject *sparse_left_matmul_kernel(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_sparse_left_matmul_kernel", {"S", "B", "f_multiply", "f_sum"}, 4};
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        return sparse_left_product(Entries(given[0], Entries::ByRow), Objects(given[1]), Arithmetic(given));
    });
}

} // namespace tarvopy::util
