// Types of nonlinear models and general constraints. They exist so that type tests and layouts are settled; nothing
// makes instances yet.
#include "state.h"

namespace tarvopy::core {

namespace {

PyObject *refuse(PyTypeObject *type, PyObject *, PyObject *) {
    PyErr_Format(PyExc_NotImplementedError, "%s is not available yet: models are linear or quadratic", type->tp_name);
    return nullptr;
}

PyTypeObject *placeholder(PyObject *module, const char *full_name, int size, const char *name) {
    PyType_Slot slots[] = {{Py_tp_new, slot(refuse)}, {}};
    PyType_Spec spec = {full_name, size, 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE, slots};
    return make_type(module, &spec, name);
}

} // namespace

void add_later_types(PyObject *module) {
    state.NLExpr = placeholder(module, "tarvopy.NLExpr", sizeof(PyObject), "NLExpr");
    state.GenExpr = placeholder(module, "tarvopy.GenExpr", sizeof(PyObject), "GenExpr");
    state.ExprTree = placeholder(module, "tarvopy._ExprTree", sizeof(PyObject), "_ExprTree");
}

} // namespace tarvopy::core
