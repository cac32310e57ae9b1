// Elements of array nodes as rows of linear terms and tapes.
#include "matrixapi/nl_node_tapes.h"

namespace tarvopy {

namespace {

const ExprTreeObject *tree_at(const Step &step, int64_t element) {
    return reinterpret_cast<const ExprTreeObject *>(step.trees[element]);
}

double number_at(const Step &step, int64_t element) {
    return step.numbers ? step.numbers[element] : step.number;
}

bool is_leaf(const Step &step) {
    return step.operand_count == 0;
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
bool NodeTapes::constant_at(const Step &step, int64_t element, double &value) const {
    switch (step.kind) {
    case NLNode::Numbers:
        value = number_at(step, element);
        return true;
    case NLNode::Linear:
        value = step.linear->constant[element];
        return no_terms(*step.linear, element);
    case NLNode::Trees:
        value = tree_at(step, element)->slots[0].number;
        return tree_at(step, element)->op == TreeOp::Constant;
    default:
        return false;
    }
}

bool NodeTapes::variable_at(const Step &step, int64_t element, int32_t &id) const {
    double factor = 0.0;
    switch (step.kind) {
    case NLNode::Variables:
        id = step.ids[element];
        return true;
    case NLNode::Linear:
        return single_term(*step.linear, element, id, factor) && factor == 1.0;
    case NLNode::Trees:
        if (tree_at(step, element)->op != TreeOp::Variable)
            return false;
        id = variable_id(out_, tree_at(step, element));
        return true;
    default:
        return false;
    }
}

// ---- the sum that a row is ------------------------------------------------------------------------------------------

void NodeTapes::enter_sum(const Step &step, int64_t element, bool negative) {
    if (is_leaf(step))
        add_leaf(step, element, negative);
    else if (is_sum(step))
        sums_.push_back({&step, element, 0, negative});
    else if (step.op == TreeOp::Multiply)
        add_product(step, element, negative);
    else {
        put(step, element);
        out_.end_summand(negative);
    }
}

void NodeTapes::add(int32_t place, int64_t element, bool negative) {
    sums_.clear();
    enter_sum(step(place), element, negative);
    while (!sums_.empty()) {
        out_.check_length();
        if (!next_summand(sums_.back()))
            sums_.pop_back();
    }
}

// False when all summands were there. The frame may have moved when this returns.
bool NodeTapes::next_summand(Frame &frame) {
    const Step &sum = *frame.step;
    const int64_t element = frame.element, i = frame.next++;
    bool negative = frame.negative;
    switch (sum.kind) {
    case NLNode::Rows:
        if (sum.ptr[element] + i == sum.ptr[element + 1])
            return false;
        add_row_term(sum, sum.ptr[element] + i, negative);
        return true;
    case NLNode::Sum:
        if (i == sum.extent)
            return false;
        enter_sum(step(sum.operands[0].step), sum.operands[0].place(element * sum.extent + i), negative);
        return true;
    default:
        if (i == sum.operand_count)
            return false;
        if (sum.op == TreeOp::Uminus || (sum.op == TreeOp::Minus && i == 1))
            negative = !negative;
        enter_sum(step(sum.operands[i].step), sum.operands[i].place(element), negative);
        return true;
    }
}

void NodeTapes::add_leaf(const Step &leaf, int64_t element, bool negative) {
    switch (leaf.kind) {
    case NLNode::Numbers:
        return out_.add_constant(negative ? -number_at(leaf, element) : number_at(leaf, element));
    case NLNode::Variables:
        return out_.linear_term(leaf.ids[element], negative ? -1.0 : 1.0);
    case NLNode::Linear:
        return add_linear(*leaf.linear, element, negative);
    case NLNode::Quadratic:
        add_linear(*leaf.linear, element, negative);
        return add_quadratic(*leaf.quadratic, element, negative);
    default:
        if (leaf.trees[element])
            trees_.add(tree_at(leaf, element), negative);
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
void NodeTapes::add_product(const Step &product, int64_t element, bool negative) {
    const Step *factors[2];
    int64_t places[2];
    double constants[2];
    bool constant[2];
    for (int i : {0, 1}) {
        factors[i] = &step(product.operands[i].step);
        places[i] = product.operands[i].place(element);
        constant[i] = constant_at(*factors[i], places[i], constants[i]);
    }
    int32_t id;
    for (int i : {0, 1})
        if (constant[i] && variable_at(*factors[1 - i], places[1 - i], id))
            return out_.linear_term(id, negative ? -constants[i] : constants[i]);
    for (int i : {0, 1}) {
        if (negative && constant[i]) {
            out_.number(-constants[i]);
            negative = false;
        } else {
            put(*factors[i], places[i]);
        }
    }
    out_.operation(TreeOp::Multiply);
    out_.end_summand(negative);
}

void NodeTapes::add_row_term(const Step &rows, int64_t k, bool negative) {
    const Step &operand = step(rows.operands[0].step);
    const int64_t element = rows.source[k];
    const double coefficient = negative ? -rows.coef[k] : rows.coef[k];
    int32_t id;
    if (variable_at(operand, element, id))
        return out_.linear_term(id, coefficient);
    if (rows.constant_first)
        out_.number(coefficient);
    put(operand, element);
    if (!rows.constant_first)
        out_.number(coefficient);
    out_.operation(TreeOp::Multiply);
    out_.end_summand(false);
}

// ---- below ----------------------------------------------------------------------------------------------------------

void NodeTapes::enter(const Step &step, int64_t element) {
    switch (step.kind) {
    case NLNode::Numbers:
        return out_.number(number_at(step, element));
    case NLNode::Variables:
        return out_.variable(step.ids[element]);
    case NLNode::Linear:
    case NLNode::Quadratic: {
        int64_t terms = put_linear(*step.linear, element);
        if (step.kind == NLNode::Quadratic)
            terms += put_quadratic(*step.quadratic, element);
        if (terms == 0)
            out_.number(0.0);
        if (terms > 1)
            out_.sum(terms);
        return;
    }
    case NLNode::Trees:
        return trees_.put(tree_at(step, element));
    default:
        open_.push_back({&step, element, 0, false});
    }
}

void NodeTapes::put(const Step &step, int64_t element) {
    open_.clear();
    enter(step, element);
    while (!open_.empty()) {
        out_.check_length();
        if (!next_operand(open_.back()))
            open_.pop_back();
    }
}

// False when the element is written. The frame may have moved when this returns.
bool NodeTapes::next_operand(Frame &frame) {
    switch (frame.step->kind) {
    case NLNode::Sum:
        return next_of_sum(frame);
    case NLNode::Rows:
        return next_of_row(frame);
    default:
        return next_of_operation(frame);
    }
}

bool NodeTapes::next_of_operation(Frame &frame) {
    const Step &operation = *frame.step;
    if (frame.next < operation.operand_count) {
        const Step::Operand &operand = operation.operands[frame.next++];
        enter(step(operand.step), operand.place(frame.element));
        return true;
    }
    if (operation.op == TreeOp::Plus)
        out_.sum(2);
    else
        out_.operation(operation.op);
    return false;
}

bool NodeTapes::next_of_sum(Frame &frame) {
    const Step &sum = *frame.step;
    if (frame.next < sum.extent) {
        const Step::Operand &operand = sum.operands[0];
        enter(step(operand.step), operand.place(frame.element * sum.extent + frame.next++));
        return true;
    }
    if (sum.extent == 0)
        out_.number(0.0);
    if (sum.extent > 1)
        out_.sum(sum.extent);
    return false;
}

// `next` counts halves of terms: what stands up to the operand, and what follows it.
bool NodeTapes::next_of_row(Frame &frame) {
    const Step &rows = *frame.step;
    const int64_t first = rows.ptr[frame.element], terms = rows.ptr[frame.element + 1] - first;
    if (frame.next == 2 * terms) {
        if (terms == 0)
            out_.number(0.0);
        if (terms > 1)
            out_.sum(terms);
        return false;
    }
    const int64_t k = first + frame.next / 2;
    const bool operand_comes = frame.next++ % 2 == 0;
    if (operand_comes == rows.constant_first)
        out_.number(rows.coef[k]);
    if (operand_comes)
        enter(step(rows.operands[0].step), rows.source[k]);
    else
        out_.operation(TreeOp::Multiply);
    return true;
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
