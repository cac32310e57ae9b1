// The operators of MVar. It holds no expression of its own: each operator makes the linear, quadratic or nonlinear form
// of the variables and hands the work to that class. Which kind of operand goes where stands in one switch for each
// operator.
#include "matrixapi/mvar_operators.h"

#include "matrixapi/handle.h"
#include "matrixapi/mlinexpr.h"
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

Ref not_handled() {
    return Ref::borrow(Py_NotImplemented);
}

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
    return make_objects(mod.MLinExpr, check(PyNumber_Multiply(vararr_of(self).get(), array)));
}

Ref multiply(PyObject *self, PyObject *other) {
    switch (kind_of(other)) {
    case Operand::MVar: {
        PyObject *arguments[] = {mod.MQuadExpr, self, other};
        return check(PyObject_VectorcallMethod(names._from_mvar_times_mvar, arguments, 3, nullptr));
    }
    case Operand::Array:
        return times_array(self, other);
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
        return not_handled();
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
        return not_handled();
    }
}

// ---- powers and division

bool equals_two(PyObject *number) {
    Ref two = check(PyFloat_FromDouble(2.0));
    return check_status(PyObject_RichCompareBool(number, two.get(), Py_EQ));
}

bool is_array_of_two(PyObject *array) {
    return PyArray_SIZE(as_array(array)) == 1 && equals_two(check(PyObject_CallMethodNoArgs(array, names.item)).get());
}

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
        return equals_two(other) ? check(PyNumber_Multiply(self, self)) : nonlinear_power(self, other);
    case Operand::Var:
    case Operand::NLExpr:
    case Operand::MVar:
    case Operand::MLinExpr:
    case Operand::MQuadExpr:
        return nonlinear_power(self, other);
    default:
        return not_handled();
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
        return not_handled();
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
        return not_handled();
    }
}

// ---- the others

Ref add(PyObject *self, PyObject *other) {
    return check(PyNumber_Add(linear_form(self).get(), other));
}
Ref subtract(PyObject *self, PyObject *other) {
    return check(PyNumber_Subtract(linear_form(self).get(), other));
}
Ref reflected_subtract(PyObject *self, PyObject *other) {
    return check(PyNumber_Subtract(other, linear_form(self).get()));
}
Ref divide(PyObject *self, PyObject *other) {
    return check(PyNumber_TrueDivide(linear_form(self).get(), other));
}

Ref negative(PyObject *self) {
    Ref minus_one = check(PyLong_FromLong(-1));
    return check(PyNumber_Multiply(self, minus_one.get()));
}
Ref positive(PyObject *self) {
    return Ref::borrow(self);
}

Ref less_equal(PyObject *self, PyObject *rhs) {
    return check(mod.core->tempconstr(self, mod.less_equal, rhs));
}
Ref greater_equal(PyObject *self, PyObject *rhs) {
    return check(mod.core->tempconstr(self, mod.greater_equal, rhs));
}
Ref equal(PyObject *self, PyObject *rhs) {
    return check(mod.core->tempconstr(self, mod.equal, rhs));
}
Ref not_equal(PyObject *, PyObject *) {
    fail_tarvo(-1, "Inequality constraints not supported");
}

// A method of exactly one operand. The name is a template argument so that each has its own signature for the error
// messages.
template <size_t n> struct Name {
    char text[n];
    constexpr Name(const char (&literal)[n]) { std::copy_n(literal, n, text); }
};

template <Name name, Name parameter, Ref (*rule)(PyObject *, PyObject *)>
PyObject *binary(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        if (nargs == 1 && !kwnames)
            return rule(self, args[0]);
        static const Signature signature{name.text, {parameter.text}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        return rule(self, given[0]);
    });
}

template <Name name, Ref (*rule)(PyObject *)>
PyObject *unary(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{name.text, {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return rule(self);
    });
}

Member operators[] = {
    method("__add__", binary<"__add__", "other", add>, "__add__($self, other)\n--\n\nself + other, an expression."),
    method("__radd__", binary<"__radd__", "other", add>, "__radd__($self, other)\n--\n\nother + self, an expression."),
    method("__sub__", binary<"__sub__", "other", subtract>,
           "__sub__($self, other)\n--\n\nself - other, an expression."),
    method("__rsub__", binary<"__rsub__", "other", reflected_subtract>,
           "__rsub__($self, other)\n--\n\nother - self, an expression."),
    method("__mul__", binary<"__mul__", "other", multiply>,
           "__mul__($self, other)\n--\n\nElement-wise product, broadcast."),
    method("__rmul__", binary<"__rmul__", "other", multiply>,
           "__rmul__($self, other)\n--\n\nElement-wise product, broadcast."),
    method("__matmul__", binary<"__matmul__", "other", matmul>,
           "__matmul__($self, other)\n--\n\nMatrix product, by the rules of numpy.matmul."),
    method("__rmatmul__", binary<"__rmatmul__", "other", reflected_matmul>,
           "__rmatmul__($self, other)\n--\n\nMatrix product with a dense or sparse matrix on the left."),
    method("__truediv__", binary<"__truediv__", "other", divide>, "__truediv__($self, other)\n--\n\nself / constants."),
    method("__rtruediv__", binary<"__rtruediv__", "other", reflected_divide>,
           "__rtruediv__($self, other)\n--\n\nother / self, a nonlinear expression."),
    method("__pow__", binary<"__pow__", "other", power>,
           "__pow__($self, other)\n--\n\nself ** other: quadratic for the exponent 2, else nonlinear."),
    method("__rpow__", binary<"__rpow__", "other", reflected_power>,
           "__rpow__($self, other)\n--\n\nother ** self, a nonlinear expression."),
    method("__neg__", unary<"__neg__", negative>, "__neg__($self)\n--\n\n-1 * self, an MLinExpr."),
    method("__pos__", unary<"__pos__", positive>, "__pos__($self)\n--\n\nself."),
    method("__le__", binary<"__le__", "rhs", less_equal>,
           "__le__($self, rhs)\n--\n\nself <= rhs, for Model.addConstr."),
    method("__ge__", binary<"__ge__", "rhs", greater_equal>,
           "__ge__($self, rhs)\n--\n\nself >= rhs, for Model.addConstr."),
    method("__eq__", binary<"__eq__", "rhs", equal>, "__eq__($self, rhs)\n--\n\nself == rhs, for Model.addConstr."),
    method("__ne__", binary<"__ne__", "rhs", not_equal>,
           "__ne__($self, rhs)\n--\n\nRefused: a model knows no such constraint."),
};

} // namespace

void add_mvar_operators(PyObject *namespace_dict) {
    add_members(namespace_dict, matrix_base, operators);
}

} // namespace tarvopy
