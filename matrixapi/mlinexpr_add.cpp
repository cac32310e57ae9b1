// MLinExpr: addition and subtraction, in place and not.
//
//   A @ x + b          compact stays compact: the parts are joined, the constants added
//   x + y  (2-d)       two flat summands that share the ids of x and y
//   e + nlfunc.exp(x)  nonlinear: handed over to that class
//   e += x[0]          compact: one more part, a column of ones; full: one more summand, or the LinExpr objects grow
//
// Subtraction adds the operand times -1: `factor` goes through all of it. Every function checks first and changes then.
#include "mlinexpr_operators.h"

#include "matrixapi/mnlexpr.h"
#include "methods.h"
#include "mquadexpr_operators.h"
#include "names.h"
#include "pysupport/lists.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// ---- constants of the compact state --------------------------------------------------------------------------------

Ref as_owned_doubles(Ref sum) {
    need_numpy();
    return check(
        PyArray_FROM_OTF(sum.get(), NPY_DOUBLE, NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_ENSURECOPY));
}

// The numbers of an exact float64 array in C order, else NULL: NumPy's own addition costs ten times that of a small
// array.
double *plain_doubles(PyObject *array) {
    bool plain = is_array(array) && PyArray_CheckExact(array) && PyArray_TYPE(as_array(array)) == NPY_DOUBLE &&
                 PyArray_ISCARRAY_RO(as_array(array));
    return plain ? static_cast<double *>(PyArray_DATA(as_array(array))) : nullptr;
}

bool same_shape(PyObject *a, PyObject *b) {
    return PyArray_SAMESHAPE(as_array(a), as_array(b));
}

// a + factor * b, broadcast.
Ref sum_of_constants(PyObject *a, PyObject *b, double factor) {
    const double *left = plain_doubles(a), *right = plain_doubles(b);
    if (!left || !right || !same_shape(a, b))
        return as_owned_doubles(check(PyNumber_Add(a, times(b, factor).get())));
    Ref sum = float_array(shape_of_array(a), left);
    double *to = plain_doubles(sum.get());
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(sum)); ++i)
        to[i] += factor * right[i];
    return sum;
}

void add_to_const(PyObject *self, PyObject *operand) {
    Ref constant = Ref::borrow(const_array(self));
    double *to = plain_doubles(constant.get());
    bool exact = PyFloat_CheckExact(operand) || PyLong_CheckExact(operand);
    if (!to || !PyArray_ISWRITEABLE(as_array(constant)) || !exact) {
        check(PyNumber_InPlaceAdd(constant.get(), operand));
        return;
    }
    double value = check_value(PyFloat_AsDouble(operand));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(constant)); ++i)
        to[i] += value;
}

// ---- parts ---------------------------------------------------------------------------------------------------------

Part scaled_part(const Part &part, double factor) {
    return factor == 1.0 ? part : make_part(flat::scaled(part.summand, factor), part.vector);
}

// The parts of an expression, joined, which the expression keeps. False: the element-wise path.
bool joined_parts(PyObject *expr, std::vector<Part> &parts, Ref &model) {
    join_parts(expr);
    return native_parts(expr, parts, model);
}

// One more part; the documented list, where it exists, grows in place.
void append_part(PyObject *self, Part part, const Ref &model) {
    if (LinearNative *native = linear_of(self)) {
        native->parts.push_back(std::move(part));
        if (!native->model)
            native->model = model;
        native->stamp = LinearNative::next_stamp();
        return;
    }
    append_pair(self, part_pair(part, model));
}

// Takes back what append_part did; needs no memory.
void drop_last_part(PyObject *self) {
    if (LinearNative *native = linear_of(self)) {
        native->parts.pop_back();
        if (native->parts.empty())
            native->model = {};
        native->stamp = LinearNative::next_stamp();
        return;
    }
    Ref list = matmulparts(self);
    truncate(list.get(), PyList_GET_SIZE(list.get()) - 1);
}

// More parts and more constants, or neither: a part can be taken away again without memory.
void append(PyObject *self, std::vector<Part> more, const Ref &model, PyObject *constant) {
    size_t appended = 0;
    try {
        for (; appended < more.size(); ++appended)
            append_part(self, std::move(more[appended]), model);
        add_to_const(self, constant);
    } catch (...) {
        for (; appended > 0; --appended)
            drop_last_part(self);
        throw;
    }
}

// Parts may be appended if their variables are of the receiver's model.
bool same_model(PyObject *self, const Ref &model) {
    std::vector<Part> own;
    Ref merged;
    if (LinearNative *native = linear_of(self))
        merged = native->model;
    else if (!native_parts(self, own, merged))
        return false;
    return merge_models(merged, model);
}

// ---- compact + compact ---------------------------------------------------------------------------------------------

// Both compact, and so is the result: one part with the columns of both.
Ref add_compact_compact(PyObject *self, PyObject *other, const flat::Shape &shape, double factor) {
    std::vector<Part> parts, more;
    Ref model, other_model;
    if (!joined_parts(self, parts, model) || !joined_parts(other, more, other_model) ||
        !merge_models(model, other_model))
        return {};
    Ref constant = sum_of_constants(const_array(self), const_array(other), factor);
    for (const Part &part : more)
        parts.push_back(scaled_part(part, factor));
    int64_t n = flat::size_of(shape);
    for (Part &part : parts)
        part = spread_part(part, n);
    if (parts.size() > 1)
        parts = {joined(parts)};
    return make_compact(mod.MLinExpr, std::move(parts), std::move(constant), std::move(model));
}

// ---- full ----------------------------------------------------------------------------------------------------------

Ref add_elements(PyObject *self, PyObject *other, Operand kind, double factor) {
    Ref left = elements_of(self), right = times(element_operand(other, kind).get(), factor);
    return wrap_elements(check(PyNumber_Add(left.get(), right.get())));
}

// The full value of a compact expression is read off its joined parts, which it keeps.
void join_if_compact(PyObject *expr) {
    if (is_compact(expr))
        join_parts(expr);
}

Ref add_full(PyObject *self, PyObject *other, Operand kind, double factor) {
    need_finite_addend(other);
    join_if_compact(self);
    if (kind == Operand::MLinExpr)
        join_if_compact(other);
    Value a, b;
    if (!expr_value(self, a) || !value_of(other, kind, b) || !merge_models(a.model, b.model))
        return add_elements(self, other, kind, factor);
    flat::Shape shape = broadcast_shapes(a.form.shape, b.form.shape);
    flat::Form sum = flat::broadcast(a.form, shape);
    flat::add(sum, flat::broadcast(b.form, shape), factor);
    need_finite(sum);
    return make_flat(mod.MLinExpr, std::move(sum), std::move(a.model));
}

// A compact receiver plus any expression of the linear classes.
Ref add_compact(PyObject *self, PyObject *other, double factor) {
    flat::Shape shape = broadcast_shapes(shape_of(self), shape_of(other));
    if (is_compact(other) && allows_compact(shape))
        if (Ref sum = add_compact_compact(self, other, shape, factor))
            return sum;
    return add_full(self, other, Operand::MLinExpr, factor);
}

// A compact receiver plus variables of its own shape, without an expression in between: `x[i] + x[j]` in a loop. Empty:
// the general way.
Ref add_compact_mvar(PyObject *self, PyObject *mvar, double factor) {
    VarIds given;
    std::vector<Part> parts;
    Ref model;
    const double *constant = plain_doubles(const_array(self));
    if (!constant || mvar_shape(mvar) != shape_of(self) || !mvar_ids(mvar, given) || given.shape != shape_of(self) ||
        !joined_parts(self, parts, model) || !merge_models(model, given.model))
        return {};
    parts.push_back(identity_part(std::move(given.ids), factor));
    parts = {joined(parts)};
    return make_compact(mod.MLinExpr, std::move(parts), float_array(given.shape, constant), std::move(model));
}

// A compact receiver plus numbers: the constant alone changes.
Ref add_compact_array(PyObject *self, PyObject *array, double factor) {
    Ref numbers = as_doubles(array);
    if (!numbers)
        return add_full(self, array, Operand::Array, factor);
    flat::Shape shape = broadcast_shapes(shape_of(self), shape_of_array(array));
    if (!allows_compact(shape))
        return add_full(self, array, Operand::Array, factor);
    Ref constant = make_compact(mod.MLinExpr, {}, as_owned_doubles(std::move(numbers)), {});
    return add_compact(self, constant.get(), factor);
}

Ref add_by_copy(PyObject *self, PyObject *other, double factor);

Ref add_on_compact(PyObject *self, PyObject *other, Operand kind, double factor) {
    switch (kind) {
    case Operand::MLinExpr:
        return add_compact(self, other, factor);
    case Operand::MVar:
        if (Ref sum = add_compact_mvar(self, other, factor))
            return sum;
        return add_compact(self, from_mvar(mod.MLinExpr, other).get(), factor);
    case Operand::Array:
        return add_compact_array(self, other, factor);
    case Operand::Sparse:
        return add_compact_array(self, to_dense(other).get(), factor);
    default:
        return add_by_copy(self, other, factor);
    }
}

// ---- in place: compact ---------------------------------------------------------------------------------------------

// The coefficients of a scalar expression, repeated for each of n rows, over its variables in their order.
Part repeated_row(const flat::Form &form, int64_t n, double factor) {
    flat::Summand row = flat::joined(form.summands, 1);
    int64_t terms = row.nnz();
    flat::Buffer<int32_t> ids(terms), cols(n * terms);
    flat::Buffer<double> coef(n * terms);
    for (int64_t k = 0; k < terms; ++k)
        ids.write()[k] = row.id(k);
    for (int64_t i = 0; i < n; ++i)
        for (int64_t k = 0; k < terms; ++k) {
            cols.write()[i * terms + k] = static_cast<int32_t>(k);
            coef.write()[i * terms + k] = row.coefficient(k) * factor;
        }
    flat::Summand rows;
    rows.nrows = n;
    rows.width = terms;
    rows.cols = std::move(cols);
    rows.coef = std::move(coef);
    return make_part(std::move(rows), std::move(ids));
}

// A variable or a scalar expression is added to every element. False: the element-wise path.
bool iadd_compact_scalar_expr(PyObject *self, PyObject *other, double factor) {
    Value value;
    if (!flat_linexpr(other, value.form, value.model) || !same_model(self, value.model))
        return false;
    int64_t n = flat::size_of(shape_of(self));
    Ref constant = check(PyFloat_FromDouble(factor * value.form.constant.uniform));
    std::vector<Part> more;
    if (n > 0) // an empty expression never holds parts
        more.push_back(repeated_row(value.form, n, factor));
    append(self, std::move(more), value.model, constant.get());
    return true;
}

bool iadd_compact_compact(PyObject *self, PyObject *other, double factor) {
    std::vector<Part> more;
    Ref model;
    if (!joined_parts(other, more, model) || !same_model(self, model))
        return false;
    int64_t n = flat::size_of(shape_of(self));
    Ref constant = times(const_array(other), factor);
    for (Part &part : more)
        part = spread_part(scaled_part(part, factor), n);
    if (n == 0)
        more.clear();
    append(self, std::move(more), model, constant.get());
    return true;
}

// ---- in place: full ------------------------------------------------------------------------------------------------

void iadd_elements(PyObject *self, PyObject *other, Operand kind, double factor) {
    Ref right = times(element_operand(other, kind).get(), factor);
    elements_or_nothing(learr(self).get(), right.get(), PyNumber_InPlaceAdd);
}

// Where no object exists the form grows by the operand's summands, which costs nothing per term.
void iadd_flat(LinearNative &native, const flat::Form &operand, Ref model, double factor) {
    flat::Form sum{native.form.shape, native.form.size, native.form.constant, {}};
    flat::Form constants{operand.shape, operand.size, operand.constant, {}};
    flat::add(sum, constants, factor);
    need_finite(sum);
    flat::add(native.form, operand, factor);
    native.model = std::move(model);
    native.stamp = LinearNative::next_stamp();
}

void iadd_full(PyObject *self, PyObject *other, Operand kind, double factor) {
    need_finite_addend(other);
    if (kind == Operand::MLinExpr)
        join_if_compact(other);
    Value operand;
    if (!value_of(other, kind, operand))
        return iadd_elements(self, other, kind, factor);
    flat::Shape shape = shape_of(self);
    need_fit(shape, operand.form.shape);
    flat::Form spread = flat::broadcast(operand.form, shape);
    prepare_change(self);
    if (LinearNative *native = linear_of(self)) {
        Ref model = native->model;
        if (merge_models(model, operand.model))
            return iadd_flat(*native, spread, std::move(model), factor);
    }
    // The objects themselves are increased, by a private copy of the operand.
    Ref elements = linexpr_array(factor == 1.0 ? spread : flat::scaled(spread, factor), operand.model);
    elements_in_place(learr(self).get(), elements.get(), PyNumber_InPlaceAdd);
}

// A compact receiver takes over the full sum.
void iadd_compact_becomes_full(PyObject *self, PyObject *other, Operand kind, double factor) {
    Ref full = to_full(self);
    iadd_full(full.get(), other, kind, factor);
    if (LinearNative *native = linear_of(full.get()))
        become_flat(self, std::move(native->form), std::move(native->model));
    else
        become_objects(self, learr(full.get()));
}

void iadd_on_compact(PyObject *self, PyObject *other, Operand kind, double factor) {
    bool done = false;
    switch (kind) {
    case Operand::Var:
    case Operand::LinExpr:
        done = iadd_compact_scalar_expr(self, other, factor);
        break;
    case Operand::MVar:
        return iadd_on_compact(self, from_mvar(mod.MLinExpr, other).get(), Operand::MLinExpr, factor);
    case Operand::MLinExpr:
        need_fit(shape_of(self), shape_of(other));
        done = is_compact(other) && iadd_compact_compact(self, other, factor);
        break;
    case Operand::Sparse:
        return iadd_on_compact(self, to_dense(other).get(), Operand::Array, factor);
    default: {
        if (kind == Operand::Array && PyArray_TYPE(as_array(other)) == NPY_OBJECT)
            break; // its elements may be variables and expressions, which no constant takes
        Ref operand = times(other, factor);
        return add_to_const(self, operand.get());
    }
    }
    if (!done)
        iadd_compact_becomes_full(self, other, kind, factor);
}

bool is_linear_operand(Operand kind) {
    return kind == Operand::MVar || kind == Operand::MLinExpr || kind == Operand::Var || kind == Operand::LinExpr ||
           kind == Operand::Array || kind == Operand::Sparse || kind == Operand::Scalar;
}

Ref add_quadratic(PyObject *self, PyObject *other, Operand kind, double factor) {
    Ref sum = quad_from_mlinexpr(mod.MQuadExpr, self);
    if (kind == Operand::MQuadExpr)
        merge_if_compact(other);
    Ref operand = kind == Operand::QuadExpr ? quad_from_quadexpr(mod.MQuadExpr, other)
                  : kind == Operand::Array  ? quad_from_elements(other)
                                            : Ref::borrow(other);
    return quad_add(sum.get(), operand.get(), factor);
}

Ref add_by_copy(PyObject *self, PyObject *other, double factor) {
    Ref sum = copy_of(self);
    iadd(sum.get(), other, factor);
    return sum;
}

} // namespace

void append_pair(PyObject *self, const Ref &pair) {
    Ref list = matmulparts(self);
    if (!PyList_Check(list.get())) { // a tuple was given
        list = check(PySequence_List(list.get()));
        check_status(PyObject_SetAttr(self, names._matmulparts, list.get()));
    }
    check_status(PyList_Append(list.get(), pair.get()));
}

bool iadd(PyObject *self, PyObject *given, double factor) {
    Operand kind = kind_of(given);
    if (!is_linear_operand(kind))
        return false;
    Ref held = kind == Operand::Scalar ? plain_scalar(given) : Ref::borrow(given);
    PyObject *other = held.get();
    if (takes_compact_path(self)) {
        iadd_on_compact(self, other, kind, factor);
        return true;
    }
    iadd_full(self, other, kind, factor);
    return true;
}

Ref from_elements(PyObject *array) {
    flat::Form zero;
    zero.shape = shape_of_array(array);
    zero.size = flat::size_of(zero.shape);
    Ref full = make_flat(mod.MLinExpr, std::move(zero), Ref());
    return check(PyNumber_InPlaceAdd(full.get(), array));
}

Ref add(PyObject *self, PyObject *given, double factor) {
    Operand kind = kind_of(given);
    Ref held = kind == Operand::Scalar ? plain_scalar(given) : Ref::borrow(given);
    PyObject *other = held.get();
    int degree = degree_of(given, kind);
    if (degree == 3)
        return nonlinear_operation(factor > 0 ? TreeOp::Plus : TreeOp::Minus, self, given);
    if (degree < 2 && !is_linear_operand(kind))
        return Ref::borrow(Py_NotImplemented);
    bool compact = takes_compact_path(self);
    if (degree == 2)
        return add_quadratic(self, given, kind, factor);
    // A LinExpr stands outside the compact rules: it makes the receiver full, for good.
    if (compact && kind != Operand::LinExpr)
        return add_on_compact(self, other, kind, factor);
    convert_to_full(self);
    return add_full(self, other, kind, factor);
}

// ---- members -------------------------------------------------------------------------------------------------------

namespace {

Ref plus(PyObject *self, PyObject *other) {
    return add(self, other, 1.0);
}
Ref reflected_plus(PyObject *self, PyObject *other) {
    return degree_of(other, kind_of(other)) == 3 ? nonlinear_operation(TreeOp::Plus, other, self)
                                                 : add(self, other, 1.0);
}
Ref minus(PyObject *self, PyObject *other) {
    return add(self, other, -1.0);
}
Ref reflected_minus(PyObject *self, PyObject *other) {
    Operand kind = kind_of(other);
    if (kind == Operand::Other)
        return Ref::borrow(Py_NotImplemented);
    if (degree_of(other, kind) == 3)
        return nonlinear_operation(TreeOp::Minus, other, self);
    return add(scaled(self, -1.0).get(), other, 1.0);
}

Ref in_place(PyObject *self, PyObject *other, double factor) {
    // Not for quadratic and nonlinear operands: Python then forms the sum, which is another object.
    bool taken = degree_of(other, kind_of(other)) < 2 && iadd(self, other, factor);
    return Ref::borrow(taken ? self : Py_NotImplemented);
}
Ref plus_in_place(PyObject *self, PyObject *other) {
    return in_place(self, other, 1.0);
}
Ref minus_in_place(PyObject *self, PyObject *other) {
    return in_place(self, other, -1.0);
}

} // namespace

std::span<Member> addition_members() {
    static Member members[] = {
        operator_of<"__add__", plus>(
            "__add__($self, other)\n--\n\nSum with numbers, variables or expressions, by NumPy's broadcasting."),
        operator_of<"__radd__", reflected_plus>("__radd__($self, other)\n--\n\nAs __add__."),
        operator_of<"__iadd__", plus_in_place>(
            "__iadd__($self, other)\n--\n\nAdd in place; the shape stays. On failure nothing has changed."),
        operator_of<"__sub__", minus>("__sub__($self, other)\n--\n\nself + (-1.0 * other)"),
        operator_of<"__rsub__", reflected_minus>("__rsub__($self, other)\n--\n\n(-1.0 * self) + other"),
        operator_of<"__isub__", minus_in_place>("__isub__($self, other)\n--\n\nself += -1.0 * other"),
    };
    return members;
}

} // namespace tarvopy
