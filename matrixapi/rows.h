// What the model reads of expressions (collaborators/matrix_rows.h): the functions behind the exported table.
#pragma once

#include "collaborators/matrix_rows.h"

namespace tarvopy {

int degree_of(PyObject *object);
int rows_open(PyObject *lhs, PyObject *rhs, RowBlock *block);
int rows_write(RowBlock *block, int64_t *ptr, int32_t *var, double *coef, double *constants);
int rows_share(RowBlock *block, TRVsharedrows *rows, double *constants);
void rows_close(RowBlock *block);
int quad_open(PyObject *lhs, PyObject *rhs, QuadBlock *block);
int quad_write(QuadBlock *block, int64_t *ptr, int32_t *var, double *coef, double *constants, int64_t *qptr,
               int32_t *var1, int32_t *var2, double *qcoef);
void quad_close(QuadBlock *block);
int nonlinear_open(PyObject *lhs, PyObject *rhs, NonlinearBlock *block);
void nonlinear_close(NonlinearBlock *block);

} // namespace tarvopy
