// MLinExpr, n-dimensional arrays of linear expressions: the state, and what the other files of this module may ask of
// one.
//
// An expression is in one of two documented states, and each of them has a native form that stands for it until
// somebody looks:
//
//   CompactNative   `_const` in the dictionary, parts (row pointers, columns, values, ids) in LinearNative::parts
//   CompactMade     `_const` and the list `_matmulparts` of (csr_matrix, MVar) pairs in the dictionary; the list rules
//   Flat            full, LinearNative::form, no LinExpr exists; with its slices' forms as members of SharedElements
//   Objects         full, `_learr` in the dictionary; the array rules
//
//   A @ x           CompactNative, one part       e._matmulparts   -> CompactMade
//   x + y (2-d)     Flat, two summands            e._learr         -> Objects
//
// State only moves towards Objects. The functions that say "makes" run Python code (a collection may call back), so
// what was read before is read again after them. All of them throw PythonError; arguments are borrowed.
#pragma once

#include "matrixapi/base.h"
#include "matrixapi/flat.h"
#include "matrixapi/flat_product.h"
#include "matrixapi/names.h"
#include "matrixapi/shared_elements.h"

#include "pysupport/classes.h"

#include <memory>
#include <span>
#include <vector>

namespace tarvopy {

// The variables of one or several parts. Parts that share it share one MVar, which is made when the first of them is
// shown.
struct VarVector {
    flat::Buffer<int32_t> ids;
    Ref mvar; // empty until made, or the very MVar that the part was given
};
using SharedVector = std::shared_ptr<VarVector>;

// One documented pair (A, x): summand.vars are the ids of `vector`, and row i of A has the columns summand.column(k).
//   identity:        width 1, no cols, `scale`            (n rows, n columns)
//   column of ones:  width 1, cols all 0, one id          (n rows, 1 column)
//   A @ x:           ptr, cols, coef of A
// Without cols, term k of the whole summand has column k: an identity, or a single dense row.
struct Part {
    flat::Summand summand;
    SharedVector vector;
    int64_t columns() const { return vector->ids.size(); }
};

// A part over a fresh vector; summand.vars is filled in from ids.
Part make_part(flat::Summand summand, flat::Buffer<int32_t> ids);
// A part over the vector of another part (or one that keeps its MVar).
Part make_part(flat::Summand summand, SharedVector vector);

// scale * I over the variables.
Part identity_part(flat::Buffer<int32_t> ids, double scale = 1.0);

struct LinearNative final : Native {
    bool compact = false;
    Ref model;               // the handle all ids belong to; empty while no variable occurs
    std::vector<Part> parts; // compact; the constant and the shape are those of the array `_const` in the dictionary
    // The entries of the one part's matrix as they were given, while its rows are not laid out: x @ Q costs a copy of
    // Q's entries, and x @ Q @ x never asks for an order. Sorting costs ten times the copy.
    flat::Coo given;
    flat::Form form;                     // full
    Membership<LinearNative> membership; // full
    uint64_t stamp;                      // another one after every change: whoever ran Python code compares it
    LinearNative() : Native(Linear), stamp(next_stamp()) {}
    ~LinearNative() override;
    static uint64_t next_stamp() {
        static uint64_t last = 0;
        return ++last;
    }
    bool is_laid_out() const { return given.rows == 0; }
    void lay_out();
    int traverse(visitproc visit, void *arg) override;
};

// The native form of an expression whose state is native, else NULL; its part's rows may not be laid out yet.
inline LinearNative *native_linear(PyObject *expr) {
    return static_cast<LinearNative *>(native_of(expr, Native::Linear));
}

// The same with the rows of all parts. The operators of mlinexpr_add.cpp change it in place.
inline LinearNative *linear_of(PyObject *expr) {
    LinearNative *native = native_linear(expr);
    if (native && !native->is_laid_out())
        native->lay_out();
    return native;
}

enum class State { CompactNative, CompactMade, Flat, Objects };

inline bool is_mlinexpr(PyObject *object) {
    return PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject *>(mod.MLinExpr));
}

// AttributeError where an attribute of the state was deleted.
State state_of(PyObject *expr);
inline bool is_compact(State state) {
    return state == State::CompactNative || state == State::CompactMade;
}
inline bool is_compact(PyObject *expr) {
    return is_compact(state_of(expr));
}
flat::Shape shape_of(PyObject *expr);

// `_keep_compact == 1` as the class says it now.
bool keep_compact(PyObject *cls);
// Fewer than three dimensions and at most one extent above 1.
bool allows_compact(const flat::Shape &shape);
Ref shape_tuple(const flat::Shape &shape);
// The shape that somebody asks for (an int or a sequence), as `_broadcast_shapes` reads it; ValueError for one no array
// can have.
flat::Shape asked_shape(PyObject *given);

// ---- making expressions (no __init__ is run) ----------------------------------------------------------------------

// model: the handle, or empty where no variable occurs. In eager mode the objects are made at once.
Ref make_flat(PyObject *cls, flat::Form form, Ref model);
// const_array: an exact, writeable float64 ndarray which the expression owns from now on. An array of size 0 drops the
// parts.
Ref make_compact(PyObject *cls, std::vector<Part> parts, Ref const_array, Ref model);
// The same of one part, whose rows are laid out when somebody asks for them.
Ref make_compact_given(PyObject *cls, flat::Coo matrix, flat::Buffer<int32_t> ids, Ref const_array, Ref model);
// CompactMade, over a list of pairs as it is.
Ref make_compact_pairs(PyObject *cls, const Ref &list, const Ref &const_array);
// Full, over an object array as it is.
Ref make_objects(PyObject *cls, Ref learr);
// zeros(shape): compact where the switch and the shape allow it.
Ref make_zeros(PyObject *cls, const flat::Shape &shape);
// 1.0 * x: compact where allowed and not forced; an MVar whose elements are foreign or of several models goes element
// by element.
Ref from_mvar(PyObject *cls, PyObject *mvar, bool force_full = false);
Ref from_var(PyObject *cls, PyObject *var);         // 0-dimensional, full
Ref from_linexpr(PyObject *cls, PyObject *linexpr); // 0-dimensional, full, a copy

// A new float64 ndarray of the shape; zeros where values is NULL.
Ref float_array(const flat::Shape &shape, const double *values = nullptr);
// The constants of a form in its shape.
Ref constants_array(const flat::Form &form);

// ---- reading without changing -------------------------------------------------------------------------------------

// The full value. False where only the element-wise path applies (foreign elements, several models); `form` and `model`
// are then unspecified. Buffers are shared where the state is native. ValueError for a CSR matrix that does not hold
// what it says.
bool flat_value(PyObject *expr, flat::Form &form, Ref &model);
// The documented parts of a compact expression, one by one; false as above.
bool native_parts(PyObject *expr, std::vector<Part> &parts, Ref &model);
// Of a compact expression: `_const` (borrowed), checked to be an ndarray.
PyObject *const_array(PyObject *expr);
// The same as float64 numbers in C order, whatever array the user put there: a safe cast, as the element-wise addition
// of `_const` would make it, and its TypeError otherwise.
Ref constant_doubles(PyObject *expr);
// LinExpr objects one after the other, as a form of the given shape; false where one is no LinExpr or two models meet.
bool read_linexprs(PyObject *const *elements, const flat::Shape &shape, flat::Form &form, Ref &model);
// The elements of an object array of any layout, in C order; false also for an array of another dtype.
bool read_array(PyObject *learr, flat::Form &form, Ref &model);
// A C-contiguous exact ndarray with the elements of `array`; NULL elements are possible.
Ref contiguous_objects(PyObject *array);
// True when both models may stand in one form; `model` then holds the one that is there.
bool merge_models(Ref &model, const Ref &other);
// A LinExpr or Var as a form of shape (); false where it mixes models.
bool flat_linexpr(PyObject *linexpr, flat::Form &form, Ref &model);

// ---- changing the state -------------------------------------------------------------------------------------------

// Compact native expressions get other parts (joined, appended, scaled); shape and constant stay. On a CompactMade
// expression the list is replaced by native parts, so call it only where an ordinary object would assign a new
// `_matmulparts`.
void set_parts(PyObject *expr, std::vector<Part> parts, Ref model);
// At most one part afterwards, kept by the receiver (`_concat_matmulparts`).
void join_parts(PyObject *expr);
Part joined(const std::vector<Part> &parts); // at least one
// Makes: the one MVar of a vector.
Ref vector_mvar(const SharedVector &vector, const Ref &model);
// Makes: the documented pair (csr_matrix, MVar) of a part.
Ref part_pair(const Part &part, const Ref &model);
// In place, compact to full: native stays native. Does nothing to a full expression.
void convert_to_full(PyObject *expr);
// `_to_full()` of a compact expression: a new full one (joins the receiver's parts, which it keeps).
Ref to_full(PyObject *expr);
// copy(), _copy_compact(), _copy_full().
Ref copy_of(PyObject *expr);
Ref copy_full(PyObject *expr);
Ref copy_compact(PyObject *expr);
// A full receiver gets another value of its own shape. Where its objects exist, the contents are written into them one
// by one; a failure changes nothing.
void take_over(PyObject *expr, flat::Form form, Ref model);
// A receiver in any state becomes full with this value; objects that exist are let go (`_learr` is replaced).
void become_flat(PyObject *expr, flat::Form form, Ref model);
void become_objects(PyObject *expr, Ref learr);
// Makes: the pairs of a compact expression (a list, or the tuple that somebody gave); throws for a full one.
Ref matmulparts(PyObject *expr);
// Makes: the object array of a full expression (a compact one is converted in place first).
Ref learr(PyObject *expr);
// expr[key] of a flat expression, flat too; both share their elements from now on. Empty: look at the objects.
Ref shared_selection(PyObject *expr, PyObject *key);
// Makes: the objects of all expressions that share elements with this one.
void make_shared_elements(PyObject *expr);
// Before a flat form is changed in place: where elements are shared, it becomes objects, which all see change.
void prepare_change(PyObject *expr);
// Makes: a new object array of LinExpr of the form's shape.
Ref linexpr_array(const flat::Form &form, const Ref &model);
// Writes `contents` (private to the caller, as linexpr_array gives it) into the LinExpr of `region` one by one.
void exchange_contents(PyObject *region, PyObject *contents);

// ---- members ------------------------------------------------------------------------------------------------------
Ref build_mlinexpr_class();
std::span<pysupport::Member> matmul_members();         // mlinexpr_matmul.cpp
std::span<pysupport::Member> addition_members();       // mlinexpr_add.cpp
std::span<pysupport::Member> multiplication_members(); // mlinexpr_mul.cpp
std::span<pysupport::Member> product_members();        // mlinexpr_product.cpp
std::span<pysupport::Member> worker_members();         // mlinexpr_workers.cpp
std::span<pysupport::Member> state_members();          // attributes, conversions, copies
std::span<pysupport::Member> value_members();          // sum, values, clear, tidying
std::span<pysupport::Member> assign_members();         // __setitem__

} // namespace tarvopy
