// Nonlinear rows while they are written, and expression trees written into them.
#include "matrixapi/nl_tapes.h"

#include "matrixapi/row_sides.h"

#include "pysupport/error.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace tarvopy {

using namespace pysupport;

// ---- rows -----------------------------------------------------------------------------------------------------------

void Tapes::reserve_rows(int64_t rows) {
    expected_rows_ = rows;
    ptr.reserve(static_cast<size_t>(rows) + 1);
    codeptr.reserve(static_cast<size_t>(rows) + 1);
    constants.reserve(static_cast<size_t>(rows));
}

void Tapes::begin_row(double row_constant) {
    given_constant_ = row_constant;
    row_constant_ = 0.0;
    summands_ = 0;
    row_code_ = code.size();
    row_var_ = var.size();
}

void Tapes::end_row() {
    if (!std::isfinite(row_constant_))
        fail(PyExc_ValueError, "element %lld: the constants of a nonlinear expression have no finite sum",
             static_cast<long long>(rows()));
    if (summands_ > 1)
        sum(summands_);
    ptr.push_back(static_cast<int64_t>(var.size()));
    codeptr.push_back(static_cast<int64_t>(code.size()));
    constants.push_back(given_constant_ + row_constant_);
    if (rows() == 1)
        reserve_like_first_row();
}

// Rows of one array are mostly alike. A little more than the first one needs, since growing copies everything.
void Tapes::reserve_like_first_row() {
    if (expected_rows_ < 2 || code.size() > 4096 || var.size() > 4096)
        return;
    auto rows = static_cast<size_t>(expected_rows_);
    code.reserve(code.size() * rows);
    constant.reserve(constant.size() * rows);
    var.reserve(var.size() * rows);
    coef.reserve(coef.size() * rows);
}

void Tapes::sum(int64_t terms) {
    // Partial sums of the last terms where one entry cannot say how many there are.
    for (; terms > TRV_NL_MAXSUM; terms -= TRV_NL_MAXSUM - 1)
        code.push_back(TRV_NLSUM(TRV_NL_MAXSUM));
    code.push_back(TRV_NLSUM(static_cast<int32_t>(terms)));
}

void Tapes::fail_second_model() {
    fail_models();
}

void Tapes::fail_length() const {
    fail(PyExc_ValueError,
         "element %lld: the expression is longer than 2**27 operations where every use of a shared part is counted; "
         "give such a part a variable of its own",
         static_cast<long long>(rows()));
}

// ---- trees ----------------------------------------------------------------------------------------------------------

namespace {

bool is_constant(const ExprTreeObject *tree) {
    return tree->op == TreeOp::Constant;
}

bool is_sum(const ExprTreeObject *tree) {
    return tree->op == TreeOp::Plus || tree->op == TreeOp::Minus || tree->op == TreeOp::Uminus;
}

// Whether child i of a node is subtracted.
bool subtracts(TreeOp op, Py_ssize_t i) {
    return op == TreeOp::Uminus || (op == TreeOp::Minus && i == 1);
}

// So many entries are written (in a tenth of a second) before it is asked how many a tree has in all.
constexpr size_t kCountBeyond = size_t{1} << 20;

// How many entries a tree has, every use of a part counted: each node is looked at once.
double entries_of(const ExprTreeObject *root) {
    std::unordered_map<const ExprTreeObject *, double> counts;
    std::vector<std::pair<const ExprTreeObject *, Py_ssize_t>> open{{root, 0}};
    while (!open.empty()) {
        auto &[tree, next] = open.back();
        const bool leaf = is_constant(tree) || tree->op == TreeOp::Variable;
        if (!leaf && next < tree->child_count()) {
            const ExprTreeObject *child = tree->child(next++);
            if (!counts.contains(child))
                open.emplace_back(child, 0);
            continue;
        }
        double count = 1.0;
        for (Py_ssize_t i = 0; !leaf && i < tree->child_count(); ++i)
            count += counts[tree->child(i)];
        counts[tree] = count;
        open.pop_back();
    }
    return counts[root];
}

} // namespace

// To be called between entries.
void TreeTapes::check_length() {
    out_.check_length();
    if (whole_.counted || out_.code.size() - whole_.begin < kCountBeyond)
        return;
    out_.check_entries(entries_of(whole_.tree));
    whole_.counted = true;
}

void TreeTapes::put_variable(const ExprTreeObject *tree) {
    out_.variable(variable_id(out_, tree));
}

void TreeTapes::enter_sum(const ExprTreeObject *tree, bool negative) {
    if (is_sum(tree))
        sums_.push_back({tree, 0, negative});
    else
        add_summand(tree, negative);
}

void TreeTapes::add(const ExprTreeObject *tree, bool negative) {
    sums_.clear();
    whole_ = {tree, out_.code.size(), false};
    enter_sum(tree, negative);
    while (!sums_.empty()) {
        check_length();
        Frame &top = sums_.back();
        if (top.next == top.tree->child_count()) {
            sums_.pop_back();
            continue;
        }
        bool sign = top.negative != subtracts(top.tree->op, top.next);
        const ExprTreeObject *child = top.tree->child(top.next++);
        enter_sum(child, sign); // `top` may have moved
    }
    whole_ = {};
}

// What is neither a sum nor a difference. A factor that is a constant takes the sign.
void TreeTapes::add_summand(const ExprTreeObject *tree, bool negative) {
    const double sign = negative ? -1.0 : 1.0;
    if (is_constant(tree))
        return out_.add_constant(sign * tree->slots[0].number);
    if (tree->op == TreeOp::Variable)
        return out_.linear_term(variable_id(out_, tree), sign);
    if (tree->op != TreeOp::Multiply) {
        put(tree);
        return out_.end_summand(negative);
    }
    const ExprTreeObject *left = tree->child(0), *right = tree->child(1);
    if (is_constant(left) && right->op == TreeOp::Variable)
        return out_.linear_term(variable_id(out_, right), sign * left->slots[0].number);
    if (is_constant(right) && left->op == TreeOp::Variable)
        return out_.linear_term(variable_id(out_, left), sign * right->slots[0].number);
    for (const ExprTreeObject *factor : {left, right}) {
        if (negative && is_constant(factor)) {
            out_.number(-factor->slots[0].number);
            negative = false;
        } else {
            put(factor);
        }
    }
    out_.operation(TreeOp::Multiply);
    out_.end_summand(negative);
}

void TreeTapes::enter(const ExprTreeObject *tree) {
    if (tree->op == TreeOp::Variable)
        put_variable(tree);
    else if (is_constant(tree))
        out_.number(tree->slots[0].number);
    else
        open_.push_back({tree, 0, false});
}

void TreeTapes::put(const ExprTreeObject *tree) {
    open_.clear();
    const bool alone = !whole_.tree;
    if (alone)
        whole_ = {tree, out_.code.size(), false};
    enter(tree);
    while (!open_.empty()) {
        Frame &top = open_.back();
        if (top.next < top.tree->child_count()) {
            enter(top.tree->child(top.next++));
            continue;
        }
        if (top.tree->op == TreeOp::Plus)
            out_.sum(top.tree->child_count());
        else
            out_.operation(top.tree->op);
        check_length();
        open_.pop_back();
    }
    if (alone)
        whole_ = {};
}

} // namespace tarvopy
