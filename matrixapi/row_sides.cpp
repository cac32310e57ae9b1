// One side of a constraint as a linear form: numbers, arrays, variables, expressions, and arrays of scalar objects.
#include "matrixapi/row_sides.h"

#include "matrixapi/mlinexpr.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/numpy.h"
#include "pysupport/shapes.h"

namespace tarvopy {

using namespace pysupport;

void fail_models() {
    mod.core->raise_error(TRV_ERROR_NOT_IN_MODEL, "variables of two models meet in one constraint or expression");
    throw PythonError{};
}

void take_numbers(Side &side) {
    if (!side.numbers)
        return;
    if (side.form.size == 1)
        side.form.constant.uniform = *doubles(side.numbers);
    else
        side.form.constant.values = flat::Buffer<double>::copy_of(doubles(side.numbers), side.form.size);
    side.numbers = {};
}

Ref element_linexpr(PyObject *element) {
    if (PyObject_TypeCheck(element, mod.core->LinExpr))
        return Ref::borrow(element);
    if (is_scalar(element))
        return check(mod.core->linexpr_new(number(element)));
    if (!PyObject_TypeCheck(element, mod.core->Var))
        fail(PyExc_TypeError, "an element of type '%.200s' is no linear expression", Py_TYPE(element)->tp_name);
    Ref made = check(mod.core->linexpr_new(0.0));
    check_status(mod.core->linexpr_add(made.get(), element, 1.0));
    return made;
}

namespace {

// ---- one side -----------------------------------------------------------------------------------------------------

Side number_side(double value) {
    Side side;
    side.form.constant.uniform = value;
    side.scalar = true;
    return side;
}

Side numeric_side(const Ref &array) {
    Side side;
    side.form.shape = shape_of_array(array.get());
    side.form.size = flat::size_of(side.form.shape);
    side.numbers = array;
    return side;
}

Side element_side(PyObject *array) {
    Ref elements = contiguous_objects(array);
    auto **from = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    std::vector<Ref> owned;
    std::vector<PyObject *> linexprs;
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(elements)); ++i) {
        owned.push_back(element_linexpr(from[i] ? from[i] : Py_None));
        linexprs.push_back(owned.back().get());
    }
    Side side;
    if (!read_linexprs(linexprs.data(), shape_of_array(elements.get()), side.form, side.model))
        fail_models();
    return side;
}

Side array_side(PyObject *given) {
    Ref array = plain_array(given);
    flat::Shape shape = shape_of_array(array.get());
    if (too_large(shape)) // a broadcast view of one number: reading it would fill all memory
        fail(PyExc_ValueError, "a side of shape %S has more than 2**31 elements", shape_tuple(shape).get());
    if (Ref numbers = as_doubles(array.get()))
        return numeric_side(numbers);
    if (PyArray_TYPE(as_array(array)) == NPY_OBJECT)
        return element_side(array.get());
    if (PyTypeNum_ISFLOAT(PyArray_TYPE(as_array(array)))) // longdouble, rounded as by an operator
        return numeric_side(
            check(PyArray_FROM_OTF(array.get(), NPY_DOUBLE, NPY_ARRAY_CARRAY_RO | NPY_ARRAY_FORCECAST)));
    fail(PyExc_TypeError, "an array of dtype %R is no side of a linear constraint", PyArray_DESCR(as_array(array)));
}

Side mvar_side(PyObject *mvar) {
    VarIds given;
    if (!mvar_ids(mvar, given))
        return element_side(vararr_of(mvar).get());
    Side side;
    side.form.shape = std::move(given.shape);
    side.form.size = flat::size_of(side.form.shape);
    if (side.form.size > 0)
        side.form.summands.push_back(flat::single(std::move(given.ids)));
    side.model = std::move(given.model);
    return side;
}

Side expression_side(PyObject *expr) {
    Side side;
    if (flat_value(expr, side.form, side.model))
        return side;
    if (is_compact(expr))
        fail_models();
    return element_side(learr(expr).get());
}

Side scalar_side(PyObject *object) {
    Side side;
    side.scalar = true;
    if (!flat_linexpr(object, side.form, side.model))
        fail_models();
    return side;
}

} // namespace

Side linear_side(PyObject *object) {
    switch (kind_of(object)) {
    case Operand::Scalar:
        return number_side(number(object));
    case Operand::Var:
    case Operand::LinExpr:
        return scalar_side(object);
    case Operand::MVar:
        return mvar_side(object);
    case Operand::MLinExpr:
        return expression_side(object);
    case Operand::Array:
        return array_side(object);
    case Operand::Sparse:
        return array_side(to_dense(object).get());
    default:
        fail(PyExc_TypeError, "'%.200s' is no side of a linear constraint", Py_TYPE(object)->tp_name);
    }
}

flat::Shape common_shape(const flat::Shape &a, const flat::Shape &b) {
    flat::Shape shape = a == b ? a : shapes::broadcast(a, b);
    if (too_large(shape))
        fail(PyExc_ValueError, "a constraint over shapes %S and %S has more than 2**31 elements", shape_tuple(a).get(),
             shape_tuple(b).get());
    return shape;
}

} // namespace tarvopy
