// ModelBase: the model handle in a Python object, and its table of methods.

#include "modelapi.h"

namespace tarvopy::modelapi {

ModelObject *handle_of(PyObject *self) {
    ModelObject *handle = reinterpret_cast<ModelBase *>(self)->handle;
    if (!handle)
        fail(PyExc_RuntimeError,
             "this Model was never initialised: a class derived from Model must call Model.__init__");
    return handle;
}

TRVmodel *store_of(ModelObject *handle) {
    TRVmodel *store = core().store(reinterpret_cast<PyObject *>(handle));
    if (!store)
        throw PythonError{};
    return store;
}

TRVmodel *engine_store(PyObject *handle) {
    if (!PyObject_TypeCheck(handle, core().Model))
        fail(PyExc_TypeError, "expected a model handle, not '%.200s'", Py_TYPE(handle)->tp_name);
    TRVmodel *store = reinterpret_cast<ModelObject *>(handle)->store;
    if (!store)
        refuse(TRV_ERROR_CLOSED, "the model is closed");
    return store;
}

void succeed(TRVmodel *store, int code) {
    if (code == TRV_OK)
        return;
    core().raise(store, code);
    throw PythonError{};
}

void refuse(int code, const char *message) {
    core().raise_error(code, message);
    throw PythonError{};
}

void require_model(const ModelObject *model, const ModelObject *handle, const char *what) {
    if (!model || model == handle)
        return;
    char message[120];
    PyOS_snprintf(message, sizeof message, "%.60s of another model: elements of two models never mix", what);
    refuse(TRV_ERROR_NOT_IN_MODEL, message);
}

namespace {

ModelBase *base(PyObject *self) {
    return reinterpret_cast<ModelBase *>(self);
}

int model_init(PyObject *self, PyObject *args, PyObject *kwargs) {
    return pysupport::border_status([&] {
        static const char *keywords[] = {"name", nullptr};
        PyObject *name = nullptr;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|U:Model", const_cast<char **>(keywords), &name))
            throw PythonError{};
        if (base(self)->handle)
            fail(PyExc_RuntimeError, "a Model is initialised once");
        Ref text = name ? Ref::borrow(name) : check(PyUnicode_FromString(""));
        Ref handle = check(PyObject_CallOneArg(reinterpret_cast<PyObject *>(core().Model), text.get()));
        base(self)->handle = reinterpret_cast<ModelObject *>(handle.release());
    });
}

void model_dealloc(PyObject *self) {
    PyTypeObject *type = Py_TYPE(self);
    Py_CLEAR(base(self)->handle);
    type->tp_free(self);
    Py_DECREF(type);
}

PyObject *get_cmodel(PyObject *self, void *) {
    return border([&] { return Ref::borrow(reinterpret_cast<PyObject *>(handle_of(self))); });
}

PyMethodDef row(const char *name, Method function, const char *doc) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)), METH_FASTCALL | METH_KEYWORDS,
            doc};
}

PyMethodDef methods[] = {
    row("addVar", model_addVar,
        "addVar($self, /, lb=0.0, ub=tarvopy.inf, obj=0.0, vtype='C', name='')\n--\n\n"
        "Add one variable, lb <= x <= ub, with objective coefficient obj; the Var is pending until update().\n\n"
        "vtype: 'C' continuous, 'B' binary (bounds are cut to [0, 1]), 'I' integer, 'S' semi-continuous (0, or between "
        "lb and a\n"
        "finite ub). Magnitudes of 1e20 and more mean no bound. NaN is refused with TarvoError."),
    row("addMVar", model_addMVar,
        "addMVar($self, /, shape, lb=0.0, ub=tarvopy.inf, obj=0.0, vtype='C', name='')\n--\n\n"
        "Add an array of variables and return its MVar.\n\n"
        "shape: an int or a tuple of ints, () too. lb, ub, obj, vtype: single values or anything that broadcasts to "
        "shape, see\n"
        "addVar. name: one string gives name[i,j] for each element, an array of strings of this shape names each.\n"
        "ValueError for shapes that do not broadcast and beyond 2**31 - 1 elements; then nothing was added."),
    row("addConstr", model_addConstr,
        "addConstr($self, /, tempconstr, name='')\n--\n\n"
        "Add what a comparison with <=, >= or == gave, one row for each element of the broadcast shape of its "
        "sides.\n\n"
        "Scalar objects and numbers on both sides give a Constr (QConstr where a side is quadratic, NLConstr where one "
        "is\n"
        "nonlinear), arrays (0-dimensional ones too) an MConstr (MQConstr, MNLConstr) of the broadcast shape, pending "
        "until\n"
        "update(). An infinite right-hand side means no bound. An equation with a function of tarvopy.genfunc, and\n"
        "genfunc.indicator(), give a GenConstr or an MGenConstr by the same rule.\n"
        "name as for addMVar. TypeError for anything but a comparison; ValueError for shapes that do not broadcast and "
        "beyond\n"
        "2**31 elements; TarvoError for NaN, infinite coefficients, bounds that can never hold, parts made of "
        "constants "
        "alone that\n"
        "have no finite value (log(-1), 1/0; the row is named) and elements that are removed or of another model. On "
        "an "
        "error\n"
        "nothing was added."),
    row("addRange", model_addRange,
        "addRange($self, /, expr, lb, ub, name='')\n--\n\n"
        "Add lb <= expr <= ub as one two-sided row for each element; lb, ub and expr broadcast. See addConstr.\n\n"
        "expr is linear or nonlinear; TypeError for a quadratic one, since a quadratic row has one side."),
    row("addSOS", model_addSOS,
        "addSOS($self, /, kind, vars, weights=None, name='')\n--\n\n"
        "Add a special ordered set, a GenConstr: of kind 1 at most one of the variables is nonzero, of kind 2 at most "
        "two\n"
        "are, and these are neighbours in the order of the weights.\n\n"
        "vars: variables, scalar or matrix (in C order), and lists of them; weights: a number for each, all different, "
        "else\n"
        "1, 2, ... TypeError for what is no variable; ValueError for another kind and a wrong number of weights; "
        "TarvoError\n"
        "for variables that are removed or of another model."),
    row("setObjective", model_setObjective,
        "setObjective($self, /, expr, sense=None)\n--\n\n"
        "Replace the objective (every Obj, ObjConstant, the quadratic terms and the nonlinear part) by expr: a number "
        "or an\n"
        "expression of any degree, scalar or an array of one element.\n\n"
        "Terms that name the same pair of variables, in either order, are summed. sense: TRV.MINIMIZE, TRV.MAXIMIZE or "
        "None,\n"
        "which keeps ModelSense. ValueError for an array of any other size; then the old objective stays."),
    row("update", model_update,
        "update($self, /)\n--\n\nApply what is pending: added elements get their positions, removed ones go."),
    row("remove", model_remove,
        "remove($self, what)\n--\n\n"
        "Remove variables or constraints: a scalar or matrix handle, or a list of them. Elements in the model go at "
        "the next\n"
        "update, pending ones at once. Variables may go together with the nonlinear and general constraints that they "
        "stand in.\n"
        "TarvoError for elements of another model (NOT_IN_MODEL) and for variables that stand in a nonlinear or "
        "general\n"
        "constraint or in a nonlinear objective that stays; then nothing was removed."),
    row("getVars", model_getVars,
        "getVars($self, /)\n--\n\nThe variables in the model's order, as a list of Var; pending ones are not among "
        "them."),
    row("getConstrs", model_getConstrs,
        "getConstrs($self, /)\n--\n\nThe linear rows in the model's order, as a list of Constr; pending ones are not "
        "among them."),
    row("getQConstrs", model_getQConstrs,
        "getQConstrs($self, /)\n--\n\nThe quadratic rows in the model's order, as a list of QConstr; pending ones are "
        "not among them."),
    row("getGenConstrs", model_getGenConstrs,
        "getGenConstrs($self, /)\n--\n\nThe general constraints in the model's order, as a list of GenConstr; pending "
        "ones are not among them."),
    row("getNLConstrs", model_getNLConstrs,
        "getNLConstrs($self, /)\n--\n\nThe nonlinear rows in the model's order, as a list of NLConstr; pending ones "
        "are not among them."),
    row("getVarByName", model_getVarByName,
        "getVarByName($self, name)\n--\n\nThe first Var of this name, pending ones included, or None."),
    row("getConstrByName", model_getConstrByName,
        "getConstrByName($self, name)\n--\n\nThe first Constr of this name, pending ones included, or None."),
    row("getQConstrByName", model_getQConstrByName,
        "getQConstrByName($self, name)\n--\n\nThe first QConstr of this name, pending ones included, or None."),
    row("setCoeff", model_setCoeff,
        "setCoeff($self, /, constr, var, value)\n--\n\n"
        "Set the coefficient of var in the linear row constr, at once; 0 takes the term away.\n\n"
        "constr: Constr or MConstr, var: Var or MVar, value: a number or an array; the three broadcast. Of repeated "
        "pairs the\n"
        "last one wins. On an error nothing has changed."),
    row("getCoeff", model_getCoeff,
        "getCoeff($self, /, constr, var)\n--\n\n"
        "The coefficient of var in constr (0.0 where it does not occur): a float for a Constr and a Var, else a "
        "float64 array\n"
        "of the broadcast shape."),
    row("getA", model_getA,
        "getA($self, /)\n--\n\n"
        "The matrix of the linear rows as a scipy.sparse.csr_matrix of shape (NumConstrs, NumVars), as of the last "
        "update."),
    row("getRow", model_getRow,
        "getRow($self, constr)\n--\n\nThe terms of a row as an expression whose constant is 0.\n\n"
        "A Constr, or an MConstr of one element, gives a LinExpr; a QConstr, or such an MQConstr, a QuadExpr."),
    row("getAttr", model_getAttr,
        "getAttr($self, attrname)\n--\n\nThe value of a model attribute; applies what is pending first. m.NumVars "
        "means m.getAttr('NumVars')."),
    row("setAttr", model_setAttr,
        "setAttr($self, attrname, value)\n--\n\nSet a model attribute, at once. m.ModelSense = -1 means "
        "m.setAttr('ModelSense', -1)."),
    row("_attributes", model_attributes, "_attributes($self, /)\n--\n\nThe names of the model attributes."),
    row("_relax_into", model_relax_into,
        "_relax_into($self, target, /)\n--\n\nMakes target, an empty model, the continuous relaxation of this one."),
    row("_fix_into", model_fix_into,
        "_fix_into($self, target, /)\n--\n\nMakes target, an empty model, this one with its integers fixed at the last "
        "solution."),
    row("_read", model_read,
        "_read($self, path, /)\n--\n\nReads a model file into an empty model, or a .sol file into Start."),
    row("_write", model_write, "_write($self, path, /)\n--\n\nWrites a model file, or the solution (.sol)."),
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"_cmodel", get_cmodel, nullptr, "The model handle, shared by everything of this model.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char *>("The native half of Model.")},
    {Py_tp_init, reinterpret_cast<void *>(model_init)},
    {Py_tp_new, reinterpret_cast<void *>(PyType_GenericNew)},
    {Py_tp_dealloc, reinterpret_cast<void *>(model_dealloc)},
    {Py_tp_repr, reinterpret_cast<void *>(model_repr)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {0, nullptr},
};

PyType_Spec spec{"tarvopy._modelapi.ModelBase", sizeof(ModelBase), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots};

} // namespace

Ref make_model_base(PyObject *module) {
    return check(PyType_FromModuleAndSpec(module, &spec, nullptr));
}

} // namespace tarvopy::modelapi
