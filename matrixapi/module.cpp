// The module tarvopy._matrixapi: what happens when it is imported, and the table that the model's native half calls.
#include "matrixapi/constraint_handles.h"
#include "matrixapi/mfunctions.h"
#include "matrixapi/mlinexpr.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mquadexpr.h"
#include "matrixapi/mvar.h"
#include "matrixapi/rows.h"

namespace tarvopy {

using namespace pysupport;

namespace {

// ---- handles for the model's native half

Ref handle_from_first(const HandleClass &of, ModelObject *model, int32_t first, int ndim, const npy_intp *shape) {
    int64_t n = 1;
    for (int d = 0; d < ndim; ++d)
        n *= shape[d];
    return new_handle(of, Ref::borrow(reinterpret_cast<PyObject *>(model)),
                      flat::Buffer<int32_t>::counting_from(first, n), ndim, shape);
}

PyObject *api_mvar(ModelObject *model, int32_t first, int ndim, const npy_intp *shape) {
    return border([&] { return handle_from_first(mvar_handle, model, first, ndim, shape); });
}

PyObject *api_mconstr(PyTypeObject *type, ModelObject *model, int32_t first, int ndim, const npy_intp *shape) {
    return border([&] {
        for (const HandleClass *of : {&mconstr_handle, &mqconstr_handle, &mgenconstr_handle, &mnlconstr_handle})
            if (of->class_object() == reinterpret_cast<PyObject *>(type))
                return handle_from_first(*of, model, first, ndim, shape);
        fail(PyExc_TypeError, "'%.200s' is no class of constraint handles", type->tp_name);
    });
}

[[noreturn]] void fail_no_ids(PyObject *handle, const HandleClass &of) {
    Ref array = object_array(handle, of);
    bool foreign = !is_array(array.get()) || PyArray_TYPE(as_array(array)) != NPY_OBJECT;
    if (!foreign) {
        Ref list = check(PySequence_List(check(PyObject_GetAttr(array.get(), names.flat)).get()));
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list.get()); ++i)
            foreign |= !PyObject_TypeCheck(PyList_GET_ITEM(list.get(), i), of.scalar_type());
    }
    if (foreign)
        fail(PyExc_TypeError, "%s with elements that are no %s", of.name, of.element);
    Ref text = check(PyUnicode_FromFormat("%s with elements of several models", of.name));
    const char *utf8 = PyUnicode_AsUTF8(text.get());
    if (!utf8)
        throw PythonError{};
    fail_tarvo(TRV_ERROR_NOT_IN_MODEL, utf8);
}

PyObject *api_ids(PyObject *handle, ModelObject **model) {
    return border([&] {
        need_numpy();
        const HandleClass *of = handle_class(handle);
        if (!of)
            fail(PyExc_TypeError, "'%.200s' object is no matrix handle", Py_TYPE(handle)->tp_name);
        flat::Buffer<int32_t> ids;
        Ref owner;
        flat::Shape shape;
        if (!handle_ids(handle, *of, ids, shape, owner))
            fail_no_ids(handle, *of);
        // The elements keep the model alive as long as the caller keeps the handle.
        *model = owner.as<ModelObject>();
        return array_over(ids, static_cast<int>(shape.size()), shape.data());
    });
}

MatrixApi api;

void export_api(PyObject *module) {
    auto type = [](PyObject *cls) { return reinterpret_cast<PyTypeObject *>(cls); };
    api = {MatrixApi::current_version,
           type(mod.MVar),
           type(mod.MLinExpr),
           type(mod.MQuadExpr),
           type(mod.MConstr),
           type(mod.MQConstr),
           type(mod.MGenConstr),
           type(mod.MNLExpr),
           type(mod.MNLConstr),
           degree_of,
           rows_open,
           rows_write,
           rows_share,
           rows_close,
           quad_open,
           quad_write,
           quad_close,
           nonlinear_open,
           nonlinear_close,
           api_mvar,
           api_mconstr,
           api_ids};
    Ref capsule = check(PyCapsule_New(&api, "tarvopy._matrixapi._C_API", nullptr));
    check_status(PyModule_AddObjectRef(module, "_C_API", capsule.get()));
}

// ---- execution

PyObject *set_eager(PyObject *, PyObject *flag) {
    if (flag == Py_None)
        return PyBool_FromLong(eager);
    int value = PyObject_IsTrue(flag);
    if (value < 0)
        return nullptr;
    return PyBool_FromLong(std::exchange(eager, value != 0));
}

PyMethodDef functions[] = {
    {"_eager", set_eager, METH_O,
     "_eager(flag)\n--\n\nFor tests: whether every new array makes its objects at once (None: as it is). Returns the "
     "former "
     "setting."},
    {nullptr, nullptr, 0, nullptr},
};

void add_class(PyObject *module, const char *name, Ref cls) {
    check_status(PyModule_AddObjectRef(module, name, cls.get()));
}

// In the order in which the classes and functions are promised to be made.
void make_classes(PyObject *module) {
    make_matrix_base(module);
    add_class(module, "MVar", build_mvar_class());
    Ref mlinexpr = build_mlinexpr_class();
    mod.MLinExpr = Ref(mlinexpr).release();
    add_class(module, "MLinExpr", std::move(mlinexpr));
    add_class(module, "MQuadExpr", build_mquadexpr_class());
    add_class(module, "MConstr", build_mconstr_class());
    add_class(module, "MQConstr", build_mqconstr_class());
    add_class(module, "MGenConstr", build_mgenconstr_class());
    add_join_functions(module);
    add_class(module, "MNLExpr", build_mnlexpr_class());
    add_class(module, "MNLConstr", build_mnlconstr_class());
}

// The classes and cached collaborators are kept once a process.
bool initialised = false;

int execute(PyObject *module) {
    return border_status([&] {
        if (initialised)
            fail(PyExc_RuntimeError, "'_matrixapi' has already been imported. Re-initialisation is not supported.");
        fill_names();
        import_collaborators();
        make_classes(module);
        export_api(module);
        initialised = true;
    });
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void *>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "_matrixapi",
    "Arrays of variables, expressions and constraints: n-dimensional, with NumPy's shapes, indexing and broadcasting.",
    0,
    functions,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

} // namespace

} // namespace tarvopy

PyMODINIT_FUNC PyInit__matrixapi() {
    return PyModuleDef_Init(&tarvopy::definition);
}
