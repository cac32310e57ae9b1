#include "matrixapi/elements_before.h"

#include "matrixapi/names.h"
#include "pysupport/lists.h"
#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

void ElementsBefore::List::keep(PyObject *given) {
    list = Ref::borrow(given);
    size = PyList_GET_SIZE(given);
}

void ElementsBefore::List::put_back(PyObject *&place) {
    truncate(list.get(), size);
    Ref now = Ref::steal(std::exchange(place, list.release()));
}

void ElementsBefore::Linear::keep(const LinExprObject *expr) {
    constant = expr->constant;
    coeffs.keep(expr->coeffs);
    vars.keep(expr->vars);
}

void ElementsBefore::Linear::put_back(LinExprObject *expr) {
    expr->constant = constant;
    coeffs.put_back(expr->coeffs);
    vars.put_back(expr->vars);
}

void ElementsBefore::Element::keep(Ref expr) {
    object = std::move(expr);
    if (PyObject_TypeCheck(object.get(), mod.core->LinExpr))
        return linear.keep(object.as<LinExprObject>());
    if (!PyObject_TypeCheck(object.get(), mod.core->QuadExpr))
        return;
    auto *quad = object.as<QuadExprObject>();
    linear_part = Ref::borrow(quad->linear);
    if (linear_part)
        linear.keep(linear_part.as<LinExprObject>());
    coeffs.keep(quad->coeffs);
    vars1.keep(quad->vars1);
    vars2.keep(quad->vars2);
}

void ElementsBefore::Element::put_back() {
    if (linear_part)
        linear.put_back(linear_part.as<LinExprObject>());
    else if (linear.coeffs.list)
        linear.put_back(object.as<LinExprObject>());
    if (!coeffs.list)
        return;
    auto *quad = object.as<QuadExprObject>();
    Ref now = Ref::steal(std::exchange(quad->linear, linear_part.release()));
    coeffs.put_back(quad->coeffs);
    vars1.put_back(quad->vars1);
    vars2.put_back(quad->vars2);
}

ElementsBefore::ElementsBefore(PyObject *array) : array_(Ref::borrow(array)) {
    need_numpy();
    iterator_ = check(PyArray_IterNew(array));
    elements_.resize(static_cast<size_t>(PyArray_SIZE(as_array(array))));
    auto *at = iterator_.as<PyArrayIterObject>();
    for (Element &element : elements_) {
        element.keep(check(PyArray_GETITEM(as_array(array), static_cast<char *>(PyArray_ITER_DATA(at)))));
        PyArray_ITER_NEXT(at);
    }
}

ElementsBefore::~ElementsBefore() {
    if (done_)
        return;
    Ref error = Ref::steal(PyErr_GetRaisedException()); // what is dropped here may run Python code
    put_back_elements();
    PyErr_SetRaisedException(error.release());
}

void ElementsBefore::put_back_elements() {
    auto *at = iterator_.as<PyArrayIterObject>();
    PyArray_ITER_RESET(at);
    for (Element &element : elements_) {
        auto *slot = static_cast<char *>(PyArray_ITER_DATA(at));
        Ref now = Ref::steal(PyArray_GETITEM(as_array(array_), slot));
        if (!now.is(element.object.get()))
            PyArray_SETITEM(as_array(array_), slot, element.object.get());
        element.put_back();
        PyArray_ITER_NEXT(at);
    }
}

} // namespace tarvopy
