// General constraints of addConstr.
#pragma once

#include "arguments.h"
#include "sides.h"

namespace tarvopy::modelapi {

inline bool is_general(PyObject *object) {
    return PyObject_TypeCheck(object, core().GenExpr);
}
// lhs == rhs, of which at least one is a GenExpr.
Ref add_general_equation(ModelObject *handle, PyObject *lhs, PyObject *rhs, Sense sense, Names &names);
// A GenExpr that is no side of an equation: an indicator is a constraint, everything else is refused.
Ref add_indicator(ModelObject *handle, PyObject *genexpr, Names &names);

} // namespace tarvopy::modelapi
