// factor_dense.h: LDL' of a dense symmetric matrix, in blocks.
#pragma once

#include "factor.h"

namespace store {

// The lower triangle of a (m x m, by rows) becomes L, its unit diagonal not stored; pivots go to pivot[0 .. m). Some
// 2 m^3 / 6 multiplications; false at the first pivot that the rule refuses.
bool factordense(double *a, int64_t m, const PivotRule &rule, double *pivot, double *dropped);

} // namespace store
