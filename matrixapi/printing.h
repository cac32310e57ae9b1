// How arrays of expressions print.
#pragma once

#include "matrixapi/names.h"

namespace tarvopy {

// repr of an object array, a space before each element's text, without its last comma and what follows: it lacks the
// closing parenthesis.
Ref printed_elements(const Ref &array);

} // namespace tarvopy
