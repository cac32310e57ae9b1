// The text of arrays: NumPy prints the elements through a function of ours.
#include "matrixapi/printing.h"

#include "matrixapi/operands.h"

#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

namespace {

PyObject *element_text(PyObject *, PyObject *element) {
    return border([&] { return check(PyUnicode_FromFormat(" %S", element)); });
}

Ref formatter() {
    static PyMethodDef definition{"f", element_text, METH_O, nullptr};
    Ref function = check(PyCFunction_NewEx(&definition, nullptr, nullptr));
    return check(Py_BuildValue("{s:O}", "object", function.get()));
}

// repr of the array while NumPy prints elements through our function.
Ref array_text(const Ref &array) {
    Ref keywords = check(PyDict_New());
    check_status(PyDict_SetItemString(keywords.get(), "formatter", formatter().get()));
    Ref none = check(PyTuple_New(0));
    Ref options = check(PyObject_Call(numpy_function(names.printoptions).get(), none.get(), keywords.get()));
    check(PyObject_CallMethod(options.get(), "__enter__", nullptr));
    Ref text = Ref::steal(PyObject_Repr(array.get()));
    Ref error = Ref::steal(text ? nullptr : PyErr_GetRaisedException());
    Ref left = Ref::steal(PyObject_CallMethod(options.get(), "__exit__", "OOO", Py_None, Py_None, Py_None));
    if (error)
        PyErr_SetRaisedException(error.release());
    if (!text || !left)
        throw PythonError{};
    return text;
}

// "array([ ..., dtype=object)" without the part from its last comma on; without a comma (an array of another dtype,
// which somebody stored) its last character goes.
Ref without_dtype(const Ref &text) {
    Py_ssize_t length = PyUnicode_GET_LENGTH(text.get());
    Py_ssize_t comma = check_value(PyUnicode_FindChar(text.get(), ',', 0, length, -1));
    return check(PyUnicode_Substring(text.get(), 0, comma < 0 ? length - 1 : comma));
}

} // namespace

Ref printed_elements(const Ref &array) {
    return without_dtype(array_text(array));
}

Ref text_of(PyObject *object) {
    if (is_sparse(object))
        csr_of(object);
    return check(PyObject_Format(object, nullptr));
}

} // namespace tarvopy
