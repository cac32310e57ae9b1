// Values of array nodes at the last solution: one pass for each node, over all of its elements.
//
//   nlfunc.sin(t[1:]) * 2.0     the solution at the ids of t[1:], then its sines, then these times 2
//
// The numbers of a node are given back when the last node that uses them is done.
#include "matrixapi/mlinexpr.h"
#include "matrixapi/mquadexpr.h"
#include "matrixapi/nl_program.h"
#include "matrixapi/operands.h"

#include "collaborators/operation_values.h"

namespace tarvopy {

using namespace pysupport;

namespace {

using Values = flat::Buffer<double>;

// ---- leaves ---------------------------------------------------------------------------------------------------------

Ref model_of(const Step &step) {
    return Ref::borrow(reinterpret_cast<PyObject *>(step.model));
}

void variable_values(const Step &step, double *to) {
    TRVmodel *store = mod.core->store(model_of(step).get());
    if (!store)
        throw PythonError{};
    if (int code = TRVgetdbls(store, "X", step.size, step.ids, 0, to))
        check_status(mod.core->raise(store, code));
}

void linear_values(const Step &step, double *to) {
    for (int64_t i = 0; i < step.size; ++i)
        to[i] = step.linear->constant[i];
    add_linear_values(*step.linear, model_of(step), to);
}

void tree_values(const Step &step, double *to) {
    for (int64_t i = 0; i < step.size; ++i)
        check_status(mod.core->tree_value(step.trees[i], to + i));
}

// ---- inner nodes ----------------------------------------------------------------------------------------------------

class Evaluation {
  public:
    explicit Evaluation(const Program &program)
        : program_(program), values_(program.steps.size()), uses_(values_.size()) {
        for (const Step &step : program.steps)
            for (const Step::Operand &operand : step.operands)
                ++uses_[static_cast<size_t>(operand.step)];
    }
    // Of the last step.
    Values run() {
        for (size_t i = 0; i < values_.size(); ++i) {
            const Step &step = program_.steps[i];
            values_[i] = Values(step.size);
            if (step.size > 0)
                evaluate(step, values_[i].write());
            for (const Step::Operand &operand : step.operands)
                if (auto used = static_cast<size_t>(operand.step); --uses_[used] == 0)
                    values_[used] = {};
        }
        return values_.back();
    }

  private:
    void evaluate(const Step &step, double *to) const {
        switch (step.kind) {
        case NLNode::Numbers:
            for (int64_t i = 0; i < step.size; ++i)
                to[i] = step.numbers ? step.numbers[i] : step.number;
            return;
        case NLNode::Variables:
            return variable_values(step, to);
        case NLNode::Linear:
            return linear_values(step, to);
        case NLNode::Quadratic:
            linear_values(step, to);
            return add_quadratic_values(*step.quadratic, model_of(step), to);
        case NLNode::Trees:
            return tree_values(step, to);
        case NLNode::Operation:
            return operation_values(step, to);
        case NLNode::Sum:
            return sum_values(step, to);
        case NLNode::Rows:
            return row_values(step, to);
        case NLNode::Picked:
            return picked_values(step, to);
        }
    }
    const double *values_of(const Step::Operand &operand) const {
        return values_[static_cast<size_t>(operand.step)].data();
    }

    void operation_values(const Step &step, double *to) const {
        const Step::Operand &left = step.operands.front(), &right = step.operands.back();
        const double *a = values_of(left), *b = values_of(right);
        for (int64_t i = 0; i < step.size; ++i)
            to[i] = operation_value(step.op, a[left.place(i)], b[right.place(i)]);
    }
    void sum_values(const Step &step, double *to) const {
        const Step::Operand &operand = step.operands[0];
        const double *from = values_of(operand);
        for (int64_t i = 0; i < step.size; ++i) {
            double total = step.extent > 0 ? from[operand.place(i * step.extent)] : 0.0;
            for (int64_t j = 1; j < step.extent; ++j)
                total += from[operand.place(i * step.extent + j)];
            to[i] = total;
        }
    }
    void row_values(const Step &step, double *to) const {
        const double *from = values_of(step.operands[0]);
        for (int64_t i = 0; i < step.size; ++i) {
            double total = 0.0;
            for (int64_t k = step.ptr[i]; k < step.ptr[i + 1]; ++k)
                total += step.coef[k] * from[step.source[k]];
            to[i] = total;
        }
    }
    void picked_values(const Step &step, double *to) const {
        for (int64_t i = 0; i < step.size; ++i) {
            const size_t k = step.picked_operand(step.source[i]);
            to[i] = values_of(step.operands[k])[step.source[i] - step.starts[k]];
        }
    }

    const Program &program_;
    std::vector<Values> values_;
    std::vector<int64_t> uses_;
};

} // namespace

Ref node_values(const NodeRef &node) {
    Program program;
    program.add(*node);
    Values values = Evaluation(program).run();
    return float_array(node->shape, values.data());
}

} // namespace tarvopy
