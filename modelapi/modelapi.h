// tarvopy._modelapi: the native half of the Model, everything that moves arrays between Python and the store.
//
// ModelBase is the base class of tarvopy.Model: it holds the model handle and has the methods that are called often or
// move arrays (addVar, addMVar, addConstr, addRange, setObjective, remove, coefficients, attributes, files). What an
// engine reads and writes are module functions over the handle (problem.cpp, solution.cpp).
#pragma once

#include "collaborators/core.h"
#include "collaborators/matrix_rows.h"
#include "pysupport/args.h"
#include "pysupport/error.h"
#include "pysupport/numpy.h"
#include "pysupport/sparse.h"
#include "tarvo_engine.h"

namespace tarvopy::modelapi {

using pysupport::Arguments;
using pysupport::border;
using pysupport::check;
using pysupport::check_status;
using pysupport::fail;
using pysupport::need_numpy;
using pysupport::PythonError;
using pysupport::Ref;
using pysupport::Signature;

struct ModelBase {
    PyObject_HEAD ModelObject *handle; // owned; NULL until __init__ ran
};

// ---- the siblings
const CoreApi &core();     // bound when the module is executed
const MatrixApi &matrix(); // bound on first use

// ---- the model behind an object
ModelObject *handle_of(PyObject *self);
// The store, or the refusal of a closed model and of one that an engine is running on. Python code may close a model,
// so ask after everything that may run some.
TRVmodel *store_of(ModelObject *handle);
// The same for the calls of engines, which are made while the model is marked as solving.
TRVmodel *engine_store(PyObject *handle);
// Throws what a store call left.
void succeed(TRVmodel *store, int code);
[[noreturn]] void refuse(int code, const char *message);
// An element or expression of `model` (NULL: of none) is used in the model `handle`.
void require_model(const ModelObject *model, const ModelObject *handle, const char *what);

using Method = PyObject *(*)(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames);
#define TARVOPY_METHOD(name) PyObject *name(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames)

// variables.cpp
TARVOPY_METHOD(model_addVar);
TARVOPY_METHOD(model_addMVar);
// constraints.cpp
TARVOPY_METHOD(model_addConstr);
TARVOPY_METHOD(model_addRange);
// sos.cpp
TARVOPY_METHOD(model_addSOS);
// objective.cpp
TARVOPY_METHOD(model_setObjective);
// elements.cpp
TARVOPY_METHOD(model_update);
TARVOPY_METHOD(model_remove);
TARVOPY_METHOD(model_getVars);
TARVOPY_METHOD(model_getConstrs);
TARVOPY_METHOD(model_getQConstrs);
TARVOPY_METHOD(model_getGenConstrs);
TARVOPY_METHOD(model_getNLConstrs);
TARVOPY_METHOD(model_getVarByName);
TARVOPY_METHOD(model_getConstrByName);
TARVOPY_METHOD(model_getQConstrByName);
// coefficients.cpp
TARVOPY_METHOD(model_setCoeff);
TARVOPY_METHOD(model_getCoeff);
TARVOPY_METHOD(model_getA);
TARVOPY_METHOD(model_getRow);
// attributes.cpp
TARVOPY_METHOD(model_getAttr);
TARVOPY_METHOD(model_setAttr);
TARVOPY_METHOD(model_attributes);
PyObject *model_repr(PyObject *self);
// copies.cpp
TARVOPY_METHOD(model_relax_into);
TARVOPY_METHOD(model_fix_into);
// files.cpp
TARVOPY_METHOD(model_read);
TARVOPY_METHOD(model_write);
// quadratic.cpp, stacked.cpp, genmatrix.cpp, problem.cpp, solution.cpp: functions over the handle
TARVOPY_METHOD(function_hessian);
TARVOPY_METHOD(function_write_nl);
TARVOPY_METHOD(function_qmatrix);
TARVOPY_METHOD(function_curvature);
TARVOPY_METHOD(function_cones);
TARVOPY_METHOD(function_cone_duals);
TARVOPY_METHOD(function_stacked_columns);
TARVOPY_METHOD(function_genmatrix);
TARVOPY_METHOD(function_problem);
TARVOPY_METHOD(function_matrix);
TARVOPY_METHOD(function_cheapest_matrix);
TARVOPY_METHOD(function_changes);
TARVOPY_METHOD(function_clear_changes);
TARVOPY_METHOD(function_open_solution);
TARVOPY_METHOD(function_commit_solution);
TARVOPY_METHOD(function_residuals);
TARVOPY_METHOD(function_offenders);
TARVOPY_METHOD(function_element_name);
TARVOPY_METHOD(function_evaluate_objective);
TARVOPY_METHOD(function_undefined);
TARVOPY_METHOD(function_set_solving);
TARVOPY_METHOD(function_is_solving);

// The type ModelBase, made once (model.cpp).
Ref make_model_base(PyObject *module);

// The owner of views: it keeps the memory that the store's pointers lead to (problem.cpp).
Ref pinned(TRVmodel *store, int (*take)(TRVmodel *, TRVpinned **) = TRVpin);

// The counts of the model, without writing out any array for it (problem.cpp).
TRVdata figures_of(TRVmodel *store);

// The matrix by rows as fresh arrays (start, index, value) that own the store's allocation (problem.cpp).
Ref row_arrays(TRVmodel *store);

} // namespace tarvopy::modelapi
