// NLExpr: the mutable holder of an expression tree.
//
//   sqrt(x) * y - 1      _root: Minus(Multiply(Sqrt(x), y), 1.0)
//
// Operators make a new holder around one new node; in-place operators put the new node into the same holder, so a sum
// built with += costs one node a term, and whoever shares the holder sees it. Copies share the tree.
//
// The collector need not know it, see exprtree.h.
#pragma once

#include "exprtree.h"

namespace tarvopy::core {

inline NLExprObject *as_nlexpr(PyObject *object) {
    return reinterpret_cast<NLExprObject *>(object);
}

Ref make_nlexpr(Ref tree);
void set_root(NLExprObject *self, Ref tree);

} // namespace tarvopy::core
