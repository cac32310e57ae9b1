// Attributes of the store on scalar handles: x.LB, x.LB = 1.0, c.RHS, ...
//
// Every attribute of the store begins with a capital letter and no member of the Python types does, so the first letter
// tells where to look.
#include "scalars.h"

#include "model_handle.h"
#include "pysupport/args.h"
#include "pysupport/numbers.h"

namespace tarvopy::core {

using pysupport::Arguments;
using pysupport::Signature;

namespace {

bool names_attribute(PyObject *name) {
    if (!PyUnicode_Check(name) || PyUnicode_GET_LENGTH(name) == 0)
        return false;
    Py_UCS4 first = PyUnicode_READ_CHAR(name, 0);
    return first >= 'A' && first <= 'Z';
}

const TRVattrinfo *find_attribute(PyObject *self, PyObject *name) {
    const TRVattrinfo *info = TRVfindattr(pysupport::attribute_name(name));
    if (!info || info->kind != kind_of(self))
        fail(PyExc_AttributeError, "'%s' object has no attribute '%U'", Py_TYPE(self)->tp_name, name);
    return info;
}

Ref read_string(TRVmodel *store, const char *name, int32_t id) {
    char *text = nullptr;
    int64_t *offset = nullptr;
    check_store(store, TRVgetstrs(store, name, 1, nullptr, id, &text, &offset));
    Ref value = Ref::steal(PyUnicode_DecodeUTF8(text + offset[0], offset[1] - offset[0], "replace"));
    TRVfree(text);
    TRVfree(offset);
    return check(value.release());
}

Ref read(PyObject *self, const TRVattrinfo *info) {
    TRVmodel *store = open_store(as_scalar(self)->cmodel);
    int32_t id = as_scalar(self)->id;
    switch (info->type) {
    case TRV_DOUBLE: {
        double value;
        check_store(store, TRVgetdbls(store, info->name, 1, nullptr, id, &value));
        return check(PyFloat_FromDouble(value));
    }
    case TRV_INT: {
        int32_t value;
        check_store(store, TRVgetints(store, info->name, 1, nullptr, id, &value));
        return check(PyLong_FromLong(value));
    }
    case TRV_CHAR: {
        char value;
        check_store(store, TRVgetchars(store, info->name, 1, nullptr, id, &value));
        return check(PyUnicode_FromStringAndSize(&value, 1));
    }
    default:
        return read_string(store, info->name, id);
    }
}

[[noreturn]] void wrong_value(const TRVattrinfo *info, const char *wanted, PyObject *value) {
    fail(PyExc_TypeError, "attribute '%s' takes %s, not %R", info->name, wanted, value);
}

void write_double(PyObject *self, const TRVattrinfo *info, PyObject *value) {
    double number;
    if (!pysupport::number_value(value, &number))
        wrong_value(info, "a number", value);
    TRVmodel *store = open_store(as_scalar(self)->cmodel); // after __float__, which may have closed the model
    check_store(store, TRVsetdbls(store, info->name, 1, nullptr, as_scalar(self)->id, &number, 0));
}

const char *read_text(const TRVattrinfo *info, const char *wanted, PyObject *value, Py_ssize_t *length) {
    if (!PyUnicode_Check(value))
        wrong_value(info, wanted, value);
    const char *text = PyUnicode_AsUTF8AndSize(value, length);
    if (!text)
        throw PythonError{};
    return text;
}

void write_char(PyObject *self, const TRVattrinfo *info, PyObject *value) {
    Py_ssize_t length;
    const char *text = read_text(info, "one character", value, &length);
    if (length != 1)
        wrong_value(info, "one character", value);
    TRVmodel *store = open_store(as_scalar(self)->cmodel);
    check_store(store, TRVsetchars(store, info->name, 1, nullptr, as_scalar(self)->id, text, 0));
}

void write_string(PyObject *self, const TRVattrinfo *info, PyObject *value) {
    Py_ssize_t length;
    const char *text = read_text(info, "a string", value, &length);
    int64_t offset[2] = {0, length};
    TRVmodel *store = open_store(as_scalar(self)->cmodel);
    check_store(store, TRVsetstrs(store, info->name, 1, nullptr, as_scalar(self)->id, text, offset));
}

void write(PyObject *self, PyObject *name, PyObject *value) {
    const TRVattrinfo *info = find_attribute(self, name);
    if (!info->settable || info->type == TRV_INT)
        fail(PyExc_AttributeError, "Attribute '%U' cannot be set", name);
    if (info->type == TRV_DOUBLE)
        write_double(self, info, value);
    else if (info->type == TRV_CHAR)
        write_char(self, info, value);
    else
        write_string(self, info, value);
}

} // namespace

PyObject *scalar_getattro(PyObject *self, PyObject *name) {
    if (!names_attribute(name))
        return PyObject_GenericGetAttr(self, name);
    return border([&] { return read(self, find_attribute(self, name)); });
}

int scalar_setattro(PyObject *self, PyObject *name, PyObject *value) {
    if (!names_attribute(name))
        return PyObject_GenericSetAttr(self, name, value);
    return border_status([&] {
        if (!value)
            fail(PyExc_AttributeError, "Attribute '%U' cannot be deleted", name);
        write(self, name, value);
    });
}

PyObject *scalar_get_attr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"getAttr", {"attrname"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        return read(self, find_attribute(self, given[0]));
    });
}

PyObject *scalar_set_attr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"setAttr", {"attrname", "value"}, 2};
        Arguments given(signature, 1, args, nargs, kwnames);
        write(self, given[0], given[1]);
        return Ref::none();
    });
}

PyObject *scalar_dir(PyObject *self, PyObject *) {
    return border([&] {
        Ref names = check(PyObject_Dir(as_object(Py_TYPE(self))));
        for (int i = 0; const TRVattrinfo *info = TRVattrat(i); ++i)
            if (info->kind == kind_of(self)) {
                Ref name = check(PyUnicode_FromString(info->name));
                check_status(PyList_Append(names.get(), name.get()));
            }
        check_status(PyList_Sort(names.get()));
        return names;
    });
}

} // namespace tarvopy::core
