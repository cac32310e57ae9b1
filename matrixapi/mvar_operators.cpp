// The operators of MVar. It holds no expression of its own: each operator makes the linear, quadratic or nonlinear form
// of the variables and hands the work to that class. Which kind of operand goes where stands in one switch for each
// operator.
#include "matrixapi/mvar_operators.h"

#include "matrixapi/handle.h"
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"

namespace tarvopy {

using namespace pysupport;

Ref linear_form(PyObject *mvar) {
    return from_mvar(mod.MLinExpr, mvar);
}

Ref nonlinear_form(PyObject *mvar) {
    return check(PyObject_CallMethodOneArg(mod.MNLExpr, names._from_mvar, mvar));
}

namespace {

[[noreturn]] void fail_too_few_dimensions() {
    fail(PyExc_ValueError, "Input operand does not have enough dimensions");
}

// ---- multiplication

Ref times_array(PyObject *self, PyObject *array) {
    flat::Shape shape = broadcast_shapes(mvar_shape(self), shape_of_array(array));
    if (allows_compact(shape))
        return check(PyNumber_Multiply(linear_form(self).get(), array));
    if (as_doubles(array))
        return check(PyNumber_Multiply(from_mvar(mod.MLinExpr, self, true).get(), array));
    return wrap_elements(check(PyNumber_Multiply(vararr_of(self).get(), array)));
}

Ref multiply(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    int degree = degree_of(other, kind);
    if (degree > 1)
        return nonlinear_operation(TreeOp::Multiply, self, other);
    switch (kind) {
    case Operand::MVar: {
        PyObject *arguments[] = {mod.MQuadExpr, self, other};
        return check(PyObject_VectorcallMethod(names._from_mvar_times_mvar, arguments, 3, nullptr));
    }
    case Operand::Array:
        return degree == 1 ? check(PyNumber_Multiply(linear_form(self).get(), other)) : times_array(self, other);
    case Operand::Scalar:
        return check(PyNumber_InPlaceMultiply(linear_form(self).get(), other));
    default:
        return check(PyNumber_Multiply(linear_form(self).get(), other));
    }
}

// ---- matrix multiplication

Ref call_matmul(PyObject *method, const char *first, PyObject *one, const char *second, PyObject *two) {
    Ref function = check(PyObject_GetAttr(mod.MLinExpr, method));
    Ref keywords = check(Py_BuildValue("(ss)", first, second));
    PyObject *arguments[] = {one, two};
    return check(PyObject_Vectorcall(function.get(), arguments, 0, keywords.get()));
}

Ref matmul(PyObject *self, PyObject *other) {
    switch (kind_of(other)) {
    case Operand::Array:
    case Operand::Sparse:
        return call_matmul(names._from_matmul_left, "x", self, "A", other);
    case Operand::MVar:
        return check(PyNumber_MatrixMultiply(linear_form(self).get(), other));
    case Operand::Scalar:
        fail_too_few_dimensions();
    default:
        return not_implemented();
    }
}

Ref reflected_matmul(PyObject *self, PyObject *other) {
    switch (kind_of(other)) {
    case Operand::Array:
    case Operand::Sparse:
        return call_matmul(names._from_matmul_right, "A", other, "x", self);
    case Operand::Scalar:
        fail_too_few_dimensions();
    default:
        return not_implemented();
    }
}

// ---- powers and division

Ref square(PyObject *self, const flat::Shape &shape) {
    Ref x = check(PyObject_CallMethodOneArg(self, names.reshape, shape_tuple(shape).get()));
    return check(PyNumber_Multiply(x.get(), x.get()));
}

Ref nonlinear_power(PyObject *self, PyObject *other) {
    return check(PyNumber_Power(nonlinear_form(self).get(), other, Py_None));
}

Ref power(PyObject *self, PyObject *other) {
    switch (kind_of(other)) {
    case Operand::Array:
        if (is_array_of_two(other))
            return square(self, broadcast_shapes(mvar_shape(self), shape_of_array(other)));
        return nonlinear_power(self, other);
    case Operand::Scalar:
        return is_two(other) ? check(PyNumber_Multiply(self, self)) : nonlinear_power(self, other);
    case Operand::Sparse:
        return power(self, to_dense(other).get());
    case Operand::Other:
        return not_implemented();
    default:
        return nonlinear_power(self, other);
    }
}

Ref reflected_power(PyObject *self, PyObject *other) {
    switch (kind_of(other)) {
    case Operand::Var:
    case Operand::NLExpr:
    case Operand::Array:
    case Operand::LinExpr:
    case Operand::QuadExpr:
    case Operand::Scalar:
        return check(PyNumber_Power(other, nonlinear_form(self).get(), Py_None));
    default:
        return not_implemented();
    }
}

Ref reflected_divide(PyObject *self, PyObject *other) {
    switch (kind_of(other)) {
    case Operand::Scalar:
    case Operand::Array:
    case Operand::Var:
    case Operand::NLExpr:
    case Operand::LinExpr:
    case Operand::QuadExpr:
        return check(PyNumber_TrueDivide(other, nonlinear_form(self).get()));
    case Operand::Sparse:
        return check(PyNumber_TrueDivide(to_dense(other).get(), nonlinear_form(self).get()));
    default:
        return not_implemented();
    }
}

// ---- the others

// Nonlinear operations have the variables themselves as their leaves: a linear form costs its constants, too.
bool is_nonlinear(PyObject *other) {
    return degree_of(other, kind_of(other)) == 3;
}

Ref add(PyObject *self, PyObject *other) {
    return is_nonlinear(other) ? nonlinear_operation(TreeOp::Plus, self, other)
                               : check(PyNumber_Add(linear_form(self).get(), other));
}
Ref subtract(PyObject *self, PyObject *other) {
    return is_nonlinear(other) ? nonlinear_operation(TreeOp::Minus, self, other)
                               : check(PyNumber_Subtract(linear_form(self).get(), other));
}
Ref reflected_subtract(PyObject *self, PyObject *other) {
    return is_nonlinear(other) ? nonlinear_operation(TreeOp::Minus, other, self)
                               : check(PyNumber_Subtract(other, linear_form(self).get()));
}
Ref divide(PyObject *self, PyObject *other) {
    return degree_of(other, kind_of(other)) > 0 ? nonlinear_operation(TreeOp::Divide, self, other)
                                                : check(PyNumber_TrueDivide(linear_form(self).get(), other));
}

Ref negative(PyObject *self) {
    Ref minus_one = check(PyLong_FromLong(-1));
    return check(PyNumber_Multiply(self, minus_one.get()));
}
Ref positive(PyObject *self) {
    return Ref::borrow(self);
}

Ref not_equal(PyObject *, PyObject *) {
    fail_tarvo(-1, "Inequality constraints not supported");
}

Member operators[] = {
    operator_of<"__add__", add>("__add__($self, other)\n--\n\nself + other, an expression."),
    operator_of<"__radd__", add>("__radd__($self, other)\n--\n\nother + self, an expression."),
    operator_of<"__sub__", subtract>("__sub__($self, other)\n--\n\nself - other, an expression."),
    operator_of<"__rsub__", reflected_subtract>("__rsub__($self, other)\n--\n\nother - self, an expression."),
    operator_of<"__mul__", multiply>("__mul__($self, other)\n--\n\nElement-wise product, broadcast."),
    operator_of<"__rmul__", multiply>("__rmul__($self, other)\n--\n\nElement-wise product, broadcast."),
    operator_of<"__matmul__", matmul>("__matmul__($self, other)\n--\n\nMatrix product, by the rules of numpy.matmul."),
    operator_of<"__rmatmul__", reflected_matmul>(
        "__rmatmul__($self, other)\n--\n\nMatrix product with a dense or sparse matrix on the left."),
    operator_of<"__truediv__", divide>(
        "__truediv__($self, other)\n--\n\nself / numbers, linear; by variables and expressions, nonlinear."),
    operator_of<"__rtruediv__", reflected_divide>(
        "__rtruediv__($self, other)\n--\n\nother / self, a nonlinear expression."),
    operator_of<"__pow__", power>(
        "__pow__($self, other)\n--\n\nself ** other: quadratic for the exponent 2, else nonlinear."),
    operator_of<"__rpow__", reflected_power>("__rpow__($self, other)\n--\n\nother ** self, a nonlinear expression."),
    plain<"__neg__", negative>("__neg__($self)\n--\n\n-1 * self, an MLinExpr."),
    plain<"__pos__", positive>("__pos__($self)\n--\n\nself."),
    operator_of<"__le__", less_equal, "rhs">("__le__($self, rhs)\n--\n\nself <= rhs, for Model.addConstr."),
    operator_of<"__ge__", greater_equal, "rhs">("__ge__($self, rhs)\n--\n\nself >= rhs, for Model.addConstr."),
    operator_of<"__eq__", equal, "rhs">("__eq__($self, rhs)\n--\n\nself == rhs, for Model.addConstr."),
    operator_of<"__ne__", not_equal, "rhs">("__ne__($self, rhs)\n--\n\nRefused: a model knows no such constraint."),
};

} // namespace

void add_mvar_operators(PyObject *namespace_dict) {
    add_members(namespace_dict, matrix_base, operators);
}

} // namespace tarvopy
