// The scalar handles Var, Constr, QConstr, GenConstr and NLConstr: 32 bytes each, one object per id while it lives.
#pragma once

#include "state.h"

#include <string>

namespace tarvopy::core {

inline ScalarObject *as_scalar(PyObject *object) {
    return reinterpret_cast<ScalarObject *>(object);
}

// The object of an id, made if none is alive. The id must have been given by the model.
Ref scalar_of(ModelObject *model, int kind, int32_t id);
// The same for many: out receives n new references; throws with nothing kept.
void scalars_of(ModelObject *model, int kind, int64_t n, const int32_t *ids, int64_t step, PyObject **out);
// NOT_IN_MODEL for ids that the model never gave.
void check_ids(ModelObject *model, int kind, int64_t n, const int32_t *ids, int64_t step);

int kind_of(PyObject *scalar); // TRV_VAR, ...

// What stands for the element in a text: its name, or "(removed)", "(model closed)" or "(being solved)" where it cannot
// be asked now. Never raises but for lack of memory.
struct Label {
    std::string text;
    bool is_name;
};
Label label_of(PyObject *scalar);

// Attributes of the store as Python values (scalar_attributes.cpp).
PyObject *scalar_getattro(PyObject *self, PyObject *name);
int scalar_setattro(PyObject *self, PyObject *name, PyObject *value);
PyObject *scalar_get_attr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames);
PyObject *scalar_set_attr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames);
PyObject *scalar_dir(PyObject *self, PyObject *);

} // namespace tarvopy::core
