// How the model reads the matrix classes: every form of a linear expression (variables, compact, flat, made objects,
// scalar objects, numbers and arrays) arrives as rows over ids, written straight where the store keeps them.
//
// _matrixapi exports one MatrixApi in a capsule "tarvopy._matrixapi._C_API". NULL or -1 with the error indicator set on
// failure.
//
//   RowBlock block;
//   api->rows_open(lhs, rhs, &block)          lhs - rhs, broadcast; rhs may be NULL; nothing is changed in either
//   TRVopenrows(store, block.nrows, block.nnz, &rows);
//   api->rows_write(&block, rows.ptr, rows.var, rows.coef, constants);
//   api->rows_close(&block);
#pragma once

#include "collaborators/core.h"

#include <numpy/npy_common.h>

namespace tarvopy {

struct RowBlock {
    ModelObject *model; // borrowed from `held`; NULL when no variable occurs
    int ndim;
    npy_intp shape[64]; // the broadcast shape (NPY_MAXDIMS)
    int64_t nrows;      // its product
    int64_t nnz;        // of all rows, duplicates and zeros counted
    bool scalar;        // both sides are scalar objects or numbers (no array or matrix object took part)
    void *held;         // the native form
};

// The same for sides of degree two: each row has linear and quadratic terms.
struct QuadBlock {
    ModelObject *model; // borrowed from `held`; NULL when no variable occurs
    int ndim;
    npy_intp shape[64];
    int64_t nrows;
    int64_t nnz;  // linear terms of all rows, duplicates and zeros counted
    int64_t nqnz; // quadratic terms
    bool scalar;
    void *held;
};

// Sides of any degree, one of them at least nonlinear: row i is
//   rows.coef * rows.var, rows.ptr[i] .. rows.ptr[i+1]  +  tape rows.codeptr[i] .. rows.codeptr[i+1]  +  constants[i]
// The arrays are the block's, until it is closed; the caller may write into constants.
struct NonlinearBlock {
    ModelObject *model; // borrowed from `held`; NULL when no variable occurs
    int ndim;
    npy_intp shape[64];
    int64_t nrows;
    bool scalar;
    TRVnlrows rows;    // see tarvo.h
    double *constants; // one a row
    void *held;
};

struct MatrixApi {
    int version;
    PyTypeObject *MVar, *MLinExpr, *MQuadExpr, *MConstr, *MQConstr, *MGenConstr, *MNLExpr, *MNLConstr;

    // 1 linear (Var, LinExpr, MVar, MLinExpr), 0 numeric (numbers, arrays, sparse matrices), 2 quadratic (QuadExpr,
    // MQuadExpr), 3 nonlinear; -2 none of these.
    int (*degree)(PyObject *object);

    // lhs - rhs as rows; each side linear or numeric. Two models in one block: TarvoError NOT_IN_MODEL. Shapes that do
    // not broadcast: ValueError that names both shapes. More than 2**31 elements: ValueError that names both shapes.
    int (*rows_open)(PyObject *lhs, PyObject *rhs, RowBlock *block);
    // ptr: nrows + 1, ptr[0] = 0; constants: nrows (row i means terms + constants[i]).
    int (*rows_write)(RowBlock *block, int64_t *ptr, int32_t *var, double *coef, double *constants);
    // The same without a copy where the terms stand in one piece: fills rows (see TRVsharerows; its keeper is then the
    // caller's to hand on, after a failure to give back) and constants, and returns 1; 0 where they do not.
    int (*rows_share)(RowBlock *block, TRVsharedrows *rows, double *constants);
    void (*rows_close)(RowBlock *block);

    // lhs - rhs where a side is quadratic (the other may be anything up to that, rhs NULL too). Errors as rows_open.
    int (*quad_open)(PyObject *lhs, PyObject *rhs, QuadBlock *block);
    // ptr, qptr: nrows + 1 from 0; constants: nrows.
    int (*quad_write)(QuadBlock *block, int64_t *ptr, int32_t *var, double *coef, double *constants, int64_t *qptr,
                      int32_t *var1, int32_t *var2, double *qcoef);
    void (*quad_close)(QuadBlock *block);

    // lhs - rhs where a side is nonlinear (NLExpr, MNLExpr; the other may be anything up to that, rhs NULL too), as
    // linear terms and tapes. Errors as rows_open.
    int (*nonlinear_open)(PyObject *lhs, PyObject *rhs, NonlinearBlock *block);
    void (*nonlinear_close)(NonlinearBlock *block);

    // Handles over consecutive ids, C order; no element object is made.
    PyObject *(*mvar)(ModelObject *model, int32_t first, int ndim, const npy_intp *shape);
    // type: MConstr, MQConstr, MGenConstr or MNLConstr.
    PyObject *(*mconstr)(PyTypeObject *type, ModelObject *model, int32_t first, int ndim, const npy_intp *shape);

    // The ids of a matrix handle (MVar, MConstr, ...) of any form as a C-contiguous int32 array (new reference) and its
    // model handle (borrowed, NULL when empty). TarvoError NOT_IN_MODEL where elements are of different models,
    // TypeError for foreign elements.
    PyObject *(*ids)(PyObject *handle, ModelObject **model);

    static const MatrixApi *load() {
        auto *api = static_cast<const MatrixApi *>(import_table("tarvopy._matrixapi", "tarvopy._matrixapi._C_API"));
        if (api && api->version != current_version) {
            PyErr_SetString(PyExc_ValueError, "tarvopy._matrixapi has another version of its interface");
            return nullptr;
        }
        return api;
    }
    static constexpr int current_version = 4;
};

} // namespace tarvopy
