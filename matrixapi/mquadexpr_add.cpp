// MQuadExpr: addition and subtraction, in place and not.
//
//   q + 1.0, q + A @ x    the linear half alone changes; a sum that is larger than q repeats its quadratic terms
//   q + r                 compact: one merged part; full: the summands of both
//   q += r                compact: one more part; full: the form grows, or the QuadExpr objects do
//
// Subtraction adds the operand times -1. Everything is checked and read before anything changes.
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mquadexpr_operators.h"

namespace tarvopy {

using namespace pysupport;

namespace {

Ref times(PyObject *array, double factor) {
    if (factor == 1.0)
        return Ref::borrow(array);
    return check(PyNumber_Multiply(check(PyFloat_FromDouble(factor)).get(), array));
}

Ref own_ndle(PyObject *expr) {
    return Ref::borrow(ndle_of(expr));
}

bool has_quad_elements(PyObject *expr) {
    return !quadratic_of(expr);
}

// ---- a new sum with a linear operand ------------------------------------------------------------------------------

// The quadratic half of self, spread over the shape of ndle, as a new expression.
Ref spread_over(PyObject *self, Ref ndle) {
    flat::Shape shape = shape_of(ndle.get());
    QuadValue value;
    if (quad_numbers(self, value))
        return make_quad_flat(mod.MQuadExpr, flat::broadcast(value.form, shape), std::move(ndle), value.model);
    Ref elements = quad_elements_of(self), zeros = float_array(shape);
    return wrap_quad_elements(check(PyNumber_Add(elements.get(), zeros.get())), std::move(ndle));
}

Ref add_array(PyObject *self, PyObject *other, double factor) {
    bool compact = takes_compact_quad_path(self);
    Ref ndle = add(own_ndle(self).get(), other, factor);
    std::vector<QuadPart> parts;
    Ref model;
    flat::Shape shape = shape_of(ndle.get());
    if (!compact || !merged_quad_parts(self, parts, model) || !allows_compact_quad(shape))
        return spread_over(self, std::move(ndle));
    if (flat::size_of(shape) == 0)
        parts.clear();
    return make_quad_compact(mod.MQuadExpr, std::move(parts), std::move(ndle), std::move(model));
}

Ref add_scalar(PyObject *self, PyObject *other, double factor) {
    takes_compact_quad_path(self);
    Ref sum = quad_copy(self);
    iadd(own_ndle(sum.get()).get(), other, factor);
    return sum;
}

// ---- a new sum of two quadratic expressions -----------------------------------------------------------------------

Ref add_compact_compact(PyObject *self, PyObject *other, double factor) {
    flat::Shape shape = broadcast_shapes(quad_shape_of(self), quad_shape_of(other));
    std::vector<QuadPart> parts, more;
    Ref model, other_model;
    if (!allows_compact_quad(shape) || !quad_parts(self, parts, model) || !quad_parts(other, more, other_model) ||
        !merge_models(model, other_model))
        return {};
    Ref ndle = add(own_ndle(self).get(), own_ndle(other).get(), factor);
    scale_parts(more, factor);
    parts.insert(parts.end(), more.begin(), more.end());
    if (flat::size_of(shape) == 0)
        parts.clear();
    if (parts.size() > 1)
        parts = {merged(parts)};
    return make_quad_compact(mod.MQuadExpr, std::move(parts), std::move(ndle), std::move(model));
}

Ref add_full_quadratics(PyObject *self, PyObject *other, double factor) {
    Ref ndle = add(own_ndle(self).get(), own_ndle(other).get(), factor);
    QuadValue a, b;
    if (!quad_numbers(self, a) || !quad_numbers(other, b) || !merge_models(a.model, b.model)) {
        Ref left = quad_elements_of(self), right = times(quad_elements_of(other).get(), factor);
        return wrap_quad_elements(check(PyNumber_Add(left.get(), right.get())), std::move(ndle));
    }
    flat::Shape shape = shape_of(ndle.get());
    flat::QuadForm sum = flat::broadcast(a.form, shape);
    flat::add(sum, flat::broadcast(b.form, shape), factor);
    return make_quad_flat(mod.MQuadExpr, std::move(sum), std::move(ndle), a.model);
}

Ref add_quadratics(PyObject *self, PyObject *other, double factor) {
    broadcast_shapes(quad_shape_of(self), quad_shape_of(other));
    if (takes_compact_quad_path(self) && quad_state_of(other) <= State::CompactMade)
        if (Ref sum = add_compact_compact(self, other, factor))
            return sum;
    return add_full_quadratics(self, other, factor);
}

// ---- in place -----------------------------------------------------------------------------------------------------

// One more (MVar, coo_matrix, MVar) triple: the documented list grows in place.
void append_made_part(PyObject *self, QuadPart part, const Ref &model) {
    Ref holder = make_quad_compact(mod.MQuadExpr, {std::move(part)}, make_zeros(mod.MLinExpr, {}), model);
    Ref triples = quadparts(holder.get()), list = quadparts(self);
    if (!PyList_Check(list.get()))
        fail(PyExc_TypeError, "_quadparts of an MQuadExpr must be a list, not '%.200s'", Py_TYPE(list.get())->tp_name);
    check_status(PyList_Append(list.get(), check(PySequence_GetItem(triples.get(), 0)).get()));
}

// The native parts grow in place: copying them for every `+=` would make k additions cost k * k.
void append_part(PyObject *self, QuadPart part, Ref model) {
    QuadNative *native = quadratic_of(self);
    native->parts.push_back(std::move(part));
    native->model = std::move(model);
    native->stamp = LinearNative::next_stamp();
    if (eager || is_watched(self))
        quadparts(self);
}

// False: the full path.
bool iadd_compact_compact(PyObject *self, PyObject *other, double factor) {
    std::vector<QuadPart> more, parts;
    Ref model, other_model;
    if (!merged_quad_parts(other, more, other_model))
        return false;
    QuadNative *native = quadratic_of(self);
    const bool grows = native && native->compact;
    if (grows)
        model = native->model;
    else if (!quad_parts(self, parts, model))
        return false;
    if (!merge_models(model, other_model))
        return false;
    iadd(own_ndle(self).get(), own_ndle(other).get(), factor);
    scale_parts(more, factor);
    if (more.empty() || flat::size_of(quad_shape_of(self)) == 0)
        return true;
    if (grows && quadratic_of(self) == native)
        append_part(self, std::move(more[0]), std::move(model));
    else
        append_made_part(self, std::move(more[0]), model);
    return true;
}

// Objects that only Python's own operators know: tried on copies first, so that a refusal changes neither half.
void iadd_quad_elements(PyObject *self, PyObject *other, double factor) {
    Ref elements = qearr(self), operand = times(quad_elements_of(other).get(), factor);
    check(PyNumber_Add(elements.get(), operand.get()));
    iadd(own_ndle(self).get(), own_ndle(other).get(), factor);
    elements_or_nothing(elements.get(), operand.get(), PyNumber_InPlaceAdd);
}

void iadd_full_quadratics(PyObject *self, PyObject *other, double factor) {
    quad_convert_to_full(self);
    QuadValue operand;
    if (!quad_numbers(other, operand))
        return iadd_quad_elements(self, other, factor);
    flat::QuadForm spread = flat::broadcast(operand.form, quad_shape_of(self));
    QuadValue own;
    if (!has_quad_elements(self) && quad_numbers(self, own) && merge_models(own.model, operand.model)) {
        iadd(own_ndle(self).get(), own_ndle(other).get(), factor);
        flat::add(own.form, spread, factor);
        return quad_take_over(self, std::move(own.form), std::move(own.model));
    }
    // The objects themselves are increased, by a private copy of the operand.
    Ref private_ndle = make_zeros(mod.MLinExpr, quad_shape_of(self));
    Ref addends = make_quad_flat(mod.MQuadExpr, factor == 1.0 ? std::move(spread) : flat::scaled(spread, factor),
                                 std::move(private_ndle), operand.model);
    Ref elements = qearr(self), numbers = qearr(addends.get());
    iadd(own_ndle(self).get(), own_ndle(other).get(), factor);
    elements_in_place(elements.get(), numbers.get(), PyNumber_InPlaceAdd);
}

void iadd_quadratics(PyObject *self, PyObject *other, double factor) {
    need_fit(quad_shape_of(self), quad_shape_of(other));
    if (takes_compact_quad_path(self) && quad_state_of(other) <= State::CompactMade &&
        iadd_compact_compact(self, other, factor))
        return;
    iadd_full_quadratics(self, other, factor);
}

} // namespace

// ---- what the operator files share --------------------------------------------------------------------------------

bool quad_numbers(PyObject *expr, QuadValue &value) {
    flat::Form inner;
    return quad_value(expr, value.form, value.model, inner) && inner.summands.empty() &&
           inner.constant.values.empty() && inner.constant.uniform == 0.0;
}

Ref quad_elements_of(PyObject *expr) {
    if (quad_state_of(expr) > State::CompactMade)
        return qearr(expr);
    Ref full = quad_to_full(expr);
    return qearr(full.get());
}

Ref wrap_quad_elements(Ref result, Ref ndle) {
    return make_quad_objects(
        mod.MQuadExpr, PyArray_Check(result.get()) ? std::move(result) : object_scalar(result.get()), std::move(ndle));
}

bool takes_compact_quad_path(PyObject *expr) {
    if (quad_state_of(expr) <= State::CompactMade && keep_compact(mod.MQuadExpr))
        return true;
    quad_convert_to_full(expr);
    return false;
}

bool merged_quad_parts(PyObject *expr, std::vector<QuadPart> &parts, Ref &model) {
    if (!quad_parts(expr, parts, model))
        return false;
    if (parts.size() > 1) {
        parts = {merged(parts)};
        set_quad_parts(expr, parts, model);
    }
    return true;
}

void scale_parts(std::vector<QuadPart> &parts, double factor) {
    if (factor == 1.0)
        return;
    for (QuadPart &part : parts) {
        if (part.coef.empty()) {
            part.scale *= factor;
            continue;
        }
        flat::Buffer<double> coef(part.nnz);
        std::transform(part.coef.data(), part.coef.data() + part.nnz, coef.write(),
                       [factor](double c) { return c * factor; });
        part.coef = std::move(coef);
    }
}

Ref quad_add(PyObject *self, PyObject *other, double factor) {
    switch (kind_of(other)) {
    case Operand::MLinExpr:
    case Operand::MVar:
    case Operand::Array:
    case Operand::Sparse:
        return add_array(self, other, factor);
    case Operand::Scalar:
    case Operand::Var:
    case Operand::LinExpr:
        return add_scalar(self, other, factor);
    case Operand::MQuadExpr:
        return add_quadratics(self, other, factor);
    case Operand::QuadExpr:
        return add_quadratics(self, quad_from_quadexpr(mod.MQuadExpr, other).get(), factor);
    case Operand::MNLExpr:
    case Operand::NLExpr:
        nonlinear_later();
    default:
        return Ref::borrow(Py_NotImplemented);
    }
}

bool quad_iadd(PyObject *self, PyObject *other, double factor) {
    switch (kind_of(other)) {
    case Operand::MLinExpr:
    case Operand::MVar:
    case Operand::Array:
    case Operand::Sparse:
    case Operand::Scalar:
    case Operand::Var:
    case Operand::LinExpr:
        takes_compact_quad_path(self);
        return iadd(own_ndle(self).get(), other, factor);
    case Operand::MQuadExpr:
        iadd_quadratics(self, other, factor);
        return true;
    case Operand::QuadExpr:
        iadd_quadratics(self, quad_from_quadexpr(mod.MQuadExpr, other).get(), factor);
        return true;
    case Operand::MNLExpr:
    case Operand::NLExpr:
        nonlinear_later();
    default:
        return false;
    }
}

} // namespace tarvopy
