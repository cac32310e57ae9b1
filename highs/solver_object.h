// solver_object.h: tarvopy._highs.Solver, the Python type around a Solver.
#pragma once

#include "pysupport/error.h"

namespace tarvopy::highs {

// A new heap type of the given module; refused (HighsError) while no library is open: Solver().
pysupport::Ref make_solver_type(PyObject *module);
// What HiGHS refuses or fails at: a RuntimeError of its own, made when the module is executed.
extern PyObject *highs_error;

} // namespace tarvopy::highs
