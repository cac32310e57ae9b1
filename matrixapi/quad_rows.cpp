// What the model reads of quadratic expressions (collaborators/matrix_rows.h): sides of degree two as rows over ids.
#include "matrixapi/rows.h"

namespace tarvopy {

int quad_open(PyObject *, PyObject *, QuadBlock *) {
    PyErr_SetString(PyExc_NotImplementedError, "quadratic expressions are not supported yet");
    return -1;
}

int quad_write(QuadBlock *, int64_t *, int32_t *, double *, double *, int64_t *, int32_t *, int32_t *, double *) {
    return -1;
}

void quad_close(QuadBlock *) {}

} // namespace tarvopy
