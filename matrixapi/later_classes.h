// The classes of quadratic and nonlinear expressions.
#pragma once

#include "matrixapi/base.h"

namespace tarvopy {

Ref build_mquadexpr_class();
Ref build_mnlexpr_class();

} // namespace tarvopy
