// lanczos.h: the smallest eigenvalue of a matrix that is too large to be factorised, from products with vectors.
#pragma once

#include "factor.h"

namespace store {

// Whether some vector gives x'Ax < -shift x'x, as far as 300 steps of Lanczos tell. Yes is certain; no means that the
// estimate of the smallest eigenvalue, which comes from above, stayed at or over -shift. The same matrix always gets
// the same answer. A step costs a product with the matrix.
bool seemsindefinite(const UnitMatrix &matrix, double shift);

} // namespace store
