// MLinExpr: the private workers by name. Each stands for one row of an operator's dispatch: it asserts the receiver's
// state and goes to the same code as the operator.
#include "mlinexpr_operators.h"

#include "pysupport/args.h"

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

Ref scale(PyObject *self, PyObject *other) {
    assert_that(!imul(self, other).is(Py_NotImplemented));
    return Ref::none();
}

using Worker = Ref (*)(PyObject *self, PyObject *operand);

template <Receiver receiver, Worker work>
PyObject *worker(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature("worker", {"operand"}, 1);
        Arguments given(signature, 1, args, nargs, kwnames);
        assert_that(is_compact(self) == (receiver == Receiver::Compact));
        return work(self, given[0]);
    });
}

template <Worker work> constexpr MethodFunction on_compact = worker<Receiver::Compact, work>;
template <Worker work> constexpr MethodFunction on_full = worker<Receiver::Full, work>;

} // namespace

std::span<Member> worker_members() {
    static Member members[] = {
        method("_add_compact_mlinexpr", on_compact<sum>, "Compact receiver plus any MLinExpr."),
        method("_add_compact_mlinexpr_compact", on_compact<sum>, "Two compact operands."),
        method("_add_full_mlinexpr", on_full<sum>, "Full receiver plus MLinExpr."),
        method("_add_full_ndarray", on_full<sum>, "Full receiver plus numeric array."),
        method("_iadd_compact_var", on_compact<increase>, "Adds a variable to every element."),
        method("_iadd_compact_linexpr", on_compact<increase>, "Adds a scalar expression to every element."),
        method("_iadd_compact_mlinexpr", on_compact<increase>, "Compact receiver increased by any MLinExpr."),
        method("_iadd_compact_mlinexpr_compact", on_compact<increase>, "Compact receiver increased by a compact one."),
        method("_iadd_full_scalar", on_full<increase>, "Adds a number to every element."),
        method("_iadd_full_ndarray", on_full<increase>, "Adds numbers element by element."),
        method("_iadd_full_mlinexpr", on_full<increase>, "Adds expressions element by element."),
        method("_mul_compact_ndarray", on_compact<multiply>, "Compact receiver times a numeric array, a new result."),
        method("_mul_ndarray_numpy", on_full<multiply>, "Full receiver times a numeric array, a new result."),
        method("_imul_compact_scalar", on_compact<scale>, "Compact receiver scaled in place."),
        method("_imul_compact_ndarray", on_compact<scale>, "Compact receiver scaled element by element in place."),
        method("_imul_compact_spmatrix", on_compact<scale>, "The same by a sparse matrix, made dense."),
        method("_imul_scalar", on_full<scale>, "Full receiver scaled in place."),
        method("_imul_ndarray", on_full<scale>, "Full receiver scaled element by element in place."),
        method("_imul_full_spmatrix", on_full<scale>, "The same by a sparse matrix, made dense."),
        method("_matmul_compact_spmatrix_or_ndarray", on_compact<matrix_product>, "self @ M, compact receiver."),
        method("_rmatmul_compact_spmatrix_or_ndarray", on_compact<reflected_matrix_product>,
               "M @ self, compact receiver."),
        method("_matmul_full_spmatrix_or_ndarray", on_full<matrix_product>, "self @ M, full receiver."),
        method("_rmatmul_full_spmatrix_or_ndarray", on_full<reflected_matrix_product>, "M @ self, full receiver."),
    };
    return members;
}

} // namespace tarvopy
