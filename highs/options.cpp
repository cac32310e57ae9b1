#include "options.h"

#include "library.h"

#include <cmath>
#include <limits>

namespace tarvopy::highs {

using namespace pysupport;

namespace {

HighsInt option_type(void *highs, const char *name) {
    HighsInt type = 0;
    if (library().getOptionType(highs, name, &type) != kHighsStatusOk)
        fail(PyExc_ValueError, "HiGHS has no option '%.200s'", name);
    return type;
}

[[noreturn]] void wrong_type(const char *name, const char *wanted, PyObject *value) {
    fail(PyExc_TypeError, "HiGHS' option '%s' takes %s, not %R", name, wanted, value);
}

// The number a Python object stands for; anything that is not one is the type error of the option.
double number(const char *name, const char *wanted, PyObject *value) {
    if (PyUnicode_Check(value))
        wrong_type(name, wanted, value);
    double result = PyFloat_AsDouble(value);
    if (result == -1.0 && PyErr_Occurred()) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError))
            throw PythonError{};
        PyErr_Clear();
        wrong_type(name, wanted, value);
    }
    return result;
}

HighsInt set_bool(void *highs, const char *name, PyObject *value) {
    double flag = number(name, "True or False", value);
    if (flag != 0 && flag != 1)
        wrong_type(name, "True or False", value);
    return library().setBoolOptionValue(highs, name, flag != 0);
}

HighsInt set_int(void *highs, const char *name, PyObject *value) {
    constexpr double largest = std::numeric_limits<HighsInt>::max();
    double whole = number(name, "an integer", value);
    if (whole != std::floor(whole) || std::fabs(whole) > largest) // also NaN and infinity
        wrong_type(name, "an integer of 32 bits", value);
    return library().setIntOptionValue(highs, name, static_cast<HighsInt>(whole));
}

HighsInt set_double(void *highs, const char *name, PyObject *value) {
    double given = number(name, "a number", value);
    if (std::isnan(given))
        wrong_type(name, "a number", value);
    return library().setDoubleOptionValue(highs, name, given);
}

HighsInt set_string(void *highs, const char *name, PyObject *value) {
    if (PyBool_Check(value))
        return library().setStringOptionValue(highs, name, value == Py_True ? "on" : "off");
    if (!PyUnicode_Check(value))
        wrong_type(name, "a string", value);
    Py_ssize_t length = 0;
    const char *text = PyUnicode_AsUTF8AndSize(value, &length);
    if (!text)
        throw PythonError{};
    if (length >= kHighsMaximumStringLength)
        fail(PyExc_ValueError, "HiGHS' option '%s' takes less than %d bytes", name, kHighsMaximumStringLength);
    return library().setStringOptionValue(highs, name, text);
}

} // namespace

void set_option(void *highs, const char *name, PyObject *value) {
    HighsInt type = option_type(highs, name);
    HighsInt status = type == kHighsOptionTypeBool     ? set_bool(highs, name, value)
                      : type == kHighsOptionTypeInt    ? set_int(highs, name, value)
                      : type == kHighsOptionTypeDouble ? set_double(highs, name, value)
                                                       : set_string(highs, name, value);
    if (status == kHighsStatusError)
        fail(PyExc_ValueError, "HiGHS refuses %R for its option '%s'", value, name);
}

Ref get_option(void *highs, const char *name) {
    HighsInt type = option_type(highs, name);
    HighsInt whole = 0;
    if (type == kHighsOptionTypeBool) {
        library().getBoolOptionValue(highs, name, &whole);
        return Ref::borrow(whole ? Py_True : Py_False);
    }
    if (type == kHighsOptionTypeInt) {
        library().getIntOptionValue(highs, name, &whole);
        return check(PyLong_FromLong(whole));
    }
    if (type == kHighsOptionTypeDouble) {
        double value = 0;
        library().getDoubleOptionValue(highs, name, &value);
        return check(PyFloat_FromDouble(value));
    }
    char text[kHighsMaximumStringLength] = {};
    library().getStringOptionValue(highs, name, text);
    return check(PyUnicode_FromString(text));
}

} // namespace tarvopy::highs
