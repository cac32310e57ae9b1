// tarvopy._core: the scalar objects (model handle, variables, linear, quadratic and nonlinear expressions, constraint
// handles, comparisons).
#include "pysupport/interpreter.h"
#include "state.h"

namespace tarvopy::core {

State state{};
Counts counts{};

PyTypeObject *make_type(PyObject *module, PyType_Spec *spec, const char *name) {
    Ref type = check(PyType_FromModuleAndSpec(module, spec, nullptr));
    check_status(PyModule_AddObjectRef(module, name, type.get()));
    return reinterpret_cast<PyTypeObject *>(type.release());
}

namespace {

bool initialised = false;

Ref fetch(const char *module_name, const char *name) {
    Ref module = check(PyImport_ImportModule(module_name));
    return check(PyObject_GetAttrString(module.get(), name));
}

// Above an ndarray's, so that NumPy's arrays and scalars on the left leave the operator to the reflected one here.
void add_array_priority(PyTypeObject *type) {
    Ref priority = check(PyLong_FromLong(100));
    check_status(PyDict_SetItemString(type->tp_dict, "__array_priority__", priority.get()));
    PyType_Modified(type);
}

void execute(PyObject *module) {
    pysupport::require_main_interpreter("tarvopy._core"); // which the other modules but _highs load first
    if (initialised)
        fail(PyExc_RuntimeError, "'_core' has already been imported. Re-initialisation is not supported.");
    state.TarvoError = fetch("tarvopy._exception", "TarvoError").release();
    state.NoDataError = fetch("tarvopy._exception", "NoDataError").release();
    state.less_equal = check(PyUnicode_InternFromString("<")).release();
    state.greater_equal = check(PyUnicode_InternFromString(">")).release();
    state.equal = check(PyUnicode_InternFromString("=")).release();
    state.one = check(PyFloat_FromDouble(1.0)).release();
    state.zero = check(PyFloat_FromDouble(0.0)).release();
    add_model_type(module);
    add_scalar_types(module);
    add_linexpr_type(module);
    add_quadexpr_type(module);
    add_tempconstr_type(module);
    add_exprtree_type(module);
    add_nlexpr_type(module);
    add_genexpr_type(module);
    add_nlfunctions(module);
    add_array_priority(state.Var);
    add_array_priority(state.LinExpr);
    add_array_priority(state.QuadExpr);
    add_array_priority(state.NLExpr);
    add_array_priority(state.GenExpr);
    add_api(module);
    initialised = true;
}

int module_exec(PyObject *module) {
    return border_status([&] { execute(module); });
}

PyObject *module_counts(PyObject *, PyObject *) {
    return Py_BuildValue("{s:n,s:n,s:n,s:n,s:n,s:n}", "Var", counts.vars, "Constr", counts.constrs, "LinExpr",
                         counts.linexprs, "QuadExpr", counts.quadexprs, "NLExpr", counts.nlexprs, "_ExprTree",
                         counts.trees);
}

PyMethodDef methods[] = {
    {"_counts", module_counts, METH_NOARGS, "_counts()\n--\n\nHow many objects of the bulk types are alive."},
    {"_quicksum", method(quicksum), METH_FASTCALL | METH_KEYWORDS,
     "_quicksum(iterable)\n--\n\nThe sum of numbers, variables and expressions, scalar or matrix, in one pass; an "
     "empty LinExpr for none."},
    {}};

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, slot(module_exec)}, {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED}, {}};

PyModuleDef definition = {.m_base = PyModuleDef_HEAD_INIT,
                          .m_name = "tarvopy._core",
                          .m_doc = "The scalar objects: model handle, variables, linear, quadratic and nonlinear "
                                   "expressions, constraint handles.",
                          .m_size = 0,
                          .m_methods = methods,
                          .m_slots = slots};

} // namespace

} // namespace tarvopy::core

PyMODINIT_FUNC PyInit__core() {
    return PyModuleDef_Init(&tarvopy::core::definition);
}
