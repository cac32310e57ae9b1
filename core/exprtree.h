// Expression trees: the contents of NLExpr, and what the matrix classes build elementwise.
//
//   2*sin(x) + y     Plus(Multiply(Constant 2.0, Sin(Variable x)), Variable y)
//
// Nodes never change, so every expression that uses one shares it: an operator costs one node, whatever the size of its
// operands. What was shared stays shared when values are computed. Nothing here recurses, since a sum that was
// built term by term is as deep as it is long.
//
// Why the collector need not know the nodes: a node refers to nodes made before it and to variables, so no cycle can
// pass through; _ExprTree has no constructor, no attributes that can be set and no subclasses.
#pragma once

#include "operators.h"

#include <span>
#include <string>

namespace tarvopy::core {

inline const ExprTreeObject *as_tree(PyObject *object) {
    return reinterpret_cast<const ExprTreeObject *>(object);
}
inline PyObject *as_object(const ExprTreeObject *tree) {
    return reinterpret_cast<PyObject *>(const_cast<ExprTreeObject *>(tree));
}

struct TreeOpInfo {
    const char *name; // as users see it
    int children;     // -1: any number
};
const TreeOpInfo &info_of(TreeOp op);

// ---- making nodes
Ref constant_tree(double value);
Ref variable_tree(PyObject *var);
// children: trees, as many as the operation takes.
Ref node_over(TreeOp op, std::span<PyObject *const> children);
inline Ref unary_node(TreeOp op, const Ref &child) {
    PyObject *children[] = {child.get()};
    return node_over(op, children);
}
inline Ref binary_node(TreeOp op, const Ref &left, const Ref &right) {
    PyObject *children[] = {left.get(), right.get()};
    return node_over(op, children);
}
// The sum of trees: one alone is the sum, of none it is the constant 0.
Ref sum_tree(std::span<PyObject *const> terms);

// ---- checked, for what comes from outside
const ExprTreeObject *checked_tree(PyObject *object);
Ref checked_node(TreeOp op, PyObject *const *children, Py_ssize_t n);

// The operation whose builder (_ExprTree._from_plus, ...) the object is, else -1.
int builder_operation(PyObject *callable);

// ---- trees of other expressions (exprtree_convert.cpp)
// Of a Number (finite), Var, LinExpr, QuadExpr or NLExpr. One term alone is the tree, without a sum; a coefficient of 1
// makes no product, a constant of 0 no term.
Ref tree_of(const Operand &operand);
// The same from any object; TypeError for others.
Ref coerced_tree(PyObject *object);
// A list of the terms' trees of a LinExpr or QuadExpr: linear terms, the constant, quadratic terms.
Ref term_trees(const Operand &operand);

// ---- reading (exprtree_value.cpp, exprtree_text.cpp)
// The value at the last solution, computed once for each node that is shared. Outside a function's domain NaN or
// infinite, as C has it.
double value_of(const ExprTreeObject *root);
// Infix, with Python's operators and their precedence.
std::string infix_text(const ExprTreeObject *root);

} // namespace tarvopy::core
