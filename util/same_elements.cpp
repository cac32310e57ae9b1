// Whether arrays hold the very same element objects.
#include "functions.h"

#include "pysupport/numpy.h"

namespace tarvopy::util {

using namespace pysupport;

namespace {

// The elements of an array in a list of their own, or of another sequence; a single object as a list of one.
Ref elements(PyObject *object) {
    if (is_array(object)) {
        Ref flat = check(PyArray_Ravel(as_array(object), NPY_CORDER));
        return check(PySequence_List(flat.get()));
    }
    if (PyList_Check(object) || PyTuple_Check(object))
        return check(PySequence_List(object));
    Ref list = check(PyList_New(1));
    PyList_SET_ITEM(list.get(), 0, Py_NewRef(object));
    return list;
}

bool same_elements(const Ref &a, const Ref &b) {
    if (PyList_GET_SIZE(a.get()) != PyList_GET_SIZE(b.get()))
        return false;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(a.get()); ++i)
        if (PyList_GET_ITEM(a.get(), i) != PyList_GET_ITEM(b.get(), i))
            return false;
    return true;
}

} // namespace

PyObject *all_refs_match(PyObject *, PyObject *const *args, Py_ssize_t nargs) {
    return border([&] {
        Ref first = nargs > 0 ? elements(args[0]) : Ref();
        for (Py_ssize_t a = 1; a < nargs; ++a)
            if (!same_elements(first, elements(args[a])))
                return Ref::borrow(Py_False);
        return Ref::borrow(Py_True);
    });
}

} // namespace tarvopy::util
