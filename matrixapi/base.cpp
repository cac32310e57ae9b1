// The native base type of the matrix classes: memory, dictionary and native form. Its two methods are what NumPy's
// functions and the interpreter's `inspect` ask for.
#include "matrixapi/base.h"
#include "matrixapi/array_function.h"

#include <cstddef>

#include <structmember.h>

namespace tarvopy {

using namespace pysupport;

PyTypeObject *matrix_base = nullptr;
bool eager = false;

namespace {

int traverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(matrix(self)->dict);
    return matrix(self)->native ? matrix(self)->native->traverse(visit, arg) : 0;
}

int clear(PyObject *self) {
    Py_CLEAR(matrix(self)->dict);
    drop_native(self);
    return 0;
}

void deallocate(PyObject *self) {
    PyTypeObject *type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    if (matrix(self)->weakrefs)
        PyObject_ClearWeakRefs(self);
    clear(self);
    type->tp_free(self);
    Py_DECREF(type); // a heap type's instances hold their type
}

// inspect.signature(MVar), help() and editors look for a Python function __init__ and fail over a native one.
PyObject *signature_of_class(PyObject *cls, PyObject *) {
    return border([&] {
        Ref inspect = check(PyImport_ImportModule("inspect"));
        Ref init = check(PyObject_GetAttrString(cls, "__init__"));
        Ref whole = check(PyObject_CallMethod(inspect.get(), "signature", "O", init.get()));
        Ref parameters = check(PyObject_GetAttrString(whole.get(), "parameters"));
        Ref values = check(PySequence_List(check(PyObject_CallMethod(parameters.get(), "values", nullptr)).get()));
        check_status(PyList_SetSlice(values.get(), 0, 1, nullptr)); // self
        Ref type = check(PyObject_GetAttrString(inspect.get(), "Signature"));
        return check(PyObject_CallOneArg(type.get(), values.get()));
    });
}

PyMethodDef methods[] = {
    array_function_method,
    {"__signature__", signature_of_class, METH_CLASS | METH_NOARGS, "What the class is called with."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef members[] = {
    {"__dictoffset__", Py_T_PYSSIZET, offsetof(MatrixObject, dict), Py_READONLY, nullptr},
    {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(MatrixObject, weakrefs), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_traverse, reinterpret_cast<void *>(traverse)},
    {Py_tp_clear, reinterpret_cast<void *>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void *>(deallocate)},
    {Py_tp_members, members},
    {Py_tp_methods, methods},
    {0, nullptr},
};

PyType_Spec spec = {
    "tarvopy._matrixapi._MatrixObject",
    sizeof(MatrixObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    slots,
};

} // namespace

void make_matrix_base(PyObject *module) {
    matrix_base = reinterpret_cast<PyTypeObject *>(check(PyType_FromModuleAndSpec(module, &spec, nullptr)).release());
}

Ref new_instance(PyObject *cls, std::unique_ptr<Native> native) {
    auto *type = reinterpret_cast<PyTypeObject *>(cls);
    if (!PyType_Check(cls) || !PyType_IsSubtype(type, matrix_base))
        fail(PyExc_TypeError, "%R is no matrix class", cls);
    Ref object = check(type->tp_alloc(type, 0));
    matrix(object.get())->native = native.release();
    return object;
}

Native *native_of(PyObject *object, Native::Kind kind) {
    Native *native = is_matrix(object) ? matrix(object)->native : nullptr;
    return native && native->kind == kind ? native : nullptr;
}

void drop_native(PyObject *object) {
    delete std::exchange(matrix(object)->native, nullptr);
}

PyObject *instance_dict(PyObject *object) {
    PyObject *&dict = matrix(object)->dict;
    if (!dict)
        dict = check(PyDict_New()).release();
    return dict;
}

void replace_dict(PyObject *object, PyObject *value) {
    if (!value)
        fail(PyExc_TypeError, "cannot delete __dict__");
    if (!PyDict_Check(value))
        fail(PyExc_TypeError, "__dict__ must be set to a dictionary, not a '%.200s'", Py_TYPE(value)->tp_name);
    Ref old = Ref::steal(std::exchange(matrix(object)->dict, Py_NewRef(value)));
    drop_native(object);
}

PyObject *stored(PyObject *object, PyObject *name) {
    PyObject *dict = is_matrix(object) ? matrix(object)->dict : nullptr;
    if (!dict)
        return nullptr;
    PyObject *value = PyDict_GetItemWithError(dict, name);
    if (!value && PyErr_Occurred())
        throw PythonError{};
    return value;
}

void store(PyObject *object, PyObject *name, PyObject *value) {
    check_status(PyDict_SetItem(instance_dict(object), name, value));
}

// The dictionary stays the same object, which others may hold, unless there is no memory to fill it again.
void refill(PyObject *object, const Ref &entries) {
    PyObject *dict = instance_dict(object);
    PyDict_Clear(dict);
    if (PyDict_Update(dict, entries.get()) < 0) {
        PyErr_Clear();
        Ref old = Ref::steal(std::exchange(matrix(object)->dict, Ref(entries).release()));
    }
}

} // namespace tarvopy
