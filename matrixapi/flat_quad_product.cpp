// Products of linear forms: their quadratic terms, and the linear terms and constants beside them.
#include "flat_quad.h"
#include "flat_rows.h"

#include <functional>
#include <stdexcept>
#include <string>

namespace flat {

namespace {

// The ids of a summand's terms, one after the other; shared where they stand in memory already.
Buffer<int32_t> term_ids(const Summand &summand) {
    if (summand.vars.empty() && !summand.cols.empty())
        return summand.cols;
    if (summand.cols.empty() && !summand.vars.empty())
        return summand.vars;
    int64_t n = summand.nnz();
    Buffer<int32_t> ids(n);
    int32_t *to = ids.write();
    for (int64_t k = 0; k < n; ++k)
        to[k] = summand.id(k);
    return ids;
}

// ---- one term a row on both sides

Buffer<double> product_of_coefficients(const Summand &a, const Summand &b) {
    if (a.coef.empty() || b.coef.empty()) {
        const Summand &numbers = a.coef.empty() ? b : a;
        return scaled(numbers, a.coef.empty() ? a.scale : b.scale).coef;
    }
    Buffer<double> coef(a.nrows);
    std::transform(a.coef.data(), a.coef.data() + a.nrows, b.coef.data(), coef.write(), std::multiplies<>());
    return coef;
}

QuadSummand single_times_single(const Summand &a, const Summand &b) {
    QuadSummand result;
    result.nrows = a.nrows;
    result.width = 1;
    result.vars1 = term_ids(a);
    result.vars2 = term_ids(b);
    if (a.coef.empty() && b.coef.empty())
        result.scale = a.scale * b.scale;
    else
        result.coef = product_of_coefficients(a, b);
    return result;
}

// ---- any rows

Summand one_summand(const Form &form) {
    return form.summands.size() == 1 ? form.summands[0] : joined(form.summands, form.size);
}

// A slip (the sum of everything squared) would otherwise fill the memory before anybody can stop it.
int64_t pairs(int64_t n, int64_t m) {
    int64_t product;
    if (__builtin_mul_overflow(n, m, &product) || product > INT32_MAX)
        throw std::invalid_argument("a product of " + std::to_string(n) + " by " + std::to_string(m) +
                                    " terms is too large");
    return product;
}

void set_row_lengths(QuadSummand &result, const Summand &a, const Summand &b) {
    if (a.ptr.empty() && b.ptr.empty()) {
        result.width = pairs(a.width, b.width);
        return;
    }
    result.ptr = Buffer<int64_t>(a.nrows + 1);
    int64_t *ptr = result.ptr.write();
    ptr[0] = 0;
    for (int64_t row = 0; row < a.nrows; ++row)
        ptr[row + 1] = ptr[row] + pairs(a.end(row) - a.begin(row), b.end(row) - b.begin(row));
}

QuadSummand rows_times_rows(const Summand &a, const Summand &b) {
    QuadSummand result;
    result.nrows = a.nrows;
    set_row_lengths(result, a, b);
    Buffer<int32_t> ids_a = term_ids(a), ids_b = term_ids(b);
    const bool scale_alone = a.coef.empty() && b.coef.empty();
    int64_t total = result.nnz();
    result.vars1 = Buffer<int32_t>(total);
    result.vars2 = Buffer<int32_t>(total);
    if (scale_alone)
        result.scale = a.scale * b.scale;
    else
        result.coef = Buffer<double>(total);
    int32_t *ids1 = result.vars1.write(), *ids2 = result.vars2.write();
    double *coef = result.coef.write();
    for (int64_t row = 0; row < a.nrows; ++row) {
        const int64_t first = b.begin(row), last = b.end(row);
        for (int64_t i = a.begin(row), end = a.end(row); i < end; ++i) {
            ids1 = std::fill_n(ids1, last - first, ids_a[i]);
            ids2 = std::copy(ids_b.data() + first, ids_b.data() + last, ids2);
            const double left = a.coefficient(i);
            for (int64_t j = first; !scale_alone && j < last; ++j)
                *coef++ = left * b.coefficient(j);
        }
    }
    return result;
}

// Sums of single variables give sums of single products, which share their ids, as long as those are few.
constexpr size_t most_summands = 64;

void multiply_terms(QuadForm &quad, const Form &a, const Form &b) {
    if (a.summands.empty() || b.summands.empty())
        return;
    if (!all_single(std::span(a.summands)) || !all_single(std::span(b.summands)) ||
        a.summands.size() * b.summands.size() > most_summands) {
        quad.summands.push_back(rows_times_rows(one_summand(a), one_summand(b)));
        return;
    }
    for (const Summand &left : a.summands)
        for (const Summand &right : b.summands)
            quad.summands.push_back(single_times_single(left, right));
}

// ---- linear terms

// Rows times their constants; a constant of zero leaves no terms.
Summand nonzero_rows(const Summand &summand, const Buffer<double> &factors) {
    Summand result;
    result.nrows = summand.nrows;
    result.vars = summand.vars;
    result.ptr = Buffer<int64_t>(summand.nrows + 1);
    int64_t *ptr = result.ptr.write();
    ptr[0] = 0;
    for (int64_t row = 0; row < summand.nrows; ++row)
        ptr[row + 1] = ptr[row] + (factors[row] != 0.0 ? summand.end(row) - summand.begin(row) : 0);
    result.cols = Buffer<int32_t>(ptr[summand.nrows]);
    result.coef = Buffer<double>(ptr[summand.nrows]);
    int32_t *cols = result.cols.write();
    double *coef = result.coef.write();
    for (int64_t row = 0; row < summand.nrows; ++row)
        for (int64_t k = summand.begin(row), end = summand.end(row); factors[row] != 0.0 && k < end; ++k) {
            *cols++ = summand.column(k);
            *coef++ = summand.coefficient(k) * factors[row];
        }
    return result;
}

void append_times_constant(Form &linear, const Form &terms, const Constant &factor) {
    if (factor.values.empty() && factor.uniform == 0.0)
        return;
    int64_t zeros =
        factor.values.empty() ? 0 : std::count(factor.values.data(), factor.values.data() + terms.size, 0.0);
    if (zeros > 0 && zeros == terms.size)
        return;
    for (const Summand &summand : terms.summands)
        linear.summands.push_back(factor.values.empty() ? scaled(summand, factor.uniform)
                                  : zeros == 0          ? scaled_rows(summand, factor.values.data())
                                                        : nonzero_rows(summand, factor.values));
}

Constant product(const Constant &a, const Constant &b, int64_t size) {
    if (a.values.empty() && b.values.empty())
        return {a.uniform * b.uniform, {}};
    Constant result;
    result.values = Buffer<double>(size);
    for (int64_t i = 0; i < size; ++i)
        result.values.write()[i] = a[i] * b[i];
    return result;
}

// ---- matrix products as sums of element-wise ones

Shape leading_axes(const Shape &shape) {
    return shape.size() > 2 ? Shape(shape.begin(), shape.end() - 2) : Shape();
}

Shape with_axes(Shape shape, std::initializer_list<int64_t> axes) {
    shape.insert(shape.end(), axes);
    return shape;
}

// Matrices of a stack transposed.
Form turned(const Form &form, int64_t rows, int64_t cols) {
    Shape shape = with_axes(leading_axes(form.shape), {cols, rows});
    Form result = form;
    result.shape = shape;
    if (rows == 1 || cols == 1)
        return result;
    std::vector<int64_t> map(static_cast<size_t>(form.size));
    auto to = map.begin();
    for (int64_t first = 0; first < form.size; first += rows * cols)
        for (int64_t j = 0; j < cols; ++j)
            for (int64_t i = 0; i < rows; ++i)
                *to++ = first + i * cols + j;
    return gathered(form, map.data(), shape);
}

Shape broadcast_leading(const Shape &a, const Shape &b) {
    Shape shape(std::max(a.size(), b.size()), 1);
    for (const Shape *given : {&a, &b})
        for (size_t d = 0; d < given->size(); ++d)
            if (int64_t extent = (*given)[given->size() - 1 - d]; extent != 1)
                shape[shape.size() - 1 - d] = extent;
    return shape;
}

} // namespace

Product multiply(const Form &a, const Form &b) {
    Product result{{a.shape, a.size, {}}, {a.shape, a.size, product(a.constant, b.constant, a.size), {}}};
    multiply_terms(result.quad, a, b);
    append_times_constant(result.linear, a, b.constant);
    append_times_constant(result.linear, b, a.constant);
    return result;
}

Product matmul(const Form &a, const Form &b) {
    bool row = a.shape.size() == 1, column = b.shape.size() == 1;
    int64_t k = a.shape.back(), m = row ? 1 : a.shape[a.shape.size() - 2], n = column ? 1 : b.shape.back();
    Form left = a, right = turned(b, k, n);
    // Everything becomes (..., m, n, k), and the last axis is summed away.
    left.shape = with_axes(leading_axes(a.shape), {m, 1, k});
    right.shape = with_axes(leading_axes(b.shape), {1, n, k});
    Shape lead = broadcast_leading(leading_axes(a.shape), leading_axes(b.shape));
    Shape all = with_axes(lead, {m, n, k});
    Product products = multiply(broadcast(left, all), broadcast(right, all));
    std::vector<int> axes(all.size(), 0);
    axes.back() = -1;
    Product result{summed(products.quad, axes), summed(products.linear, axes)};
    if (!row)
        lead.push_back(m);
    if (!column)
        lead.push_back(n);
    result.quad.shape = result.linear.shape = lead;
    return result;
}

} // namespace flat
