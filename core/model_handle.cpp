#include "model_handle.h"

#include <structmember.h>

namespace tarvopy::core {

void IdTable::insert(int32_t id, ScalarObject *object) {
    size_t c = static_cast<size_t>(id) / chunk_size;
    if (c >= chunks_.size())
        chunks_.resize(c + 1);
    if (!chunks_[c])
        chunks_[c] = spare_ ? std::move(spare_) : std::make_unique<Chunk>();
    chunks_[c]->objects[id % chunk_size] = object;
    ++chunks_[c]->alive;
}

void IdTable::remove(int32_t id) noexcept {
    std::unique_ptr<Chunk> &chunk = chunks_[static_cast<size_t>(id) / chunk_size];
    chunk->objects[id % chunk_size] = nullptr;
    if (--chunk->alive == 0)
        spare_ = std::move(chunk);
}

namespace {

struct Tables {
    IdTable kinds[5];
};

int table_of(int kind) {
    switch (kind) {
    case TRV_VAR:
        return 0;
    case TRV_CONSTR:
        return 1;
    case TRV_QCONSTR:
        return 2;
    case TRV_GENCONSTR:
        return 3;
    default:
        return 4;
    }
}

ModelObject *as_model(PyObject *object) {
    return reinterpret_cast<ModelObject *>(object);
}

PyObject *model_new(PyTypeObject *type, PyObject *args, PyObject *kwargs) {
    return border([&] {
        static const char *keywords[] = {"name", nullptr};
        const char *name = "";
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|s:_Model", const_cast<char **>(keywords), &name))
            throw PythonError{};
        auto tables = std::make_unique<Tables>();
        Ref self = check(type->tp_alloc(type, 0)); // all fields zero
        auto *model = self.as<ModelObject>();
        check_store(nullptr, TRVnewmodel(name, &model->store));
        model->tables = tables.release();
        return self;
    });
}

void model_dealloc(PyObject *self) {
    ModelObject *model = as_model(self);
    PyTypeObject *type = Py_TYPE(self);
    if (model->weakrefs)
        PyObject_ClearWeakRefs(self);
    TRVfreemodel(model->store);
    delete static_cast<Tables *>(model->tables);
    type->tp_free(self);
    Py_DECREF(type);
}

PyObject *model_close(PyObject *self, PyObject *) {
    return border([&] {
        ModelObject *model = as_model(self);
        if (model->store)
            open_store(model); // refuses while an engine runs
        TRVfreemodel(std::exchange(model->store, nullptr));
        return Ref::none();
    });
}

PyObject *get_closed(PyObject *self, void *) {
    return PyBool_FromLong(as_model(self)->store == nullptr);
}
PyObject *get_solving(PyObject *self, void *) {
    return PyBool_FromLong(as_model(self)->solving);
}

int set_solving(PyObject *self, PyObject *value, void *) {
    return border_status([&] {
        if (!value)
            fail(PyExc_TypeError, "_solving cannot be deleted");
        as_model(self)->solving = check_status(PyObject_IsTrue(value));
    });
}

// One handle a model: a copy of what refers to it still belongs to the same model.
PyObject *return_self(PyObject *self, PyObject *) {
    return Py_NewRef(self);
}

PyMethodDef model_methods[] = {
    {"__copy__", return_self, METH_NOARGS, nullptr},
    {"__deepcopy__", return_self, METH_O, nullptr},
    {"_close", model_close, METH_NOARGS,
     "_close($self)\n--\n\nFrees the store. Everything that still refers to the model raises from here on."},
    {}};

PyGetSetDef model_properties[] = {
    {"_closed", get_closed, nullptr, "Whether the store was freed."},
    {"_solving", get_solving, set_solving,
     "Whether an engine runs on this model; until it stops, every use of the store is refused."},
    {}};

PyMemberDef model_members[] = {{"__weaklistoffset__", T_PYSSIZET, offsetof(ModelObject, weakrefs), READONLY, nullptr},
                               {}};

PyType_Slot model_slots[] = {
    {Py_tp_doc,
     const_cast<char *>(
         "_Model(name=\"\")\n--\n\nThe model handle: owner of the model store. Two objects belong to one model "
         "exactly if their handles are the same object.")},
    {Py_tp_new, slot(model_new)},
    {Py_tp_dealloc, slot(model_dealloc)},
    {Py_tp_methods, model_methods},
    {Py_tp_getset, model_properties},
    {Py_tp_members, model_members},
    {}};

PyType_Spec model_spec = {"tarvopy._core._Model", sizeof(ModelObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE,
                          model_slots};

} // namespace

IdTable &id_table(ModelObject *model, int kind) {
    return static_cast<Tables *>(model->tables)->kinds[table_of(kind)];
}

TRVmodel *open_store(ModelObject *model) {
    if (!model->store)
        fail_code(TRV_ERROR_CLOSED, "the model is closed");
    if (model->solving == in_file)
        fail_code(TRV_ERROR_INVALID_ARGUMENT,
                  "the model is being read from a file or written to one; it can be used again when that is done");
    if (model->solving)
        fail_code(TRV_ERROR_INVALID_ARGUMENT,
                  "the model is being solved; it can be used again when the engine has stopped");
    return model->store;
}

void add_model_type(PyObject *module) {
    state.Model = make_type(module, &model_spec, "_Model");
}

} // namespace tarvopy::core
