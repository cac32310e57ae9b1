// Assignment: q[key] = value writes contents into the objects that the key selects, quadratic and linear halves alike.
//
//   q[1:] = q[:-1]      the value is read as a whole before anything is written
//   q[[0, 0]] = r       of repeated indices the last one wins
//   q[0] = 5            reaches every expression that shares the element
//
// The quadratic contents are private copies, made and fitted first; then the linear half is assigned by MLinExpr's own
// rules, which changes nothing when it fails; the exchange of term lists at the end cannot fail half way.
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mquadexpr_dict.h"
#include "matrixapi/mquadexpr_operators.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"
#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

struct Region {
    Ref elements; // an object array
    bool single;  // the key selects one element, not an array
};

Region region_of(PyObject *expr, PyObject *key) {
    Ref selected = check(PyObject_GetItem(qearr(expr).get(), key));
    bool single = !PyArray_Check(selected.get());
    Region region{single ? object_scalar(selected.get()) : std::move(selected), single};
    expect_quadexprs(region.elements.get());
    return region;
}

void assign_linear(PyObject *expr, PyObject *key, PyObject *value) {
    check_status(PyObject_SetItem(ndle_of(expr), key, value));
}

// The selected elements lose their quadratic terms, and the linear ones inside them.
void set_linear(PyObject *expr, PyObject *key, PyObject *value) {
    Region region = region_of(expr, key);
    Ref empty = quadexpr_array(flat::zero_quad(shape_of_array(region.elements.get())), {});
    QuadExchange exchange(region.elements.get(), empty.get());
    assign_linear(expr, key, value);
    exchange.run();
}

// New QuadExpr of the shape: copies of the value's elements, spread.
Ref spread_elements(PyObject *value, const flat::Shape &from, const flat::Shape &to) {
    flat::QuadForm form;
    flat::Form inner;
    Ref model;
    if (quad_value(value, form, model, inner) && is_zero(inner)) {
        form.shape = from;
        return quadexpr_array(flat::broadcast(form, to), model);
    }
    Ref full = is_compact_quad(value) ? quad_to_full(value) : Ref::borrow(value);
    expect_quadexprs(qearr(full.get()).get());
    Ref source = contiguous_objects(qearr(full.get()).get()), result = quadexpr_array(flat::zero_quad(to), {});
    std::vector<int64_t> map = flat::broadcast_map(from, to);
    auto **given = static_cast<PyObject **>(PyArray_DATA(as_array(source)));
    auto **target = static_cast<PyObject **>(PyArray_DATA(as_array(result)));
    for (int64_t i = 0; i < flat::size_of(to); ++i)
        check_status(mod.core->quadexpr_add(target[i], given[map.empty() ? i : map[static_cast<size_t>(i)]], 1.0));
    return result;
}

void set_quadratic(PyObject *expr, PyObject *key, PyObject *value) {
    Region region = region_of(expr, key);
    flat::Shape given = consistent_shape(value), to = shape_of_array(region.elements.get());
    if (region.single && !given.empty())
        fail(PyExc_ValueError, "setting an array element with a sequence.");
    Ref contents = spread_elements(value, fitting_shape(given, to), to);
    Ref linear = Ref::borrow(ndle_of(value));
    QuadExchange exchange(region.elements.get(), contents.get());
    assign_linear(expr, key, linear.get());
    exchange.run();
}

// What float64 makes of a list or the like; not of complex numbers, of which it would drop half.
Ref converted_numbers(PyObject *value) {
    Ref given = Ref::steal(PyArray_FromAny(value, nullptr, 0, 0, NPY_ARRAY_DEFAULT, nullptr)), array;
    if (given && !PyTypeNum_ISCOMPLEX(PyArray_TYPE(as_array(given)))) {
        PyArray_Descr *descr = PyArray_DescrFromType(NPY_DOUBLE); // stolen by the call
        array = Ref::steal(PyArray_FromAny(value, descr, 0, 0, NPY_ARRAY_DEFAULT | NPY_ARRAY_FORCECAST, nullptr));
    }
    if (array)
        return array;
    if (PyErr_Occurred() && !PyErr_ExceptionMatches(PyExc_Exception))
        throw PythonError{};
    PyErr_Clear();
    fail(PyExc_ValueError, "Cannot assign %S to MQuadExpr", Py_TYPE(value));
}

void assign(PyObject *expr, PyObject *key, PyObject *value) {
    quad_convert_to_full(expr);
    Operand kind = kind_of(value);
    if (kind == Operand::Array && degree_of(value, kind) == 2)
        return set_quadratic(expr, key, quad_from_elements(value).get());
    switch (kind) {
    case Operand::QuadExpr:
        return set_quadratic(expr, key, quad_from_quadexpr(mod.MQuadExpr, value).get());
    case Operand::MQuadExpr:
        return set_quadratic(expr, key, value);
    case Operand::Var:
    case Operand::LinExpr:
    case Operand::MVar:
    case Operand::MLinExpr:
    case Operand::Array:
    case Operand::Scalar:
        return set_linear(expr, key, value);
    default:
        return set_linear(expr, key, converted_numbers(value).get());
    }
}

// ---- members ------------------------------------------------------------------------------------------------------

void assign_mquadexpr(PyObject *expr, PyObject *key, PyObject *value) {
    if (!is_mquadexpr(value))
        fail(PyExc_TypeError, "expected an MQuadExpr, not '%.200s'", Py_TYPE(value)->tp_name);
    set_quadratic(expr, key, value);
}

} // namespace

std::span<Member> quad_assign_members() {
    static Member members[] = {
        assignment<"__setitem__", "obj", "value", assign>(
            "__setitem__($self, obj, value)\n--\n\nWrites a number, array, variable or expression, spread as NumPy "
            "does, into the selected\nelements; on an error nothing has changed. Brings the expression to the full "
            "state."),
        assignment<"_setitem_linear", "obj", "value", set_linear>(
            "_setitem_linear($self, obj, value)\n--\n\nA linear value: the quadratic terms go."),
        assignment<"_setitem_mquadexpr", "obj", "value", assign_mquadexpr>(
            "_setitem_mquadexpr($self, obj, value)\n--\n\nCopies of another expression's elements."),
    };
    return members;
}

} // namespace tarvopy
