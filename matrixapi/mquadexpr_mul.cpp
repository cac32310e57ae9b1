// MQuadExpr: products with numbers, element by element and as matrix products.
//
//   2.0 * q    compact: the coefficients of the merged part are scaled; full: summands share their variables
//   q * C      row i times C's element i, by NumPy's broadcasting
//   q @ M      sums of rows, each times a number; equal pairs of variables are merged
//   q * x      nonlinear: handed over to that class, as q @ x
#include "matrixapi/elements_before.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mquadexpr_operators.h"

#include "matrixapi/names.h"
#include "matrixapi/product_plan.h"

namespace tarvopy {

using namespace pysupport;

namespace {

constexpr const char *multiplier = "Multiplier";

// Of an array with one element.
bool single_number(const Ref &numbers) {
    return PyArray_SIZE(as_array(numbers)) == 1;
}

flat::QuadForm times_rows(const flat::QuadForm &form, const Ref &numbers, const flat::Shape &shape) {
    flat::QuadForm spread = flat::broadcast(form, shape);
    return single_number(numbers) ? flat::scaled(spread, *doubles(numbers))
                                  : flat::scaled_rows(spread, Factors(numbers, shape).data());
}

// ---- new results ---------------------------------------------------------------------------------------------------

// Empty: the full path.
Ref scaled_compact(PyObject *self, double factor, const Ref &ndle) {
    flat::Shape shape = shape_of(ndle.get());
    std::vector<QuadPart> parts;
    Ref model;
    if (!allows_compact_quad(shape) || !merged_quad_parts(self, parts, model))
        return {};
    if (flat::size_of(shape) == 0)
        parts.clear();
    scale_parts(parts, factor);
    return make_quad_compact(mod.MQuadExpr, own_quad_parts(std::move(parts)), ndle, std::move(model));
}

Ref multiply_elements(PyObject *self, PyObject *operand, Ref ndle) {
    Ref elements = quad_elements_of(self);
    return wrap_quad_elements(check(PyNumber_Multiply(elements.get(), operand)), std::move(ndle));
}

Ref multiply_full(PyObject *self, const Ref &numbers, Ref ndle) {
    quad_convert_to_full(self);
    QuadValue value;
    if (!quad_numbers(self, value))
        return multiply_elements(self, numbers.get(), std::move(ndle));
    return make_quad_flat(mod.MQuadExpr, times_rows(value.form, numbers, shape_of(ndle.get())), ndle, value.model);
}

Ref multiply_numbers(PyObject *self, const Ref &numbers) {
    bool compact = takes_compact_quad_path(self);
    Ref ndle = multiply(own_ndle(self).get(), numbers.get()); // refuses what is not finite
    if (compact && single_number(numbers))
        if (Ref product = scaled_compact(self, *doubles(numbers), ndle))
            return product;
    return multiply_full(self, numbers, std::move(ndle));
}

Ref multiply_array(PyObject *self, PyObject *array) {
    Ref numbers = as_doubles(array);
    if (numbers)
        return multiply_numbers(self, numbers);
    Ref plain = plain_array(array);
    quad_convert_to_full(self);
    return multiply_elements(self, plain.get(), multiply(own_ndle(self).get(), plain.get()));
}

// ---- in place ------------------------------------------------------------------------------------------------------

// False: the full path.
bool imul_compact(PyObject *self, const Ref &numbers) {
    std::vector<QuadPart> parts;
    Ref model;
    if (!merged_quad_parts(self, parts, model))
        return false;
    scale_parts(parts, *doubles(numbers));
    NewQuadParts product = new_quad_parts(self, std::move(parts), std::move(model));
    imul(own_ndle(self).get(), numbers.get());
    if (!product.native->parts.empty())
        set_quad_parts(self, std::move(product));
    return true;
}

void imul_full(PyObject *self, const Ref &numbers) {
    quad_convert_to_full(self);
    prepare_quad_change(self);
    QuadValue value;
    if (quadratic_of(self) && quad_numbers(self, value)) {
        flat::QuadForm product = times_rows(value.form, numbers, quad_shape_of(self));
        imul(own_ndle(self).get(), numbers.get());
        QuadNative *native = own_form_of(self);
        if (!native)
            return quad_take_over(self, std::move(product), std::move(value.model));
        native->form = std::move(product);
        native->model = std::move(value.model);
        native->stamp = LinearNative::next_stamp();
        return;
    }
    Ref elements = qearr(self);
    ElementsBefore before(elements.get());
    elements_in_place(elements.get(), numbers.get(), PyNumber_InPlaceMultiply);
    imul(own_ndle(self).get(), numbers.get());
    before.done();
}

// Numbers that only Python's own operators know: a refusal changes neither half.
void imul_elements(PyObject *self, PyObject *array) {
    Ref plain = plain_array(array);
    quad_convert_to_full(self);
    Ref elements = qearr(self);
    ElementsBefore before(elements.get());
    elements_or_nothing(elements.get(), plain.get(), PyNumber_InPlaceMultiply);
    imul(own_ndle(self).get(), plain.get());
    before.done();
}

void imul_array(PyObject *self, PyObject *array) {
    flat::Shape shape = quad_shape_of(self);
    need_fit(shape, shape_of_array(array));
    Ref numbers = as_doubles(array);
    bool compact = takes_compact_quad_path(self);
    if (!numbers)
        return imul_elements(self, array);
    if (flat::size_of(shape) > 0)
        need_finite(doubles(numbers), PyArray_SIZE(as_array(numbers)), multiplier);
    if (!compact || !imul_compact(self, numbers))
        imul_full(self, numbers);
}

// ---- matrix products -----------------------------------------------------------------------------------------------

flat::Shape given_shape(PyObject *matrix) {
    Ref tuple = check(PyObject_GetAttr(matrix, names.shape));
    return shape_of_tuple(tuple.get());
}

flat::QuadForm normalized(flat::QuadForm form) {
    if (!form.summands.empty())
        form.summands = {flat::normalized(flat::joined(form.summands, form.size))};
    return form;
}

Ref element_product(PyObject *self, PyObject *matrix, Side side, Ref ndle) {
    Ref elements = quad_elements_of(self), numbers = is_sparse(matrix) ? to_dense(matrix) : factor_matrix(matrix, true);
    Ref product =
        wrap_quad_elements(check(side == Side::Right ? PyNumber_MatrixMultiply(elements.get(), numbers.get())
                                                     : PyNumber_MatrixMultiply(numbers.get(), elements.get())),
                           std::move(ndle));
    check(PyObject_CallMethodNoArgs(product.get(), names._normalize));
    return product;
}

Ref full_matrix_product(PyObject *self, PyObject *matrix, const Ref &numbers, Side side, Ref ndle) {
    quad_convert_to_full(self);
    bool sparse = is_sparse(matrix);
    QuadValue value;
    if ((!sparse && !numbers) || !quad_numbers(self, value))
        return element_product(self, matrix, side, std::move(ndle));
    Plan plan = sparse ? plan_sparse(value.form.shape, matrix, given_shape(matrix), side)
                       : plan_dense(value.form.shape, numbers, side);
    flat::Shape shape = shape_of(ndle.get());
    if (plan.size != flat::size_of(shape)) // the matrix may have run Python code
        fail(PyExc_ValueError, "the operands of a matrix product changed their shapes while they were read");
    flat::QuadForm product =
        flat::combined(value.form, shape, plan.start.data(), plan.source.data(), plan.factor.data());
    return make_quad_flat(mod.MQuadExpr, normalized(std::move(product)), std::move(ndle), value.model);
}

Ref numeric_product(PyObject *self, PyObject *matrix, bool sparse, Side side) {
    flat::Shape expr = quad_shape_of(self), given = given_shape(matrix);
    flat::Shape shape = side == Side::Right ? matmul_shape(expr, given) : matmul_shape(given, expr);
    const flat::Shape &left = side == Side::Right ? expr : given;
    if (std::find(shape.begin(), shape.end(), 0) != shape.end() || left.back() == 0)
        return make_quad_zeros(mod.MQuadExpr, shape);
    Ref numbers = sparse ? Ref() : as_doubles(matrix);
    if (sparse || numbers)
        need_finite_matrix(matrix, numbers);
    bool compact = takes_compact_quad_path(self);
    Ref linear = own_ndle(self);
    Ref ndle =
        side == Side::Right ? matrix_product(linear.get(), matrix) : reflected_matrix_product(linear.get(), matrix);
    if (compact && allows_compact_quad(shape)) {
        Ref entry = sparse ? as_doubles(to_dense(matrix).get()) : numbers;
        if (entry && single_number(entry))
            if (Ref product = scaled_compact(self, *doubles(entry), ndle))
                return product;
    }
    return full_matrix_product(self, matrix, numbers, side, std::move(ndle));
}

Ref product(PyObject *self, PyObject *other, Side side) {
    Operand kind = kind_of(other);
    if ((kind == Operand::Array && degree_of(other, kind) == 0) || kind == Operand::Sparse)
        return numeric_product(self, other, kind == Operand::Sparse, side);
    if (kind == Operand::Other || (kind != Operand::Array && !is_matrix(other)))
        return Ref::borrow(Py_NotImplemented);
    return side == Side::Right ? nonlinear_matrix_product(self, other) : nonlinear_matrix_product(other, self);
}

} // namespace

Ref quad_scaled(PyObject *self, double factor) {
    need_finite(factor, multiplier);
    return multiply_numbers(self, number_array(factor));
}

Ref quad_multiply(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (degree_of(other, kind) > 0)
        return nonlinear_operation(TreeOp::Multiply, self, other);
    switch (kind) {
    case Operand::Array:
        return multiply_array(self, other);
    case Operand::Sparse:
        return multiply_array(self, to_dense(other).get());
    case Operand::Scalar:
        return quad_scaled(self, number(other));
    default:
        return Ref::borrow(Py_NotImplemented);
    }
}

Ref quad_imul(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (degree_of(other, kind) > 0)
        return Ref::borrow(Py_NotImplemented);
    switch (kind) {
    case Operand::Array:
        imul_array(self, other);
        break;
    case Operand::Sparse:
        imul_array(self, to_dense(other).get());
        break;
    case Operand::Scalar:
        imul_array(self, number_array(number(other)).get());
        break;
    default:
        return Ref::borrow(Py_NotImplemented);
    }
    return Ref::borrow(self);
}

Ref quad_matrix_product(PyObject *self, PyObject *matrix) {
    return product(self, matrix, Side::Right);
}

Ref quad_reflected_matrix_product(PyObject *self, PyObject *matrix) {
    return product(self, matrix, Side::Left);
}

} // namespace tarvopy
