#include "scalars.h"

#include "model_handle.h"
#include "operators.h"

#include <cstdio>
#include <memory>

namespace tarvopy::core {

namespace {

PyTypeObject *type_of(int kind) {
    switch (kind) {
    case TRV_VAR:
        return state.Var;
    case TRV_CONSTR:
        return state.Constr;
    case TRV_QCONSTR:
        return state.QConstr;
    case TRV_GENCONSTR:
        return state.GenConstr;
    default:
        return state.NLConstr;
    }
}

Py_ssize_t *count_of(int kind) {
    static Py_ssize_t others = 0;
    return kind == TRV_VAR ? &counts.vars : kind == TRV_CONSTR ? &counts.constrs : &others;
}

ScalarObject *make_scalar(ModelObject *model, PyTypeObject *type, IdTable &table, Py_ssize_t *count, int32_t id) {
    ScalarObject *self = PyObject_New(ScalarObject, type);
    if (!self)
        throw PythonError{};
    self->cmodel = reinterpret_cast<ModelObject *>(Py_NewRef(as_object(model)));
    self->id = id;
    ++*count;
    try {
        table.insert(id, self);
    } catch (...) {
        --*count;
        Py_DECREF(self->cmodel);
        PyObject_Free(self);
        Py_DECREF(type);
        throw;
    }
    return self;
}

void scalar_dealloc(PyObject *self) {
    PyTypeObject *type = Py_TYPE(self);
    ModelObject *model = as_scalar(self)->cmodel;
    int kind = kind_of(self);
    id_table(model, kind).remove(as_scalar(self)->id);
    --*count_of(kind);
    PyObject_Free(self);
    Py_DECREF(model); // last: the handle's weak references may run Python code
    Py_DECREF(type);
}

// The model and the id mixed into 64 bits (the finaliser of splitmix64).
Py_hash_t scalar_hash(PyObject *self) {
    auto *scalar = as_scalar(self);
    uint64_t z =
        reinterpret_cast<uintptr_t>(scalar->cmodel) + 0x9e3779b97f4a7c15u * (static_cast<uint64_t>(scalar->id) + 1);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    auto hash = static_cast<Py_hash_t>(z ^ (z >> 31));
    return hash == -1 ? -2 : hash;
}

int32_t position(PyObject *self) {
    auto *scalar = as_scalar(self);
    return TRVposition(open_store(scalar->cmodel), kind_of(self), scalar->id);
}

PyObject *get_index(PyObject *self, void *) {
    return border([&] { return check(PyLong_FromLong(position(self))); });
}

PyObject *get_cmodel(PyObject *self, void *) {
    return Py_NewRef(as_object(as_scalar(self)->cmodel));
}

const char *short_name(PyObject *self) {
    const char *name = Py_TYPE(self)->tp_name; // "tarvopy.Var"
    const char *dot = strrchr(name, '.');
    return dot ? dot + 1 : name;
}

Ref text(const std::string &utf8) {
    return check(PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "replace"));
}

PyObject *scalar_str(PyObject *self) {
    return border([&] {
        Label label = label_of(self);
        return text(label.is_name ? label.text : std::string("<") + short_name(self) + " " + label.text + ">");
    });
}

PyObject *scalar_repr(PyObject *self) {
    return border([&] {
        const ScalarObject *scalar = as_scalar(self);
        std::string inner;
        if (!unavailable(scalar->cmodel) && TRVposition(scalar->cmodel->store, kind_of(self), scalar->id) == -1)
            inner = "*awaiting update*";
        else
            inner = label_of(self).text;
        return text(std::string("<") + short_name(self) + " " + inner + ">");
    });
}

PyObject *return_self(PyObject *self, PyObject *) {
    return Py_NewRef(self);
}

PyObject *refuse_pickling(PyObject *self, PyObject *) {
    PyErr_Format(PyExc_TypeError, "cannot pickle '%s' object: it is a handle into a model of this process",
                 Py_TYPE(self)->tp_name);
    return nullptr;
}

PyMethodDef scalar_methods[] = {{"getAttr", method(scalar_get_attr), METH_FASTCALL | METH_KEYWORDS,
                                 "getAttr($self, attrname)\n--\n\nThe value of an attribute, by name: x.getAttr('UB') "
                                 "is x.UB. NoDataError for what only "
                                 "a solve gives and none gave; TarvoError (NOT_IN_MODEL) once the element is removed."},
                                {"setAttr", method(scalar_set_attr), METH_FASTCALL | METH_KEYWORDS,
                                 "setAttr($self, attrname, value)\n--\n\nSets an attribute, at once: x.setAttr('UB', "
                                 "3) is x.UB = 3. TypeError and TarvoError "
                                 "for values that it cannot have; then nothing has changed."},
                                {"__copy__", return_self, METH_NOARGS, nullptr},
                                {"__deepcopy__", return_self, METH_O, nullptr},
                                {"__reduce_ex__", refuse_pickling, METH_O, nullptr},
                                {"__dir__", scalar_dir, METH_NOARGS, nullptr},
                                {}};

constexpr const char *index_doc =
    "Position in the model; -1 while it awaits the model's update, -2 or less once removed.";

#define TARVOPY_SCALAR(Type, index_name, type_doc, ...)                                                                \
    PyGetSetDef Type##_properties[] = {                                                                                \
        {"index", get_index, nullptr, index_doc},                                                                      \
        {index_name, get_index, nullptr, index_doc},                                                                   \
        {"_cmodel", get_cmodel, nullptr, "The model handle, the same object for everything of one model."},            \
        {}};                                                                                                           \
    PyType_Slot Type##_slots[] = {{Py_tp_doc, const_cast<char *>(type_doc)}, {Py_tp_dealloc, slot(scalar_dealloc)},    \
                                  {Py_tp_hash, slot(scalar_hash)},           {Py_tp_str, slot(scalar_str)},            \
                                  {Py_tp_repr, slot(scalar_repr)},           {Py_tp_getattro, slot(scalar_getattro)},  \
                                  {Py_tp_setattro, slot(scalar_setattro)},   {Py_tp_methods, scalar_methods},          \
                                  {Py_tp_getset, Type##_properties},         __VA_ARGS__{}};                           \
    PyType_Spec Type##_spec = {"tarvopy." #Type, sizeof(ScalarObject), 0,                                              \
                               Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,      \
                               Type##_slots};

TARVOPY_SCALAR(
    Var, "_colno",
    "A decision variable, a handle into its model; Model.addVar and the elements of an MVar give it.\n\nIts "
    "attributes LB, UB, Obj, VType, VarName, Start (settable), X and RC are those of the model. Hashable; == of "
    "two gives a comparison whose truth is whether they are the same variable.",
    TARVOPY_OPERATOR_SLOTS)
TARVOPY_SCALAR(
    Constr, "_rowno",
    "A linear row of a model, which Model.addConstr and Model.addRange give.\n\nAttributes: RHS, Sense, Lower, "
    "Upper, ConstrName (settable), Pi and Slack.")
TARVOPY_SCALAR(
    QConstr, "_qconstrno",
    "A quadratic row of a model, which Model.addConstr gives.\n\nAttributes: QRHS, QName (settable), QSense, QPi "
    "and QSlack.")
TARVOPY_SCALAR(GenConstr, "_genconstrno",
               "A general constraint of a model, which Model.addConstr and Model.addSOS give.\n\nAttributes: GenName "
               "(settable) and GenType, one of TRV.GEN_MAX to TRV.GEN_SOS2.")
TARVOPY_SCALAR(
    NLConstr, "_nlconstrno",
    "A nonlinear row of a model, which Model.addConstr and Model.addRange give.\n\nAttributes: NLName (settable) "
    "and NLSlack.")

const char *name_attribute(int kind) {
    switch (kind) {
    case TRV_VAR:
        return "VarName";
    case TRV_CONSTR:
        return "ConstrName";
    case TRV_QCONSTR:
        return "QName";
    case TRV_GENCONSTR:
        return "GenName";
    default:
        return "NLName";
    }
}

} // namespace

int kind_of(PyObject *scalar) {
    PyTypeObject *type = Py_TYPE(scalar);
    if (type == state.Var)
        return TRV_VAR;
    if (type == state.Constr)
        return TRV_CONSTR;
    if (type == state.QConstr)
        return TRV_QCONSTR;
    return type == state.GenConstr ? TRV_GENCONSTR : TRV_NLCONSTR;
}

Ref scalar_of(ModelObject *model, int kind, int32_t id) {
    PyObject *out;
    scalars_of(model, kind, 1, &id, 1, &out);
    return Ref::steal(out);
}

void scalars_of(ModelObject *model, int kind, int64_t n, const int32_t *ids, int64_t step, PyObject **out) {
    check_ids(model, kind, n, ids, step);
    IdTable &table = id_table(model, kind);
    PyTypeObject *type = type_of(kind);
    Py_ssize_t *count = count_of(kind);
    int64_t made = 0;
    try {
        for (; made < n; ++made) {
            // Random ids miss the cache three times each: the slot is asked for well ahead, the object a little ahead.
            if (made + 16 < n)
                table.prefetch_slot(ids[(made + 16) * step]);
            if (made + 8 < n)
                __builtin_prefetch(table.find(ids[(made + 8) * step]), 1);
            int32_t id = ids[made * step];
            ScalarObject *object = table.find(id);
            out[made] = object ? Py_NewRef(as_object(object)) : as_object(make_scalar(model, type, table, count, id));
        }
    } catch (...) {
        clear_slots(out, made);
        throw;
    }
}

void check_ids(ModelObject *model, int kind, int64_t n, const int32_t *ids, int64_t step) {
    // Ids are never used again, so objects may be made after closing too; using them then says that the model is
    // closed.
    uint32_t end =
        model->store ? static_cast<uint32_t>(TRVidcount(model->store, kind) + model->ahead) : uint32_t{INT32_MAX};
    uint32_t largest = 0; // negative ids come out above every count
    for (int64_t i = 0; i < n; ++i)
        largest = std::max(largest, static_cast<uint32_t>(ids[i * step]));
    if (n > 0 && largest >= end)
        fail_code(TRV_ERROR_NOT_IN_MODEL, "the model has no element with the id %d", static_cast<int>(largest));
}

Label label_of(PyObject *scalar) {
    const ScalarObject *self = as_scalar(scalar);
    int kind = kind_of(scalar);
    if (const char *why = unavailable(self->cmodel))
        return {std::string("(") + why + ")", false};
    TRVmodel *store = self->cmodel->store;
    if (TRVposition(store, kind, self->id) < -1)
        return {"(removed)", false};
    char *text = nullptr;
    int64_t *offset = nullptr;
    if (TRVgetstrs(store, name_attribute(kind), 1, nullptr, self->id, &text, &offset) != TRV_OK)
        throw std::bad_alloc(); // all else was looked at above
    const std::unique_ptr<char, void (*)(void *)> text_owner(text, TRVfree);
    const std::unique_ptr<int64_t, void (*)(void *)> offset_owner(offset, TRVfree);
    return {std::string(text + offset[0], text + offset[1]), true};
}

void add_scalar_types(PyObject *module) {
    state.Var = make_type(module, &Var_spec, "Var");
    state.Constr = make_type(module, &Constr_spec, "Constr");
    state.QConstr = make_type(module, &QConstr_spec, "QConstr");
    state.GenConstr = make_type(module, &GenConstr_spec, "GenConstr");
    state.NLConstr = make_type(module, &NLConstr_spec, "NLConstr");
}

} // namespace tarvopy::core
