// MVar, n-dimensional arrays of variables: what the other files of this module may ask of one.
//
//   VarIds v;
//   if (mvar_ids(x, v)) ...      int32 ids in C order, the shape and the model: no Var is made
//   else ...                     foreign elements or several models: the element-wise path over object_array(x)
#pragma once

#include "matrixapi/base.h"
#include "matrixapi/flat.h"

namespace tarvopy {

struct VarIds {
    flat::Buffer<int32_t> ids; // C order; shared with the MVar where it is a whole block
    flat::Shape shape;
    Ref model; // the handle; empty when there is no element
};

extern PyTypeObject *mvar_class; // the class MVar, borrowed from the module
Ref build_mvar_class();

inline bool is_mvar(PyObject *object) {
    return PyObject_TypeCheck(object, mvar_class);
}

// The ids of an MVar (or of a child of it) in any state. False where elements are no Var or belong to several models;
// throws only what reading `_vararr` raises (someone deleted it).
bool mvar_ids(PyObject *mvar, VarIds &out);
flat::Shape mvar_shape(PyObject *mvar);
// Makes: the array `_vararr`; TypeError where somebody stored what is none.
Ref vararr_of(PyObject *mvar);

// An MVar over ids. cls: the class MVar. model: the handle; NULL or None only where there is no element.
Ref new_mvar(PyObject *cls, PyObject *model, PyObject *int32_array);
Ref new_mvar_vector(PyObject *model, flat::Buffer<int32_t> ids);
Ref new_mvar(PyObject *model, flat::Buffer<int32_t> ids, const flat::Shape &shape); // C order
// MVar(object): numpy.require(object, "O", "W") inside.
Ref wrap_mvar(PyObject *object);

} // namespace tarvopy
