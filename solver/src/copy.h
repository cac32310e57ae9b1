// copy.h: what is in one model written into another, empty one; and the two ways in which a copy may differ.
#pragma once

#include "model.h"

namespace store {

// Everything in the model but its general constraints, with the same names in the same order; ids count up from 0 anew.
// What is pending stays behind. A failure leaves `to` good for nothing but to be freed.
void copymodel(TRVmodel &from, TRVmodel &to);

// Variables of every type become continuous: a semi-continuous one takes the values between its own and 0.
void relaxvariables(Columns &columns);

// At the point x: integers become continuous, fixed at the nearest whole number. A semi-continuous variable is 0, or
// stays between its bounds, whichever x is nearer to.
void fixvariables(Columns &columns, const double *x);

} // namespace store
