// The four classes of constraint handles.
#pragma once

#include "matrixapi/handle.h"

namespace tarvopy {

Ref build_mconstr_class();
Ref build_mqconstr_class();
Ref build_mgenconstr_class();
Ref build_mnlconstr_class();

} // namespace tarvopy
