// Attributes of the model itself, by name. Reading applies what is pending first; writing acts at once.

#include "modelapi.h"

#include <climits>
#include <string>

namespace tarvopy::modelapi {

using pysupport::check_value;

namespace {

[[noreturn]] void no_attribute(PyObject *self, PyObject *name) {
    fail(PyExc_AttributeError, "'%.100s' object has no attribute '%U'", Py_TYPE(self)->tp_name, name);
}

const TRVattrinfo &model_attribute(PyObject *self, PyObject *name) {
    const TRVattrinfo *info = TRVfindattr(pysupport::attribute_name(name));
    if (!info)
        no_attribute(self, name);
    if (info->kind != TRV_MODEL)
        fail(PyExc_AttributeError, "'%.100s' object has no attribute '%U': it is one of %s", Py_TYPE(self)->tp_name,
             name, info->kind == TRV_VAR ? "variables" : "constraints");
    return *info;
}

Ref read_attribute(TRVmodel *store, const TRVattrinfo &info) {
    switch (info.type) {
    case TRV_INT: {
        int value;
        succeed(store, TRVgetintattr(store, info.name, &value));
        return check(PyLong_FromLong(value));
    }
    case TRV_DOUBLE: {
        double value;
        succeed(store, TRVgetdblattr(store, info.name, &value));
        return check(PyFloat_FromDouble(value));
    }
    default: {
        const char *value;
        succeed(store, TRVgetstrattr(store, info.name, &value));
        return check(
            PyUnicode_DecodeUTF8(value, static_cast<Py_ssize_t>(std::char_traits<char>::length(value)), "replace"));
    }
    }
}

int integer(const char *name, PyObject *object) {
    if (!PyIndex_Check(object))
        fail(PyExc_TypeError, "%s is an integer, not '%.200s'", name, Py_TYPE(object)->tp_name);
    Ref index = check(PyNumber_Index(object));
    long value = check_value(PyLong_AsLong(index.get()));
    if (value < INT_MIN || value > INT_MAX)
        fail(PyExc_OverflowError, "%s is out of range: %ld", name, value);
    return static_cast<int>(value);
}

const char *string(const char *name, PyObject *object) {
    if (!PyUnicode_Check(object))
        fail(PyExc_TypeError, "%s is a string, not '%.200s'", name, Py_TYPE(object)->tp_name);
    Py_ssize_t size;
    const char *text = PyUnicode_AsUTF8AndSize(object, &size);
    if (!text)
        throw PythonError{};
    if (std::char_traits<char>::length(text) != static_cast<size_t>(size))
        fail(PyExc_ValueError, "%s holds a null character: %R", name, object);
    return text;
}

double real(const char *name, PyObject *object) {
    double value = PyFloat_AsDouble(object);
    if (value == -1.0 && PyErr_Occurred()) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError))
            throw PythonError{};
        PyErr_Clear();
        fail(PyExc_TypeError, "%s is a number, not '%.200s'", name, Py_TYPE(object)->tp_name);
    }
    return value;
}

} // namespace

TARVOPY_METHOD(model_getAttr) {
    static const Signature signature{"getAttr", {"attrname"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        const TRVattrinfo &info = model_attribute(self, given[0]);
        TRVmodel *store = store_of(handle);
        succeed(store, TRVupdatemodel(store));
        return read_attribute(store, info);
    });
}

TARVOPY_METHOD(model_setAttr) {
    static const Signature signature{"setAttr", {"attrname", "value"}, 2};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        const TRVattrinfo &info = model_attribute(self, given[0]);
        if (!info.settable)
            fail(PyExc_AttributeError, "Attribute '%s' cannot be set", info.name);
        PyObject *given_value = given[1];
        if (info.type == TRV_INT) {
            int value = integer(info.name, given_value);
            TRVmodel *store = store_of(handle);
            succeed(store, TRVsetintattr(store, info.name, value));
        } else if (info.type == TRV_DOUBLE) {
            double value = real(info.name, given_value);
            TRVmodel *store = store_of(handle);
            succeed(store, TRVsetdblattr(store, info.name, value));
        } else {
            const char *value = string(info.name, given_value);
            TRVmodel *store = store_of(handle);
            succeed(store, TRVsetstrattr(store, info.name, value));
        }
        return Ref::none();
    });
}

TARVOPY_METHOD(model_attributes) {
    static const Signature signature{"_attributes", {}, 0};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        Ref names = check(PyList_New(0));
        for (int i = 0; const TRVattrinfo *info = TRVattrat(i); ++i) {
            if (info->kind != TRV_MODEL)
                continue;
            Ref name = check(PyUnicode_FromString(info->name));
            check_status(PyList_Append(names.get(), name.get()));
        }
        return names;
    });
}

std::string count_text(int count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

int count_of(TRVmodel *store, const char *attribute) {
    int count = 0;
    succeed(store, TRVgetintattr(store, attribute, &count));
    return count;
}

// Never raises for the state of the model, and applies nothing: <tarvopy.Model 'diet': 10 variables, 4 constraints>,
// with "..., 1 quadratic constraint" and the like where there are any.
PyObject *model_repr(PyObject *self) {
    return border([&] {
        ModelObject *handle = reinterpret_cast<ModelBase *>(self)->handle;
        if (!handle || !handle->store)
            return check(
                PyUnicode_FromString(handle ? "<tarvopy.Model (closed)>" : "<tarvopy.Model (not initialised)>"));
        if (handle->solving)
            return check(PyUnicode_FromString(handle->solving == in_file ? "<tarvopy.Model (being read or written)>"
                                                                         : "<tarvopy.Model (being solved)>"));
        TRVmodel *store = handle->store;
        const char *name = "";
        succeed(store, TRVgetstrattr(store, "ModelName", &name));
        Ref text =
            check(PyUnicode_DecodeUTF8(name, static_cast<Py_ssize_t>(std::char_traits<char>::length(name)), "replace"));
        std::string counts = count_text(count_of(store, "NumVars"), "variable") + ", " +
                             count_text(count_of(store, "NumConstrs"), "constraint");
        for (auto [attribute, what] : {std::pair{"NumQConstrs", "quadratic constraint"},
                                       {"NumGenConstrs", "general constraint"},
                                       {"NumNLConstrs", "nonlinear constraint"}})
            if (int count = count_of(store, attribute))
                counts += ", " + count_text(count, what);
        return check(PyUnicode_FromFormat("<tarvopy.Model %R: %s>", text.get(), counts.c_str()));
    });
}

} // namespace tarvopy::modelapi
