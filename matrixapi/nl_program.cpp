// Array nodes laid out for passes over their elements.
#include "matrixapi/nl_program.h"

#include <cmath>

#include "matrixapi/operands.h"

namespace tarvopy {

using namespace pysupport;

// ---- places ---------------------------------------------------------------------------------------------------------

ElementMap::ElementMap(const flat::Shape &shape, const int64_t *strides, int64_t offset) : offset_(offset) {
    for (size_t d = shape.size(); d-- > 0;) {
        if (shape[d] == 1)
            continue;
        if (!axes_.empty() && strides[d] == axes_.back().stride * axes_.back().extent)
            axes_.back().extent *= shape[d];
        else
            axes_.push_back({shape[d], strides[d]});
    }
    if (axes_.empty())
        return;
    stride_ = axes_.back().stride; // the first axis needs no extent
    axes_.pop_back();
}

ElementMap ElementMap::broadcast(const flat::Shape &from, const flat::Shape &to) {
    std::vector<int64_t> strides(to.size(), 0);
    int64_t stride = 1;
    for (size_t d = from.size(); d-- > 0;) {
        if (from[d] != 1)
            strides[to.size() - from.size() + d] = stride;
        stride *= from[d];
    }
    return {to, strides.data(), 0};
}

int64_t ElementMap::divided(int64_t i) const {
    int64_t place = offset_;
    for (const Axis &axis : axes_) {
        int64_t rest = i / axis.extent;
        place += (i - rest * axis.extent) * axis.stride;
        i = rest;
    }
    return place + i * stride_;
}

// ---- steps ----------------------------------------------------------------------------------------------------------

namespace {

Step leaf(NLNode::Kind kind, int64_t size, ModelObject *model) {
    Step step{};
    step.kind = kind;
    step.size = size;
    step.model = size > 0 ? model : nullptr;
    return step;
}

flat::Shape operand_shape(const NLNode &node) {
    flat::Shape shape = node.shape;
    if (node.kind == NLNode::Sum)
        shape.insert(shape.end(), node.extents.begin(), node.extents.end());
    return shape;
}

} // namespace

Step::Operand Program::operand_of(const NLNode &node, const NodeView &view) const {
    Step::Operand operand;
    operand.step = places_.at(view.node.get());
    if (node.kind == NLNode::Operation || node.kind == NLNode::Sum)
        operand.place = ElementMap(operand_shape(node), view.strides.data(), view.offset);
    return operand;
}

Step Program::step_of(const NLNode &node) const {
    Step step = leaf(node.kind, node.size, node.model.as<ModelObject>());
    step.op = node.op;
    step.number = node.number;
    step.numbers = node.numbers.data();
    step.ids = node.ids.data();
    step.linear = &node.linear;
    step.quadratic = &node.quadratic;
    if (node.kind == NLNode::Trees)
        step.trees = static_cast<PyObject *const *>(PyArray_DATA(as_array(node.trees)));
    int64_t start = 0;
    for (const NodeView &view : node.operands) {
        step.operands.push_back(operand_of(node, view));
        step.starts.push_back(start);
        start += view.node->size;
    }
    step.extent = flat::size_of(node.extents);
    step.ptr = node.ptr.data();
    step.source = node.source.data();
    step.coef = node.coef.data();
    step.constant_first = node.constant_first;
    return step;
}

Element Program::picked(const Element &element) const {
    const Step &step = *element.step;
    const int64_t number = step.source[element.index];
    const size_t k = step.picked_operand(number);
    return {&steps[static_cast<size_t>(step.operands[k].step)], number - step.starts[k]};
}

int32_t Program::add(const NLNode &root) {
    struct Open {
        const NLNode *node;
        size_t next;
    };
    std::vector<Open> open{{&root, 0}};
    while (!open.empty()) {
        auto &[node, next] = open.back();
        if (places_.contains(node)) {
            open.pop_back();
        } else if (next < node->operands.size()) {
            const NLNode *operand = node->operands[next++].node.get();
            open.push_back({operand, 0});
        } else {
            places_.emplace(node, append(step_of(*node)));
            open.pop_back();
        }
    }
    return places_.at(&root);
}

double Program::least_entries(int32_t of) const {
    std::vector<double> counts(static_cast<size_t>(of) + 1, 1.0);
    for (size_t i = 0; i < counts.size(); ++i) {
        const Step &step = steps[i];
        if (step.operands.empty() || step.kind == NLNode::Rows) // a row may have no terms
            continue;
        double least = HUGE_VAL, sum = 0.0;
        for (const Step::Operand &operand : step.operands) {
            const double count = counts[static_cast<size_t>(operand.step)];
            least = std::min(least, count);
            sum += count;
        }
        counts[i] = step.kind == NLNode::Picked ? least
                    : step.kind == NLNode::Sum  ? sum * static_cast<double>(step.extent)
                                                : sum + 1.0;
    }
    return counts.back();
}

int32_t Program::add_linear(const flat::Form &form, ModelObject *model) {
    Step step = leaf(NLNode::Linear, form.size, model);
    step.linear = &form;
    return append(std::move(step));
}

int32_t Program::add_quadratic(const flat::Form &linear, const flat::QuadForm &quadratic, ModelObject *model) {
    Step step = leaf(NLNode::Quadratic, quadratic.size, model);
    step.linear = &linear;
    step.quadratic = &quadratic;
    return append(std::move(step));
}

int32_t Program::add_trees(PyObject *const *trees, int64_t size) {
    Step step = leaf(NLNode::Trees, size, nullptr);
    step.trees = trees;
    return append(std::move(step));
}

} // namespace tarvopy
