#include "pysupport/sparse.h"

#include "pysupport/error.h"

namespace pysupport {

bool is_sparse(PyObject *object) {
    static PyObject *issparse = nullptr; // kept for the life of the process
    if (!issparse) {
        PyObject *module = PyDict_GetItemString(PyImport_GetModuleDict(), "scipy.sparse"); // borrowed
        if (!module || !(issparse = PyObject_GetAttrString(module, "issparse"))) {         // half imported
            PyErr_Clear();
            return false;
        }
    }
    return check(PyObject_CallOneArg(issparse, object)).get() == Py_True;
}

Ref checked_copy(PyObject *sparse) {
    Ref module = check(PyImport_ImportModule("scipy.sparse")), shape = check(PyObject_GetAttrString(sparse, "shape"));
    Ref format = check(PyObject_GetAttrString(sparse, "format"));
    bool by_rows = PyUnicode_Check(format.get()) && PyUnicode_EqualToUTF8(format.get(), "csr");
    bool compressed = by_rows || (PyUnicode_Check(format.get()) && PyUnicode_EqualToUTF8(format.get(), "csc"));
    Ref given = compressed ? Ref::borrow(sparse) : check(PyObject_CallMethod(sparse, "tocoo", nullptr));
    Ref data = check(PyObject_GetAttrString(given.get(), "data"));
    Ref places = compressed ? check(Py_BuildValue("(ONN)", data.get(), PyObject_GetAttrString(given.get(), "indices"),
                                                  PyObject_GetAttrString(given.get(), "indptr")))
                            : check(Py_BuildValue("(ON)", data.get(), PyObject_GetAttrString(given.get(), "coords")));
    Ref cls = check(PyObject_GetAttrString(module.get(), by_rows      ? "csr_array"
                                                         : compressed ? "csc_array"
                                                                      : "coo_array"));
    Ref arguments = check(PyTuple_Pack(1, places.get())),
        keywords = check(Py_BuildValue("{s:O,s:O}", "shape", shape.get(), "copy", Py_True));
    Ref copy =
        Ref::steal(PyObject_Call(cls.get(), arguments.get(), keywords.get())); // checks the places of a coo_array
    Ref checked = copy && compressed ? Ref::steal(PyObject_CallMethod(copy.get(), "check_format", "O", Py_True))
                                     : Ref::borrow(Py_None);
    if (copy && checked)
        return copy;
    if (PyErr_ExceptionMatches(PyExc_ValueError)) {
        PyErr_Clear();
        fail(PyExc_ValueError, "a sparse matrix whose pointers or indices do not fit its shape");
    }
    throw PythonError{};
}

void refuse_sparse(PyObject *object, const char *what) {
    if (PyTuple_Check(object) || PyList_Check(object) || PyLong_Check(object))
        return;
    if (is_sparse(object))
        fail(PyExc_TypeError, "%s, not '%.200s'", what, Py_TYPE(object)->tp_name);
}

Ref own_items(PyObject *sequence, const char *what) {
    refuse_sparse(sequence, what);
    return check(PySequence_Tuple(sequence));
}

} // namespace pysupport
