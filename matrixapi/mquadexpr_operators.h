// What the operator files of MQuadExpr share. The linear and constant half is always an operation of MLinExpr on
// `_ndle`; these files deal with the quadratic half, and see to it that both change or none.
#pragma once

#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mquadexpr.h"

namespace tarvopy {

// The linear half, kept alive while Python code may put another one in its place.
inline Ref own_ndle(PyObject *expr) {
    return Ref::borrow(ndle_of(expr));
}

// The quadratic half in numbers, a snapshot.
struct QuadValue {
    flat::QuadForm form;
    Ref model;
};
// False where only the element-wise path applies: foreign elements, several models, or QuadExpr objects with linear
// terms of their own, which stay where they are.
bool quad_numbers(PyObject *expr, QuadValue &value);
// The QuadExpr of a full expression, or of a full copy of a compact one.
Ref quad_elements_of(PyObject *expr);
// A full expression over what NumPy's operator gave for both halves.
Ref wrap_quad_elements(Ref result, Ref ndle);

// The native form of a full expression that may be changed where it stands. NULL where Python code that ran meanwhile
// looked at the objects or took a slice, whose elements have to change too.
QuadNative *own_form_of(PyObject *expr);

// The dispatch's first step: true where the compact rules hold; else the receiver becomes full, for good.
bool takes_compact_quad_path(PyObject *expr);
// At most one part, which the expression keeps. False as quad_parts.
bool merged_quad_parts(PyObject *expr, std::vector<QuadPart> &parts, Ref &model);
// Merges the parts of a compact expression, which keeps the merged one: where the full value is read off it.
void merge_if_compact(PyObject *expr);
void scale_parts(std::vector<QuadPart> &parts, double factor);

// ---- arithmetic, shared by operators and their reflected forms; NotImplemented where the operand is not theirs
Ref quad_add(PyObject *self, PyObject *other, double factor);   // self + factor * other
bool quad_iadd(PyObject *self, PyObject *other, double factor); // self += factor * other; false: no operand of ours
Ref quad_scaled(PyObject *self, double factor);                 // a new expression
Ref quad_multiply(PyObject *self, PyObject *other);
Ref quad_imul(PyObject *self, PyObject *other);
Ref quad_matrix_product(PyObject *self, PyObject *matrix);           // self @ matrix
Ref quad_reflected_matrix_product(PyObject *self, PyObject *matrix); // matrix @ self

// The value of an object array of scalars of degree two at most, a copy; TypeError for other elements.
Ref quad_from_elements(PyObject *array);

// An object array of products, as NumPy gives it, as a pair: an MLinExpr of their linear parts, normalised, and the
// array, whose QuadExpr objects keep the quadratic terms alone.
Ref split_lin_quad(PyObject *products);

} // namespace tarvopy
