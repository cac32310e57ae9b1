// The one native base type of all eight matrix classes.
//
// MVar, MLinExpr, MConstr, ... are ordinary Python classes, children of this type. An instance has its documented
// attributes (_vararr, _learr, _matmulparts, ...) in its dictionary once somebody looked at them; before that it holds
// a native form, which costs what arrays cost:
//
//   x = model.addMVar((1000, 1000))      native: an int32 array of ids, no Var
//   x._vararr                            makes the Var objects, stores their array, drops the native form
//
// Where the dictionary has an object array, that array is the only truth.
#pragma once

#include "pysupport/error.h"

#include <memory>

namespace tarvopy {

using pysupport::Ref;

// What an instance holds instead of element objects. One subclass a family of classes.
struct Native {
    enum Kind { Ids, Linear, Quadratic, Nonlinear };
    const Kind kind;
    explicit Native(Kind k) : kind(k) {}
    virtual ~Native() = default;
    // Python objects held (model handles, cached handles): for the collector.
    virtual int traverse(visitproc visit, void *arg) = 0;
};

struct MatrixObject {
    PyObject_HEAD PyObject *dict; // NULL until an attribute is stored
    PyObject *weakrefs;
    Native *native; // owned; NULL once the documented attributes exist
};

inline MatrixObject *matrix(PyObject *object) {
    return reinterpret_cast<MatrixObject *>(object);
}

// Made by the module's exec; all eight classes are its children.
extern PyTypeObject *matrix_base;
void make_matrix_base(PyObject *module);

inline bool is_matrix(PyObject *object) {
    return PyObject_TypeCheck(object, matrix_base);
}

// A bare instance of cls (no __init__ is run), holding the native form.
Ref new_instance(PyObject *cls, std::unique_ptr<Native> native);

// The native form if it is one of this kind, else NULL. A method's self may be any matrix object (MVar.sum(constr)):
// ask here, never cast.
Native *native_of(PyObject *object, Native::Kind kind);
// Takes the native form away (after the documented attributes were stored, or when they are set or deleted).
void drop_native(PyObject *object);

// The instance dictionary itself, created if need be, without making anything (borrowed).
PyObject *instance_dict(PyObject *object);
// Sets __dict__: the native form goes. TypeError for anything but a dictionary, and for NULL (deletion).
void replace_dict(PyObject *object, PyObject *value);
// An attribute of the instance dictionary alone: borrowed, NULL without an error where it is missing.
PyObject *stored(PyObject *object, PyObject *name);
void store(PyObject *object, PyObject *name, PyObject *value);
// Makes `entries` all that the instance dictionary holds, or changes nothing.
void refill(PyObject *object, const Ref &entries);

// For tests: every new native form is turned into objects at once (tarvopy._debug.eager).
extern bool eager;

} // namespace tarvopy
