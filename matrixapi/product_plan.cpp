#include "matrixapi/product_plan.h"

#include "matrixapi/mlinexpr_operators.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// The receiver as a matrix of elements: a vector is one row before M, one column behind it.
struct Elements {
    int64_t rows, cols, offset;
    int64_t at(int64_t i, int64_t j) const { return offset + i * cols + j; }
};

Elements elements_view(const flat::Shape &shape, int64_t offset, Side side) {
    if (shape.size() == 1)
        return side == Side::Right ? Elements{1, shape[0], offset} : Elements{shape[0], 1, offset};
    return {shape[shape.size() - 2], shape.back(), offset};
}

// numbers: for self @ M the rows of M transposed, for M @ self those of M. Missing entries are zeros and add nothing.
void plan_matrix(Plan &plan, const Elements &e, const flat::Csr &numbers, Side side) {
    bool right = side == Side::Right;
    int64_t rows = right ? e.rows : numbers.rows, cols = right ? numbers.rows : e.cols;
    for (int64_t i = 0; i < rows; ++i)
        for (int64_t j = 0; j < cols; ++j, plan.end_element()) {
            int64_t row = right ? j : i;
            for (int64_t p = numbers.ptr[row]; p < numbers.ptr[row + 1]; ++p)
                plan.add(right ? e.at(i, numbers.index[p]) : e.at(numbers.index[p], j), numbers.value[p]);
        }
}

// The k-th matrix of a stack, with its rows on the result's side.
flat::Csr dense_rows(const double *data, const flat::Shape &shape, Side side) {
    if (shape.size() == 1)
        return flat::nonzeros({data, 1, shape[0], shape[0], 1});
    int64_t rows = shape[shape.size() - 2], cols = shape.back();
    return side == Side::Right ? flat::nonzeros({data, cols, rows, 1, cols})
                               : flat::nonzeros({data, rows, cols, cols, 1});
}

} // namespace

Plan plan_dense(const flat::Shape &expr, const Ref &numbers, Side side) {
    flat::Shape shape = shape_of_array(numbers.get());
    flat::Shape lead = broadcast_shapes(leading(expr), leading(shape));
    std::vector<int64_t> expr_map = flat::broadcast_map(leading(expr), lead),
                         matrix_map = flat::broadcast_map(leading(shape), lead);
    auto item = [](const flat::Shape &s) { return flat::size_of(s) / std::max<int64_t>(1, flat::size_of(leading(s))); };
    Plan plan;
    for (int64_t k = 0; k < flat::size_of(lead); ++k) {
        int64_t e = expr_map.empty() ? k : expr_map[static_cast<size_t>(k)];
        int64_t m = matrix_map.empty() ? k : matrix_map[static_cast<size_t>(k)];
        flat::Csr rows = dense_rows(doubles(numbers) + m * item(shape), shape, side);
        plan_matrix(plan, elements_view(expr, e * item(expr), side), rows, side);
    }
    return plan;
}

Plan plan_sparse(const flat::Shape &expr, PyObject *matrix, const flat::Shape &given, Side side) {
    flat::Csr csr = csr_of(matrix, given);
    flat::Csr rows = side == Side::Left || given.size() == 1 ? std::move(csr) : flat::transposed(csr);
    int64_t stack = flat::size_of(leading(expr)), item = flat::size_of(expr) / std::max<int64_t>(1, stack);
    Plan plan;
    for (int64_t k = 0; k < stack; ++k)
        plan_matrix(plan, elements_view(expr, k * item, side), rows, side);
    return plan;
}

void need_finite_matrix(PyObject *matrix, const Ref &numbers) {
    if (numbers)
        return need_finite(doubles(numbers), PyArray_SIZE(as_array(numbers)), "Multiplier");
    flat::Csr csr = csr_of(matrix);
    need_finite(csr.value.data(), csr.nnz(), "Multiplier");
}

void warn_chained() {
    check_status(
        PyErr_WarnEx(PyExc_UserWarning,
                     "Chained matrix multiplications of MVars is inefficient, collect numeric terms first when "
                     "building expressions",
                     1));
}

} // namespace tarvopy
