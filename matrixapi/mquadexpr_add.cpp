// MQuadExpr: addition and subtraction, in place and not.
//
//   q + 1.0, q + A @ x    the linear half alone changes; a sum that is larger than q repeats its quadratic terms
//   q + r                 compact: one merged part; full: the summands of both
//   q += r                compact: one more part; full: the form grows, or the QuadExpr objects do
//
// Subtraction adds the operand times -1. Everything is checked and read before anything changes.
#include "matrixapi/elements_before.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mquadexpr_operators.h"
#include "matrixapi/mvar.h"
#include "pysupport/lists.h"

namespace tarvopy {

using namespace pysupport;

namespace {

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
    return make_quad_compact(mod.MQuadExpr, own_quad_parts(std::move(parts)), std::move(ndle), std::move(model));
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
    if (factor != 1.0) // the scaled operand is a copy, and copying merges
        merge_quad_parts(other);
    Ref ndle = add(own_ndle(self).get(), own_ndle(other).get(), factor);
    scale_parts(more, factor);
    parts.insert(parts.end(), more.begin(), more.end());
    if (flat::size_of(shape) == 0)
        parts.clear();
    if (!parts.empty())
        parts = {merged(parts)};
    return make_quad_compact(mod.MQuadExpr, std::move(parts), std::move(ndle), std::move(model));
}

Ref add_full_quadratics(PyObject *self, PyObject *other, double factor) {
    merge_if_compact(self);
    merge_if_compact(other);
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

// The model of a compact expression's variables. Where the documented list exists, its first variable speaks for all:
// reading every part would make a loop of `+=` quadratic. Empty for one without variables; false for foreign ones.
bool model_of_parts(PyObject *expr, Ref &model) {
    if (QuadNative *native = quadratic_of(expr)) {
        model = native->model;
        return true;
    }
    Ref list = part_list(expr);
    if (PyList_GET_SIZE(list.get()) == 0)
        return true;
    std::vector<Ref> first = triples_in(check(PyList_GetSlice(list.get(), 0, 1)).get());
    Ref vararr = vararr_of(PyTuple_GET_ITEM(first[0].get(), 0));
    PyArrayObject *array = as_array(vararr);
    if (PyArray_TYPE(array) != NPY_OBJECT || PyArray_SIZE(array) == 0)
        return false;
    PyObject *var = *static_cast<PyObject **>(PyArray_DATA(array));
    if (!var || !PyObject_TypeCheck(var, mod.core->Var))
        return false;
    model = Ref::borrow(reinterpret_cast<PyObject *>(reinterpret_cast<VarObject *>(var)->cmodel));
    return true;
}

// The native parts, or the documented list, grow in place.
void append_part(PyObject *self, QuadPart part, Ref model) {
    if (QuadNative *native = quadratic_of(self); native && native->compact) {
        native->parts.push_back(std::move(part));
        if (!native->model)
            native->model = std::move(model);
        native->stamp = LinearNative::next_stamp();
        return;
    }
    check_status(PyList_Append(part_list(self).get(), part_triple(part, model).get()));
}

// Takes back what append_part did; needs no memory.
void drop_last_part(PyObject *self) {
    if (QuadNative *native = quadratic_of(self); native && native->compact) {
        native->parts.pop_back();
        if (native->parts.empty())
            native->model = {};
        native->stamp = LinearNative::next_stamp();
        return;
    }
    Ref list = part_list(self);
    truncate(list.get(), PyList_GET_SIZE(list.get()) - 1);
}

// False: the full path.
bool iadd_compact_compact(PyObject *self, PyObject *other, double factor) {
    std::vector<QuadPart> more;
    Ref model, other_model;
    if (!merged_quad_parts(other, more, other_model) || !model_of_parts(self, model) ||
        !merge_models(model, other_model))
        return false;
    more = own_quad_parts(std::move(more));
    scale_parts(more, factor);
    Ref linear = own_ndle(self), other_linear = own_ndle(other);
    bool grows = !more.empty() && flat::size_of(quad_shape_of(self)) > 0;
    if (grows)
        append_part(self, std::move(more[0]), std::move(model));
    try {
        iadd(linear.get(), other_linear.get(), factor);
    } catch (...) {
        if (grows)
            drop_last_part(self);
        throw;
    }
    return true;
}

// Objects that only Python's own operators know: a refusal changes neither half.
void iadd_quad_elements(PyObject *self, PyObject *other, double factor) {
    Ref elements = qearr(self), operand = times(quad_elements_of(other).get(), factor);
    Ref linear = own_ndle(self), more = own_ndle(other);
    ElementsBefore before(elements.get());
    elements_or_nothing(elements.get(), operand.get(), PyNumber_InPlaceAdd);
    iadd(linear.get(), more.get(), factor);
    before.done();
}

// Where no object exists the form grows by the operand's summands, which costs nothing per term.
bool can_grow(PyObject *self, const flat::Shape &shape, const Ref &model) {
    QuadNative *native = quadratic_of(self);
    Ref merged = native ? native->model : Ref();
    return native && native->form.shape == shape && merge_models(merged, model);
}

// Afterwards grow() needs no memory; in a loop the room doubles.
void prepare_growth(QuadNative &native, const flat::QuadForm &more) {
    auto &summands = native.form.summands;
    size_t size = summands.size() + more.summands.size();
    if (summands.capacity() < size)
        summands.reserve(std::max(size, 2 * summands.size()));
}

void grow(QuadNative &native, flat::QuadForm more, const Ref &model) {
    native.form.summands.insert(native.form.summands.end(), std::make_move_iterator(more.summands.begin()),
                                std::make_move_iterator(more.summands.end()));
    if (!native.model)
        native.model = model;
    native.stamp = LinearNative::next_stamp();
}

void iadd_full_quadratics(PyObject *self, PyObject *other, double factor) {
    merge_if_compact(other);
    quad_convert_to_full(self);
    prepare_quad_change(self);
    QuadValue operand;
    if (!quad_numbers(other, operand))
        return iadd_quad_elements(self, other, factor);
    flat::QuadForm spread = flat::broadcast(operand.form, quad_shape_of(self));
    if (factor != 1.0)
        spread = flat::scaled(spread, factor);
    Ref linear = own_ndle(self), more = own_ndle(other);
    if (!can_grow(self, spread.shape, operand.model)) {
        // The objects themselves are increased, by a private copy of the operand.
        Ref elements = qearr(self), numbers = quadexpr_array(spread, operand.model);
        ElementsBefore before(elements.get());
        elements_in_place(elements.get(), numbers.get(), PyNumber_InPlaceAdd);
        iadd(linear.get(), more.get(), factor);
        return before.done();
    }
    prepare_growth(*quadratic_of(self), spread);
    iadd(linear.get(), more.get(), factor);
    if (QuadNative *native = own_form_of(self))
        return grow(*native, std::move(spread), operand.model);
    elements_in_place(qearr(self).get(), quadexpr_array(spread, operand.model).get(), PyNumber_InPlaceAdd);
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

QuadNative *own_form_of(PyObject *expr) {
    QuadNative *native = quadratic_of(expr);
    return native && !native->compact && !native->membership.shared ? native : nullptr;
}

Ref quad_elements_of(PyObject *expr) {
    if (quad_state_of(expr) > State::CompactMade)
        return qearr(expr);
    Ref full = quad_to_full(expr);
    return qearr(full.get());
}

Ref wrap_quad_elements(Ref result, Ref ndle) {
    return make_quad_objects(mod.MQuadExpr, polynomial_elements(std::move(result)), std::move(ndle));
}

bool takes_compact_quad_path(PyObject *expr) {
    if (quad_state_of(expr) <= State::CompactMade && keep_compact(mod.MQuadExpr))
        return true;
    quad_convert_to_full(expr);
    return false;
}

void merge_if_compact(PyObject *expr) {
    if (is_compact_quad(expr))
        merge_quad_parts(expr);
}

bool merged_quad_parts(PyObject *expr, std::vector<QuadPart> &parts, Ref &model) {
    merge_quad_parts(expr);
    return quad_parts(expr, parts, model);
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
    Operand kind = kind_of(other);
    int degree = degree_of(other, kind);
    if (degree == 3)
        return nonlinear_operation(factor > 0 ? TreeOp::Plus : TreeOp::Minus, self, other);
    if (degree == 2 && kind == Operand::Array)
        return add_quadratics(self, quad_from_elements(other).get(), factor);
    switch (kind) {
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
    default:
        return Ref::borrow(Py_NotImplemented);
    }
}

bool quad_iadd(PyObject *self, PyObject *other, double factor) {
    Operand kind = kind_of(other);
    int degree = degree_of(other, kind);
    if (degree == 3)
        return false; // Python then forms the sum, which is another object
    if (degree == 2 && kind == Operand::Array) {
        iadd_quadratics(self, quad_from_elements(other).get(), factor);
        return true;
    }
    switch (kind) {
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
    default:
        return false;
    }
}

} // namespace tarvopy
