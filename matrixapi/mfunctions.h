// The module functions concatenate, hstack and vstack.
#pragma once

#include "matrixapi/base.h"

namespace tarvopy {

void add_join_functions(PyObject *module);

} // namespace tarvopy
