// The instance dictionary of MQuadExpr, for the files that change its state.
//
// `_ndle` always stands in it. While a native form stands, that is all beside what users put there; without one it
// holds all three documented attributes, in the order `_qearr`, `_quadparts`, `_ndle`.
#pragma once

#include "matrixapi/mlinexpr_dict.h"
#include "matrixapi/mquadexpr.h"

namespace tarvopy {

// The documented attributes get these values (old ones die only afterwards); the native form is dropped.
void store_quad_documented(PyObject *expr, PyObject *qearr, PyObject *quadparts, PyObject *ndle);
void install_quad(PyObject *expr, std::unique_ptr<QuadNative> native);
// Everything that is not made yet.
void make_all_quad(PyObject *expr);
// The shape that both halves have; ValueError where somebody gave one half another one, which only the assertions of
// quad_state_of refuse before.
flat::Shape consistent_shape(PyObject *expr);
// Of a compact expression.
Py_ssize_t number_of_quad_parts(PyObject *expr);
inline bool is_compact_quad(PyObject *expr) {
    return is_compact(quad_state_of(expr));
}

// ---- between objects and numbers (mquadexpr_read.cpp)
// QuadExpr objects one after the other. False where one is no QuadExpr or two models meet. `inner` gets the linear
// terms inside them (the form's shape; without summands and constants where there are none).
bool read_quadexprs(PyObject *const *elements, const flat::Shape &shape, flat::QuadForm &form, flat::Form &inner,
                    Ref &model);
bool is_zero(const flat::Form &form);
// Makes: a new object array of QuadExpr of the form's shape.
Ref quadexpr_array(const flat::QuadForm &form, const Ref &model);
// Writes `contents` (private QuadExpr) into the QuadExpr of `region` one by one, linear parts included; a repeated
// target keeps the last. TypeError, with nothing changed, for an element that is no QuadExpr. All that may fail is done
// before run(), so that the linear half of the expression may change in between.
class QuadExchange {
  public:
    QuadExchange(PyObject *region, PyObject *contents);
    void run();

  private:
    std::vector<Ref> targets_;
    Ref sources_;
};
void expect_quadexprs(PyObject *region);
// Element by element: new QuadExpr, copies of those of a full expression.
Ref copied_quadexprs(PyObject *array);
// Elements of the whole value, quadratic and linear halves added, as new objects; the expression stays as it is.
Ref whole_elements(PyObject *expr);

// Makes: the documented triple (MVar, coo_matrix, MVar) of a part.
Ref part_triple(const QuadPart &part, const Ref &model);
// One triple as a part; false where its variables have no ids of one model. ValueError for a matrix that does not fit.
bool read_triple(PyObject *triple, std::vector<QuadPart> &parts, Ref &model);
// The entries of a SciPy matrix, or of a dense one (its zeros left out), as a part without vectors.
QuadPart entries_of(PyObject *matrix, int64_t rows, int64_t cols);
// quadparts(), for who appends: TypeError where somebody gave another sequence than a list.
Ref part_list(PyObject *expr);
// The entries of a list of parts as tuples (MVar, matrix, MVar); ValueError or TypeError for anything else.
std::vector<Ref> triples_in(PyObject *list);
// The parts joined by NumPy and SciPy, for variables without ids; a list of one triple.
Ref joined_triples(PyObject *list);
// The sum of the parts, term by term, for variables without ids.
Ref elementwise_sum_of(PyObject *list);

// ---- conversions and copies (mquadexpr_convert.cpp)
// At most one part afterwards, kept by the receiver (`_concat_quadparts`).
void merge_quad_parts(PyObject *expr);
// The same parts over vectors of their own; as documented triples, copied.
std::vector<QuadPart> own_quad_parts(std::vector<QuadPart> parts);
Ref copied_triples(PyObject *expr);
Ref quad_copy_compact(PyObject *expr);
Ref quad_copy_full(PyObject *expr);

} // namespace tarvopy
