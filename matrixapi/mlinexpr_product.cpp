// MLinExpr: matrix products of expressions with numeric matrices, self @ M and M @ self.
//
// Element (i, j) of the result is a sum of rows of the receiver, each times a number. A Plan lists them; one kernel
// then walks the plan, for compact parts (over their columns) and for the flat form (over ids) alike.
#include "mlinexpr_operators.h"

#include "flat_product.h"
#include "names.h"
#include "pysupport/args.h"

namespace tarvopy {

using namespace pysupport;

namespace {

enum class Side { Right, Left }; // where the matrix stands: self @ M, M @ self

struct Plan {
    int64_t size = 0;
    std::vector<int64_t> start{0}, source; // of result element i: start[i] .. start[i + 1]
    std::vector<double> factor;

    void add(int64_t row, double number) {
        source.push_back(row);
        factor.push_back(number);
    }
    void end_element() {
        start.push_back(static_cast<int64_t>(source.size()));
        ++size;
    }
};

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

double planned(const Plan &plan, int64_t i, auto value_at) {
    double total = 0.0;
    for (int64_t t = plan.start[static_cast<size_t>(i)]; t < plan.start[static_cast<size_t>(i) + 1]; ++t)
        total += plan.factor[static_cast<size_t>(t)] * value_at(plan.source[static_cast<size_t>(t)]);
    return total;
}

// Equal variables are merged: an element of a product may meet one many times.
flat::Summand planned_rows(const Plan &plan, const flat::Summand &summand) {
    flat::Summand rows = flat::combined(summand, plan.size, plan.start.data(), plan.source.data(), plan.factor.data());
    int32_t largest = -1;
    for (int64_t k = 0; k < rows.nnz(); ++k)
        largest = std::max(largest, rows.id(k));
    return flat::normalized(rows, largest + 1);
}

Ref compact_product(PyObject *self, const Plan &plan, const flat::Shape &shape) {
    std::vector<Part> parts;
    Ref model;
    join_parts(self);
    if (!native_parts(self, parts, model))
        return {};
    Ref numbers = constant_doubles(self);
    const double *old = doubles(numbers);
    Ref constant = float_array(shape);
    for (int64_t i = 0; i < plan.size; ++i)
        static_cast<double *>(PyArray_DATA(as_array(constant)))[i] =
            planned(plan, i, [&](int64_t k) { return old[k]; });
    for (Part &part : parts) {
        flat::Summand local = part.summand;
        local.vars = {}; // over the part's own columns, so that the variables stay as they are
        part = make_part(planned_rows(plan, local), part.vector);
    }
    return make_compact(mod.MLinExpr, std::move(parts), std::move(constant), std::move(model));
}

void warn_chained() {
    check_status(
        PyErr_WarnEx(PyExc_UserWarning,
                     "Chained matrix multiplications of MVars is inefficient, collect numeric terms first when "
                     "building expressions",
                     1));
}

Ref flat_product(const Value &value, const Plan &plan, const flat::Shape &shape) {
    flat::Form product{shape, plan.size, {}, {}};
    product.constant.values = flat::Buffer<double>(plan.size);
    for (int64_t i = 0; i < plan.size; ++i)
        product.constant.values.write()[i] = planned(plan, i, [&](int64_t k) { return value.form.constant[k]; });
    if (!value.form.summands.empty())
        product.summands.push_back(planned_rows(plan, flat::joined(value.form.summands, value.form.size)));
    return make_flat(mod.MLinExpr, std::move(product), value.model);
}

Ref element_product(PyObject *self, PyObject *matrix, Side side) {
    Ref elements = elements_of(self), numbers = is_sparse(matrix) ? to_dense(matrix) : plain_array(matrix);
    Ref product = wrap_elements(check(side == Side::Right ? PyNumber_MatrixMultiply(elements.get(), numbers.get())
                                                          : PyNumber_MatrixMultiply(numbers.get(), elements.get())));
    check(PyObject_CallMethodNoArgs(product.get(), names._normalize));
    return product;
}

// A zero times something would hide a NaN or an infinity, so they are refused where they stand.
void need_finite_matrix(PyObject *matrix, const Ref &numbers) {
    if (numbers)
        return need_finite(doubles(numbers), PyArray_SIZE(as_array(numbers)), "Multiplier");
    flat::Csr csr = csr_of(matrix);
    need_finite(csr.value.data(), csr.nnz(), "Multiplier");
}

Ref numeric_product(PyObject *self, PyObject *matrix, bool sparse, Side side) {
    flat::Shape expr = shape_of(self);
    Ref tuple = check(PyObject_GetAttr(matrix, names.shape));
    flat::Shape given = shape_of_tuple(tuple.get());
    flat::Shape shape = side == Side::Right ? matmul_shape(expr, given) : matmul_shape(given, expr);
    if (std::find(shape.begin(), shape.end(), 0) != shape.end())
        return make_zeros(mod.MLinExpr, shape);
    bool compact = takes_compact_path(self) && allows_compact(shape);
    Ref numbers = sparse ? Ref() : as_doubles(matrix);
    Value value;
    bool countable = (sparse || numbers) && (compact || expr_value(self, value));
    if (!compact)
        warn_chained();
    if (!countable)
        return element_product(self, matrix, side);
    need_finite_matrix(matrix, numbers);
    Plan plan = sparse ? plan_sparse(expr, matrix, given, side) : plan_dense(expr, numbers, side);
    if (compact ? shape_of(self) != expr : value.form.shape != expr) // the matrix may have run Python code
        fail(PyExc_ValueError, "the expression changed its shape while it was multiplied");
    if (compact)
        if (Ref product = compact_product(self, plan, shape))
            return product;
    return compact ? element_product(self, matrix, side) : flat_product(value, plan, shape);
}

Ref product(PyObject *self, PyObject *other, Side side) {
    Operand kind = kind_of(other);
    switch (kind) {
    case Operand::Array:
    case Operand::Sparse:
        return numeric_product(self, other, kind == Operand::Sparse, side);
    case Operand::MVar:
    case Operand::MLinExpr: {
        flat::Shape own = shape_of(self), given = kind == Operand::MVar ? mvar_shape(other) : shape_of(other);
        side == Side::Right ? matmul_shape(own, given) : matmul_shape(given, own);
        quadratic_later();
    }
    case Operand::MQuadExpr:
    case Operand::MNLExpr:
        nonlinear_later();
    default:
        return Ref::borrow(Py_NotImplemented);
    }
}

template <Side side>
PyObject *mlinexpr_product(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature(side == Side::Right ? "__matmul__" : "__rmatmul__", {"other"}, 1);
        Arguments given(signature, 1, args, nargs, kwnames);
        return product(self, given[0], side);
    });
}

} // namespace

Ref matrix_product(PyObject *self, PyObject *matrix) {
    return product(self, matrix, Side::Right);
}
Ref reflected_matrix_product(PyObject *self, PyObject *matrix) {
    return product(self, matrix, Side::Left);
}

std::span<Member> product_members() {
    static Member members[] = {
        method("__matmul__", mlinexpr_product<Side::Right>,
               "__matmul__($self, other)\n--\n\nMatrix product with a numeric matrix behind, by NumPy's rules."),
        method("__rmatmul__", mlinexpr_product<Side::Left>,
               "__rmatmul__($self, other)\n--\n\nMatrix product with a numeric matrix in front."),
    };
    return members;
}

} // namespace tarvopy
