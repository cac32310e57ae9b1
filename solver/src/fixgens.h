// fixgens.h: general constraints as linear rows that say of each what holds at the solution.
#pragma once

#include "model.h"

namespace store {

// Adds the rows for `from`'s general constraints at its last solution to `to`, a copy with the integers fixed there:
//   MAX, MIN    first argument = the one that is the largest, smallest; no other is beyond it
//   ABS         first argument = second, or minus it, and its sign
//   PWL         the piece that the point is on, and its ends; at a jump x is fixed and y lies between the two points
//   INDICATOR   the row, where the binary variable asks for it
//   SOS         the members that are not among the one or two that stay are 0
// AND and OR are about fixed variables only.
void fixgens(const TRVmodel &from, TRVmodel &to);

} // namespace store
