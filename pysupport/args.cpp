#include "pysupport/args.h"

#include <cstring>

namespace pysupport {

Signature::Signature(const char *name, std::initializer_list<const char *> names, int required_count,
                     int positional_count)
    : function(name), required(required_count) {
    for (const char *parameter : names)
        parameters[count++] = parameter;
    positional = positional_count < 0 ? count : positional_count;
}

void wrong_count(const char *function, const char *how, Py_ssize_t wanted, Py_ssize_t given) {
    fail(PyExc_TypeError, "%.200s() takes %.8s %zd positional argument%.1s (%zd given)", function, how, wanted,
         wanted == 1 ? "" : "s", given);
}

namespace {

int find_parameter(const Signature &signature, PyObject *keyword) {
    for (int i = 0; i < signature.count; ++i)
        if (PyUnicode_EqualToUTF8(keyword, signature.parameters[i]))
            return i;
    fail(PyExc_TypeError, "%.200s() got an unexpected keyword argument '%U'", signature.function, keyword);
}

} // namespace

Arguments::Arguments(const Signature &signature, int self_counts, PyObject *const *args, Py_ssize_t nargs,
                     PyObject *kwnames) {
    if (nargs > signature.positional) {
        bool exact = signature.required >= signature.positional;
        wrong_count(signature.function, exact ? "exactly" : "at most", signature.positional + self_counts,
                    nargs + self_counts);
    }
    for (Py_ssize_t i = 0; i < nargs; ++i)
        values_[i] = args[i];
    Py_ssize_t nkeywords = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < nkeywords; ++k) {
        int i = find_parameter(signature, PyTuple_GET_ITEM(kwnames, k));
        if (values_[i])
            fail(PyExc_TypeError, "%.200s() got multiple values for argument '%s'", signature.function,
                 signature.parameters[i]);
        values_[i] = args[nargs + k];
    }
    for (int i = 0; i < signature.required; ++i) {
        if (values_[i])
            continue;
        if (nkeywords == 0)
            wrong_count(signature.function, signature.required == signature.positional ? "exactly" : "at least",
                        signature.required + self_counts, nargs + self_counts);
        fail(PyExc_TypeError, "%.200s() missing required argument '%s' (pos %d)", signature.function,
             signature.parameters[i], i + 1);
    }
}

const char *attribute_name(PyObject *name) {
    if (!PyUnicode_Check(name))
        fail(PyExc_TypeError, "attribute name must be string, not '%.200s'", Py_TYPE(name)->tp_name);
    Py_ssize_t size = 0;
    const char *utf8 = PyUnicode_AsUTF8AndSize(name, &size);
    if (!utf8) {
        if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError))
            throw PythonError{};
        PyErr_Clear();
        return "";
    }
    return std::strlen(utf8) == static_cast<size_t>(size) ? utf8 : "";
}

} // namespace pysupport
