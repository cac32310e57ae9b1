// Assignment: e[key] = value writes contents into the LinExpr objects that the key selects.
//
//   e[1:] = e[:-1]      the value is read as a whole before anything is written
//   e[[0, 0]] = a       of repeated indices the last one wins
//   e[0] = 5            reaches every expression that shares the element, and nothing leaks into the value
//
// The contents are computed as new private LinExpr; writing them is an exchange of lists, which cannot fail half way.
#include "matrixapi/mlinexpr.h"

#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"
#include "matrixapi/printing.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

#include <cmath>

namespace tarvopy {

using namespace pysupport;

flat::Shape fitting_shape(const flat::Shape &from, const flat::Shape &to) {
    flat::Shape fitted = from;
    while (fitted.size() > to.size() && fitted[0] == 1)
        fitted.erase(fitted.begin());
    bool fits = fitted.size() <= to.size();
    for (size_t d = 0; fits && d < fitted.size(); ++d)
        fits = fitted[d] == 1 || fitted[d] == to[to.size() - fitted.size() + d];
    if (!fits)
        fail(PyExc_ValueError, "could not broadcast input array from shape %S into shape %S", shape_tuple(from).get(),
             shape_tuple(to).get());
    return fitted;
}

namespace {

// What will be written, in its own shape: numbers where it has ids, else the LinExpr to be copied.
struct Contents {
    flat::Form form;
    Ref model;
    Ref objects; // an object array; empty when `form` has everything
    const flat::Shape &shape() const { return form.shape; }
};

struct Region {
    Ref elements; // an object array
    bool single;  // the key selects one element, not an array
    flat::Shape shape() const { return shape_of_array(elements.get()); }
};

Region region_of(PyObject *expr, PyObject *key) {
    Ref selected = check(PyObject_GetItem(learr(expr).get(), key));
    if (PyArray_Check(selected.get()))
        return {std::move(selected), false};
    Ref array = check(PyArray_SimpleNew(0, nullptr, NPY_OBJECT));
    *static_cast<PyObject **>(PyArray_DATA(as_array(array))) = selected.release();
    return {std::move(array), true};
}

Ref spread_objects(const Contents &contents, const flat::Shape &from, const flat::Shape &to) {
    std::vector<int64_t> map = flat::broadcast_map(from, to);
    std::vector<npy_intp> dims(to.begin(), to.end());
    Ref array = check(PyArray_SimpleNew(static_cast<int>(dims.size()), dims.data(), NPY_OBJECT));
    auto **source = static_cast<PyObject **>(PyArray_DATA(as_array(contents.objects)));
    auto **target = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    for (int64_t i = 0; i < flat::size_of(to); ++i) {
        PyObject *element = source[map.empty() ? i : map[static_cast<size_t>(i)]];
        if (!element || !PyObject_TypeCheck(element, mod.core->LinExpr))
            fail(PyExc_TypeError, "cannot assign an element that is no LinExpr but '%.200s'",
                 Py_TYPE(element ? element : Py_None)->tp_name);
        target[i] = check(mod.core->linexpr_copy(element)).release();
    }
    return array;
}

void write(PyObject *expr, PyObject *key, Contents contents) {
    Region region = region_of(expr, key);
    if (region.single && !contents.shape().empty())
        fail(PyExc_ValueError, "setting an array element with a sequence.");
    flat::Shape to = region.shape(), from = fitting_shape(contents.shape(), to);
    if (flat::size_of(to) == 0)
        return;
    if (contents.objects)
        return exchange_contents(region.elements.get(), spread_objects(contents, from, to).get());
    contents.form.shape = from;
    flat::Form spread = flat::broadcast(contents.form, to);
    exchange_contents(region.elements.get(), linexpr_array(spread, contents.model).get());
}

// ---- values -------------------------------------------------------------------------------------------------------

Contents contents_of_expression(PyObject *expr) {
    Contents contents;
    if (is_compact(expr))
        join_parts(expr); // as a copy of it would
    if (!flat_value(expr, contents.form, contents.model)) {
        Ref full = is_compact(expr) ? to_full(expr) : Ref::borrow(expr);
        contents.objects = contiguous_objects(learr(full.get()).get());
        contents.form.shape = shape_of_array(contents.objects.get());
    }
    return contents;
}

Contents contents_of_linexpr(PyObject *object) {
    Contents contents;
    if (!flat_linexpr(object, contents.form, contents.model))
        return contents_of_expression(from_linexpr(mod.MLinExpr, object).get());
    return contents;
}

// An expression refuses NaN and infinity as a constant, in its own words.
void expect_finite(const double *values, int64_t size) {
    const double *bad = std::find_if(values, values + size, [](double value) { return !std::isfinite(value); });
    if (bad == values + size)
        return;
    Ref scratch = check(mod.core->linexpr_new(0.0)), number = check(PyFloat_FromDouble(*bad));
    check_status(mod.core->linexpr_add(scratch.get(), number.get(), 1.0));
}

Contents contents_of_numbers(const Ref &array) {
    Contents contents;
    contents.form.shape = shape_of_array(array.get());
    contents.form.size = flat::size_of(contents.form.shape);
    expect_finite(doubles(array), contents.form.size);
    if (contents.form.size == 1)
        contents.form.constant.uniform = *doubles(array);
    else
        contents.form.constant.values = flat::Buffer<double>::copy_of(doubles(array), contents.form.size);
    return contents;
}

// Whatever can be added in place to an all-zero expression: of an array's own shape, as leading extents of 1 do not
// count here but would in a sum, else of the region's.
Contents contents_of_addable(PyObject *expr, PyObject *key, PyObject *value) {
    if (is_array(value))
        if (Ref array = as_doubles(value))
            return contents_of_numbers(array);
    if (is_mvar(value))
        return contents_of_expression(from_mvar(mod.MLinExpr, value, true).get());
    flat::Form zero;
    zero.shape = is_array(value) ? shape_of_array(value) : region_of(expr, key).shape();
    zero.size = flat::size_of(zero.shape);
    Ref scratch = make_flat(mod.MLinExpr, std::move(zero), {});
    Ref sum = check(PyNumber_InPlaceAdd(scratch.get(), value));
    if (!is_mlinexpr(sum.get()))
        fail(PyExc_ValueError, "Cannot assign %U to MLinExpr", text_of(value).get());
    return contents_of_expression(sum.get());
}

void assign(PyObject *expr, PyObject *key, PyObject *value) {
    convert_to_full(expr);
    switch (kind_of(value)) {
    case Operand::LinExpr:
    case Operand::Var:
        return write(expr, key, contents_of_linexpr(value));
    case Operand::MVar:
    case Operand::Array:
        return write(expr, key, contents_of_addable(expr, key, value));
    case Operand::MLinExpr:
        return write(expr, key, contents_of_expression(value));
    case Operand::Scalar: {
        double constant = number(value);
        return write(expr, key, contents_of_numbers(float_array({}, &constant)));
    }
    default:
        fail(PyExc_ValueError, "Cannot assign %U to MLinExpr", text_of(value).get());
    }
}

// ---- members ------------------------------------------------------------------------------------------------------

void assign_linexpr(PyObject *expr, PyObject *key, PyObject *value) {
    if (!PyObject_TypeCheck(value, mod.core->LinExpr))
        fail(PyExc_TypeError, "expected a LinExpr, not '%.200s'", Py_TYPE(value)->tp_name);
    write(expr, key, contents_of_linexpr(value));
}

void assign_mlinexpr(PyObject *expr, PyObject *key, PyObject *value) {
    if (!is_mlinexpr(value))
        fail(PyExc_TypeError, "expected an MLinExpr, not '%.200s'", Py_TYPE(value)->tp_name);
    write(expr, key, contents_of_expression(value));
}

void assign_addable(PyObject *expr, PyObject *key, PyObject *value) {
    write(expr, key, contents_of_addable(expr, key, value));
}

} // namespace

std::span<Member> assign_members() {
    static Member members[] = {
        assignment<"__setitem__", "key", "value", assign>(
            "__setitem__($self, key, value)\n--\n\nWrites a number, array, variable or expression, spread as NumPy "
            "does, into the selected\n"
            "elements; on an error nothing has changed. Brings the expression to the full state."),
        assignment<"_setitem_linexpr", "key", "le", assign_linexpr>(
            "_setitem_linexpr($self, key, le)\n--\n\nA copy of one LinExpr for each element."),
        assignment<"_setitem_mlinexpr", "key", "value", assign_mlinexpr>(
            "_setitem_mlinexpr($self, key, value)\n--\n\nCopies of another expression's elements."),
        assignment<"_setitem_iaddable", "obj", "value", assign_addable>(
            "_setitem_iaddable($self, obj, value)\n--\n\nWhat zero elements become when the value is added."),
    };
    return members;
}

} // namespace tarvopy
