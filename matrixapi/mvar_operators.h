// The operators of MVar.
#pragma once

#include "matrixapi/base.h"

namespace tarvopy {

void add_mvar_operators(PyObject *namespace_dict);

// 1.0 * x as an MLinExpr, and the variables as an MNLExpr.
Ref linear_form(PyObject *mvar);
Ref nonlinear_form(PyObject *mvar);

} // namespace tarvopy
