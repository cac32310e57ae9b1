// LinExpr: a constant and two Python lists of equal length, coefficients (exact floats) and variables.
//
//   2*x[0] + 3*y - 1     constant -1.0, coeffs [2.0, 3.0], vars [x[0], y]
//
// Terms stand in the order in which they were added, duplicates and zeros too: the store sums and drops them. Sums
// share float objects and never fold with binary +.
//
// Why the collector need not know these objects: the lists hold floats and variables only, a variable refers to its
// model handle, and the handle to nothing. So no cycle can pass through, as long as nobody hands the lists to Python
// code, which is why terms() gives copies. The lists are untracked where they are made.
//
// Dropping a variable may drop its model handle, and that may run Python code (callbacks of weak references). So
// contents are exchanged first and dropped last.
#pragma once

#include "operators.h"
#include "term_lists.h"

namespace tarvopy::core {

inline LinExprObject *as_linexpr(PyObject *object) {
    return reinterpret_cast<LinExprObject *>(object);
}
inline LinExprObject *as_linexpr(const Ref &object) {
    return as_linexpr(object.get());
}
inline Py_ssize_t term_count(const LinExprObject *self) {
    return PyList_GET_SIZE(self->coeffs);
}

// The terms of a linear operand; none of a number.
struct Terms {
    Items coeffs, vars;
    Py_ssize_t size() const { return static_cast<Py_ssize_t>(vars.size()); }
};
Terms terms_of(const Operand &operand);
// Runs the __float__ of unusual numbers, so it comes before anything looks at terms.
double constant_of(const Operand &operand);

// Takes over the lists.
Ref make_linexpr(double constant, Ref coeffs, Ref vars);
Ref empty_linexpr(double constant);
// A new LinExpr of the operand's value (Number, Var or LinExpr).
Ref scaled(const Operand &operand, const Scaling &scaling);
// a + mult * b
Ref sum_of(const Operand &a, const Operand &b, double mult);

// In place; on failure nothing has changed.
void add_to(LinExprObject *self, const Operand &operand, double mult);
void scale(LinExprObject *self, const Scaling &scaling);
void normalize(LinExprObject *self);
void clear(LinExprObject *self);
// The expression takes over a copy of the operand.
void assign(LinExprObject *self, const Operand &operand);
// coeffs: a number (spread) or numbers; vars: a Var, an MVar or variables.
void add_terms(LinExprObject *self, PyObject *coeffs, PyObject *vars);

Ref copy(const LinExprObject *self);
double value_of(const LinExprObject *self);
void append_text(const LinExprObject *self, std::string &text); // nothing for 0
Ref text_of(const LinExprObject *self);

// One expression a row, see CoreApi::linexprs.
void make_linexprs(ModelObject *model, int64_t nrows, const int64_t *ptr, const int32_t *ids, const double *coef,
                   double scale, const double *constants, PyObject **out);

} // namespace tarvopy::core
