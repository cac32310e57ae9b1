// Sums over axes, values of a solution, constants, and tidying of MLinExpr.
//
//   e.sum(axis=0)      full, terms in the order of the elements; e is full afterwards
//   e.getValue()       float64 array; one pass over the terms, the solution read from the store by ids
//   e.clear()          all-zero, same shape, same state
#include "matrixapi/axes.h"
#include "matrixapi/elements_before.h"
#include "matrixapi/mlinexpr.h"

#include "matrixapi/flat_product.h"
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_dict.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

#include <algorithm>

namespace tarvopy {

using namespace pysupport;

namespace {

flat::Form zeros_like(const flat::Shape &shape) {
    flat::Form form;
    form.shape = shape;
    form.size = flat::size_of(shape);
    return form;
}

PyObject **elements_in(const Ref &contiguous) {
    return static_cast<PyObject **>(PyArray_DATA(as_array(contiguous)));
}

PyObject *element_or_none(PyObject *element) {
    return element ? element : Py_None;
}

// ---- sum ----------------------------------------------------------------------------------------------------------

// Elements of several models, or foreign ones: LinExpr decides what it takes.
Ref elementwise_sum(PyObject *expr, const std::vector<int> &axes) {
    Ref given = contiguous_objects(learr(expr).get());
    flat::Shape shape = shape_of_array(given.get());
    Ref result = linexpr_array(zeros_like(kept_shape(shape, axes)), {});
    std::vector<int64_t> places = places_of_sums(shape, axes);
    for (size_t i = 0; i < places.size(); ++i)
        check_status(
            mod.core->linexpr_add(elements_in(result)[places[i]], element_or_none(elements_in(given)[i]), 1.0));
    return make_objects(mod.MLinExpr, std::move(result));
}

PyObject *sum(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"sum", {"axis"}, 0};
        Arguments given(signature, 1, args, nargs, kwnames);
        convert_to_full(self);
        std::vector<int> axes = result_axes(given.get(0, Py_None), shape_of(self).size());
        flat::Form form;
        Ref model;
        if (!flat_value(self, form, model) || form.shape.size() != axes.size())
            return elementwise_sum(self, axes);
        return make_flat(mod.MLinExpr, flat::summed(form, axes), std::move(model));
    });
}

// ---- values -------------------------------------------------------------------------------------------------------

std::vector<double> solution(TRVmodel *store, const int32_t *ids, int64_t n) {
    std::vector<double> x(static_cast<size_t>(n));
    if (int code = TRVgetdbls(store, "X", n, ids, 0, x.data()))
        check_status(mod.core->raise(store, code));
    return x;
}

// Adds the value of every row.
void add_values(TRVmodel *store, const flat::Summand &summand, double *values) {
    bool local = !summand.vars.empty(); // the solution by column, or term by term
    std::vector<double> x = local ? solution(store, summand.vars.data(), summand.vars.size())
                                  : solution(store, summand.cols.data(), summand.nnz()); // the buffer may be longer
    for (int64_t row = 0; row < summand.nrows; ++row) {
        double total = 0.0;
        for (int64_t k = summand.begin(row), end = summand.end(row); k < end; ++k)
            total += summand.coefficient(k) * x[static_cast<size_t>(local ? summand.column(k) : k)];
        values[row] += total;
    }
}

// Adds the value of each element's terms at the last solution; raises what the store says where there is none.
void add_linear_values(const flat::Form &form, const Ref &model, double *values) {
    if (form.nnz() == 0)
        return;
    TRVmodel *store = mod.core->store(model.get());
    if (!store)
        throw PythonError{};
    for (const flat::Summand &summand : form.summands)
        if (summand.nnz() > 0)
            add_values(store, summand, values);
}

Ref value_of_form(const flat::Form &form, const Ref &model) {
    Ref values = constants_array(form);
    add_linear_values(form, model, static_cast<double *>(PyArray_DATA(as_array(values))));
    return values;
}

// A number for each element, from a method of the elements.
Ref element_numbers(PyObject *expr, const char *method) {
    Ref given = contiguous_objects(learr(expr).get());
    Ref values = float_array(shape_of_array(given.get()));
    auto *to = static_cast<double *>(PyArray_DATA(as_array(values)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(given)); ++i) {
        Ref number = check(PyObject_CallMethod(element_or_none(elements_in(given)[i]), method, nullptr));
        to[i] = check_value(PyFloat_AsDouble(number.get()));
    }
    return values;
}

// const + A @ x.X over the documented pair, for variables without common ids.
Ref value_of_pair(PyObject *expr) {
    Ref pair = check(PySequence_GetItem(matmulparts(expr).get(), 0));
    Ref matrix = check(PySequence_GetItem(pair.get(), 0)), mvar = check(PySequence_GetItem(pair.get(), 1));
    Ref x = check(PyObject_GetAttrString(mvar.get(), "X"));
    Ref product = check(PyNumber_MatrixMultiply(matrix.get(), x.get()));
    Ref shaped = check(PyObject_CallMethodOneArg(product.get(), names.reshape, shape_tuple(shape_of(expr)).get()));
    return check(PyNumber_Add(const_array(expr), shaped.get()));
}

Ref value_of(PyObject *expr) {
    if (is_compact(expr))
        join_parts(expr);
    flat::Form form;
    Ref model;
    if (flat_value(expr, form, model))
        return value_of_form(form, model);
    return is_compact(expr) ? value_of_pair(expr) : element_numbers(expr, "getValue");
}

Ref constant_of(PyObject *expr) {
    if (is_compact(expr))
        return check(PyArray_NewCopy(as_array(const_array(expr)), NPY_CORDER));
    if (LinearNative *native = linear_of(expr))
        return constants_array(native->form);
    return element_numbers(expr, "getConstant");
}

// ---- clearing and tidying -----------------------------------------------------------------------------------------

void clear_compact(PyObject *expr) {
    if (!is_compact(expr))
        fail(PyExc_TypeError, "a full MLinExpr has no parts to clear");
    Ref constants = Ref::borrow(const_array(expr));
    PyArrayObject *array = as_array(constants);
    const bool plain = PyArray_TYPE(array) == NPY_DOUBLE && PyArray_ISCARRAY(array);
    if (!plain)
        check(PyObject_CallMethod(constants.get(), "fill", "d", 0.0));
    if (is_compact(expr) && !linear_of(expr))
        store(expr, names._matmulparts, check(PyList_New(0)).get());
    else if (is_compact(expr))
        set_parts(expr, {}, {});
    if (plain) // last, since it cannot fail
        std::fill_n(static_cast<double *>(PyArray_DATA(array)), PyArray_SIZE(array), 0.0);
}

// Calls the C function on every LinExpr, the method of that name on anything else; every LinExpr or none.
void each_element(PyObject *expr, int (*work)(PyObject *), const char *method) {
    Ref elements = learr(expr), given = contiguous_objects(elements.get());
    ElementsBefore before(elements.get());
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(given)); ++i) {
        PyObject *element = element_or_none(elements_in(given)[i]);
        if (PyObject_TypeCheck(element, mod.core->LinExpr))
            check_status(work(element));
        else
            check(PyObject_CallMethod(element, method, nullptr));
    }
    before.done();
}

void clear_full(PyObject *expr) {
    prepare_change(expr);
    LinearNative *native = linear_of(expr);
    if (native && !native->compact)
        become_flat(expr, zeros_like(native->form.shape), {});
    else
        each_element(expr, mod.core->linexpr_clear, "clear");
}

void clear(PyObject *expr) {
    is_compact(expr) ? clear_compact(expr) : clear_full(expr);
}

void flatten(PyObject *) {} // LinExpr keeps its terms in plain lists at any time

int32_t largest_id(const flat::Summand &summand) {
    const int32_t *first = summand.cols.data();
    return summand.nnz() == 0 ? -1 : *std::max_element(first, first + summand.nnz());
}

void normalize(PyObject *expr) {
    if (is_compact(expr))
        return;
    prepare_change(expr);
    LinearNative *native = linear_of(expr);
    if (!native)
        return each_element(expr, mod.core->linexpr_normalize, "_normalize");
    flat::Form form = native->form;
    Ref model = native->model;
    flat::Summand joined = flat::joined(form.summands, form.size);
    form.summands.clear();
    if (joined.nnz() > 0)
        form.summands.push_back(flat::normalized(joined, largest_id(joined) + 1));
    become_flat(expr, std::move(form), std::move(model));
}

// ---- members ------------------------------------------------------------------------------------------------------

} // namespace

std::span<Member> value_members() {
    static Member members[] = {
        method("sum", sum,
               "sum($self, axis=None)\n--\n\nThe sum over the given axes (None: all), a full expression. Brings this "
               "one to the full\n"
               "state. TarvoError for an axis out of range."),
        plain<"getValue", value_of>(
            "getValue($self)\n--\n\nThe value in the last solution, a float64 array of this shape. NoDataError "
            "without a solution."),
        plain<"getConstant", constant_of>(
            "getConstant($self)\n--\n\nThe constant terms, a new float64 array of this shape."),
        plain<"clear", clear>("clear($self)\n--\n\nMakes every element zero."),
        plain<"_clear_compact", clear_compact>(
            "_clear_compact($self)\n--\n\nNo parts, and the constants zero in place."),
        plain<"_clear_full", clear_full>("_clear_full($self)\n--\n\nMakes every LinExpr empty."),
        plain<"_flatten", flatten>("_flatten($self)\n--\n\nBrings the terms of every LinExpr to its plain lists."),
        plain<"_normalize", normalize>(
            "_normalize($self)\n--\n\nMerges equal variables in each element and drops zero coefficients."),
    };
    return members;
}

} // namespace tarvopy
