// GenExpr: a general function and its arguments, immutable. The functions of tarvopy.genfunc make it, the model reads
// it.
//
//   genfunc.max(x, 3.0)                    name "max", args (x, 3.0), axis None
//   genfunc.max(X, axis=0)                 name "max", args (X,), axis (0,)
//   genfunc.indicator(b, 1, x <= 2)        name "indicator", args (b, 1, <TempConstr>)
//
//   y == g, g == y, 3.0 == g   TempConstr; everything else is refused with advice, since y = f(...) is all that the
//                              solvers behind know
//
// It may refer to anything, but is made after what it refers to: a cycle through it passes through something mutable,
// which takes the cycle apart, so it needs no clearing of its own.
#include "state.h"

#include "pysupport/numpy.h"

#include <structmember.h>

#include <cstring>

namespace tarvopy::core {

namespace {

GenExprObject *as_genexpr(PyObject *object) {
    return reinterpret_cast<GenExprObject *>(object);
}

struct Function {
    const char *name;
    int type;
};
constexpr Function functions[] = {{"max", TRV_GEN_MAX},
                                  {"min", TRV_GEN_MIN},
                                  {"abs", TRV_GEN_ABS},
                                  {"all", TRV_GEN_AND},
                                  {"any", TRV_GEN_OR},
                                  {"pwl", TRV_GEN_PWL},
                                  {"indicator", TRV_GEN_INDICATOR}};

int type_of_name(PyObject *name) {
    if (PyUnicode_Check(name))
        for (auto [text, type] : functions)
            if (PyUnicode_CompareWithASCIIString(name, text) == 0)
                return type;
    fail(PyExc_ValueError, "%R is no general function; see tarvopy.genfunc", name);
}

const char *name_of(PyObject *self) {
    for (auto [text, type] : functions)
        if (type == as_genexpr(self)->type)
            return text;
    return "?";
}

// None, or axes as a tuple of ints that are at least 0.
Ref checked_axis(PyObject *axis) {
    if (!axis || axis == Py_None)
        return Ref::none();
    if (!PyTuple_Check(axis))
        fail(PyExc_TypeError, "axis is None or a tuple of ints, not '%.200s'", Py_TYPE(axis)->tp_name);
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(axis); ++i)
        if (!PyLong_Check(PyTuple_GET_ITEM(axis, i)) ||
            pysupport::check_value(PyLong_AsLong(PyTuple_GET_ITEM(axis, i))) < 0)
            fail(PyExc_ValueError, "axis %R is no index of an axis", PyTuple_GET_ITEM(axis, i));
    return Ref::borrow(axis);
}

PyObject *genexpr_new(PyTypeObject *, PyObject *args, PyObject *kwargs) {
    return border([&] {
        static const char *keywords[] = {"name", "args", "axis", nullptr};
        PyObject *name, *arguments, *axis = nullptr;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO|O:GenExpr", const_cast<char **>(keywords), &name, &arguments,
                                         &axis))
            throw PythonError{};
        int type = type_of_name(name);
        Ref own = check(PySequence_Tuple(arguments)), axes = checked_axis(axis);
        GenExprObject *self = PyObject_GC_New(GenExprObject, state.GenExpr);
        if (!self)
            throw PythonError{};
        self->type = type;
        self->args = own.release();
        self->axis = axes.release();
        PyObject_GC_Track(self);
        return Ref::steal(as_object(self));
    });
}

int genexpr_traverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(as_genexpr(self)->args);
    Py_VISIT(as_genexpr(self)->axis);
    return 0;
}

void genexpr_dealloc(PyObject *self) {
    PyTypeObject *type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Py_XDECREF(as_genexpr(self)->args);
    Py_XDECREF(as_genexpr(self)->axis);
    PyObject_GC_Del(self);
    Py_DECREF(type);
}

// ---- what it takes part in

[[noreturn]] void refuse_operator(PyObject *genexpr) {
    const char *name = name_of(genexpr);
    if (as_genexpr(genexpr)->type == TRV_GEN_INDICATOR)
        fail(PyExc_TypeError, "genfunc.indicator() is a constraint, not a value: give it to addConstr() as it is");
    fail(PyExc_TypeError,
         "genfunc.%s() is no expression to compute with: add a variable v with addConstr(v == genfunc.%s(...)) and use "
         "v",
         name, name);
}

PyObject *genexpr_unary(PyObject *self) {
    return border([&]() -> Ref { refuse_operator(self); });
}

PyObject *genexpr_binary(PyObject *a, PyObject *b) {
    return border([&]() -> Ref { refuse_operator(is_genexpr(a) ? a : b); });
}

PyObject *genexpr_power(PyObject *a, PyObject *b, PyObject *) {
    return genexpr_binary(a, b);
}

[[noreturn]] void refuse_comparison(PyObject *genexpr) {
    const char *name = name_of(genexpr);
    if (as_genexpr(genexpr)->type == TRV_GEN_INDICATOR)
        fail(PyExc_TypeError, "genfunc.indicator() is a constraint already: give it to addConstr() as it is");
    fail(PyExc_TypeError,
         "only == is taken with genfunc.%s(): add a variable v with addConstr(v == genfunc.%s(...)) and compare v",
         name, name);
}

// The other side stays as it is, whatever it is: the model says what it cannot read.
PyObject *genexpr_compare(PyObject *self, PyObject *other, int comparison) {
    return border([&] {
        if (comparison != Py_EQ || as_genexpr(self)->type == TRV_GEN_INDICATOR)
            refuse_comparison(self);
        return new_tempconstr(self, state.equal, other);
    });
}

// ---- text

// Small arrays of numbers show their values, larger ones and matrix objects their shape.
Ref argument_text(PyObject *argument) {
    PyObject *found = nullptr;
    check_status(PyObject_GetOptionalAttrString(argument, "shape", &found));
    Ref shape = Ref::steal(found);
    if (!shape || !PyTuple_Check(shape.get()) || PyTuple_GET_SIZE(shape.get()) == 0)
        return check(PyObject_Str(argument));
    constexpr long most_shown = 8;
    if (pysupport::is_array(argument) && PyTuple_GET_SIZE(shape.get()) == 1 &&
        pysupport::check_value(PyLong_AsLong(PyTuple_GET_ITEM(shape.get(), 0))) <= most_shown) {
        Ref list = check(PyObject_CallMethod(argument, "tolist", nullptr));
        return check(PyObject_Str(list.get()));
    }
    const char *name = Py_TYPE(argument)->tp_name, *dot = strrchr(name, '.');
    return check(PyUnicode_FromFormat("<%s %S>", dot ? dot + 1 : name, shape.get()));
}

PyObject *genexpr_str(PyObject *object) {
    return border([&] {
        auto *self = as_genexpr(object);
        Ref parts = check(PyList_New(0));
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(self->args); ++i) {
            Ref text = argument_text(PyTuple_GET_ITEM(self->args, i));
            check_status(PyList_Append(parts.get(), text.get()));
        }
        if (self->axis != Py_None) {
            Ref text = check(PyUnicode_FromFormat("axis=%S", self->axis));
            check_status(PyList_Append(parts.get(), text.get()));
        }
        Ref comma = check(PyUnicode_FromString(", ")), inner = check(PyUnicode_Join(comma.get(), parts.get()));
        return check(PyUnicode_FromFormat("%s(%U)", name_of(object), inner.get()));
    });
}

PyObject *genexpr_repr(PyObject *self) {
    return border([&] {
        Ref text = check(PyObject_Str(self));
        return check(PyUnicode_FromFormat("<GenExpr: %U>", text.get()));
    });
}

// ---- members

PyObject *get_name(PyObject *self, void *) {
    return PyUnicode_FromString(name_of(self));
}

PyObject *return_self(PyObject *self, PyObject *) {
    return Py_NewRef(self);
}

PyObject *refuse_pickling(PyObject *, PyObject *) {
    PyErr_SetString(PyExc_TypeError,
                    "cannot pickle 'tarvopy.GenExpr' object: its variables belong to a model of this process");
    return nullptr;
}

PyMethodDef methods[] = {{"__copy__", return_self, METH_NOARGS, nullptr},
                         {"__deepcopy__", return_self, METH_O, nullptr},
                         {"__reduce_ex__", refuse_pickling, METH_O, nullptr},
                         {}};

PyGetSetDef properties[] = {{"name", get_name, nullptr, "The function's name in tarvopy.genfunc.", nullptr}, {}};

PyMemberDef members[] = {
    {"args", T_OBJECT_EX, offsetof(GenExprObject, args), READONLY, "The arguments, a tuple."},
    {"axis", T_OBJECT_EX, offsetof(GenExprObject, axis), READONLY,
     "The axes of the one array argument over which the function goes, a tuple; None where it goes over the arguments, "
     "element by element."},
    {}};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char *>("GenExpr(name, args, axis=None)\n--\n\nA general function of variables, as the "
                                   "functions of tarvopy.genfunc make it: one side of an equation for "
                                   "Model.addConstr, or an indicator constraint.")},
    {Py_tp_new, slot(genexpr_new)},
    {Py_tp_dealloc, slot(genexpr_dealloc)},
    {Py_tp_traverse, slot(genexpr_traverse)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {Py_tp_members, members},
    {Py_tp_str, slot(genexpr_str)},
    {Py_tp_repr, slot(genexpr_repr)},
    {Py_tp_hash, slot(PyObject_HashNotImplemented)}, // == makes a constraint
    {Py_tp_richcompare, slot(genexpr_compare)},
    {Py_nb_add, slot(genexpr_binary)},
    {Py_nb_subtract, slot(genexpr_binary)},
    {Py_nb_multiply, slot(genexpr_binary)},
    {Py_nb_true_divide, slot(genexpr_binary)},
    {Py_nb_matrix_multiply, slot(genexpr_binary)},
    {Py_nb_power, slot(genexpr_power)},
    {Py_nb_negative, slot(genexpr_unary)},
    {Py_nb_positive, slot(genexpr_unary)},
    {Py_nb_absolute, slot(genexpr_unary)},
    {}};

PyType_Spec spec = {"tarvopy.GenExpr", sizeof(GenExprObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE, slots};

} // namespace

void add_genexpr_type(PyObject *module) {
    state.GenExpr = make_type(module, &spec, "GenExpr");
}

} // namespace tarvopy::core
