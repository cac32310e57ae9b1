// MNLExpr, n-dimensional arrays of nonlinear expressions: the state, and what the other files of this module may ask.
//
//   Flat      NonlinearNative: a layout over a block with a node (nlnode.h); no NLExpr exists
//   Objects   `_nlearr` in the dictionary; the array rules
//
// A block is shared by all views that basic slices make of one array, as the block of ids is by the views of an MVar:
// who looks at one view makes the block's NLExpr objects once, and every view's `_nlearr` is a view of that array. An
// in-place operation on a flat array as a whole gives its block another node, which the views see too; on a part, it
// makes the objects first. All functions throw PythonError; arguments are borrowed.
//
// The state stands in mnlexpr_state.cpp, operands in mnlexpr_operands.cpp, operators in mnlexpr_operators.cpp, matrix
// products and sums in mnlexpr_products.cpp, what writes into elements in mnlexpr_inplace.cpp.
#pragma once

#include "matrixapi/handle.h"
#include "matrixapi/nlnode.h"
#include "matrixapi/operands.h"

#include <memory>
#include <span>

namespace tarvopy {

struct NLBlock {
    NodeRef node; // until somebody looked
    Ref objects;  // then: an object ndarray of NLExpr, of the node's shape
    int64_t size = 0;
    // x[i] has an array of its own around the very object that x held when x[i] was taken. As long as such handles
    // stand without objects, the block keeps the objects it made, whatever is written into `objects` itself.
    int64_t elements_out = 0;
    Ref originals; // a copy of `objects`, while elements_out > 0
    Ref places;    // 0, 1, 2, ... for NumPy to index, once it was asked; while there are no objects
};

struct NonlinearNative final : Native {
    std::shared_ptr<NLBlock> block;
    Layout layout; // over the elements of block->node in C order
    bool element;  // one element taken out, see NLBlock
    NonlinearNative(std::shared_ptr<NLBlock> b, Layout l, bool taken_out = false);
    ~NonlinearNative() override;
    int traverse(visitproc, void *) override { return 0; } // what a shared block refers to, it refers to once
    NodeView view() const;                                 // while the block has no objects
    flat::Shape shape() const;
};

inline bool is_mnlexpr(PyObject *object) {
    return PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject *>(mod.MNLExpr));
}

// The native form if the node is the truth for this expression, else NULL (its objects then are).
NonlinearNative *nonlinear_of(PyObject *expr);
flat::Shape nonlinear_shape_of(PyObject *expr);

// ---- making (no __init__ is run) ------------------------------------------------------------------------------------
Ref make_mnlexpr(PyObject *cls, NodeRef node); // objects at once in eager mode
Ref wrap_nlexprs(PyObject *cls, Ref object_array);
// New NLExpr around the trees (one-dimensional, C order) in an array of the shape.
Ref nlexpr_array(const Ref &trees, const flat::Shape &shape);
// A view of a block; `element`: one element taken out.
Ref part_of(const std::shared_ptr<NLBlock> &block, Layout part, bool element);

// ---- reading --------------------------------------------------------------------------------------------------------
// An operand of nonlinear arithmetic, as _coerce_to_exprtree_array and NLExpr._coerce_to_exprtree say, as a view of a
// node (strides over its own shape) and its shape: any kind but Operand::Other; a snapshot. Sparse matrices are made
// dense. A scalar has shape (). False for Operand::Other. Foreign elements raise the TypeErrors of these. Compact
// operands join their parts, as conversions to full elements do.
bool nonlinear_operand(PyObject *object, Operand kind, NodeView &view, flat::Shape &shape);
Ref nlearr(PyObject *expr); // makes: the object array
// The trees of an array's NLExpr, one-dimensional in C order.
Ref roots_of(PyObject *object_array);
// The trees that a view shows, a new object array of the shape.
Ref tree_array(const NodeView &view, const flat::Shape &shape);

// ---- writing into elements (mnlexpr_inplace.cpp) --------------------------------------------------------------------
// Raises what NumPy's iterator says of a target of this shape that may not be broadcast, if it says anything.
void need_in_place_fit(const flat::Shape &target, const flat::Shape &operand);
// The root of each element becomes update(root, tree), one element after the other in the order of NumPy's iterator;
// `trees` is broadcast, and empty for an update that needs none. On failure nothing has changed.
using RootUpdate = Ref (*)(void *context, PyObject *root, PyObject *tree);
void update_roots(PyObject *target, const Ref &trees, RootUpdate update, void *context);

// ---- arithmetic, for the other classes' hand-overs ------------------------------------------------------------------
// op of (left, right), broadcast, each side any operand kind but Other: a new MNLExpr. ValueError naming both shapes.
Ref nonlinear_operation(TreeOp op, PyObject *left, PyObject *right);
Ref nonlinear_function(TreeOp op, PyObject *operand);          // unary
Ref nonlinear_matrix_product(PyObject *left, PyObject *right); // left @ right; one side may be sparse
// left ** right, where an exponent of 2 (a number, or an array of one element) is a square.
Ref nonlinear_power(PyObject *left, PyObject *right);

// ---- members --------------------------------------------------------------------------------------------------------
Ref build_mnlexpr_class();
std::span<pysupport::Member> nonlinear_state_members();    // mnlexpr_state.cpp: attributes
std::span<pysupport::Member> nonlinear_assign_members();   // mnlexpr_inplace.cpp: __setitem__
std::span<pysupport::Member> nonlinear_operator_members(); // mnlexpr_operators.cpp
std::span<pysupport::Member> nonlinear_product_members();  // mnlexpr_products.cpp: @ and sum

} // namespace tarvopy
