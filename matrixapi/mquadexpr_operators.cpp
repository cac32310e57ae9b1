// The operators of MQuadExpr: which operand goes where. Products of a degree above two and all powers are nonlinear.
#include "matrixapi/mquadexpr_operators.h"
#include "matrixapi/methods.h"
#include "matrixapi/mnlexpr.h"

namespace tarvopy {

using namespace pysupport;

namespace {

Ref add_operator(PyObject *self, PyObject *other) {
    return quad_add(self, other, 1.0);
}

Ref subtract(PyObject *self, PyObject *other) {
    return quad_add(self, other, -1.0);
}

Ref reflected_add(PyObject *self, PyObject *other) {
    return degree_of(other, kind_of(other)) == 3 ? nonlinear_operation(TreeOp::Plus, other, self)
                                                 : quad_add(self, other, 1.0);
}

Ref reflected_subtract(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other)
        return not_implemented();
    if (degree_of(other, kind) == 3)
        return nonlinear_operation(TreeOp::Minus, other, self);
    Ref negative = quad_scaled(self, -1.0);
    return quad_add(negative.get(), other, 1.0);
}

Ref add_in_place(PyObject *self, PyObject *other) {
    return quad_iadd(self, other, 1.0) ? Ref::borrow(self) : not_implemented();
}

Ref subtract_in_place(PyObject *self, PyObject *other) {
    return quad_iadd(self, other, -1.0) ? Ref::borrow(self) : not_implemented();
}

Ref reflected_multiply(PyObject *self, PyObject *other) {
    return degree_of(other, kind_of(other)) > 0 ? nonlinear_operation(TreeOp::Multiply, other, self)
                                                : quad_multiply(self, other);
}

Ref multiply_in_place(PyObject *self, PyObject *other) {
    // A product with an expression is another object, which Python's second try makes.
    return quad_imul(self, other);
}

Ref divide(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other)
        return not_implemented();
    if (degree_of(other, kind) > 0)
        return nonlinear_operation(TreeOp::Divide, self, other);
    return quad_multiply(self, inverse_of(other, kind).get());
}

Ref divide_in_place(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    Ref factor = degree_of(other, kind) == 0 ? inverse_of(other, kind) : Ref();
    return factor ? quad_imul(self, factor.get()) : not_implemented();
}

Ref reflected_divide(PyObject *self, PyObject *other) {
    return kind_of(other) == Operand::Other ? not_implemented() : nonlinear_operation(TreeOp::Divide, other, self);
}

// By the rules of MNLExpr, where the exponent 2 makes a square.
Ref power(PyObject *self, PyObject *exponent) {
    if (kind_of(exponent) == Operand::Other)
        return not_implemented();
    Ref base = check(PyObject_CallMethodOneArg(mod.MNLExpr, names._from_mquadexpr, self));
    return check(PyNumber_Power(base.get(), exponent, Py_None));
}

Ref reflected_power(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other || kind == Operand::Sparse)
        return not_implemented();
    return nonlinear_operation(TreeOp::Pow, other, self);
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
        operator_of<"__radd__", reflected_add>("__radd__($self, other)\n--\n\nAs __add__."),
        operator_of<"__iadd__", add_in_place>(
            "__iadd__($self, other)\n--\n\nAdd in place; the shape stays. On failure nothing has changed."),
        operator_of<"__sub__", subtract>("__sub__($self, other)\n--\n\nself + (-1.0 * other)"),
        operator_of<"__rsub__", reflected_subtract>("__rsub__($self, other)\n--\n\n(-1.0 * self) + other"),
        operator_of<"__isub__", subtract_in_place>("__isub__($self, other)\n--\n\nself += -1.0 * other"),
        operator_of<"__mul__", quad_multiply>(
            "__mul__($self, other)\n--\n\nElement-wise product, by NumPy's broadcasting: nonlinear but for numbers."),
        operator_of<"__rmul__", reflected_multiply>("__rmul__($self, other)\n--\n\nAs __mul__."),
        operator_of<"__imul__", multiply_in_place>("__imul__($self, other)\n--\n\nMultiply by numbers in place; the "
                                                   "shape stays. On failure nothing has changed."),
        operator_of<"__truediv__", divide>(
            "__truediv__($self, other)\n--\n\nself * (1.0 / other) for numbers and arrays; else nonlinear."),
        operator_of<"__itruediv__", divide_in_place>("__itruediv__($self, other)\n--\n\nself *= 1.0 / other"),
        operator_of<"__rtruediv__", reflected_divide>(
            "__rtruediv__($self, other)\n--\n\nDivision by an expression is nonlinear."),
        operator_of<"__matmul__", quad_matrix_product>(
            "__matmul__($self, other)\n--\n\nMatrix product with a numeric matrix behind, by NumPy's rules."),
        operator_of<"__rmatmul__", quad_reflected_matrix_product>(
            "__rmatmul__($self, other)\n--\n\nMatrix product with a numeric matrix in front."),
        operator_of<"__pow__", power, "exponent">("__pow__($self, exponent)\n--\n\nNonlinear."),
        operator_of<"__rpow__", reflected_power>("__rpow__($self, other)\n--\n\nNonlinear."),
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
