// The type of general constraints' expressions. It exists so that type tests are settled; nothing makes instances yet.
#include "state.h"

namespace tarvopy::core {

namespace {

PyObject *refuse(PyTypeObject *type, PyObject *, PyObject *) {
    PyErr_Format(PyExc_NotImplementedError, "%s is not available yet", type->tp_name);
    return nullptr;
}

PyTypeObject *placeholder(PyObject *module, const char *full_name, int size, const char *name) {
    PyType_Slot slots[] = {{Py_tp_new, slot(refuse)}, {}};
    PyType_Spec spec = {full_name, size, 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE, slots};
    return make_type(module, &spec, name);
}

} // namespace

void add_later_types(PyObject *module) {
    state.GenExpr = placeholder(module, "tarvopy.GenExpr", sizeof(PyObject), "GenExpr");
}

} // namespace tarvopy::core
