// MNLExpr, n-dimensional arrays of nonlinear expressions: the state, and what the other files of this module may ask.
//
//   Flat      NonlinearNative: a layout over a block with a node (nlnode.h); no NLExpr exists
//   Objects   `_nlearr` in the dictionary; the array rules
//
// A block is shared by all views that basic slices make of one array, as the block of ids is by the views of an MVar:
// who looks at one view makes the block's NLExpr objects once, and every view's `_nlearr` is a view of that array. An
// in-place operation on a flat array as a whole gives its block another node, which the views see too; on a part, it
// makes the objects first. All functions throw PythonError; arguments are borrowed.
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
};

struct NonlinearNative final : Native {
    std::shared_ptr<NLBlock> block;
    Layout layout; // over the elements of block->node in C order
    NonlinearNative(std::shared_ptr<NLBlock> b, Layout l)
        : Native(Nonlinear), block(std::move(b)), layout(std::move(l)) {}
    int traverse(visitproc visit, void *arg) override;
};

inline bool is_mnlexpr(PyObject *object) {
    return PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject *>(mod.MNLExpr));
}

// The native form if the node is the truth for this expression, else NULL (its objects then are).
NonlinearNative *nonlinear_of(PyObject *expr);
flat::Shape nonlinear_shape_of(PyObject *expr);

// ---- making (no __init__ is run)
// --------------------------------------------------------------------------------------
Ref make_mnlexpr(PyObject *cls, NodeRef node); // objects at once in eager mode
Ref wrap_nlexprs(PyObject *cls, Ref object_array);

// ---- reading
// ------------------------------------------------------------------------------------------------------------ An
// operand of nonlinear arithmetic, as _coerce_to_exprtree_array and NLExpr._coerce_to_exprtree say, as a view of a node
// (strides over its own shape) and its shape: any kind but Operand::Other; a snapshot. Sparse matrices are made dense.
// A scalar has shape (). False for Operand::Other. Foreign elements raise the texts' TypeErrors.
bool nonlinear_operand(PyObject *object, Operand kind, NodeView &view, flat::Shape &shape);
Ref nlearr(PyObject *expr); // makes: the object array

// ---- arithmetic, for the other classes' hand-overs
// ------------------------------------------------------------------------ op of (left, right), broadcast, each side
// any operand kind but Other: a new MNLExpr. ValueError naming both shapes.
Ref nonlinear_operation(TreeOp op, PyObject *left, PyObject *right);
Ref nonlinear_function(TreeOp op, PyObject *operand);          // unary
Ref nonlinear_matrix_product(PyObject *left, PyObject *right); // left @ right; one side may be sparse

// ---- members
// ----------------------------------------------------------------------------------------------------------------
Ref build_mnlexpr_class();
std::span<pysupport::Member>
nonlinear_state_members(); // mnlexpr_state.cpp: constructors, attributes, indexing, assignment
std::span<pysupport::Member> nonlinear_operator_members(); // mnlexpr_operators.cpp
std::span<pysupport::Member> nonlinear_product_members();  // mnlexpr_products.cpp: @ and sum

} // namespace tarvopy
