// The type NLExpr: construction, methods, text.
#include "nlexpr.h"

#include "term_lists.h"

namespace tarvopy::core {

namespace {

PyObject *nlexpr_new(PyTypeObject *, PyObject *args, PyObject *kwargs) {
    return border([&] {
        static const char *keywords[] = {"arg", nullptr};
        PyObject *arg = nullptr;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|O:NLExpr", const_cast<char **>(keywords), &arg))
            throw PythonError{};
        return make_nlexpr(arg ? coerced_tree(arg) : constant_tree(0.0));
    });
}

void nlexpr_dealloc(PyObject *object) {
    PyTypeObject *type = Py_TYPE(object);
    PyObject *root = as_nlexpr(object)->root;
    PyObject_Free(object);
    --counts.nlexprs;
    Py_DECREF(root);
    Py_DECREF(type);
}

PyObject *get_root(PyObject *self, void *) {
    return Py_NewRef(as_nlexpr(self)->root);
}

int put_root(PyObject *self, PyObject *tree, void *) {
    return border_status([&] {
        if (!tree)
            fail(PyExc_AttributeError, "the tree of an NLExpr cannot be deleted");
        set_root(as_nlexpr(self), Ref::borrow(as_object(checked_tree(tree))));
    });
}

PyObject *get_value(PyObject *self, PyObject *) {
    return border([&] { return check(PyFloat_FromDouble(value_of(as_tree(as_nlexpr(self)->root)))); });
}

PyObject *copy_method(PyObject *self, PyObject *) {
    return border([&] { return make_nlexpr(Ref::borrow(as_nlexpr(self)->root)); });
}

PyObject *from_constant(PyObject *, PyObject *value) {
    return border([&] { return make_nlexpr(constant_tree(finite_constant(value))); });
}

PyObject *from_var(PyObject *, PyObject *var) {
    return border([&] {
        if (!is_var(var))
            fail(PyExc_TypeError, "_from_var() takes a Var, not '%.200s'", Py_TYPE(var)->tp_name);
        return make_nlexpr(variable_tree(var));
    });
}

PyObject *coerce_to_exprtree(PyObject *, PyObject *value) {
    return border([&] { return coerced_tree(value); });
}

PyObject *refuse_pickling(PyObject *, PyObject *) {
    PyErr_SetString(PyExc_TypeError,
                    "cannot pickle 'tarvopy.NLExpr' object: its variables belong to a model of this process");
    return nullptr;
}

Ref text_of(PyObject *self) {
    Ref root = Ref::borrow(as_nlexpr(self)->root);
    return text_object(infix_text(as_tree(root.get())));
}

PyObject *nlexpr_str(PyObject *self) {
    return border([&] { return text_of(self); });
}

PyObject *nlexpr_repr(PyObject *self) {
    return border([&] {
        Ref text = text_of(self);
        return check(PyUnicode_FromFormat("<NLExpr: %U>", text.get()));
    });
}

PyMethodDef methods[] = {
    {"getValue", get_value, METH_NOARGS,
     "getValue($self)\n--\n\nThe value at the last solution; NoDataError where there is none. Where a function is not "
     "defined it is NaN or infinite."},
    {"copy", copy_method, METH_NOARGS,
     "copy($self)\n--\n\nA new expression around the same tree; changing one does not change the other."},
    {"_from_constant", from_constant, METH_O | METH_STATIC,
     "_from_constant(value, /)\n--\n\nA finite number as an expression."},
    {"_from_var", from_var, METH_O | METH_STATIC, "_from_var(var, /)\n--\n\nA variable as an expression."},
    {"_coerce_to_exprtree", coerce_to_exprtree, METH_O | METH_STATIC,
     "_coerce_to_exprtree(value, /)\n--\n\nThe tree of a number, Var, LinExpr, QuadExpr or NLExpr."},
    {"__copy__", copy_method, METH_NOARGS, nullptr},
    {"__deepcopy__", copy_method, METH_O, nullptr},
    {"__reduce_ex__", refuse_pickling, METH_O, nullptr},
    {}};

PyGetSetDef properties[] = {{"_root", get_root, put_root, "The expression's tree; can be set to another.", nullptr},
                            {}};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char *>("NLExpr(arg=0.0)\n--\n\nA nonlinear expression of scalar variables: around an "
                                   "_ExprTree, or of the value of a number, Var, LinExpr, QuadExpr or NLExpr.")},
    {Py_tp_new, slot(nlexpr_new)},
    {Py_tp_dealloc, slot(nlexpr_dealloc)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {Py_tp_str, slot(nlexpr_str)},
    {Py_tp_repr, slot(nlexpr_repr)},
    {Py_tp_hash, slot(PyObject_HashNotImplemented)}, // mutable, and == makes a constraint
    {Py_nb_inplace_add, slot(nonlinear_inplace_add)},
    {Py_nb_inplace_subtract, slot(nonlinear_inplace_subtract)},
    {Py_nb_inplace_multiply, slot(nonlinear_inplace_multiply)},
    {Py_nb_inplace_true_divide, slot(nonlinear_inplace_divide)},
    {Py_nb_inplace_power, slot(nonlinear_inplace_power)},
    TARVOPY_OPERATOR_SLOTS{}};

PyType_Spec spec = {"tarvopy.NLExpr", sizeof(NLExprObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE, slots};

} // namespace

Ref make_nlexpr(Ref tree) {
    NLExprObject *self = PyObject_New(NLExprObject, state.NLExpr);
    if (!self)
        throw PythonError{};
    self->root = tree.release();
    ++counts.nlexprs;
    return Ref::steal(as_object(self));
}

void set_root(NLExprObject *self, Ref tree) {
    Ref old = Ref::steal(std::exchange(self->root, tree.release()));
}

void add_nlexpr_type(PyObject *module) {
    state.NLExpr = make_type(module, &spec, "NLExpr");
}

} // namespace tarvopy::core
