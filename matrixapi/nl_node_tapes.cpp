// Elements of array nodes as rows of linear terms and tapes.
#include "matrixapi/nl_node_tapes.h"

namespace tarvopy {

namespace {

const ExprTreeObject *tree_of(const Element &element) {
    return reinterpret_cast<const ExprTreeObject *>(element.step->trees[element.index]);
}

double number_of(const Element &element) {
    return element.step->numbers ? element.step->numbers[element.index] : element.step->number;
}

bool is_sum(const Step &step) {
    if (step.kind == NLNode::Operation)
        return step.op == TreeOp::Plus || step.op == TreeOp::Minus || step.op == TreeOp::Uminus;
    return step.kind == NLNode::Sum || step.kind == NLNode::Rows;
}

// The only term of an expression without a constant.
bool single_term(const flat::Form &form, int64_t element, int32_t &id, double &factor) {
    int64_t terms = 0;
    for (const flat::Summand &summand : form.summands) {
        int64_t begin = summand.begin(element), end = summand.end(element);
        terms += end - begin;
        if (end > begin) {
            id = summand.id(begin);
            factor = summand.coefficient(begin);
        }
    }
    return terms == 1 && form.constant[element] == 0.0;
}

bool no_terms(const flat::Form &form, int64_t element) {
    for (const flat::Summand &summand : form.summands)
        if (summand.end(element) > summand.begin(element))
            return false;
    return true;
}

} // namespace

// Whether the element's tree is a constant, or a variable.
bool NodeTapes::is_constant(const Element &element, double &value) const {
    switch (element.step->kind) {
    case NLNode::Numbers:
        value = number_of(element);
        return true;
    case NLNode::Linear:
        value = element.step->linear->constant[element.index];
        return no_terms(*element.step->linear, element.index);
    case NLNode::Trees:
        value = tree_of(element)->slots[0].number;
        return tree_of(element)->op == TreeOp::Constant;
    default:
        return false;
    }
}

bool NodeTapes::is_variable(const Element &element, int32_t &id) const {
    double factor = 0.0;
    switch (element.step->kind) {
    case NLNode::Variables:
        id = element.step->ids[element.index];
        return true;
    case NLNode::Linear:
        return single_term(*element.step->linear, element.index, id, factor) && factor == 1.0;
    case NLNode::Trees:
        if (tree_of(element)->op != TreeOp::Variable)
            return false;
        id = variable_id(out_, tree_of(element));
        return true;
    default:
        return false;
    }
}

// ---- the sum that a row is ------------------------------------------------------------------------------------------

void NodeTapes::enter_sum(const Element &element, bool negative) {
    const Step &step = *element.step;
    if (step.operands.empty())
        return add_leaf(element, negative);
    if (is_sum(step)) {
        sums_.push_back({element, 0, negative});
    } else if (step.op == TreeOp::Multiply) {
        add_product(element, negative);
    } else {
        put(element);
        out_.end_summand(negative);
    }
}

void NodeTapes::add(int32_t step, int64_t element, bool negative) {
    sums_.clear();
    enter_sum(program_.at(step, element), negative);
    while (!sums_.empty()) {
        out_.check_length();
        if (!next_summand(sums_.back()))
            sums_.pop_back();
    }
}

// False when all summands were there. The frame may have moved when this returns.
bool NodeTapes::next_summand(Frame &frame) {
    const Element of = frame.of;
    const Step &sum = *of.step;
    const int64_t i = frame.next++;
    bool negative = frame.negative;
    switch (sum.kind) {
    case NLNode::Rows:
        if (sum.ptr[of.index] + i == sum.ptr[of.index + 1])
            return false;
        add_row_term(sum, sum.ptr[of.index] + i, negative);
        return true;
    case NLNode::Sum:
        if (i == sum.extent)
            return false;
        enter_sum(program_.summand(of, i), negative);
        return true;
    default:
        if (i == static_cast<int64_t>(sum.operands.size()))
            return false;
        if (sum.op == TreeOp::Uminus || (sum.op == TreeOp::Minus && i == 1))
            negative = !negative;
        enter_sum(program_.operand(of, static_cast<size_t>(i)), negative);
        return true;
    }
}

void NodeTapes::add_leaf(const Element &leaf, bool negative) {
    const Step &step = *leaf.step;
    switch (step.kind) {
    case NLNode::Numbers:
        return out_.add_constant(negative ? -number_of(leaf) : number_of(leaf));
    case NLNode::Variables:
        return out_.linear_term(step.ids[leaf.index], negative ? -1.0 : 1.0);
    case NLNode::Linear:
        return add_linear(*step.linear, leaf.index, negative);
    case NLNode::Quadratic:
        add_linear(*step.linear, leaf.index, negative);
        return add_quadratic(*step.quadratic, leaf.index, negative);
    default:
        if (step.trees[leaf.index])
            trees_.add(tree_of(leaf), negative);
    }
}

void NodeTapes::add_linear(const flat::Form &form, int64_t element, bool negative) {
    const double sign = negative ? -1.0 : 1.0;
    for (const flat::Summand &summand : form.summands)
        for (int64_t k = summand.begin(element), end = summand.end(element); k < end; ++k)
            out_.linear_term(summand.id(k), sign * summand.coefficient(k));
    out_.add_constant(sign * form.constant[element]);
}

void NodeTapes::add_quadratic(const flat::QuadForm &form, int64_t element, bool negative) {
    for (const flat::QuadSummand &summand : form.summands)
        for (int64_t k = summand.begin(element), end = summand.end(element); k < end; ++k) {
            double coefficient = summand.coefficient(k);
            bool factor = coefficient != 1.0;
            if (factor)
                out_.number(negative ? -coefficient : coefficient);
            put_pair(summand.vars1[k], summand.vars2[k]);
            if (factor)
                out_.operation(TreeOp::Multiply);
            out_.end_summand(negative && !factor);
        }
}

void NodeTapes::put_pair(int32_t first, int32_t second) {
    out_.variable(first);
    if (first == second)
        return out_.operation(TreeOp::Square);
    out_.variable(second);
    out_.operation(TreeOp::Multiply);
}

// A product is a linear term, or a summand in which a factor that is a constant takes the sign.
void NodeTapes::add_product(const Element &product, bool negative) {
    const Element factors[] = {program_.operand(product, 0), program_.operand(product, 1)};
    double constants[2];
    const bool constant[] = {is_constant(factors[0], constants[0]), is_constant(factors[1], constants[1])};
    int32_t id;
    for (int i : {0, 1})
        if (constant[i] && is_variable(factors[1 - i], id))
            return out_.linear_term(id, negative ? -constants[i] : constants[i]);
    for (int i : {0, 1}) {
        if (negative && constant[i]) {
            out_.number(-constants[i]);
            negative = false;
        } else {
            put(factors[i]);
        }
    }
    out_.operation(TreeOp::Multiply);
    out_.end_summand(negative);
}

void NodeTapes::add_row_term(const Step &rows, int64_t k, bool negative) {
    const Element operand = program_.source(rows, k);
    const double coefficient = negative ? -rows.coef[k] : rows.coef[k];
    int32_t id;
    if (is_variable(operand, id))
        return out_.linear_term(id, coefficient);
    if (rows.constant_first)
        out_.number(coefficient);
    put(operand);
    if (!rows.constant_first)
        out_.number(coefficient);
    out_.operation(TreeOp::Multiply);
    out_.end_summand(false);
}

// ---- below ----------------------------------------------------------------------------------------------------------

void NodeTapes::enter(const Element &element) {
    const Step &step = *element.step;
    switch (step.kind) {
    case NLNode::Numbers:
        return out_.number(number_of(element));
    case NLNode::Variables:
        return out_.variable(step.ids[element.index]);
    case NLNode::Linear:
    case NLNode::Quadratic: {
        int64_t terms = put_linear(*step.linear, element.index);
        if (step.kind == NLNode::Quadratic)
            terms += put_quadratic(*step.quadratic, element.index);
        return put_sum(terms);
    }
    case NLNode::Trees:
        return trees_.put(tree_of(element));
    default:
        open_.push_back({element, 0, false});
    }
}

void NodeTapes::put(const Element &element) {
    open_.clear();
    enter(element);
    while (!open_.empty()) {
        out_.check_length();
        if (!next_operand(open_.back()))
            open_.pop_back();
    }
}

// False when the element is written. The frame may have moved when this returns.
bool NodeTapes::next_operand(Frame &frame) {
    switch (frame.of.step->kind) {
    case NLNode::Sum:
        return next_of_sum(frame);
    case NLNode::Rows:
        return next_of_row(frame);
    default:
        return next_of_operation(frame);
    }
}

bool NodeTapes::next_of_operation(Frame &frame) {
    const Step &operation = *frame.of.step;
    if (auto k = static_cast<size_t>(frame.next++); k < operation.operands.size()) {
        enter(program_.operand(frame.of, k));
        return true;
    }
    if (operation.op == TreeOp::Plus)
        out_.sum(2);
    else
        out_.operation(operation.op);
    return false;
}

bool NodeTapes::next_of_sum(Frame &frame) {
    const int64_t extent = frame.of.step->extent;
    if (frame.next < extent) {
        enter(program_.summand(frame.of, frame.next++));
        return true;
    }
    put_sum(extent);
    return false;
}

// `next` counts halves of terms: what stands up to the operand, and what follows it.
bool NodeTapes::next_of_row(Frame &frame) {
    const Step &rows = *frame.of.step;
    const int64_t first = rows.ptr[frame.of.index], terms = rows.ptr[frame.of.index + 1] - first;
    if (frame.next == 2 * terms) {
        put_sum(terms);
        return false;
    }
    const int64_t k = first + frame.next / 2;
    const bool operand_comes = frame.next++ % 2 == 0;
    if (operand_comes == rows.constant_first)
        out_.number(rows.coef[k]);
    if (operand_comes)
        enter(program_.source(rows, k));
    else
        out_.operation(TreeOp::Multiply);
    return true;
}

void NodeTapes::put_sum(int64_t terms) {
    if (terms == 0)
        out_.number(0.0);
    if (terms > 1)
        out_.sum(terms);
}

// The terms in the form of their trees; how many there are.
int64_t NodeTapes::put_linear(const flat::Form &form, int64_t element) {
    int64_t terms = 0;
    for (const flat::Summand &summand : form.summands)
        for (int64_t k = summand.begin(element), end = summand.end(element); k < end; ++k, ++terms)
            put_scaled(summand.coefficient(k), [&] { out_.variable(summand.id(k)); });
    if (form.constant[element] != 0.0) {
        out_.number(form.constant[element]);
        ++terms;
    }
    return terms;
}

int64_t NodeTapes::put_quadratic(const flat::QuadForm &form, int64_t element) {
    int64_t terms = 0;
    for (const flat::QuadSummand &summand : form.summands)
        for (int64_t k = summand.begin(element), end = summand.end(element); k < end; ++k, ++terms)
            put_scaled(summand.coefficient(k), [&] { put_pair(summand.vars1[k], summand.vars2[k]); });
    return terms;
}

} // namespace tarvopy
