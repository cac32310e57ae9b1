#include "mlinexpr_operators.h"

#include "elements_before.h"
#include "mquadexpr_dict.h"
#include "names.h"
#include "pysupport/shapes.h"

#include <cmath>
#include <string>
#include <unordered_map>

namespace tarvopy {

using namespace pysupport;

// ---- values --------------------------------------------------------------------------------------------------------

namespace {

flat::Form constant_form(const Ref &doubles_array) {
    flat::Form form;
    form.shape = shape_of_array(doubles_array.get());
    form.size = flat::size_of(form.shape);
    if (form.size == 1)
        form.constant.uniform = *doubles(doubles_array);
    else
        form.constant.values = flat::Buffer<double>::copy_of(doubles(doubles_array), form.size);
    return form;
}

bool array_value(PyObject *array, Value &value) {
    Ref numbers = as_doubles(array);
    if (!numbers)
        return false;
    value.form = constant_form(numbers);
    return true;
}

bool mvar_value(PyObject *mvar, Value &value) {
    VarIds vars;
    if (!mvar_ids(mvar, vars))
        return false;
    value.form.shape = vars.shape;
    value.form.size = flat::size_of(vars.shape);
    if (value.form.size > 0)
        value.form.summands.push_back(flat::single(std::move(vars.ids)));
    value.model = std::move(vars.model);
    return true;
}

} // namespace

bool expr_value(PyObject *expr, Value &value) {
    return flat_value(expr, value.form, value.model);
}

bool value_of(PyObject *operand, Operand kind, Value &value) {
    switch (kind) {
    case Operand::MLinExpr:
        return expr_value(operand, value);
    case Operand::MVar:
        return mvar_value(operand, value);
    case Operand::Var:
    case Operand::LinExpr:
        return flat_linexpr(operand, value.form, value.model);
    case Operand::Array:
        return array_value(operand, value);
    case Operand::Sparse:
        return array_value(to_dense(operand).get(), value);
    case Operand::Scalar:
        value.form.constant.uniform = number(operand);
        return true;
    default:
        return false;
    }
}

bool takes_compact_path(PyObject *expr) {
    if (is_compact(expr) && keep_compact(mod.MLinExpr))
        return true;
    convert_to_full(expr);
    return false;
}

Part spread_part(const Part &part, int64_t n) {
    if (part.summand.nrows == n)
        return part;
    std::vector<int64_t> first(static_cast<size_t>(n), 0);
    return make_part(flat::gathered(part.summand, first.data(), n), part.vector);
}

namespace {

int degree_of_kind(Operand kind) {
    switch (kind) {
    case Operand::MVar:
    case Operand::MLinExpr:
    case Operand::Var:
    case Operand::LinExpr:
        return 1;
    case Operand::MQuadExpr:
    case Operand::QuadExpr:
        return 2;
    case Operand::MNLExpr:
    case Operand::NLExpr:
        return 3;
    default:
        return 0;
    }
}

} // namespace

int degree_of(PyObject *operand, Operand kind) {
    if (kind != Operand::Array || PyArray_TYPE(as_array(operand)) != NPY_OBJECT)
        return degree_of_kind(kind);
    Ref elements = contiguous_objects(operand);
    auto **first = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    int degree = 0;
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(elements)); ++i)
        if (Operand element = first[i] ? kind_of(first[i]) : Operand::Other; element != Operand::Array)
            degree = std::max(degree, degree_of_kind(element));
    return degree;
}

// ---- element by element --------------------------------------------------------------------------------------------

Ref object_scalar(PyObject *object) {
    need_numpy();
    Ref array = check(PyArray_SimpleNew(0, nullptr, NPY_OBJECT));
    PyObject **slot = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    Py_XSETREF(*slot, Py_NewRef(object));
    return array;
}

Ref elements_of(PyObject *expr) {
    if (!is_compact(expr))
        return learr(expr);
    Ref full = to_full(expr);
    return learr(full.get());
}

Ref element_operand(PyObject *operand, Operand kind) {
    switch (kind) {
    case Operand::MLinExpr:
        return elements_of(operand);
    case Operand::MVar:
        return learr(from_mvar(mod.MLinExpr, operand, true).get());
    case Operand::Array:
        return plain_array(operand);
    case Operand::Sparse:
        return to_dense(operand);
    default:
        return object_scalar(operand);
    }
}

namespace {

void need_factors(PyObject *array, bool expressions) {
    Ref elements = contiguous_objects(array);
    auto **first = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(elements)); ++i) {
        PyObject *element = first[i] ? first[i] : Py_None;
        Operand kind = kind_of(element);
        if (kind != Operand::Scalar && (!expressions || degree_of_kind(kind) == 0))
            fail(PyExc_TypeError, "a matrix of numbers is needed, not one with a '%.200s'", Py_TYPE(element)->tp_name);
    }
}

} // namespace

Ref factor_matrix(PyObject *matrix, bool expressions) {
    Ref array = plain_array(matrix);
    int type = PyArray_TYPE(as_array(array));
    if (PyTypeNum_ISOBJECT(type))
        need_factors(array.get(), expressions);
    else if (!PyTypeNum_ISBOOL(type) && !PyTypeNum_ISINTEGER(type) && !PyTypeNum_ISFLOAT(type))
        fail(PyExc_TypeError, "a matrix of real numbers is needed, not one of %R", PyArray_DESCR(as_array(array)));
    return array;
}

Ref as_elements(Ref result) {
    need_numpy();
    return PyArray_Check(result.get()) ? std::move(result) : object_scalar(result.get());
}

Ref times(PyObject *array, double factor) {
    if (factor == 1.0)
        return Ref::borrow(array);
    Ref number = check(PyFloat_FromDouble(factor));
    Ref product = check(PyNumber_Multiply(number.get(), array));
    // Of an array without dimensions NumPy gives the element: one of its own numbers is as good, an expression is not.
    return PyArray_IsAnyScalar(product.get()) ? product : as_elements(std::move(product));
}

Ref polynomial_elements(Ref result) {
    Ref elements = as_elements(std::move(result));
    Ref objects = check(PyArray_FROM_OTF(elements.get(), NPY_OBJECT, NPY_ARRAY_CARRAY));
    auto **first = static_cast<PyObject **>(PyArray_DATA(as_array(objects)));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(objects)); ++i)
        if (first[i] && Py_TYPE(first[i]) == mod.core->NLExpr)
            fail(PyExc_TypeError, "an element became nonlinear, which an array of polynomials cannot hold");
    return elements;
}

Ref wrap_elements(Ref result) {
    return make_objects(mod.MLinExpr, polynomial_elements(std::move(result)));
}

namespace {

bool is_expression(PyObject *element) {
    return element && (PyObject_TypeCheck(element, mod.core->LinExpr) ||
                       PyObject_TypeCheck(element, mod.core->QuadExpr)); // NumPy's object arrays may lack elements
}

Ref copy_expression(PyObject *element) {
    return check(PyObject_TypeCheck(element, mod.core->LinExpr) ? mod.core->linexpr_copy(element)
                                                                : mod.core->quadexpr_copy(element));
}

Ref private_operands(PyObject *operand) {
    // A copy: the operand may share its elements with the receiver, which change from here on.
    Ref spread = check(PyArray_FROM_OTF(operand, NPY_OBJECT, NPY_ARRAY_ENSURECOPY | NPY_ARRAY_CARRAY));
    for (npy_intp i = 0; i < PyArray_SIZE(as_array(spread)); ++i) {
        PyObject **slot = static_cast<PyObject **>(PyArray_DATA(as_array(spread))) + i;
        if (is_expression(*slot))
            Py_SETREF(*slot, copy_expression(*slot).release());
    }
    return spread;
}

PyArrayMultiIterObject *over_both(const Ref &iterator, PyObject *array) {
    auto *multi = reinterpret_cast<PyArrayMultiIterObject *>(iterator.get());
    need_fit(shape_of_array(array), flat::Shape(multi->dimensions, multi->dimensions + multi->nd));
    return multi;
}

bool all_of_type(PyObject *array, PyTypeObject *type) {
    Ref elements = contiguous_objects(array);
    auto **first = static_cast<PyObject **>(PyArray_DATA(as_array(elements)));
    return std::all_of(first, first + PyArray_SIZE(as_array(elements)),
                       [type](PyObject *element) { return element && PyObject_TypeCheck(element, type); });
}

} // namespace

void elements_in_place(PyObject *array, PyObject *operand, BinaryFunction function) {
    PyArrayObject *target = as_array(array);
    Ref spread = private_operands(operand);
    Ref iterator = check(PyArray_MultiIterNew(2, array, spread.get()));
    PyArrayMultiIterObject *multi = over_both(iterator, array);
    ElementsBefore before(array);
    while (PyArray_MultiIter_NOTDONE(multi)) {
        auto *slot = static_cast<char *>(PyArray_MultiIter_DATA(multi, 0));
        PyObject *value = *static_cast<PyObject **>(PyArray_MultiIter_DATA(multi, 1));
        Ref element = check(PyArray_GETITEM(target, slot));
        Ref changed = check(function(element.get(), value ? value : Py_None));
        if (!changed.is(element.get()))
            check_status(PyArray_SETITEM(target, slot, changed.get()));
        PyArray_MultiIter_NEXT(multi);
    }
    before.done();
}

void elements_or_nothing(PyObject *array, PyObject *operand, BinaryFunction function) {
    PyArrayObject *target = as_array(array);
    Ref spread = private_operands(operand), iterator = check(PyArray_MultiIterNew(2, array, spread.get()));
    PyArrayMultiIterObject *multi = over_both(iterator, array);
    Ref results = check(PyArray_SimpleNew(PyArray_NDIM(target), PyArray_DIMS(target), NPY_OBJECT));
    auto **result = static_cast<PyObject **>(PyArray_DATA(as_array(results)));
    std::unordered_map<PyObject *, PyObject *> latest; // an element that stands in several places changes several times
    for (; PyArray_MultiIter_NOTDONE(multi); ++result) {
        PyObject *value = *static_cast<PyObject **>(PyArray_MultiIter_DATA(multi, 1));
        Ref element = check(PyArray_GETITEM(target, static_cast<char *>(PyArray_MultiIter_DATA(multi, 0))));
        auto known = latest.end();
        if (is_expression(element.get())) {
            known = latest.try_emplace(element.get(), element.get()).first;
            element = is_expression(known->second) ? copy_expression(known->second) : Ref::borrow(known->second);
        }
        *result = check(function(element.get(), value ? value : Py_None)).release();
        if (known != latest.end())
            known->second = *result;
        PyArray_MultiIter_NEXT(multi);
    }
    results = polynomial_elements(std::move(results));
    const CoreApi &core = *mod.core;
    if (all_of_type(array, core.LinExpr) && all_of_type(results.get(), core.LinExpr))
        exchange_contents(array, results.get());
    else if (all_of_type(array, core.QuadExpr) && all_of_type(results.get(), core.QuadExpr))
        QuadExchange(array, results.get()).run();
    else
        check_status(PyArray_CopyInto(target, as_array(results)));
}

// ---- checks --------------------------------------------------------------------------------------------------------

void need_finite(const double *values, int64_t n, const char *what) {
    bool finite = true;
    for (int64_t i = 0; i < n; ++i)
        finite &= std::isfinite(values[i]);
    if (finite)
        return;
    std::string text = std::string(what) + " is infinite or NaN";
    fail_tarvo(TRV_ERROR_INVALID_ARGUMENT, text.c_str());
}

void need_finite(double value, const char *what) {
    need_finite(&value, 1, what);
}

namespace {

// "[1, 2]"
std::string place_text(int64_t element, const flat::Shape &shape) {
    std::string text;
    for (size_t axis = shape.size(); axis-- > 0; element /= shape[axis])
        text = std::to_string(element % shape[axis]) + (text.empty() ? "" : ", ") + text;
    return "[" + text + "]";
}

} // namespace

void need_finite_constants(const double *values, int64_t n, const flat::Shape &shape) {
    const double *found = std::find_if_not(values, values + n, [](double value) { return std::isfinite(value); });
    if (found == values + n)
        return;
    std::string text = "Constant is infinite or NaN: ";
    text += std::isnan(*found) ? "nan" : *found > 0 ? "inf" : "-inf";
    if (!shape.empty())
        text += " at " + place_text(found - values, shape);
    fail_tarvo(TRV_ERROR_INVALID_ARGUMENT, text.c_str());
}

void need_finite_addend(PyObject *other) {
    if (!is_array(other) || PyArray_NDIM(as_array(other)) == 0)
        return;
    if (Ref numbers = as_doubles(other))
        need_finite_constants(doubles(numbers), PyArray_SIZE(as_array(numbers)), shape_of_array(numbers.get()));
}

void need_finite(const flat::Form &form) {
    if (form.constant.values.empty())
        need_finite_constants(&form.constant.uniform, 1);
    else
        need_finite_constants(form.constant.values.data(), form.size);
}

void need_fit(const flat::Shape &receiver, const flat::Shape &operand) {
    flat::Shape shape = broadcast_shapes(receiver, operand);
    if (shape != receiver)
        fail(PyExc_ValueError, "non-broadcastable output operand with shape %s doesn't match the broadcast shape %s",
             shapes::text(receiver).c_str(), shapes::text(shape).c_str());
}

void assert_that(bool holds) {
    if (holds || !assertions_on())
        return;
    PyErr_SetNone(PyExc_AssertionError);
    throw PythonError{};
}

} // namespace tarvopy
