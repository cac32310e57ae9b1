// MLinExpr: products with numbers, division, powers, signs and comparisons.
//
//   2.0 * e        compact stays compact: the coefficients of the joined part and the constant are scaled
//   e * C          row i times C's element i, by NumPy's broadcasting
//   e * x, e ** 2  quadratic; e / x, e ** 3, 2 ** e  nonlinear: handed over to those classes
#include "mlinexpr_operators.h"

#include "matrixapi/methods.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mquadexpr.h"
#include "names.h"

#include <cstring>

namespace tarvopy {

using namespace pysupport;

namespace {

constexpr const char *multiplier = "Multiplier";

void need_finite_array(const Ref &numbers) {
    need_finite(doubles(numbers), PyArray_SIZE(as_array(numbers)), multiplier);
}

flat::Summand times_rows(const flat::Summand &summand, const Ref &numbers, const Factors &factors) {
    return PyArray_SIZE(as_array(numbers)) == 1 ? flat::scaled(summand, *doubles(numbers))
                                                : flat::scaled_rows(summand, factors.data());
}

// ---- new results

Ref scaled_compact(PyObject *self, double factor) {
    join_parts(self);
    std::vector<Part> parts;
    Ref model;
    if (!native_parts(self, parts, model))
        return {};
    flat::Shape shape = shape_of(self);
    Ref numbers = constant_doubles(self);
    Ref constant = float_array(shape, doubles(numbers));
    double *values = static_cast<double *>(PyArray_DATA(as_array(constant)));
    for (int64_t i = 0; i < flat::size_of(shape); ++i)
        values[i] *= factor;
    for (Part &part : parts)
        part = make_part(flat::scaled(part.summand, factor), part.vector);
    return make_compact(mod.MLinExpr, std::move(parts), std::move(constant), std::move(model));
}

Ref multiply_elements(PyObject *self, PyObject *operand) {
    Ref elements = elements_of(self);
    return wrap_elements(check(PyNumber_Multiply(elements.get(), operand)));
}

Ref multiply_full(PyObject *self, const Ref &numbers) {
    Value value;
    if (!expr_value(self, value))
        return multiply_elements(self, numbers.get());
    flat::Shape shape = broadcast_shapes(value.form.shape, shape_of_array(numbers.get()));
    if (flat::size_of(shape) > 0)
        need_finite_array(numbers);
    flat::Form spread = flat::broadcast(value.form, shape);
    flat::Form product = PyArray_SIZE(as_array(numbers)) == 1
                             ? flat::scaled(spread, *doubles(numbers))
                             : flat::scaled_rows(spread, Factors(numbers, shape).data());
    return make_flat(mod.MLinExpr, std::move(product), std::move(value.model));
}

Ref multiply_compact(PyObject *self, const Ref &numbers) {
    flat::Shape shape = broadcast_shapes(shape_of(self), shape_of_array(numbers.get()));
    if (flat::size_of(shape) > 0)
        need_finite_array(numbers);
    std::vector<Part> parts;
    Ref model;
    join_parts(self);
    if (!allows_compact(shape) || !native_parts(self, parts, model))
        return multiply_full(self, numbers);
    Ref product = check(PyNumber_Multiply(const_array(self), numbers.get()));
    Ref constant = check(
        PyArray_FROM_OTF(product.get(), NPY_DOUBLE, NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_ENSURECOPY));
    Factors factors(numbers, shape);
    for (Part &part : parts) {
        Part spread = spread_part(part, flat::size_of(shape));
        part = make_part(times_rows(spread.summand, numbers, factors), spread.vector);
    }
    return make_compact(mod.MLinExpr, std::move(parts), std::move(constant), std::move(model));
}

Ref multiply_array(PyObject *self, PyObject *array) {
    Ref numbers = as_doubles(array);
    bool compact = takes_compact_path(self);
    if (!numbers)
        return multiply_elements(self, plain_array(array).get());
    return compact ? multiply_compact(self, numbers) : multiply_full(self, numbers);
}

// ---- in place ------------------------------------------------------------------------------------------------------

// The documented pair, where it exists, is scaled in its own arrays: whoever holds the matrix sees it.
void scale_made_part(PyObject *self, const Ref &numbers, const Factors &factors) {
    Ref list = check(PyObject_GetAttr(self, names._matmulparts));
    if (check_value(PyObject_Length(list.get())) == 0)
        return;
    Ref pair = check(PySequence_GetItem(list.get(), 0)), matrix = check(PySequence_GetItem(pair.get(), 0));
    Ref data = check(PyObject_GetAttr(matrix.get(), names.data));
    if (PyArray_SIZE(as_array(numbers)) == 1) {
        // As a number: an array of more axes than the data would not fit in place.
        check(PyNumber_InPlaceMultiply(data.get(), check(PyFloat_FromDouble(*doubles(numbers))).get()));
        return;
    }
    flat::Csr csr = csr_of(matrix.get());
    if (csr.rows != factors.size() || !is_array(data.get()) || PyArray_SIZE(as_array(data)) < csr.nnz())
        fail(PyExc_ValueError, "the entries of a sparse matrix changed while they were read");
    Ref entries = float_array({PyArray_SIZE(as_array(data))});
    double *values = static_cast<double *>(PyArray_DATA(as_array(entries)));
    std::fill_n(values, PyArray_SIZE(as_array(data)), 1.0);
    for (int64_t row = 0; row < csr.rows; ++row)
        std::fill(values + csr.ptr[row], values + csr.ptr[row + 1], factors[row]);
    check(PyNumber_InPlaceMultiply(data.get(), entries.get()));
}

// constant *= numbers, in its own memory: in a loop where it can be, since NumPy's operator costs most of a microsecond
// on one element.
void scale_constant(const Ref &constant, const Ref &numbers) {
    PyArrayObject *array = as_array(constant);
    bool one = PyArray_SIZE(as_array(numbers)) == 1;
    bool fits = one || PyArray_SAMESHAPE(array, as_array(numbers));
    if (!fits || !PyArray_CheckExact(constant.get()) || PyArray_TYPE(array) != NPY_DOUBLE || !PyArray_ISCARRAY(array)) {
        check(PyNumber_InPlaceMultiply(constant.get(), numbers.get()));
        return;
    }
    auto *values = static_cast<double *>(PyArray_DATA(array));
    const double *factors = doubles(numbers);
    for (npy_intp i = 0; i < PyArray_SIZE(array); ++i)
        values[i] *= factors[one ? 0 : i];
}

// NumPy's own copying may need memory, which an array in the usual order does not.
void put_back(const Ref &constant, const Ref &before) {
    if (PyArray_ISCARRAY(as_array(constant))) {
        std::memcpy(PyArray_DATA(as_array(constant)), PyArray_DATA(as_array(before)), PyArray_NBYTES(as_array(before)));
        return;
    }
    Ref error = Ref::steal(PyErr_GetRaisedException());
    PyArray_CopyInto(as_array(constant), as_array(before));
    PyErr_SetRaisedException(error.release());
}

void imul_compact(PyObject *self, const Ref &numbers) {
    flat::Shape shape = shape_of(self);
    if (flat::size_of(shape) > 0)
        need_finite_array(numbers);
    need_fit(shape, shape_of_array(numbers.get()));
    Factors factors(numbers, shape);
    join_parts(self);
    Ref constant = Ref::borrow(const_array(self));
    if (LinearNative *native = linear_of(self)) {
        std::vector<Part> parts;
        for (const Part &part : native->parts)
            parts.push_back(make_part(times_rows(part.summand, numbers, factors), part.vector));
        Ref model = native->model;
        scale_constant(constant, numbers);
        return set_parts(self, std::move(parts), std::move(model));
    }
    Ref before = check(PyArray_NewCopy(as_array(constant), NPY_CORDER));
    scale_constant(constant, numbers);
    try {
        scale_made_part(self, numbers, factors);
    } catch (...) {
        put_back(constant, before);
        throw;
    }
}

void imul_full(PyObject *self, const Ref &numbers) {
    flat::Shape shape = shape_of(self);
    need_fit(shape, shape_of_array(numbers.get()));
    if (flat::size_of(shape) > 0)
        need_finite_array(numbers);
    prepare_change(self);
    if (LinearNative *native = linear_of(self)) {
        native->form = PyArray_SIZE(as_array(numbers)) == 1
                           ? flat::scaled(native->form, *doubles(numbers))
                           : flat::scaled_rows(native->form, Factors(numbers, shape).data());
        native->stamp = LinearNative::next_stamp();
        return;
    }
    elements_in_place(learr(self).get(), numbers.get(), PyNumber_InPlaceMultiply);
}

void imul_array(PyObject *self, PyObject *array) {
    Ref numbers = as_doubles(array);
    bool compact = takes_compact_path(self);
    if (!numbers) {
        convert_to_full(self);
        return elements_or_nothing(learr(self).get(), plain_array(array).get(), PyNumber_InPlaceMultiply);
    }
    compact ? imul_compact(self, numbers) : imul_full(self, numbers);
}

// ---- division and powers -------------------------------------------------------------------------------------------

Ref divide(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other)
        return not_implemented();
    if (degree_of(other, kind) > 0)
        return nonlinear_operation(TreeOp::Divide, self, other);
    return multiply(self, inverse_of(other, kind).get());
}

// The same expression in the broadcast shape.
Ref broadcast_copy(PyObject *self, const flat::Shape &shape) {
    if (shape_of(self) == shape)
        return copy_of(self);
    Ref ones = float_array(shape);
    return add(self, ones.get(), 1.0);
}

Ref constant_one(const flat::Shape &shape) {
    Ref ones = make_zeros(mod.MLinExpr, shape);
    return add(ones.get(), number_array(1.0).get(), 1.0);
}

// `other` is the exponent as it was given; the result has the broadcast shape.
Ref numeric_power(PyObject *self, double exponent, PyObject *other, const flat::Shape &shape) {
    if (exponent == 0.0)
        return constant_one(shape);
    if (exponent == 1.0)
        return broadcast_copy(self, shape);
    if (exponent != 2.0)
        return nonlinear_operation(TreeOp::Pow, self, other);
    Ref base = broadcast_copy(self, shape);
    return quadratic_product(base.get(), base.get());
}

// An array of one element means that element.
Ref power_of_single(PyObject *self, PyObject *array) {
    Ref element = check(PyObject_CallMethodNoArgs(array, names.item));
    Operand kind = kind_of(element.get());
    if (kind == Operand::Other || kind == Operand::Array || kind == Operand::Sparse)
        return not_implemented();
    flat::Shape shape = broadcast_shapes(shape_of(self), shape_of_array(array));
    if (kind == Operand::Scalar)
        return numeric_power(self, number(element.get()), array, shape);
    Ref base = shape == shape_of(self) ? Ref::borrow(self) : broadcast_copy(self, shape);
    return nonlinear_operation(TreeOp::Pow, base.get(), element.get());
}

Ref power(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other)
        return not_implemented();
    if (kind == Operand::Sparse)
        return power(self, to_dense(other).get());
    if (kind == Operand::Scalar)
        return numeric_power(self, number(other), other, shape_of(self));
    if (kind == Operand::Array && PyArray_SIZE(as_array(other)) == 1)
        return power_of_single(self, other);
    return nonlinear_operation(TreeOp::Pow, self, other);
}

// ---- members

// In the order of the factors where trees tell it.
Ref reflected_multiply(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    return degree_of(other, kind) > 1 ? nonlinear_operation(TreeOp::Multiply, other, self) : multiply(self, other);
}

Ref reflected_division(PyObject *self, PyObject *other) {
    return kind_of(other) == Operand::Other ? not_implemented() : nonlinear_operation(TreeOp::Divide, other, self);
}

Ref reflected_power(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other || kind == Operand::Sparse)
        return not_implemented();
    return nonlinear_operation(TreeOp::Pow, other, self);
}

Ref idivide(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    Ref factor = degree_of(other, kind) == 0 ? inverse_of(other, kind) : Ref();
    return factor ? imul(self, factor.get()) : not_implemented();
}

Ref not_equal(PyObject *, PyObject *) {
    fail_tarvo(0, "Inequality constraints not supported");
}

Ref negative(PyObject *self) {
    return scaled(self, -1.0);
}

} // namespace

Ref imul(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    switch (kind) {
    case Operand::Array:
        if (degree_of(other, kind) > 0)
            return Ref::borrow(Py_NotImplemented);
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

Ref scaled(PyObject *self, double factor) {
    need_finite(factor, multiplier);
    if (takes_compact_path(self))
        if (Ref compact = scaled_compact(self, factor))
            return compact;
    return multiply_full(self, number_array(factor));
}

Ref multiply(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    int degree = degree_of(other, kind);
    if (degree > 1)
        return nonlinear_operation(TreeOp::Multiply, self, other);
    switch (kind) {
    case Operand::Array:
        return degree == 1 ? quadratic_product(self, from_elements(other).get()) : multiply_array(self, other);
    case Operand::Sparse:
        return multiply_array(self, to_dense(other).get());
    case Operand::Scalar:
        return scaled(self, number(other));
    case Operand::MVar:
    case Operand::Var:
    case Operand::MLinExpr:
    case Operand::LinExpr:
        return quadratic_product(self, other);
    default:
        return not_implemented();
    }
}

namespace {

// A divisor in double precision: NumPy's reciprocal of a short float is as short, and a third would be off by 1e-4.
Ref divisor(PyObject *other, Operand kind) {
    if (kind == Operand::Scalar)
        return numpy_loaded() && PyArray_IsScalar(other, Generic) ? number_array(number(other)) : plain_scalar(other);
    Ref given = kind == Operand::Sparse ? to_dense(other) : Ref::borrow(other);
    Ref numbers = as_doubles(given.get());
    return numbers ? numbers : given;
}

} // namespace

Ref inverse_of(PyObject *other, Operand kind) {
    if (kind != Operand::Array && kind != Operand::Sparse && kind != Operand::Scalar)
        return {};
    Ref one = check(PyFloat_FromDouble(1.0));
    return check(PyNumber_TrueDivide(one.get(), divisor(other, kind).get()));
}

std::span<Member> multiplication_members() {
    static Member members[] = {
        operator_of<"__mul__", multiply>("__mul__($self, other)\n--\n\nElement-wise product, by NumPy's broadcasting."),
        operator_of<"__rmul__", reflected_multiply>("__rmul__($self, other)\n--\n\nAs __mul__."),
        operator_of<"__imul__", imul>(
            "__imul__($self, other)\n--\n\nMultiply by numbers in place; the shape stays. On failure nothing has "
            "changed."),
        operator_of<"__truediv__", divide>(
            "__truediv__($self, other)\n--\n\nself * (1.0 / other) for numbers and arrays."),
        operator_of<"__itruediv__", idivide>("__itruediv__($self, other)\n--\n\nself *= 1.0 / other"),
        operator_of<"__rtruediv__", reflected_division>(
            "__rtruediv__($self, other)\n--\n\nDivision by an expression is nonlinear."),
        operator_of<"__pow__", power>(
            "__pow__($self, other)\n--\n\nPower; the exponents 0 and 1 stay linear, 2 is quadratic."),
        operator_of<"__rpow__", reflected_power>("__rpow__($self, other)\n--\n\nNonlinear."),
        plain<"__neg__", negative>("__neg__($self)\n--\n\n-1.0 * self"),
        plain<"__pos__", copy_of>("__pos__($self)\n--\n\nA copy."),
        operator_of<"__le__", less_equal, "rhs">("__le__($self, rhs)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__ge__", greater_equal, "rhs">("__ge__($self, rhs)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__eq__", equal, "rhs">("__eq__($self, rhs)\n--\n\nA TempConstr for Model.addConstr."),
        operator_of<"__ne__", not_equal, "rhs">("__ne__($self, rhs)\n--\n\nNot a constraint: raises TarvoError."),
    };
    return members;
}

} // namespace tarvopy
