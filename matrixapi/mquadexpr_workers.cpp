// MQuadExpr: the private workers by name. Each stands for one row of an operator's dispatch: it asserts the receiver's
// state and goes to the same code as the operator.
#include "matrixapi/methods.h"
#include "matrixapi/mquadexpr_operators.h"

namespace tarvopy {

using namespace pysupport;

namespace {

enum class Receiver { Compact, Full };

Ref sum(PyObject *self, PyObject *other) {
    return quad_add(self, other, 1.0);
}

// In-place workers give None.
Ref increase(PyObject *self, PyObject *other) {
    assert_that(quad_iadd(self, other, 1.0));
    return Ref::none();
}

Ref scale(PyObject *self, PyObject *other) {
    assert_that(!quad_imul(self, other).is(Py_NotImplemented));
    return Ref::none();
}

template <Receiver receiver, Operator work, Text name>
PyObject *worker(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature(name.chars, {"other"}, 1);
        Arguments given(signature, 1, args, nargs, kwnames);
        assert_that((quad_state_of(self) <= State::CompactMade) == (receiver == Receiver::Compact));
        return work(self, given[0]);
    });
}

template <Operator work, Text name> Member on_compact(const char *doc) {
    return with_signature<worker<Receiver::Compact, work, name>, name, "other">(doc);
}
template <Operator work, Text name> Member on_full(const char *doc) {
    return with_signature<worker<Receiver::Full, work, name>, name, "other">(doc);
}

} // namespace

std::span<Member> quad_worker_members() {
    static Member members[] = {
        on_compact<sum, "_add_compact_mlinexpr">("Compact receiver plus a linear operand or numbers."),
        on_full<sum, "_add_full_mlinexpr">("Full receiver plus a linear operand or numbers."),
        on_compact<sum, "_add_compact_mquadexpr">("Compact receiver plus any MQuadExpr."),
        on_full<sum, "_add_full_mquadexpr">("Full receiver plus any MQuadExpr."),
        on_compact<increase, "_iadd_compact_mquadexpr">("Compact receiver increased by any MQuadExpr."),
        on_full<increase, "_iadd_full_mquadexpr">("Full receiver increased by any MQuadExpr."),
        on_compact<scale, "_imul_compact_scalar">("Compact receiver scaled in place."),
        on_compact<scale, "_imul_compact_ndarray">("The same by an array of one element."),
        on_full<scale, "_imul_full_scalar">("Full receiver scaled in place."),
        on_full<scale, "_imul_full_ndarray">("Full receiver scaled element by element in place."),
        on_compact<quad_multiply, "_mul_compact_ndarray">("Compact receiver times a numeric array, a new result."),
        on_full<quad_multiply, "_mul_full_ndarray">("Full receiver times a numeric array, a new result."),
        on_compact<quad_matrix_product, "_matmul_compact_ndarray_or_spmatrix">("self @ M, compact receiver."),
        on_full<quad_matrix_product, "_matmul_full_ndarray_or_spmatrix">("self @ M, full receiver."),
        on_compact<quad_reflected_matrix_product, "_rmatmul_compact_ndarray_or_spmatrix">("M @ self, compact."),
        on_full<quad_reflected_matrix_product, "_rmatmul_full_ndarray_or_spmatrix">("M @ self, full."),
    };
    return members;
}

} // namespace tarvopy
