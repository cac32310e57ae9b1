#include "operators.h"

#include "nlexpr.h"
#include "pysupport/numbers.h"
#include "pysupport/numpy.h"
#include "pysupport/sparse.h"
#include "quadexpr.h"

#include <cmath>

namespace tarvopy::core {

namespace {

Ref not_implemented() {
    return Ref::borrow(Py_NotImplemented);
}

// A 0-dimensional MNLExpr around a copy, which later changes of the expression do not reach.
Ref as_nonlinear_matrix(const Ref &module, PyObject *nlexpr) {
    pysupport::need_numpy();
    Ref array = check(PyArray_SimpleNew(0, nullptr, NPY_OBJECT));
    Ref element = make_nlexpr(tree_of({OperandKind::NLExpr, nlexpr}));
    check_status(PyArray_SETITEM(pysupport::as_array(array),
                                 static_cast<char *>(PyArray_DATA(pysupport::as_array(array))), element.get()));
    return check(PyObject_CallMethod(module.get(), "MNLExpr", "O", array.get()));
}

// How many operators on arrays run within each other. An object array that holds itself leads back here without end,
// and each round takes kilobytes of the stack: the interpreter's own limit counts calls and comes too late.
class Depth {
  public:
    Depth() {
        if (depth_ == limit)
            fail(PyExc_RecursionError, "arrays are nested more than %d deep, or hold themselves", limit);
        ++depth_;
    }
    ~Depth() { --depth_; }
    Depth(const Depth &) = delete;

  private:
    static constexpr int limit = 64; // as many as an array has dimensions
    static thread_local int depth_;
};
thread_local int Depth::depth_ = 0;

// A 0-dimensional matrix object of the same value, for what involves arrays.
Ref as_matrix(const Operand &operand) {
    if (!operand.is_expression())
        return Ref::borrow(operand.object);
    Ref module = check(PyImport_ImportModule("tarvopy._matrixapi"));
    if (operand.kind == OperandKind::NLExpr)
        return as_nonlinear_matrix(module, operand.object);
    struct Names {
        const char *cls, *maker;
    };
    auto [cls_name, maker] = operand.kind == OperandKind::Var       ? Names{"MVar", "fromvar"}
                             : operand.kind == OperandKind::LinExpr ? Names{"MLinExpr", "_from_linexpr"}
                                                                    : Names{"MQuadExpr", "_from_quad_expr"};
    Ref cls = check(PyObject_GetAttrString(module.get(), cls_name));
    return check(PyObject_CallMethod(cls.get(), maker, "O", operand.object));
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
            Depth depth;
            Ref x = as_matrix(left), y = as_matrix(right);
            return check(general(x.get(), y.get()));
        }
        return worker(left, right);
    });
}

bool any_nonlinear(const Operand &a, const Operand &b) {
    return a.kind == OperandKind::NLExpr || b.kind == OperandKind::NLExpr;
}

Ref nonlinear(TreeOp op, const Operand &a, const Operand &b) {
    Ref left = tree_of(a);
    return make_nlexpr(binary_node(op, left, tree_of(b)));
}

// The power 2 is a square.
Ref power_tree(const Ref &base, const Operand &exponent) {
    if (exponent.kind != OperandKind::Number)
        return binary_node(TreeOp::Pow, base, tree_of(exponent));
    double number = finite_number(exponent.object, "Exponent");
    return number == 2.0 ? unary_node(TreeOp::Square, base) : binary_node(TreeOp::Pow, base, constant_tree(number));
}

bool any_quadratic(const Operand &a, const Operand &b) {
    return a.kind == OperandKind::QuadExpr || b.kind == OperandKind::QuadExpr;
}

Ref sum(const Operand &a, const Operand &b, double mult) {
    if (any_nonlinear(a, b))
        return nonlinear(mult > 0 ? TreeOp::Plus : TreeOp::Minus, a, b);
    return any_quadratic(a, b) ? quad_sum(a, b, mult) : sum_of(a, b, mult);
}

Ref scaled_any(const Operand &operand, const Scaling &scaling) {
    return operand.kind == OperandKind::QuadExpr ? quad_scaled(operand, scaling) : scaled(operand, scaling);
}

// A variable cannot change, an expression can.
Ref copied(const Operand &operand) {
    if (operand.kind == OperandKind::NLExpr)
        return make_nlexpr(tree_of(operand));
    return operand.kind == OperandKind::Var ? Ref::borrow(operand.object) : scaled_any(operand, {1.0, false});
}

Ref add(const Operand &a, const Operand &b) {
    return sum(a, b, 1.0);
}
Ref subtract(const Operand &a, const Operand &b) {
    return sum(a, b, -1.0);
}

Ref multiply(const Operand &a, const Operand &b) {
    if (a.is_linear() && b.is_linear())
        return product_of(a, b);
    if (any_nonlinear(a, b) || (a.is_expression() && b.is_expression()))
        return nonlinear(TreeOp::Multiply, a, b);
    const Operand &expression = a.is_expression() ? a : b;
    double factor = finite_number((a.is_expression() ? b : a).object, "Multiplier");
    return scaled_any(expression, {factor, false});
}

Ref divide(const Operand &a, const Operand &b) {
    if (b.is_expression() || a.kind == OperandKind::NLExpr)
        return nonlinear(TreeOp::Divide, a, b);
    return scaled_any(a, divisor(b.object));
}

Ref power(const Operand &a, const Operand &b) {
    if (b.kind != OperandKind::Number || a.kind == OperandKind::NLExpr)
        return make_nlexpr(power_tree(tree_of(a), b));
    Ref number = check(PyFloat_FromDouble(finite_number(b.object, "Exponent")));
    double exponent = PyFloat_AS_DOUBLE(number.get());
    if (exponent == 0.0)
        return empty_linexpr(1.0);
    if (exponent == 1.0)
        return copied(a);
    if (exponent == 2.0 && a.is_linear())
        return product_of(a, a);
    return make_nlexpr(power_tree(tree_of(a), {OperandKind::Number, number.get()}));
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

Ref unequal(PyObject *a, PyObject *b) {
    if (is_var(a) && is_var(b))
        return Ref::borrow(a == b ? Py_False : Py_True);
    fail_code(-1, "Inequality constraints not supported");
}

// What else a GenExpr is compared with, it refuses itself, with advice.
bool is_equation_side(PyObject *object) {
    return is_genexpr(object) && reinterpret_cast<GenExprObject *>(object)->type != TRV_GEN_INDICATOR;
}

Ref compare(PyObject *a, PyObject *b, int comparison) {
    bool equation = comparison == Py_EQ && is_equation_side(b); // y == genfunc.max(...)
    if (classify(b).kind == OperandKind::Foreign && !equation)
        return not_implemented();
    if (comparison == Py_NE)
        return unequal(a, b);
    PyObject *sense = sense_of(comparison);
    return sense ? new_tempconstr(a, sense, b) : not_implemented();
}

// a is a LinExpr or a QuadExpr. An operand that cannot be taken in (a QuadExpr in a LinExpr, a factor that is no
// number) falls back to the operator that makes a new object.
template <class Work> PyObject *in_place(PyObject *a, PyObject *b, bool numbers_only, Work work) {
    return border([&] {
        Operand other = classify(b);
        bool quadratic = is_quadexpr(a);
        bool takes = !numbers_only && (quadratic ? other.is_polynomial() : other.is_linear());
        if (other.kind != OperandKind::Number && !takes)
            return not_implemented();
        if (quadratic)
            work(as_quadexpr(a), other);
        else
            work(as_linexpr(a), other);
        return Ref::borrow(a);
    });
}

// self is an NLExpr, which takes every scalar in; the tree is built before the holder changes, on what it holds then.
template <class Build> PyObject *change_tree(PyObject *self, PyObject *b, Build build) {
    return border([&] {
        Operand other = classify(b);
        if (other.kind == OperandKind::Foreign || other.kind == OperandKind::Array)
            return not_implemented();
        set_root(as_nlexpr(self), build(other));
        return Ref::borrow(self);
    });
}

PyObject *change_by(TreeOp op, PyObject *self, PyObject *b) {
    return change_tree(self, b, [&](const Operand &other) {
        Ref right = tree_of(other); // may run a number's __float__, hence before the root is looked at
        return binary_node(op, Ref::borrow(as_nlexpr(self)->root), right);
    });
}

} // namespace

Operand classify(PyObject *object) {
    OperandKind kind = OperandKind::Foreign;
    if (is_var(object))
        kind = OperandKind::Var;
    else if (is_linexpr(object))
        kind = OperandKind::LinExpr;
    else if (is_quadexpr(object))
        kind = OperandKind::QuadExpr;
    else if (is_nlexpr(object))
        kind = OperandKind::NLExpr;
    else if (pysupport::is_number(object))
        kind = OperandKind::Number;
    else if (pysupport::is_array(object) || pysupport::is_sparse(object))
        kind = OperandKind::Array;
    return {kind, object};
}

namespace {

double number_of(PyObject *object, const char *what) {
    double value = 0;
    if (!pysupport::number_value(object, &value))
        fail(PyExc_TypeError, "%s must be a number, not '%.200s'", what, Py_TYPE(object)->tp_name);
    return value;
}

} // namespace

double finite_constant(double value) {
    if (!std::isfinite(value))
        fail_code(TRV_ERROR_INVALID_ARGUMENT, "Constant is infinite or NaN: %s",
                  std::isnan(value) ? "nan" : (value > 0 ? "inf" : "-inf"));
    return value;
}

double finite_constant(PyObject *object) {
    return finite_constant(number_of(object, "Constant"));
}

double finite_number(PyObject *object, const char *what) {
    double value = number_of(object, what);
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
    return border([&] {
        Operand operand = classify(a);
        return operand.kind == OperandKind::NLExpr ? make_nlexpr(unary_node(TreeOp::Uminus, tree_of(operand)))
                                                   : scaled_any(operand, {-1.0, false});
    });
}

PyObject *operator_positive(PyObject *a) {
    return border([&] { return copied(classify(a)); });
}

PyObject *operator_compare(PyObject *a, PyObject *b, int comparison) {
    return border([&] { return compare(a, b, comparison); });
}

PyObject *operator_inplace_add(PyObject *a, PyObject *b) {
    return in_place(a, b, false, [](auto *self, const Operand &other) { add_to(self, other, 1.0); });
}

PyObject *operator_inplace_subtract(PyObject *a, PyObject *b) {
    return in_place(a, b, false, [](auto *self, const Operand &other) { add_to(self, other, -1.0); });
}

PyObject *operator_inplace_multiply(PyObject *a, PyObject *b) {
    return in_place(a, b, true, [](auto *self, const Operand &other) {
        scale(self, Scaling{finite_number(other.object, "Multiplier"), false});
    });
}

PyObject *operator_inplace_divide(PyObject *a, PyObject *b) {
    return in_place(a, b, true, [](auto *self, const Operand &other) { scale(self, divisor(other.object)); });
}

PyObject *nonlinear_inplace_add(PyObject *a, PyObject *b) {
    return change_by(TreeOp::Plus, a, b);
}
PyObject *nonlinear_inplace_subtract(PyObject *a, PyObject *b) {
    return change_by(TreeOp::Minus, a, b);
}
PyObject *nonlinear_inplace_multiply(PyObject *a, PyObject *b) {
    return change_by(TreeOp::Multiply, a, b);
}
PyObject *nonlinear_inplace_divide(PyObject *a, PyObject *b) {
    return change_by(TreeOp::Divide, a, b);
}

PyObject *nonlinear_inplace_power(PyObject *a, PyObject *b, PyObject *) {
    return change_tree(a, b,
                       [&](const Operand &exponent) { return power_tree(Ref::borrow(as_nlexpr(a)->root), exponent); });
}

} // namespace tarvopy::core
