// MNLExpr: it exists, so that operators can name it, and refuses to be made. The other classes hand nonlinear work to
// the class methods here, and the refusal reaches the user as it is.
#include "matrixapi/later_classes.h"

#include "matrixapi/names.h"

#include "pysupport/classes.h"

namespace tarvopy {

using namespace pysupport;

namespace {

PyObject *refuse_nonlinear(PyObject *, PyObject *const *, Py_ssize_t, PyObject *) {
    PyErr_SetString(PyExc_NotImplementedError, "nonlinear matrix expressions are not supported yet");
    return nullptr;
}

PyObject *no_nonlinear(PyObject *, void *) {
    return refuse_nonlinear(nullptr, nullptr, 0, nullptr);
}

constexpr const char *refusal_doc = "Raises NotImplementedError.";

Member nonlinear_members[] = {
    method("__init__", refuse_nonlinear, refusal_doc),
    class_method("_from_mvar", refuse_nonlinear, refusal_doc),
    class_method("_from_mlinexpr", refuse_nonlinear, refusal_doc),
    class_method("_from_mquadexpr", refuse_nonlinear, refusal_doc),
    property("shape", no_nonlinear, refusal_doc),
    property("ndim", no_nonlinear, refusal_doc),
    property("size", no_nonlinear, refusal_doc),
};

void put(PyObject *space, const char *name, long value) {
    check_status(PyDict_SetItemString(space, name, check(PyLong_FromLong(value)).get()));
}

} // namespace

Ref build_mnlexpr_class() {
    Ref space = new_namespace("tarvopy._matrixapi", "MNLExpr", "Arrays of nonlinear expressions.");
    add_members(space.get(), matrix_base, nonlinear_members);
    put(space.get(), "__array_priority__", 100);
    Ref cls = build_class("MNLExpr", matrix_base, space.get());
    mod.MNLExpr = Ref(cls).release();
    return cls;
}

} // namespace tarvopy
