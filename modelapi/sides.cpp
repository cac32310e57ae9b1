#include "sides.h"

namespace tarvopy::modelapi {

[[noreturn]] void not_a_comparison(const char *function, PyObject *object) {
    const char *advice = "compare two expressions with <=, >= or ==";
    if (PyBool_Check(object))
        advice =
            "the comparison was evaluated to a truth value before it reached the model, so no variable took part in it";
    else if (pysupport::is_array(object) && PyArray_TYPE(pysupport::as_array(object)) == NPY_BOOL)
        advice = "NumPy has evaluated the comparison already, so no variable took part in it";
    else if (PyObject_TypeCheck(object, core().LinExpr) || PyObject_TypeCheck(object, matrix().MLinExpr) ||
             PyObject_TypeCheck(object, core().QuadExpr) || PyObject_TypeCheck(object, matrix().MQuadExpr) ||
             PyObject_TypeCheck(object, core().NLExpr) || PyObject_TypeCheck(object, matrix().MNLExpr))
        advice = "an expression alone is no constraint: compare it with <=, >= or ==";
    else if (PyList_Check(object) || PyTuple_Check(object))
        advice = "add the comparisons one at a time, or compare arrays";
    const char *type = Py_TYPE(object)->tp_name;
    if (PyBool_Check(object))
        fail(PyExc_TypeError, "%s() takes a comparison, not the bool %R: %s", function, object, advice);
    fail(PyExc_TypeError, "%s() takes a comparison, not '%.200s': %s", function, type, advice);
}

void require_expression(const char *function, int degree, PyObject *side) {
    switch (degree) {
    case 0:
    case 1:
    case 2:
    case 3:
        return;
    default:
        if (PyErr_Occurred())
            throw PythonError{};
        if (PyObject_TypeCheck(side, core().GenExpr))
            fail(PyExc_TypeError,
                 "%s() takes no general function: add a variable v with addConstr(v == genfunc...) and use v",
                 function);
        if (pysupport::is_array(side))
            fail(PyExc_TypeError, "%s() takes expressions, numbers and arrays of them, not of dtype %S", function,
                 reinterpret_cast<PyObject *>(PyArray_DESCR(pysupport::as_array(side))));
        fail(PyExc_TypeError, "%s() takes expressions, numbers and arrays, not '%.200s'", function,
             Py_TYPE(side)->tp_name);
    }
}

namespace {

bool says_its_elements(PyObject *object) {
    return PyList_Check(object) || PyTuple_Check(object) ||
           check_status(PyObject_HasAttrStringWithError(object, "__array__"));
}

} // namespace

int settle_degree(Ref &side) {
    int degree = matrix().degree(side.get());
    if (degree == -2 && says_its_elements(side.get())) {
        need_numpy();
        Ref array = check(PyArray_FromAny(side.get(), nullptr, 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
        degree = matrix().degree(array.get());
        if (degree >= 0)
            side = array;
    }
    require_expression("addConstr", degree, side.get());
    return degree;
}

Sense sense_of(PyObject *text) {
    if (PyUnicode_Check(text) && PyUnicode_GET_LENGTH(text) >= 1 && PyUnicode_GET_LENGTH(text) <= 2) {
        Py_UCS4 letter = PyUnicode_READ_CHAR(text, 0);
        bool plain = PyUnicode_GET_LENGTH(text) == 1 || PyUnicode_READ_CHAR(text, 1) == '=';
        if (plain && (letter == '<' || letter == '>' || letter == '='))
            return letter == '<' ? Sense::Less : letter == '>' ? Sense::Greater : Sense::Equal;
    }
    fail(PyExc_ValueError, "the sense of a comparison is '<', '>' or '=', not %R", text);
}

} // namespace tarvopy::modelapi
