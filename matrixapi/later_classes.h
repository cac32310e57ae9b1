// The class of nonlinear expressions.
#pragma once

#include "matrixapi/base.h"

namespace tarvopy {

Ref build_mnlexpr_class();

} // namespace tarvopy
