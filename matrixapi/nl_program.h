// Array nodes laid out for passes over their elements: every node once, operands before what uses them.
//
//   Program program;
//   int32_t root = program.add(*node);           nlfunc.sin(t[1:]) * 2.0     0 Variables   1 Sin(0)   2 Numbers
//                                                                            3 Multiply(1, 2)
//   program.steps[root].operands[0].place(i)     which element of step 1 element i of the root takes
//
// A step points into what its node holds: the nodes must stay.
#pragma once

#include "matrixapi/nlnode.h"

#include <algorithm>
#include <unordered_map>

namespace tarvopy {

// Where the elements of one array, counted in C order of its shape, stand in another: offset + sum of index * stride.
// Axes that a single stride can walk through are one, so that nothing is divided in the common cases.
class ElementMap {
  public:
    ElementMap() = default;
    ElementMap(const flat::Shape &shape, const int64_t *strides, int64_t offset);
    // Of an array of shape `from` in C order, broadcast.
    static ElementMap broadcast(const flat::Shape &from, const flat::Shape &to);
    int64_t operator()(int64_t i) const { return axes_.empty() ? offset_ + i * stride_ : divided(i); }
    bool is_identity() const { return axes_.empty() && offset_ == 0 && stride_ == 1; }

  private:
    struct Axis {
        int64_t extent, stride;
    };
    int64_t divided(int64_t i) const;

    int64_t offset_ = 0, stride_ = 1; // stride of the first axis
    std::vector<Axis> axes_;          // the others, last one first
};

struct Step {
    struct Operand {
        int32_t step = -1;
        ElementMap place; // Sum: of element i * extent + j, the j-th summand of element i
    };
    NLNode::Kind kind;
    TreeOp op = TreeOp::Plus;
    int64_t size = 1;

    double number = 0.0;
    const double *numbers = nullptr;
    const int32_t *ids = nullptr;
    const flat::Form *linear = nullptr;
    const flat::QuadForm *quadratic = nullptr;
    PyObject *const *trees = nullptr; // NULL among them: no summand; only where there is nothing above
    ModelObject *model = nullptr;

    std::vector<Operand> operands;
    int64_t extent = 1;          // Sum: how many summands
    std::vector<int64_t> starts; // Picked: of each operand its first number in `source`

    const int64_t *ptr = nullptr, *source = nullptr;
    const double *coef = nullptr;
    bool constant_first = false;

    // Which operand of Picked has an element of this number.
    size_t picked_operand(int64_t number) const {
        return static_cast<size_t>(std::upper_bound(starts.begin(), starts.end(), number) - starts.begin()) - 1;
    }
};

// One element of a step that is no Picked.
struct Element {
    const Step *step;
    int64_t index;
};

class Program {
  public:
    std::vector<Step> steps;
    // The step of a node, which is added with all that it is made of where it is not there yet.
    int32_t add(const NLNode &node);
    Element at(int32_t step, int64_t index) const {
        Element element{&steps[static_cast<size_t>(step)], index};
        while (element.step->kind == NLNode::Picked)
            element = picked(element);
        return element;
    }
    // Operand k of an element of an Operation, summand j of one of a Sum.
    Element operand(const Element &of, size_t k) const {
        const Step::Operand &operand = of.step->operands[k];
        return at(operand.step, operand.place(of.index));
    }
    Element summand(const Element &of, int64_t j) const {
        const Step::Operand &operand = of.step->operands[0];
        return at(operand.step, operand.place(of.index * of.step->extent + j));
    }
    // What term k of Rows multiplies.
    Element source(const Step &rows, int64_t k) const { return at(rows.operands[0].step, rows.source[k]); }
    // The least entries that the tape of an element has, every use of a part counted.
    double least_entries(int32_t step) const;
    // Leaves without a node.
    int32_t add_linear(const flat::Form &form, ModelObject *model);
    int32_t add_quadratic(const flat::Form &linear, const flat::QuadForm &quadratic, ModelObject *model);
    int32_t add_trees(PyObject *const *trees, int64_t size);

  private:
    int32_t append(Step step) {
        steps.push_back(std::move(step));
        return static_cast<int32_t>(steps.size()) - 1;
    }
    Element picked(const Element &element) const;
    Step step_of(const NLNode &node) const;
    Step::Operand operand_of(const NLNode &node, const NodeView &view) const;

    std::unordered_map<const NLNode *, int32_t> places_;
};

} // namespace tarvopy
