// MLinExpr: matrix products of expressions with numeric matrices, self @ M and M @ self.
//
// One kernel walks the plan of a product, for compact parts (over their columns) and for the flat form (over ids)
// alike.
#include "mlinexpr_operators.h"
#include "product_plan.h"

#include "flat_product.h"
#include "matrixapi/methods.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mquadexpr.h"
#include "names.h"

namespace tarvopy {

using namespace pysupport;

namespace {

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
    Ref elements = elements_of(self), numbers = is_sparse(matrix) ? to_dense(matrix) : factor_matrix(matrix, true);
    Ref product = wrap_elements(check(side == Side::Right ? PyNumber_MatrixMultiply(elements.get(), numbers.get())
                                                          : PyNumber_MatrixMultiply(numbers.get(), elements.get())));
    check(PyObject_CallMethodNoArgs(product.get(), names._normalize));
    return product;
}

Ref numeric_product(PyObject *self, PyObject *matrix, bool sparse, Side side) {
    flat::Shape expr = shape_of(self);
    Ref tuple = check(PyObject_GetAttr(matrix, names.shape));
    flat::Shape given = shape_of_tuple(tuple.get());
    flat::Shape shape = side == Side::Right ? matmul_shape(expr, given) : matmul_shape(given, expr);
    if (std::find(shape.begin(), shape.end(), 0) != shape.end())
        return make_zeros(mod.MLinExpr, shape);
    bool compact = takes_compact_path(self) && allows_compact(shape);
    if (!compact && is_compact(self))
        join_parts(self);
    Ref numbers = sparse ? Ref() : as_doubles(matrix);
    Value value;
    bool countable = (sparse || numbers) && (compact || expr_value(self, value));
    if (!compact)
        warn_chained();
    if (!countable) // NumPy's sum over no objects is the number 0, which is no expression
        return flat::size_of(expr) == 0 ? make_zeros(mod.MLinExpr, shape) : element_product(self, matrix, side);
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
    const int degree = degree_of(other, kind);
    if (kind == Operand::Array && degree == 1)
        return product(self, from_elements(other).get(), side);
    if (degree > 1 && kind != Operand::QuadExpr && kind != Operand::NLExpr)
        return side == Side::Right ? nonlinear_matrix_product(self, other) : nonlinear_matrix_product(other, self);
    switch (kind) {
    case Operand::Array:
    case Operand::Sparse:
        return numeric_product(self, other, kind == Operand::Sparse, side);
    case Operand::MVar:
    case Operand::MLinExpr:
        return side == Side::Right ? quadratic_matrix_product(self, other) : quadratic_matrix_product(other, self);
    default:
        return Ref::borrow(Py_NotImplemented);
    }
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
        operator_of<"__matmul__", matrix_product>(
            "__matmul__($self, other)\n--\n\nMatrix product by NumPy's rules: with numbers linear, with variables and "
            "linear expressions quadratic, with others nonlinear."),
        operator_of<"__rmatmul__", reflected_matrix_product>(
            "__rmatmul__($self, other)\n--\n\nother @ self, as __matmul__."),
    };
    return members;
}

} // namespace tarvopy
