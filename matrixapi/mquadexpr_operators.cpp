// The operators of MQuadExpr: which operand goes where. Products of a degree above two and all powers are nonlinear.
#include "matrixapi/mquadexpr_operators.h"
#include "matrixapi/methods.h"

namespace tarvopy {

using namespace pysupport;

namespace {

Ref not_implemented() {
    return Ref::borrow(Py_NotImplemented);
}

Ref add_operator(PyObject *self, PyObject *other) {
    return quad_add(self, other, 1.0);
}

Ref subtract(PyObject *self, PyObject *other) {
    return quad_add(self, other, -1.0);
}

Ref reflected_subtract(PyObject *self, PyObject *other) {
    if (kind_of(other) == Operand::Other)
        return not_implemented();
    Ref negative = quad_scaled(self, -1.0);
    return quad_add(negative.get(), other, 1.0);
}

Ref add_in_place(PyObject *self, PyObject *other) {
    return quad_iadd(self, other, 1.0) ? Ref::borrow(self) : not_implemented();
}

Ref subtract_in_place(PyObject *self, PyObject *other) {
    return quad_iadd(self, other, -1.0) ? Ref::borrow(self) : not_implemented();
}

Ref multiply_in_place(PyObject *self, PyObject *other) {
    // A product with an expression is another object, which Python's second try makes.
    return quad_imul(self, other);
}

Ref divide(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other)
        return not_implemented();
    Ref factor = inverse_of(other, kind);
    if (!factor)
        nonlinear_later();
    return quad_multiply(self, factor.get());
}

Ref divide_in_place(PyObject *self, PyObject *other) {
    Ref factor = inverse_of(other, kind_of(other));
    return factor ? quad_imul(self, factor.get()) : not_implemented();
}

// other / self and self ** other, other ** self.
Ref nonlinear(PyObject *, PyObject *other) {
    if (kind_of(other) == Operand::Other)
        return not_implemented();
    nonlinear_later();
}

Ref power(PyObject *self, PyObject *other) {
    return kind_of(other) == Operand::Sparse ? not_implemented() : nonlinear(self, other);
}

Ref negative(PyObject *self) {
    return quad_scaled(self, -1.0);
}

Ref not_equal(PyObject *, PyObject *) {
    fail_tarvo(0, "Inequality constraints not supported");
}

} // namespace

std::span<Member> quad_operator_members() {
    static Member members[] = {
        operator_of<"__add__", add_operator>(
            "__add__($self, other)\n--\n\nSum with numbers, variables or expressions, by NumPy's broadcasting."),
        operator_of<"__radd__", add_operator>("__radd__($self, other)\n--\n\nAs __add__."),
        operator_of<"__iadd__", add_in_place>(
            "__iadd__($self, other)\n--\n\nAdd in place; the shape stays. On failure nothing has changed."),
        operator_of<"__sub__", subtract>("__sub__($self, other)\n--\n\nself + (-1.0 * other)"),
        operator_of<"__rsub__", reflected_subtract>("__rsub__($self, other)\n--\n\n(-1.0 * self) + other"),
        operator_of<"__isub__", subtract_in_place>("__isub__($self, other)\n--\n\nself += -1.0 * other"),
        operator_of<"__mul__", quad_multiply>(
            "__mul__($self, other)\n--\n\nElement-wise product with numbers, by NumPy's broadcasting."),
        operator_of<"__rmul__", quad_multiply>("__rmul__($self, other)\n--\n\nAs __mul__."),
        operator_of<"__imul__", multiply_in_place>("__imul__($self, other)\n--\n\nMultiply by numbers in place; the "
                                                   "shape stays. On failure nothing has changed."),
        operator_of<"__truediv__", divide>(
            "__truediv__($self, other)\n--\n\nself * (1.0 / other) for numbers and arrays."),
        operator_of<"__itruediv__", divide_in_place>("__itruediv__($self, other)\n--\n\nself *= 1.0 / other"),
        operator_of<"__rtruediv__", nonlinear>(
            "__rtruediv__($self, other)\n--\n\nDivision by an expression is nonlinear."),
        operator_of<"__matmul__", quad_matrix_product>(
            "__matmul__($self, other)\n--\n\nMatrix product with a numeric matrix behind, by NumPy's rules."),
        operator_of<"__rmatmul__", quad_reflected_matrix_product>(
            "__rmatmul__($self, other)\n--\n\nMatrix product with a numeric matrix in front."),
        operator_of<"__pow__", power, "exponent">("__pow__($self, exponent)\n--\n\nNonlinear."),
        operator_of<"__rpow__", power>("__rpow__($self, other)\n--\n\nNonlinear."),
        plain<"__neg__", negative>("__neg__($self)\n--\n\n-1.0 * self"),
        plain<"__pos__", quad_copy>("__pos__($self)\n--\n\nA copy."),
        operator_of<"__le__", less_equal, "rhs">("__le__($self, rhs)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__ge__", greater_equal, "rhs">("__ge__($self, rhs)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__eq__", equal, "rhs">("__eq__($self, rhs)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__ne__", not_equal, "rhs">("__ne__($self, rhs)\n--\n\nNot a constraint: raises TarvoError."),
    };
    return members;
}

} // namespace tarvopy
