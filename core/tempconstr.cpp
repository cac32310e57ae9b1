// TempConstr: what a comparison of expressions gives, (lhs, sense, rhs) as they stood. The model turns it into
// constraints.
//
//   x + y <= 3        TempConstr(<LinExpr>, "<", 3)
//   A @ x >= b        TempConstr(<MLinExpr>, ">", array)
#include "operators.h"
#include "pysupport/sparse.h"

#include <structmember.h>

namespace tarvopy::core {

namespace {

TempConstrObject *as_tempconstr(PyObject *object) {
    return reinterpret_cast<TempConstrObject *>(object);
}

PyObject *tempconstr_new(PyTypeObject *, PyObject *args, PyObject *kwargs) {
    return border([&] {
        static const char *keywords[] = {"lhs", "sense", "rhs", nullptr};
        PyObject *lhs, *sense, *rhs;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOO:TempConstr", const_cast<char **>(keywords), &lhs, &sense,
                                         &rhs))
            throw PythonError{};
        return new_tempconstr(lhs, sense, rhs);
    });
}

int tempconstr_traverse(PyObject *self, visitproc visit, void *arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(as_tempconstr(self)->lhs);
    Py_VISIT(as_tempconstr(self)->sense);
    Py_VISIT(as_tempconstr(self)->rhs);
    return 0;
}

int tempconstr_clear(PyObject *self) {
    // None, not NULL: whoever still sees the object while its cycle is taken apart finds a side.
    for (PyObject **field : {&as_tempconstr(self)->lhs, &as_tempconstr(self)->sense, &as_tempconstr(self)->rhs})
        Py_XSETREF(*field, Py_NewRef(Py_None));
    return 0;
}

// A comparison made by hand may have another one as its side, and so on: that many calls of this function in each other
// would be too many for the stack.
void tempconstr_dealloc(PyObject *self) {
    PyTypeObject *type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    Py_TRASHCAN_BEGIN(self, tempconstr_dealloc) Py_XDECREF(as_tempconstr(self)->lhs);
    Py_XDECREF(as_tempconstr(self)->sense);
    Py_XDECREF(as_tempconstr(self)->rhs);
    PyObject_GC_Del(self);
    Py_DECREF(type);
    Py_TRASHCAN_END
}

bool same_sense(PyObject *a, PyObject *b) {
    return a == b || (PyUnicode_Check(a) && PyUnicode_Compare(a, b) == 0);
}

// x == y of two variables must tell whether they are the same, so that `in` and dictionaries work.
int tempconstr_bool(PyObject *object) {
    auto *self = as_tempconstr(object);
    if (Py_TYPE(self->lhs) == state.Var && Py_TYPE(self->rhs) == state.Var && same_sense(self->sense, state.equal))
        return self->lhs == self->rhs;
    return border_status([&] {
        fail_code(
            TRV_ERROR_INVALID_ARGUMENT,
            "A comparison of expressions is a constraint and has no truth value. For bounds on both sides use "
            "addRange(expr, "
            "lb, ub) or two constraints instead of lb <= expr <= ub; in an 'if' compare values (x.X, expr.getValue())");
    });
}

struct ReprEntered {
    PyObject *object;
    ~ReprEntered() { Py_ReprLeave(object); }
};

// A sparse matrix by its kind and shape: its entries, which may be damaged, are SciPy's to print when somebody asks.
Ref side_text(PyObject *side) {
    return check(pysupport::is_sparse(side) ? PyObject_Repr(side) : PyObject_Str(side));
}

PyObject *tempconstr_repr(PyObject *object) {
    return border([&] {
        auto *self = as_tempconstr(object);
        bool constant = same_sense(self->sense, state.equal) || same_sense(self->sense, state.less_equal) ||
                        same_sense(self->sense, state.greater_equal);
        if (Py_ReprEnter(object) != 0) // a side may hold this object
            return check(PyUnicode_FromString("<TempConstr: ...>"));
        ReprEntered entered{object};
        Ref lhs = side_text(self->lhs), rhs = side_text(self->rhs);
        return check(
            PyUnicode_FromFormat("<TempConstr: %U %S%s %U>", lhs.get(), self->sense, constant ? "=" : "", rhs.get()));
    });
}

PyMemberDef members[] = {{"lhs", T_OBJECT_EX, offsetof(TempConstrObject, lhs), READONLY, "The left side, as given."},
                         {"sense", T_OBJECT_EX, offsetof(TempConstrObject, sense), READONLY,
                          "TRV.LESS_EQUAL, TRV.GREATER_EQUAL or TRV.EQUAL."},
                         {"rhs", T_OBJECT_EX, offsetof(TempConstrObject, rhs), READONLY, "The right side, as given."},
                         {}};

PyType_Slot slots[] = {
    {Py_tp_doc,
     const_cast<char *>(
         "TempConstr(lhs, sense, rhs)\n--\n\nThe result of a comparison of expressions; Model.addConstr makes "
         "constraints of it.")},
    {Py_tp_new, slot(tempconstr_new)},
    {Py_tp_dealloc, slot(tempconstr_dealloc)},
    {Py_tp_traverse, slot(tempconstr_traverse)},
    {Py_tp_clear, slot(tempconstr_clear)},
    {Py_tp_repr, slot(tempconstr_repr)},
    {Py_tp_members, members},
    {Py_nb_bool, slot(tempconstr_bool)},
    {}};

PyType_Spec spec = {"tarvopy.TempConstr", sizeof(TempConstrObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE, slots};

} // namespace

Ref new_tempconstr(PyObject *lhs, PyObject *sense, PyObject *rhs) {
    TempConstrObject *self = PyObject_GC_New(TempConstrObject, state.TempConstr);
    if (!self)
        throw PythonError{};
    self->lhs = Py_NewRef(lhs);
    self->sense = Py_NewRef(sense);
    self->rhs = Py_NewRef(rhs);
    PyObject_GC_Track(self);
    return Ref::steal(as_object(self));
}

void add_tempconstr_type(PyObject *module) {
    state.TempConstr = make_type(module, &spec, "TempConstr");
}

} // namespace tarvopy::core
