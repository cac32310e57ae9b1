// What the operator files of MLinExpr share: the value of any operand, the element-wise path, and the checks.
#pragma once

#include "mlinexpr.h"
#include "mvar.h"
#include "operands.h"

namespace tarvopy {

// The value of an operand in numbers: a snapshot, which later changes of the operand do not reach.
struct Value {
    flat::Form form;
    Ref model;
};
// False where only the element-wise path applies (foreign elements, several models, object arrays).
bool value_of(PyObject *operand, Operand kind, Value &value);
bool expr_value(PyObject *expr, Value &value);

// One factor for each element of a shape: the array's own numbers where it has that shape already.
class Factors {
  public:
    Factors(const Ref &numbers, const flat::Shape &shape) : numbers_(numbers) {
        flat::Shape own = shape_of_array(numbers.get());
        if (own == shape)
            return;
        spread_ = flat::Buffer<double>(flat::size_of(shape));
        flat::broadcast_values(doubles(numbers), own, shape, spread_.write());
    }
    const double *data() const { return spread_.empty() ? doubles(numbers_) : spread_.data(); }
    double operator[](int64_t i) const { return data()[i]; }
    int64_t size() const { return spread_.empty() ? PyArray_SIZE(pysupport::as_array(numbers_)) : spread_.size(); }

  private:
    Ref numbers_;
    flat::Buffer<double> spread_;
};

// 1.0 / other for the three numeric kinds, with Python's and NumPy's own errors and warnings; empty for other operands.
Ref inverse_of(PyObject *other, Operand kind);

// Where `_keep_compact` is on and the expression is compact, the compact rules hold; otherwise the receiver becomes
// full first.
bool takes_compact_path(PyObject *expr);

// A part of one row, spread over n rows; any other part as it is.
Part spread_part(const Part &part, int64_t n);

// ---- element by element, over object arrays: slow, and always right
// The operand as NumPy sees it: an object array of LinExpr, or a numeric array.
Ref element_operand(PyObject *operand, Operand kind);
// A dense matrix as NumPy multiplies it with objects; TypeError where an entry is no real number (and no expression,
// where those are taken). Checked first, as NumPy's product of a stack goes on after an error with the next matrix.
Ref factor_matrix(PyObject *matrix, bool expressions);
// What NumPy's operator gave, as an array: a single element is wrapped.
Ref as_elements(Ref result);
// factor * operand as an array: the element-wise product of documents and tests, so that rounding is the same.
Ref times(PyObject *array, double factor);
// As as_elements, but refused where elements became nonlinear: arrays of polynomials do not hold those.
Ref polynomial_elements(Ref result);
// A full expression over what NumPy's operator gave.
Ref wrap_elements(Ref result);
// A 0-dimensional array around one number; around one object.
inline Ref number_array(double value) {
    return float_array({}, &value);
}
Ref object_scalar(PyObject *object);
// A full copy of a compact expression's elements, or the elements of a full one.
Ref elements_of(PyObject *expr);
using BinaryFunction = PyObject *(*)(PyObject *, PyObject *);
// Element i of the object array becomes function(element, operand element), for an in-place function; the operand is
// broadcast.
void elements_in_place(PyObject *array, PyObject *operand, BinaryFunction function);
// The same for operands that may be refused half way, such as object arrays: all elements are computed on copies first,
// which costs a copy of every term.
void elements_or_nothing(PyObject *array, PyObject *operand, BinaryFunction function);

// ---- checks: TarvoError INVALID_ARGUMENT "<what> is infinite or NaN"
void need_finite(double value, const char *what);
void need_finite(const double *values, int64_t n, const char *what);
// "Constant is infinite or NaN: nan at [1, 2]"; without a shape, the value alone.
void need_finite_constants(const double *values, int64_t n, const flat::Shape &shape = {});
void need_finite(const flat::Form &form);
// Of an array of numbers, before it is added to a full expression: with or without objects the place is named.
void need_finite_addend(PyObject *other);
// In-place operators: the operand may not enlarge the receiver.
void need_fit(const flat::Shape &receiver, const flat::Shape &operand);
// The shape in which a value is spread over the elements that an assignment selects, by NumPy's rule: leading extents
// of 1 do not count, the others are equal or 1. ValueError naming both shapes.
flat::Shape fitting_shape(const flat::Shape &from, const flat::Shape &to);

// A plain assertion, as a Python function would make it: AssertionError without a text, unless Python runs with -O.
void assert_that(bool holds);

// ---- arithmetic, shared by operators and their reflected forms
inline Ref not_implemented() {
    return Ref::borrow(Py_NotImplemented);
}
// 0 numbers (and what is no operand), 1 linear, 2 quadratic, 3 nonlinear; of an array of objects, the highest of its
// elements.
int degree_of(PyObject *operand, Operand kind);
Ref add(PyObject *self, PyObject *other, double factor);   // self + factor * other, or NotImplemented
Ref scaled(PyObject *self, double factor);                 // factor * self, a new expression
Ref multiply(PyObject *self, PyObject *other);             // self * other, or NotImplemented
bool iadd(PyObject *self, PyObject *other, double factor); // self += factor * other; false: no operand of ours
// A fresh full expression with the value of an array of numbers and scalar linear expressions.
Ref from_elements(PyObject *array);
// One more (csr_matrix, MVar) pair of a compact expression: its list grows in place, a tuple becomes a list.
void append_pair(PyObject *self, const Ref &pair);
Ref imul(PyObject *self, PyObject *other);                      // self *= other, or NotImplemented
Ref matrix_product(PyObject *self, PyObject *matrix);           // self @ matrix, or NotImplemented
Ref reflected_matrix_product(PyObject *self, PyObject *matrix); // matrix @ self

} // namespace tarvopy
