// How this module's errors become Python exceptions.
#include "state.h"

#include <cstdarg>

namespace tarvopy::core {

namespace {

void set_coded(PyObject *type, int code, PyObject *message) {
    PyObject *error = PyObject_CallFunction(type, "iO", code, message);
    if (error) {
        PyErr_SetObject(type, error);
        Py_DECREF(error);
    }
}

} // namespace

void set_error(int code, PyObject *message) {
    set_coded(code == TRV_ERROR_NO_DATA ? state.NoDataError : state.TarvoError, code, message);
}

void fail_code(int code, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Ref message = Ref::steal(PyUnicode_FromFormatV(format, arguments));
    va_end(arguments);
    if (message)
        set_error(code, message.get());
    throw PythonError{};
}

int raise_code(int code, const char *message) {
    // Names in a message may come from files of any encoding.
    Ref text = Ref::steal(PyUnicode_DecodeUTF8(message, static_cast<Py_ssize_t>(strlen(message)), "replace"));
    if (text)
        set_error(code, text.get());
    return -1;
}

int raise_store(TRVmodel *store, int code) {
    const char *message = store ? TRVgeterrormsg(store) : "the model cannot be made";
    switch (code) {
    case TRV_ERROR_OUT_OF_MEMORY:
        PyErr_NoMemory();
        return -1;
    case TRV_ERROR_UNKNOWN_ATTRIBUTE:
        PyErr_SetString(PyExc_AttributeError, message);
        return -1;
    default:
        return raise_code(code, message);
    }
}

} // namespace tarvopy::core
