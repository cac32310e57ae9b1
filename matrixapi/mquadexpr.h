// MQuadExpr, n-dimensional arrays of quadratic expressions: the state, and what the other files of this module may ask.
//
// `_ndle`, an MLinExpr with the linear and constant part, is a real attribute from the start; the shape is its shape.
// The quadratic half is in one of two documented states, each with a native form that stands for it until somebody
// looks:
//
//   CompactNative   parts x'Qy in QuadNative::parts               one element at most (allows_compact_quad)
//   CompactMade     the list `_quadparts` of (MVar, coo_matrix, MVar) in the dictionary; the list rules
//   Flat            full, QuadNative::form, no QuadExpr exists; with its slices' forms as members of SharedElements
//   Objects         full, `_qearr` in the dictionary; the array rules
//
// State only moves towards Objects. What is said in mlinexpr.h of functions that "make" holds here too. All of them
// throw PythonError; arguments are borrowed.
#pragma once

#include "matrixapi/flat_quad.h"
#include "matrixapi/mlinexpr.h"

namespace tarvopy {

// One documented part (x, Q, y): the sum over the entries k of coefficient(k) * x[row(k)] * y[col(k)]. m = x's length,
// n = y's. Indices are local, so vectors are shared and nothing is deduplicated.
struct QuadPart {
    SharedVector x, y;
    flat::Buffer<int32_t> rows, cols; // empty: entry k has row k and column k (identity)
    flat::Buffer<double> coef;        // empty: `scale` each
    double scale = 1.0;
    int64_t nnz = 0;
    // A product takes the entries of its matrix as they stand. Whoever shows them asks for laid_out() first, so that
    // their order does not tell how the matrix was stored: by rows, columns ascending; Summed: one entry a place.
    enum Order { AsStored, ByRows, Summed } order = AsStored;
    int32_t row(int64_t k) const { return rows.empty() ? static_cast<int32_t>(k) : rows[k]; }
    int32_t col(int64_t k) const { return cols.empty() ? static_cast<int32_t>(k) : cols[k]; }
    double coefficient(int64_t k) const { return coef.empty() ? scale : coef[k]; }
};

struct QuadNative final : Native {
    bool compact = false;
    Ref model;                         // the handle all ids belong to; empty while no variable occurs
    std::vector<QuadPart> parts;       // compact
    flat::QuadForm form;               // full
    Membership<QuadNative> membership; // full
    uint64_t stamp;                    // another one after every change
    QuadNative() : Native(Quadratic), stamp(LinearNative::next_stamp()) {}
    ~QuadNative() override;
    int traverse(visitproc visit, void *arg) override;
};

inline QuadNative *quadratic_of(PyObject *expr) {
    return static_cast<QuadNative *>(native_of(expr, Native::Quadratic));
}
inline bool is_mquadexpr(PyObject *object) {
    return PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject *>(mod.MQuadExpr));
}

State quad_state_of(PyObject *expr);                // asserts the documented invariants, as `_is_compact()` does
bool allows_compact_quad(const flat::Shape &shape); // fewer than three dimensions, every extent at most 1
PyObject *ndle_of(PyObject *expr);                  // borrowed; AttributeError where it was deleted
flat::Shape quad_shape_of(PyObject *expr);

// ---- making (no __init__ is run; ndle is an MLinExpr that the expression owns from now on) --------------------------
Ref make_quad_flat(PyObject *cls, flat::QuadForm form, Ref ndle, Ref model); // objects at once in eager mode
Ref make_quad_compact(PyObject *cls, std::vector<QuadPart> parts, Ref ndle, Ref model);
Ref make_quad_objects(PyObject *cls, Ref qearr, Ref ndle);
Ref make_quad_zeros(PyObject *cls, const flat::Shape &shape, bool force_full = false);
Ref quad_from_mlinexpr(PyObject *cls, PyObject *mlinexpr, bool force_full = false);
Ref quad_from_quadexpr(PyObject *cls, PyObject *quadexpr); // 0-dimensional, full, a copy
Ref quad_from_mvars(PyObject *cls, PyObject *left, PyObject *right, bool force_full = false); // left * right

// ---- reading without changing ---------------------------------------------------------------------------------------
// The quadratic half of the full value. False where only the element-wise path applies (foreign elements, several
// models); linear terms inside QuadExpr objects go to `inner` (of the form's shape, when there are any).
bool quad_value(PyObject *expr, flat::QuadForm &form, Ref &model, flat::Form &inner);
// The documented parts of a compact expression; false as above.
bool quad_parts(PyObject *expr, std::vector<QuadPart> &parts, Ref &model);
// A scalar QuadExpr in numbers, shape (); false where it mixes models.
bool quad_of_quadexpr(PyObject *quadexpr, flat::QuadForm &form, flat::Form &linear, Ref &model);

// ---- changing the state ---------------------------------------------------------------------------------------------
// New parts of a compact expression. Making them may fail; setting them needs no memory, so that the linear half can
// change in between.
struct NewQuadParts {
    std::unique_ptr<QuadNative> native;
    Ref list; // where the documented list is seen at once
};
NewQuadParts new_quad_parts(PyObject *expr, std::vector<QuadPart> parts, Ref model);
void set_quad_parts(PyObject *expr, NewQuadParts parts);
QuadPart merged(const std::vector<QuadPart> &parts); // block diagonal, in order, linear in the entries
QuadPart laid_out(QuadPart part);                    // entries in their documented order
void quad_convert_to_full(PyObject *expr);
Ref quad_to_full(PyObject *expr); // a new full one; of a full expression an equal full copy
Ref quad_copy(PyObject *expr);    // in the same state, parts merged
void quad_become_flat(PyObject *expr, flat::QuadForm form, Ref model); // the receiver's `_qearr` is let go
// A full receiver whose objects exist gets new contents written into them one by one; else its form is replaced.
void quad_take_over(PyObject *expr, flat::QuadForm form, Ref model);
Ref quadparts(PyObject *expr); // makes: the list of a compact expression
Ref qearr(PyObject *expr);     // makes: the object array of a full expression (a compact one is converted in place)
// As shared_selection, make_shared_elements and prepare_change of mlinexpr.h; ndle is the linear half of the selection.
Ref shared_quad_selection(PyObject *expr, PyObject *key, const Ref &ndle);
void make_shared_quad_elements(PyObject *expr);
void prepare_quad_change(PyObject *expr);

// `_keep_compact` of the class as it says it now, taken as a truth value.
bool keeps_compact_quad(PyObject *cls);

// ---- members --------------------------------------------------------------------------------------------------------
Ref build_mquadexpr_class();
std::span<pysupport::Member> quad_state_members();    // mquadexpr_state.cpp: attributes, conversions
std::span<pysupport::Member> quad_value_members();    // sum, getValue, clear, tidying
std::span<pysupport::Member> quad_assign_members();   // __setitem__
std::span<pysupport::Member> quadfun_members();       // _from_quadfun and its builders
std::span<pysupport::Member> quad_operator_members(); // mquadexpr_operators.cpp: + - * / @ ** and comparisons
std::span<pysupport::Member> quad_worker_members();   // _add_compact_mlinexpr and the like

// ---- products that make quadratic results (mquadexpr_products.cpp), for MVar and MLinExpr
// a * b and a @ b; each an MVar or MLinExpr. Element by element where flat forms do not apply.
Ref quadratic_product(PyObject *a, PyObject *b);
Ref quadratic_matrix_product(PyObject *a, PyObject *b);

} // namespace tarvopy
