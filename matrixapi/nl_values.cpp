// Values of array nodes at the last solution: one pass for each node, over all of its elements.
//
//   nlfunc.sin(t[1:]) * 2.0     the solution at the ids of t[1:], then its sines, then these times 2
//
// The numbers of a node are given back when the last node that uses them is done.
#include "matrixapi/mlinexpr.h"
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

void read_solution(const Step &step, int64_t n, const int32_t *ids, double *to) {
    TRVmodel *store = mod.core->store(model_of(step).get());
    if (!store)
        throw PythonError{};
    if (int code = TRVgetdbls(store, "X", n, ids, 0, to))
        check_status(mod.core->raise(store, code));
}

std::vector<double> solution(const Step &step, const flat::Buffer<int32_t> &ids, int64_t n) {
    std::vector<double> x(static_cast<size_t>(n));
    if (n > 0)
        read_solution(step, n, ids.data(), x.data());
    return x;
}

void add_terms(const Step &step, const flat::Summand &summand, double *to) {
    const bool local = !summand.vars.empty(); // the solution by column, or term by term
    const std::vector<double> x =
        local ? solution(step, summand.vars, summand.vars.size()) : solution(step, summand.cols, summand.nnz());
    for (int64_t row = 0; row < summand.nrows; ++row)
        for (int64_t k = summand.begin(row), end = summand.end(row); k < end; ++k)
            to[row] += summand.coefficient(k) * x[static_cast<size_t>(local ? summand.column(k) : k)];
}

void add_terms(const Step &step, const flat::QuadSummand &summand, double *to) {
    const std::vector<double> x = solution(step, summand.vars1, summand.nnz()),
                              y = solution(step, summand.vars2, summand.nnz());
    for (int64_t row = 0; row < summand.nrows; ++row)
        for (int64_t k = summand.begin(row), end = summand.end(row); k < end; ++k)
            to[row] += summand.coefficient(k) * (x[static_cast<size_t>(k)] * y[static_cast<size_t>(k)]);
}

template <class Form> bool has_terms(const Form &form, int64_t element) {
    return std::any_of(form.summands.begin(), form.summands.end(),
                       [&](const auto &summand) { return summand.end(element) > summand.begin(element); });
}

// The terms one after the other in the order of the elements' trees: rounding and the signs of zeros are theirs.
void polynomial_values(const Step &step, double *to) {
    const flat::Form &linear = *step.linear;
    const flat::QuadForm *quadratic = step.kind == NLNode::Quadratic ? step.quadratic : nullptr;
    std::fill_n(to, step.size, -0.0); // to which any first term adds up unchanged
    for (const flat::Summand &summand : linear.summands)
        if (summand.nnz() > 0)
            add_terms(step, summand, to);
    for (int64_t i = 0; i < step.size; ++i)
        if (linear.constant[i] != 0.0)
            to[i] += linear.constant[i];
        else if (!has_terms(linear, i) && !(quadratic && has_terms(*quadratic, i)))
            to[i] = 0.0;
    if (quadratic)
        for (const flat::QuadSummand &summand : quadratic->summands)
            if (summand.nnz() > 0)
                add_terms(step, summand, to);
}

void leaf_values(const Step &step, double *to) {
    switch (step.kind) {
    case NLNode::Numbers:
        for (int64_t i = 0; i < step.size; ++i)
            to[i] = step.numbers ? step.numbers[i] : step.number;
        return;
    case NLNode::Variables:
        return read_solution(step, step.size, step.ids, to);
    case NLNode::Trees:
        for (int64_t i = 0; i < step.size; ++i)
            check_status(mod.core->tree_value(step.trees[i], to + i));
        return;
    default:
        polynomial_values(step, to);
    }
}

// ---- parts of leaves ------------------------------------------------------------------------------------------------

// The elements of every step that the last one asks for, by ascending number.
using Needed = std::vector<std::vector<int64_t>>;

template <class Take> void each_operand(const Step &step, int64_t element, Take take) {
    auto place = [&](const Step::Operand &operand, int64_t i) { take(operand.step, operand.place(i)); };
    switch (step.kind) {
    case NLNode::Sum:
        for (int64_t j = 0; j < step.extent; ++j)
            place(step.operands[0], element * step.extent + j);
        return;
    case NLNode::Rows:
        for (int64_t k = step.ptr[element]; k < step.ptr[element + 1]; ++k)
            take(step.operands[0].step, step.source[k]);
        return;
    case NLNode::Picked: {
        const size_t k = step.picked_operand(step.source[element]);
        return take(step.operands[k].step, step.source[element] - step.starts[k]);
    }
    default:
        for (const Step::Operand &operand : step.operands)
            place(operand, element);
    }
}

Needed needed_elements(const Program &program) {
    std::vector<std::vector<bool>> marks;
    for (const Step &step : program.steps)
        marks.emplace_back(static_cast<size_t>(step.size), &step == &program.steps.back());
    Needed needed(marks.size());
    for (size_t i = marks.size(); i-- > 0;) {
        const Step &step = program.steps[i];
        for (int64_t element = 0; element < step.size; ++element) {
            if (!marks[i][static_cast<size_t>(element)])
                continue;
            needed[i].push_back(element);
            each_operand(step, element, [&](int32_t operand, int64_t place) {
                marks[static_cast<size_t>(operand)][static_cast<size_t>(place)] = true;
            });
        }
    }
    return needed;
}

// The values of these elements alone, as those of a smaller leaf; 0 for others.
void leaf_values(const Step &step, const std::vector<int64_t> &elements, double *to) {
    std::fill_n(to, step.size, 0.0);
    const auto n = static_cast<int64_t>(elements.size());
    if (n == 0)
        return;
    Step smaller = step;
    smaller.size = n;
    std::vector<int32_t> ids;
    std::vector<double> numbers;
    std::vector<PyObject *> trees;
    flat::Form linear;
    flat::QuadForm quadratic;
    for (int64_t element : elements) {
        if (step.ids)
            ids.push_back(step.ids[element]);
        if (step.numbers)
            numbers.push_back(step.numbers[element]);
        if (step.trees)
            trees.push_back(step.trees[element]);
    }
    if (step.kind == NLNode::Linear || step.kind == NLNode::Quadratic) {
        linear = flat::gathered(*step.linear, elements.data(), {n});
        if (!linear.summands.empty())
            linear.summands = {flat::joined(linear.summands, n)}; // which reads no variable but those of its terms
        smaller.linear = &linear;
    }
    if (step.kind == NLNode::Quadratic)
        smaller.quadratic = &(quadratic = flat::gathered(*step.quadratic, elements.data(), {n}));
    smaller.ids = ids.data();
    smaller.numbers = numbers.empty() ? nullptr : numbers.data();
    smaller.trees = trees.data();
    std::vector<double> values(elements.size());
    leaf_values(smaller, values.data());
    for (size_t i = 0; i < values.size(); ++i)
        to[elements[i]] = values[i];
}

// ---- inner nodes ----------------------------------------------------------------------------------------------------

class Evaluation {
  public:
    // needed: of leaves the elements that are asked for; empty: all.
    Evaluation(const Program &program, const Needed &needed)
        : program_(program), needed_(needed), values_(program.steps.size()), uses_(values_.size()) {
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
                evaluate(i, step, values_[i].write());
            for (const Step::Operand &operand : step.operands)
                if (auto used = static_cast<size_t>(operand.step); --uses_[used] == 0)
                    values_[used] = {};
        }
        return values_.back();
    }

  private:
    void evaluate(size_t i, const Step &step, double *to) const {
        switch (step.kind) {
        case NLNode::Operation:
            return operation_values(step, to);
        case NLNode::Sum:
            return sum_values(step, to);
        case NLNode::Rows:
            return row_values(step, to);
        case NLNode::Picked:
            return picked_values(step, to);
        default:
            needed_.empty() ? leaf_values(step, to) : leaf_values(step, needed_[i], to);
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
            const int64_t first = step.ptr[i], end = step.ptr[i + 1];
            double total = end > first ? step.coef[first] * from[step.source[first]] : 0.0;
            for (int64_t k = first + 1; k < end; ++k)
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
    const Needed &needed_;
    std::vector<Values> values_;
    std::vector<int64_t> uses_;
};

Values values_of(const Program &program) {
    const Needed everything;
    try {
        return Evaluation(program, everything).run();
    } catch (const PythonError &) {
        // A leaf may hold what no element asks for, and what has no value: a variable that was removed. Whoever looks
        // at objects never meets it.
        PyErr_Clear();
    }
    const Needed needed = needed_elements(program);
    return Evaluation(program, needed).run();
}

} // namespace

Ref node_values(const NodeRef &node) {
    Program program;
    program.add(*node);
    return float_array(node->shape, values_of(program).data());
}

} // namespace tarvopy
