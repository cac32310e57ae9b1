// QuadExpr: three Python lists of equal length (coefficients, first variables, second variables) and its own linear
// part, a LinExpr.
//
//   2*x*y + x**2 + 3*y - 1     coeffs [2.0, 1.0], vars1 [x, x], vars2 [y, x], linear 3.0 y - 1.0
//
// Terms stand as they were appended; x*y and y*x are different until something merges them (_normalize, the store).
//
// The linear part is NULL until it has contents or somebody asks for it: a product of two variables costs no LinExpr.
// Once made it stays the same object until the expression dies, emptied and filled in place, so that whoever got it
// from getLinExpr() goes on looking at this expression.
//
// The collector need not know these objects, though they hand out an object that they hold: a LinExpr refers to floats
// and variables only (linexpr.h), its type cannot be subclassed and has no attributes, so nothing that Python code can
// do to it makes it refer back.
#pragma once

#include "linexpr.h"

namespace tarvopy::core {

inline QuadExprObject *as_quadexpr(PyObject *object) {
    return reinterpret_cast<QuadExprObject *>(object);
}
inline QuadExprObject *as_quadexpr(const Ref &object) {
    return as_quadexpr(object.get());
}
inline Py_ssize_t term_count(const QuadExprObject *self) {
    return PyList_GET_SIZE(self->coeffs);
}

// The quadratic terms of an operand; none of one of lower degree.
struct QuadTerms {
    Items coeffs, vars1, vars2;
    Py_ssize_t size() const { return static_cast<Py_ssize_t>(coeffs.size()); }
};
QuadTerms quad_terms_of(const Operand &operand);

// Takes over the lists (three different ones) and the linear part, which may be empty.
Ref make_quadexpr(Ref linear, Ref coeffs, Ref vars1, Ref vars2);
Ref empty_quadexpr();
// The linear part, made if there is none yet. Borrowed.
LinExprObject *linear_of(QuadExprObject *self);

// New objects; any operands of degree up to two, results are QuadExpr.
Ref quad_scaled(const Operand &operand, const Scaling &scaling);
Ref quad_sum(const Operand &a, const Operand &b, double mult); // a + mult * b
// Var and LinExpr on both sides; terms in the order that collaborators/core.h gives.
Ref product_of(const Operand &a, const Operand &b);

// In place; on failure nothing has changed.
void add_to(QuadExprObject *self, const Operand &operand, double mult);
void scale(QuadExprObject *self, const Scaling &scaling);
void normalize(QuadExprObject *self);
void clear(QuadExprObject *self);
void assign(QuadExprObject *self, const Operand &operand);
void add_terms(QuadExprObject *self, PyObject *coeffs, PyObject *vars1, PyObject *vars2);

Ref copy(const QuadExprObject *self);
double value_of(const QuadExprObject *self);
Ref text_of(const QuadExprObject *self);

// One expression a row, see CoreApi::quadexprs.
void make_quadexprs(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids1, const int32_t *ids2,
                    const double *coef, double scale, PyObject **out);

} // namespace tarvopy::core
