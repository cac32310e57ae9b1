// MLinExpr: the private workers by name. Each stands for one row of an operator's dispatch: it asserts the receiver's
// state and goes to the same code as the operator.
#include "matrixapi/methods.h"
#include "mlinexpr_operators.h"
#include "mquadexpr_operators.h"

namespace tarvopy {

using namespace pysupport;

namespace {

enum class Receiver { Compact, Full };

// New results.
Ref sum(PyObject *self, PyObject *other) {
    return add(self, other, 1.0);
}

// In-place workers give None.
Ref increase(PyObject *self, PyObject *other) {
    assert_that(iadd(self, other, 1.0));
    return Ref::none();
}

// The operand must be compact too.
template <Operator work> Ref by_compact(PyObject *self, PyObject *other) {
    assert_that(is_mlinexpr(other) && is_compact(other));
    return work(self, other);
}

Ref scale(PyObject *self, PyObject *other) {
    assert_that(!imul(self, other).is(Py_NotImplemented));
    return Ref::none();
}

// Variables in front.
Ref reflected_product(PyObject *self, PyObject *other) {
    return quadratic_matrix_product(other, self);
}

template <Receiver receiver, Operator work, Text name, Text operand>
PyObject *worker(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature(name.chars, {operand.chars}, 1);
        Arguments given(signature, 1, args, nargs, kwnames);
        assert_that(is_compact(self) == (receiver == Receiver::Compact));
        return work(self, given[0]);
    });
}

PyObject *split_method(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("_split_lin_quad", {"qearr"}, 1);
        Arguments given(signature, 0, args, nargs, kwnames);
        return split_lin_quad(given[0]);
    });
}

template <Operator work, Text name, Text operand = "other"> Member on_compact(const char *doc) {
    return with_signature<worker<Receiver::Compact, work, name, operand>, name, operand>(doc);
}
template <Operator work, Text name, Text operand = "other"> Member on_full(const char *doc) {
    return with_signature<worker<Receiver::Full, work, name, operand>, name, operand>(doc);
}

} // namespace

std::span<Member> worker_members() {
    static Member members[] = {
        on_compact<sum, "_add_compact_mlinexpr">("Compact receiver plus any MLinExpr."),
        on_compact<by_compact<sum>, "_add_compact_mlinexpr_compact">("Two compact operands."),
        on_full<sum, "_add_full_mlinexpr">("Full receiver plus MLinExpr."),
        on_full<sum, "_add_full_ndarray">("Full receiver plus numeric array."),
        on_compact<increase, "_iadd_compact_var", "var">("Adds a variable to every element."),
        on_compact<increase, "_iadd_compact_linexpr", "le">("Adds a scalar expression to every element."),
        on_compact<increase, "_iadd_compact_mlinexpr">("Compact receiver increased by any MLinExpr."),
        on_compact<by_compact<increase>, "_iadd_compact_mlinexpr_compact">(
            "Compact receiver increased by a compact one."),
        on_full<increase, "_iadd_full_scalar", "c">("Adds a number to every element."),
        on_full<increase, "_iadd_full_ndarray", "a">("Adds numbers element by element."),
        on_full<increase, "_iadd_full_mlinexpr">("Adds expressions element by element."),
        on_compact<multiply, "_mul_compact_ndarray">("Compact receiver times a numeric array, a new result."),
        on_full<multiply, "_mul_ndarray_numpy">("Full receiver times a numeric array, a new result."),
        on_compact<scale, "_imul_compact_scalar", "value">("Compact receiver scaled in place."),
        on_compact<scale, "_imul_compact_ndarray">("Compact receiver scaled element by element in place."),
        on_compact<scale, "_imul_compact_spmatrix", "spmat">("The same by a sparse matrix, made dense."),
        on_full<scale, "_imul_scalar", "c">("Full receiver scaled in place."),
        on_full<scale, "_imul_ndarray", "a">("Full receiver scaled element by element in place."),
        on_full<scale, "_imul_full_spmatrix", "spmat">("The same by a sparse matrix, made dense."),
        on_compact<matrix_product, "_matmul_compact_spmatrix_or_ndarray">("self @ M, compact receiver."),
        on_compact<reflected_matrix_product, "_rmatmul_compact_spmatrix_or_ndarray">("M @ self, compact receiver."),
        on_full<matrix_product, "_matmul_full_spmatrix_or_ndarray">("self @ M, full receiver."),
        on_full<reflected_matrix_product, "_rmatmul_full_spmatrix_or_ndarray">("M @ self, full receiver."),
        on_full<quadratic_product, "_mul_full_mlinexpr_mvar">("Full receiver times variables or expressions."),
        on_compact<quadratic_matrix_product, "_matmul_compact_mvar">("self @ x, compact receiver."),
        on_compact<reflected_product, "_rmatmul_compact_mvar">("x @ self, compact receiver."),
        on_full<quadratic_matrix_product, "_matmul_full_mvar">("self @ x, full receiver."),
        on_full<reflected_product, "_rmatmul_full_mvar">("x @ self, full receiver."),
        on_compact<quadratic_matrix_product, "_matmul_compact_mlinexpr">("self @ other, compact receiver."),
        on_full<quadratic_matrix_product, "_matmul_full_mlinexpr">("self @ other, full receiver."),
        static_method("_split_lin_quad", split_method,
                      "_split_lin_quad(qearr)\n--\n\n(ndle, qearr): the linear parts of an array of QuadExpr, "
                      "moved to an MLinExpr, and the array."),
    };
    return members;
}

} // namespace tarvopy
