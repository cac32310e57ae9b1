#include "operators.h"

#include "linexpr.h"
#include "pysupport/numbers.h"
#include "pysupport/numpy.h"

#include <cmath>

namespace tarvopy::core {

namespace {

bool is_sparse(PyObject *object) {
    PyObject *modules = PyImport_GetModuleDict(); // borrowed
    PyObject *sparse =
        PyDict_GetItemString(modules, "scipy.sparse"); // borrowed; nobody has such a matrix before it is imported
    if (!sparse)
        return false;
    Ref held = Ref::borrow(sparse);
    Ref issparse = Ref::steal(PyObject_GetAttrString(held.get(), "issparse"));
    if (!issparse) { // half imported
        PyErr_Clear();
        return false;
    }
    Ref answer = check(PyObject_CallOneArg(issparse.get(), object));
    return check_status(PyObject_IsTrue(answer.get())) == 1;
}

Ref not_implemented() {
    return Ref::borrow(Py_NotImplemented);
}

// A 0-dimensional matrix object of the same value, for what involves arrays.
Ref as_matrix(const Operand &operand) {
    if (!operand.is_expression())
        return Ref::borrow(operand.object);
    Ref module = check(PyImport_ImportModule("tarvopy._matrixapi"));
    bool var = operand.kind == OperandKind::Var;
    Ref cls = check(PyObject_GetAttrString(module.get(), var ? "MVar" : "MLinExpr"));
    return check(PyObject_CallMethod(cls.get(), var ? "fromvar" : "_from_linexpr", "O", operand.object));
}

using Worker = Ref (*)(const Operand &a, const Operand &b);
using General = PyObject *(*)(PyObject *, PyObject *);

// The one dispatch: worker for scalars on both sides, general (the interpreter's own operator) once arrays are
// involved.
PyObject *dispatch(PyObject *a, PyObject *b, Worker worker, General general) {
    return border([&] {
        Operand left = classify(a), right = classify(b);
        if (left.kind == OperandKind::Foreign || right.kind == OperandKind::Foreign)
            return not_implemented();
        if (left.kind == OperandKind::Array || right.kind == OperandKind::Array) {
            Ref x = as_matrix(left), y = as_matrix(right);
            return check(general(x.get(), y.get()));
        }
        return worker(left, right);
    });
}

[[noreturn]] void fail_later(const char *what) {
    fail(PyExc_NotImplementedError, "%s is not linear; such expressions of scalar variables are not available yet",
         what);
}

Ref add(const Operand &a, const Operand &b) {
    return sum_of(a, b, 1.0);
}
Ref subtract(const Operand &a, const Operand &b) {
    return sum_of(a, b, -1.0);
}

Ref multiply(const Operand &a, const Operand &b) {
    if (a.is_expression() && b.is_expression())
        fail_later("the product of two expressions");
    const Operand &expression = a.is_expression() ? a : b;
    double factor = finite_number((a.is_expression() ? b : a).object, "Multiplier");
    return scaled(expression, Scaling{factor, false});
}

Ref divide(const Operand &a, const Operand &b) {
    if (b.is_expression())
        fail_later("division by an expression");
    return scaled(a, divisor(b.object));
}

Ref power(const Operand &, const Operand &) {
    fail_later("a power of an expression");
}

PyObject *power_of_two_operands(PyObject *a, PyObject *b) {
    return PyNumber_Power(a, b, Py_None);
}

PyObject *sense_of(int comparison) {
    switch (comparison) {
    case Py_LE:
        return state.less_equal;
    case Py_GE:
        return state.greater_equal;
    case Py_EQ:
        return state.equal;
    default:
        return nullptr;
    }
}

// Expression types of higher degree: a comparison with one is a constraint too.
bool is_higher_expression(PyObject *object) {
    PyTypeObject *type = Py_TYPE(object);
    return type == state.QuadExpr || type == state.NLExpr || type == state.GenExpr;
}

Ref unequal(PyObject *a, PyObject *b) {
    if (is_var(a) && is_var(b))
        return Ref::borrow(a == b ? Py_False : Py_True);
    fail_code(-1, "Inequality constraints not supported");
}

Ref compare(PyObject *a, PyObject *b, int comparison) {
    if (classify(b).kind == OperandKind::Foreign && !is_higher_expression(b))
        return not_implemented();
    if (comparison == Py_NE)
        return unequal(a, b);
    PyObject *sense = sense_of(comparison);
    return sense ? new_tempconstr(a, sense, b) : not_implemented();
}

// a is a LinExpr. An operand that cannot be taken in falls back to the operator that makes a new object.
template <class Work> PyObject *in_place(PyObject *a, PyObject *b, bool numbers_only, Work work) {
    return border([&] {
        Operand other = classify(b);
        if (other.kind != OperandKind::Number && (numbers_only || !other.is_expression()))
            return not_implemented();
        work(reinterpret_cast<LinExprObject *>(a), other);
        return Ref::borrow(a);
    });
}

} // namespace

Operand classify(PyObject *object) {
    OperandKind kind = OperandKind::Foreign;
    if (is_var(object))
        kind = OperandKind::Var;
    else if (is_linexpr(object))
        kind = OperandKind::LinExpr;
    else if (pysupport::is_number(object))
        kind = OperandKind::Number;
    else if (pysupport::is_array(object) || is_sparse(object))
        kind = OperandKind::Array;
    return {kind, object};
}

double finite_number(PyObject *object, const char *what) {
    double value = 0;
    if (!pysupport::number_value(object, &value))
        fail(PyExc_TypeError, "%s must be a number, not '%.200s'", what, Py_TYPE(object)->tp_name);
    if (!std::isfinite(value))
        fail_code(TRV_ERROR_INVALID_ARGUMENT, "%s is infinite or NaN", what);
    return value;
}

PyObject *operator_add(PyObject *a, PyObject *b) {
    return dispatch(a, b, add, PyNumber_Add);
}
PyObject *operator_subtract(PyObject *a, PyObject *b) {
    return dispatch(a, b, subtract, PyNumber_Subtract);
}
PyObject *operator_multiply(PyObject *a, PyObject *b) {
    return dispatch(a, b, multiply, PyNumber_Multiply);
}
PyObject *operator_divide(PyObject *a, PyObject *b) {
    return dispatch(a, b, divide, PyNumber_TrueDivide);
}

PyObject *operator_power(PyObject *a, PyObject *b, PyObject *modulus) {
    if (modulus != Py_None)
        Py_RETURN_NOTIMPLEMENTED;
    return dispatch(a, b, power, power_of_two_operands);
}

PyObject *operator_negative(PyObject *a) {
    return border([&] { return scaled(classify(a), Scaling{-1.0, false}); });
}

// A variable cannot change, an expression can.
PyObject *operator_positive(PyObject *a) {
    return border([&] { return is_var(a) ? Ref::borrow(a) : copy(as_linexpr(a)); });
}

PyObject *operator_compare(PyObject *a, PyObject *b, int comparison) {
    return border([&] { return compare(a, b, comparison); });
}

PyObject *operator_inplace_add(PyObject *a, PyObject *b) {
    return in_place(a, b, false, [](LinExprObject *self, const Operand &other) { add_to(self, other, 1.0); });
}

PyObject *operator_inplace_subtract(PyObject *a, PyObject *b) {
    return in_place(a, b, false, [](LinExprObject *self, const Operand &other) { add_to(self, other, -1.0); });
}

PyObject *operator_inplace_multiply(PyObject *a, PyObject *b) {
    return in_place(a, b, true, [](LinExprObject *self, const Operand &other) {
        scale(self, Scaling{finite_number(other.object, "Multiplier"), false});
    });
}

PyObject *operator_inplace_divide(PyObject *a, PyObject *b) {
    return in_place(a, b, true, [](LinExprObject *self, const Operand &other) { scale(self, divisor(other.object)); });
}

} // namespace tarvopy::core
