// Sums over axes, values of a solution, clearing and tidying of MQuadExpr.
//
//   q.sum(axis=0)      full, terms in the order of the elements; q is full afterwards
//   q.getValue()       float64 array of the whole value; one pass over the terms and the solution's numbers
//   q.clear()          all-zero, same shape, same state
#include "matrixapi/axes.h"
#include "matrixapi/elements_before.h"
#include "matrixapi/methods.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

PyObject **elements_in(const Ref &contiguous) {
    return static_cast<PyObject **>(PyArray_DATA(as_array(contiguous)));
}

PyObject *element_or_none(PyObject *element) {
    return element ? element : Py_None;
}

// ---- sum ----------------------------------------------------------------------------------------------------------

// Linear terms inside the elements, several models, or foreign elements: QuadExpr decides what it takes.
Ref elementwise_sum(PyObject *expr, const std::vector<int> &axes) {
    Ref given = contiguous_objects(qearr(expr).get());
    flat::Shape shape = shape_of_array(given.get());
    Ref result = quadexpr_array(flat::zero_quad(kept_shape(shape, axes)), {});
    std::vector<int64_t> places = places_of_sums(shape, axes);
    for (size_t i = 0; i < places.size(); ++i)
        check_status(
            mod.core->quadexpr_add(elements_in(result)[places[i]], element_or_none(elements_in(given)[i]), 1.0));
    return result;
}

Ref sum_of(PyObject *expr, PyObject *axis) {
    quad_convert_to_full(expr);
    std::vector<int> axes = result_axes(axis, quad_shape_of(expr).size());
    Ref summed = check(PyObject_CallMethodOneArg(ndle_of(expr), names.sum, axis));
    // As a zero expression to which the linear half is added.
    Ref blank = quad_from_mlinexpr(mod.MQuadExpr, summed.get(), true), ndle = Ref::borrow(ndle_of(blank.get()));
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    if (quad_value(expr, form, model, inner) && is_zero(inner))
        return make_quad_flat(mod.MQuadExpr, flat::summed(form, axes), std::move(ndle), std::move(model));
    return make_quad_objects(mod.MQuadExpr, elementwise_sum(expr, axes), std::move(ndle));
}

PyObject *sum(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"sum", {"axis"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        return sum_of(self, given.get(0, Py_None));
    });
}

// ---- values -------------------------------------------------------------------------------------------------------

std::vector<double> solution(const Ref &model, const int32_t *ids, int64_t n) {
    TRVmodel *store = mod.core->store(model.get());
    if (!store)
        throw PythonError{};
    std::vector<double> x(static_cast<size_t>(n));
    if (int code = TRVgetdbls(store, "X", n, ids, 0, x.data()))
        check_status(mod.core->raise(store, code));
    return x;
}

// The local indices make two reads of the solution enough, however many entries there are.
double part_value(const QuadPart &part, const Ref &model) {
    std::vector<double> x = solution(model, part.x->ids.data(), part.x->ids.size());
    std::vector<double> y = solution(model, part.y->ids.data(), part.y->ids.size());
    double total = 0.0;
    for (int64_t k = 0; k < part.nnz; ++k)
        total += part.coefficient(k) * x[static_cast<size_t>(part.row(k))] * y[static_cast<size_t>(part.col(k))];
    return total;
}

void add_values(const flat::QuadSummand &summand, const Ref &model, double *values) {
    std::vector<double> first = solution(model, summand.vars1.data(), summand.nnz()),
                        second = solution(model, summand.vars2.data(), summand.nnz());
    for (int64_t row = 0; row < summand.nrows; ++row)
        for (int64_t k = summand.begin(row), end = summand.end(row); k < end; ++k)
            values[row] += summand.coefficient(k) * first[static_cast<size_t>(k)] * second[static_cast<size_t>(k)];
}

void add_quadratic_values(const flat::QuadForm &form, const Ref &model, double *values) {
    for (const flat::QuadSummand &summand : form.summands)
        if (summand.nnz() > 0)
            add_values(summand, model, values);
}

// Parts over variables without common ids: every variable is asked.
double elementwise_value(PyObject *expr) {
    Ref sum = elementwise_sum_of(quadparts(expr).get());
    return check_value(PyFloat_AsDouble(check(PyObject_CallMethodNoArgs(sum.get(), names.getValue)).get()));
}

double compact_value(PyObject *expr) {
    std::vector<QuadPart> parts;
    Ref model;
    if (!quad_parts(expr, parts, model))
        return elementwise_value(expr);
    double total = 0.0;
    for (const QuadPart &part : parts)
        total += part.nnz > 0 ? part_value(part, model) : 0.0;
    return total;
}

void add_element_values(PyObject *expr, double *values) {
    Ref given = contiguous_objects(qearr(expr).get());
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(given)); ++i) { // as many as values: value_of compared the shapes
        Ref value = check(PyObject_CallMethodNoArgs(element_or_none(elements_in(given)[i]), names.getValue));
        values[i] += check_value(PyFloat_AsDouble(value.get()));
    }
}

void add_full_values(PyObject *expr, double *values) {
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    if (!quad_value(expr, form, model, inner) || !is_zero(inner))
        return add_element_values(expr, values);
    add_quadratic_values(form, model, values);
}

Ref value_of(PyObject *expr) {
    bool compact = is_compact_quad(expr);
    const int64_t size = flat::size_of(consistent_shape(expr));
    Ref given = check(PyObject_CallMethodNoArgs(ndle_of(expr), names.getValue));
    Ref values = check(PyArray_FROMANY(given.get(), NPY_DOUBLE, 0, 0, NPY_ARRAY_CARRAY | NPY_ARRAY_ENSURECOPY));
    if (PyArray_SIZE(as_array(values)) != size)
        fail(PyExc_ValueError, "the values of _ndle have the shape %S, not that of the MQuadExpr",
             shape_tuple(shape_of_array(values.get())).get());
    auto *to = static_cast<double *>(PyArray_DATA(as_array(values)));
    if (compact)
        merge_quad_parts(expr);
    if (!compact)
        add_full_values(expr, to);
    else if (number_of_quad_parts(expr) > 0)
        *to += compact_value(expr);
    return values;
}

// ---- clearing and tidying -----------------------------------------------------------------------------------------

// Calls the C function on every QuadExpr, the method of that name on anything else; every QuadExpr or none.
void each_element(PyObject *array, int (*work)(PyObject *), const char *method) {
    Ref given = contiguous_objects(array);
    ElementsBefore before(array);
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(given)); ++i) {
        PyObject *element = element_or_none(elements_in(given)[i]);
        if (PyObject_TypeCheck(element, mod.core->QuadExpr))
            check_status(work(element));
        else
            check(PyObject_CallMethod(element, method, nullptr));
    }
    before.done();
}

Ref clear_quad_array(PyObject *array) {
    need_numpy();
    if (!is_array(array))
        fail(PyExc_TypeError, "expected an array of QuadExpr, not '%.200s'", Py_TYPE(array)->tp_name);
    each_element(array, mod.core->quadexpr_clear, "clear");
    return Ref::none();
}

void clear_linear(const Ref &linear) {
    check(PyObject_CallMethodNoArgs(linear.get(), names.clear));
}

// Afterwards the quadratic half of a native form is emptied, which cannot fail.
void clear_native(PyObject *expr, const Ref &linear) {
    flat::QuadForm zero = flat::zero_quad(quad_shape_of(expr));
    const bool compact = is_compact(quad_state_of(expr));
    NewQuadParts none = compact ? new_quad_parts(expr, {}, {}) : NewQuadParts{};
    clear_linear(linear);
    QuadNative *native = quadratic_of(expr);
    if (!native || native->membership.shared || eager || is_watched(expr))
        return compact ? set_quad_parts(expr, std::move(none)) : quad_become_flat(expr, std::move(zero), {});
    if (native->compact)
        native->parts.clear();
    else
        native->form = std::move(zero);
    native->model = {};
    native->stamp = LinearNative::next_stamp();
}

void clear_elements(PyObject *expr, const Ref &linear) {
    Ref elements = qearr(expr);
    if (!is_array(elements.get()))
        fail(PyExc_TypeError, "expected an array of QuadExpr, not '%.200s'", Py_TYPE(elements.get())->tp_name);
    ElementsBefore before(elements.get());
    clear_quad_array(elements.get());
    clear_linear(linear);
    before.done();
}

Ref clear(PyObject *expr) {
    prepare_quad_change(expr);
    Ref linear = Ref::borrow(ndle_of(expr));
    quad_state_of(expr) == State::Objects ? clear_elements(expr, linear) : clear_native(expr, linear);
    return Ref::none();
}

Ref flatten(PyObject *expr) { // QuadExpr keeps its terms in plain lists at any time
    quad_state_of(expr);
    return Ref::none();
}

Ref normalize(PyObject *expr) {
    prepare_quad_change(expr);
    State state = quad_state_of(expr);
    check(PyObject_CallMethodNoArgs(ndle_of(expr), names._normalize));
    if (state == State::Objects)
        each_element(qearr(expr).get(), mod.core->quadexpr_normalize, "_normalize");
    if (state != State::Flat)
        return Ref::none();
    flat::QuadForm form = quadratic_of(expr)->form;
    Ref model = quadratic_of(expr)->model;
    flat::QuadSummand joined = flat::joined(form.summands, form.size);
    form.summands.clear();
    if (joined.nnz() > 0)
        form.summands.push_back(flat::normalized(joined));
    quad_become_flat(expr, std::move(form), std::move(model));
    return Ref::none();
}

// ---- members ------------------------------------------------------------------------------------------------------

PyObject *clear_array_method(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_clear_quad_array", {"qearr"}, 1};
        return clear_quad_array(Arguments(signature, 0, args, nargs, kwnames)[0]);
    });
}

} // namespace

std::span<Member> quad_value_members() {
    static Member members[] = {
        method("sum", sum,
               "sum($self, axis=None)\n--\n\nThe sum over the given axes (None: all), a full expression. Brings this "
               "one to the full\nstate. TarvoError for an axis out of range."),
        plain<"getValue", value_of>(
            "getValue($self)\n--\n\nThe value in the last solution, a float64 array of this shape. NoDataError "
            "without a solution."),
        plain<"clear", clear>("clear($self)\n--\n\nMakes every element zero; shape and state stay."),
        static_method("_clear_quad_array", clear_array_method,
                      "_clear_quad_array(qearr)\n--\n\nMakes every QuadExpr of an array empty."),
        plain<"_flatten", flatten>("_flatten($self)\n--\n\nBrings the terms of every QuadExpr to its plain lists."),
        plain<"_normalize", normalize>(
            "_normalize($self)\n--\n\nMerges equal pairs of variables (in either order) and equal variables in each "
            "element of a\nfull expression, and drops zero coefficients."),
    };
    return members;
}

} // namespace tarvopy
