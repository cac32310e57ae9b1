// The sides of a comparison and the expression of an objective: what is taken, and what is refused with advice.
#pragma once

#include "modelapi.h"

namespace tarvopy::modelapi {

enum class Sense { Less, Greater, Equal };

// The sense of a TempConstr; ValueError for what is none.
Sense sense_of(PyObject *text);

[[noreturn]] void not_a_comparison(const char *function, PyObject *object);

// Throws unless a side of this degree (MatrixApi::degree) is numeric or an expression.
void require_expression(const char *function, int degree, PyObject *side);

// The degree of a side, 0 to 3. What is no operand but says what its elements are (a list, an object with __array__)
// becomes an array.
int settle_degree(Ref &side);

} // namespace tarvopy::modelapi
