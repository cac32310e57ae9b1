// Expression trees of numbers, variables, linear and quadratic expressions.
//
//   2*x - y + 3        Plus(Multiply(2.0, x), Multiply(-1.0, y), 3.0)
//   x                  Variable x                              (a LinExpr with this one term, too)
//   2*x*y + z**2       Plus(Multiply(2.0, Multiply(x, y)), Square(z))
#include "nlexpr.h"
#include "quadexpr.h"

namespace tarvopy::core {

namespace {

Ref scaled_tree(double coeff, Ref tree) {
    return coeff == 1.0 ? tree : binary_node(TreeOp::Multiply, constant_tree(coeff), tree);
}

Ref product_tree(PyObject *first, PyObject *second) {
    Ref left = variable_tree(first);
    return first == second ? unary_node(TreeOp::Square, left)
                           : binary_node(TreeOp::Multiply, left, variable_tree(second));
}

// Trees while a list of them is being made.
using Trees = std::vector<Ref>;

void append_linear(Trees &trees, const Operand &operand) {
    Terms terms = terms_of(operand);
    for (size_t i = 0; i < terms.vars.size(); ++i)
        trees.push_back(scaled_tree(PyFloat_AS_DOUBLE(terms.coeffs[i]), variable_tree(terms.vars[i])));
    double constant = constant_of(operand);
    if (constant != 0.0)
        trees.push_back(constant_tree(constant));
}

void append_quadratic(Trees &trees, const Operand &operand) {
    QuadTerms terms = quad_terms_of(operand);
    for (size_t i = 0; i < terms.coeffs.size(); ++i)
        trees.push_back(scaled_tree(PyFloat_AS_DOUBLE(terms.coeffs[i]), product_tree(terms.vars1[i], terms.vars2[i])));
}

// The linear part first: the matrix classes keep it apart and read it first, and both ways must give the same trees.
Trees trees_of_terms(const Operand &operand) {
    Trees trees;
    if (operand.kind == OperandKind::LinExpr)
        append_linear(trees, operand);
    else if (PyObject *linear = as_quadexpr(operand.object)->linear)
        append_linear(trees, {OperandKind::LinExpr, linear});
    append_quadratic(trees, operand);
    return trees;
}

Ref sum_of_terms(const Operand &operand) {
    Trees trees = trees_of_terms(operand);
    std::vector<PyObject *> borrowed;
    borrowed.reserve(trees.size());
    for (const Ref &tree : trees)
        borrowed.push_back(tree.get());
    return sum_tree(borrowed);
}

} // namespace

Ref tree_of(const Operand &operand) {
    switch (operand.kind) {
    case OperandKind::Number:
        return constant_tree(finite_constant(operand.object));
    case OperandKind::Var:
        return variable_tree(operand.object);
    case OperandKind::LinExpr:
    case OperandKind::QuadExpr:
        return sum_of_terms(operand);
    case OperandKind::NLExpr:
        return Ref::borrow(as_nlexpr(operand.object)->root);
    default:
        fail(PyExc_TypeError, "a number, a Var, a LinExpr, a QuadExpr or an NLExpr is needed, not '%.200s'",
             Py_TYPE(operand.object)->tp_name);
    }
}

Ref coerced_tree(PyObject *object) {
    return is_tree(object) ? Ref::borrow(object) : tree_of(classify(object));
}

Ref term_trees(const Operand &operand) {
    Trees trees = trees_of_terms(operand);
    Ref list = check(PyList_New(static_cast<Py_ssize_t>(trees.size())));
    for (size_t i = 0; i < trees.size(); ++i)
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), trees[i].release());
    return list;
}

} // namespace tarvopy::core
