// Array nodes: leaves, inner nodes, views, and freeing. Trees of them stand in nlnode_trees.cpp.
#include "matrixapi/nlnode.h"

#include "matrixapi/mlinexpr_operators.h"

#include <memory>

namespace tarvopy {

using namespace pysupport;

// Recursion would follow a chain as long as a program ran. The chain of dead nodes is the nodes' own, so that nothing
// here can fail.
void free_nodes(NLNode *dead) noexcept {
    while (dead) {
        NLNode *node = std::exchange(dead, dead->next_dead);
        for (NodeView &operand : node->operands) {
            NLNode *child = operand.node.release();
            if (child && --child->count == 0)
                child->next_dead = std::exchange(dead, child);
        }
        delete node; // its trees and its model may run Python code, which cannot reach the chain
    }
}

namespace {

NodeRef new_node(NLNode::Kind kind, flat::Shape shape) {
    return NodeRef(new NLNode(kind, std::move(shape)));
}

std::vector<int64_t> contiguous_strides(const flat::Shape &shape) {
    std::vector<int64_t> strides(shape.size());
    int64_t step = 1;
    for (size_t d = shape.size(); d-- > 0;) {
        strides[d] = step;
        step *= shape[d];
    }
    return strides;
}

} // namespace

// ---- leaves ---------------------------------------------------------------------------------------------------------

NodeRef number_node(double value) {
    need_finite_constants(&value, 1);
    NodeRef node = new_node(NLNode::Numbers, {});
    node->number = value;
    return node;
}

NodeRef numbers_node(flat::Buffer<double> values, flat::Shape shape) {
    need_finite_constants(values.data(), values.size(), shape);
    NodeRef node = new_node(NLNode::Numbers, std::move(shape));
    node->numbers = std::move(values);
    return node;
}

NodeRef variables_node(flat::Buffer<int32_t> ids, flat::Shape shape, Ref model) {
    NodeRef node = new_node(NLNode::Variables, std::move(shape));
    node->ids = std::move(ids);
    node->model = std::move(model);
    return node;
}

NodeRef linear_node(flat::Form form, Ref model) {
    NodeRef node = new_node(NLNode::Linear, form.shape);
    node->linear = std::move(form);
    node->model = std::move(model);
    return node;
}

NodeRef quadratic_node(flat::Form linear, flat::QuadForm quadratic, Ref model) {
    NodeRef node = new_node(NLNode::Quadratic, quadratic.shape);
    node->linear = std::move(linear);
    node->quadratic = std::move(quadratic);
    node->model = std::move(model);
    return node;
}

NodeRef trees_node(Ref trees, flat::Shape shape) {
    NodeRef node = new_node(NLNode::Trees, std::move(shape));
    node->trees = std::move(trees);
    return node;
}

// ---- views ----------------------------------------------------------------------------------------------------------

NodeView whole(const NodeRef &node) {
    return {node, 0, contiguous_strides(node->shape)};
}

NodeView broadcast(NodeView view, const flat::Shape &from, const flat::Shape &to) {
    std::vector<int64_t> strides(to.size(), 0);
    size_t added = to.size() - from.size();
    for (size_t d = 0; d < from.size(); ++d)
        if (from[d] == to[added + d])
            strides[added + d] = view.strides[d];
    view.strides = std::move(strides);
    return view;
}

bool is_whole(const NodeView &view, const flat::Shape &shape) {
    return view.offset == 0 && shape == view.node->shape &&
           (view.node->size <= 1 || view.strides == contiguous_strides(shape));
}

flat::Buffer<int64_t> positions(const NodeView &view, const flat::Shape &shape) {
    flat::Buffer<int64_t> places(flat::size_of(shape));
    int64_t *to = places.write();
    for (Walk walk(view, shape); !walk.done(); walk.next())
        *to++ = walk.at();
    return places;
}

NodeRef node_of(const NodeView &view, const flat::Shape &shape) {
    return is_whole(view, shape) ? view.node : picked_node(shape, positions(view, shape), {view.node});
}

// ---- inner nodes ----------------------------------------------------------------------------------------------------

namespace {

NodeRef operation(TreeOp op, flat::Shape shape) {
    NodeRef node = new_node(NLNode::Operation, std::move(shape));
    node->op = op;
    return node;
}

} // namespace

NodeRef operation_node(TreeOp op, flat::Shape shape, NodeView operand) {
    NodeRef node = operation(op, std::move(shape));
    node->operands.push_back(std::move(operand));
    return node;
}

NodeRef operation_node(TreeOp op, flat::Shape shape, NodeView left, NodeView right) {
    NodeRef node = operation(op, std::move(shape));
    node->operands.reserve(2);
    node->operands.push_back(std::move(left));
    node->operands.push_back(std::move(right));
    return node;
}

NodeRef sum_node(flat::Shape shape, flat::Shape extents, NodeView operand) {
    NodeRef node = new_node(NLNode::Sum, std::move(shape));
    node->extents = std::move(extents);
    node->operands.push_back(std::move(operand));
    return node;
}

NodeRef rows_node(flat::Shape shape, flat::Buffer<int64_t> ptr, flat::Buffer<int64_t> source, flat::Buffer<double> coef,
                  NodeRef operand, bool constant_first) {
    need_finite_constants(coef.data(), coef.size());
    NodeRef node = new_node(NLNode::Rows, std::move(shape));
    node->ptr = std::move(ptr);
    node->source = std::move(source);
    node->coef = std::move(coef);
    node->constant_first = constant_first;
    node->operands.push_back(whole(operand));
    return node;
}

NodeRef picked_node(flat::Shape shape, flat::Buffer<int64_t> source, std::vector<NodeRef> operands) {
    NodeRef node = new_node(NLNode::Picked, std::move(shape));
    node->source = std::move(source);
    node->operands.reserve(operands.size());
    for (const NodeRef &operand : operands)
        node->operands.push_back(whole(operand));
    return node;
}

} // namespace tarvopy
