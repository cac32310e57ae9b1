// The operators of Var, LinExpr, QuadExpr and NLExpr: one dispatch for all, since any may stand on either side.
//
// What meets a variable or an expression is one of
//   Number          2.0, np.float64(2)       -> the degree stays
//   Var, LinExpr                             -> sums LinExpr, products QuadExpr
//   QuadExpr                                 -> sums QuadExpr
//   NLExpr                                   -> NLExpr
//   Array           ndarray, SciPy matrix    -> the scalar becomes a 0-dimensional MVar, MLinExpr, MQuadExpr or
//   MNLExpr,
//                                               and the matrix classes go on
//   Foreign         everything else          -> NotImplemented, so that the other object's reflected operator is asked
//                                               (MVar, MLinExpr, ...)
// The type alone gives the degree: a QuadExpr times a LinExpr is of degree three, whatever they hold. What is of a
// degree above two, divisions by expressions and powers other than 0, 1 and 2 are NLExpr, made of one node over the
// operands' trees: nothing is multiplied out or simplified, but for the power 2, which is a square.
#pragma once

#include "state.h"

namespace tarvopy::core {

enum class OperandKind { Number, Var, LinExpr, QuadExpr, NLExpr, Array, Foreign };

struct Operand {
    OperandKind kind;
    PyObject *object; // borrowed

    bool is_linear() const { return kind == OperandKind::Var || kind == OperandKind::LinExpr; }
    bool is_polynomial() const { return is_linear() || kind == OperandKind::QuadExpr; }
    bool is_expression() const { return is_polynomial() || kind == OperandKind::NLExpr; }
};

Operand classify(PyObject *object);
// The value of a Number; may run its __float__. what ("Multiplier") names it in the refusal of infinity and NaN.
double finite_number(PyObject *object, const char *what);
// The same of a constant, whose refusal names the value.
double finite_constant(PyObject *object);
double finite_constant(double value);

PyObject *operator_add(PyObject *a, PyObject *b);
PyObject *operator_subtract(PyObject *a, PyObject *b);
PyObject *operator_multiply(PyObject *a, PyObject *b);
PyObject *operator_divide(PyObject *a, PyObject *b);
PyObject *operator_power(PyObject *a, PyObject *b, PyObject *modulus);
PyObject *operator_negative(PyObject *a);
PyObject *operator_positive(PyObject *a);
PyObject *operator_compare(PyObject *a, PyObject *b, int comparison);

// On LinExpr and QuadExpr only.
PyObject *operator_inplace_add(PyObject *a, PyObject *b);
PyObject *operator_inplace_subtract(PyObject *a, PyObject *b);
PyObject *operator_inplace_multiply(PyObject *a, PyObject *b);
PyObject *operator_inplace_divide(PyObject *a, PyObject *b);

// On NLExpr only; any scalar operand on the right.
PyObject *nonlinear_inplace_add(PyObject *a, PyObject *b);
PyObject *nonlinear_inplace_subtract(PyObject *a, PyObject *b);
PyObject *nonlinear_inplace_multiply(PyObject *a, PyObject *b);
PyObject *nonlinear_inplace_divide(PyObject *a, PyObject *b);
PyObject *nonlinear_inplace_power(PyObject *a, PyObject *b, PyObject *modulus);

// Slots of Var, LinExpr, QuadExpr and NLExpr, for their type specifications.
#define TARVOPY_OPERATOR_SLOTS                                                                                         \
    {Py_nb_add, slot(operator_add)}, {Py_nb_subtract, slot(operator_subtract)},                                        \
        {Py_nb_multiply, slot(operator_multiply)}, {Py_nb_true_divide, slot(operator_divide)},                         \
        {Py_nb_power, slot(operator_power)}, {Py_nb_negative, slot(operator_negative)},                                \
        {Py_nb_positive, slot(operator_positive)}, {Py_tp_richcompare, slot(operator_compare)},

} // namespace tarvopy::core
