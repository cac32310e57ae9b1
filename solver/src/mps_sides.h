// The two sides of an MPS row from its type, right-hand side R and range r, and back.
//
//   type   range   row            (from the format's description; the sign of r counts on E rows only)
//   L      r       R - |r| .. R
//   G      r       R .. R + |r|
//   E      r >= 0  R .. R + r
//   E      r < 0   R + r .. R
//   N              free
//
// Both sides of a row must survive writing and reading to the last bit, but upper - (upper - lower) is not always
// lower: of random pairs of like size, one in twelve has no double r that gives both. For those the range is written
// with 21 digits, which MpsRange keeps: with 11 bits more in r, one rounding gives the side back.
#ifndef TARVO_MPS_SIDES_H
#define TARVO_MPS_SIDES_H

#include <limits>
#include <string>

#include "mps_model.h"

namespace trv {

struct Sides {
    double lower, upper;
};

Sides mps_sides(char type, double rhs);
Sides mps_sides(char type, double rhs, MpsRange range);

// How a row is written. An empty range: none.
struct MpsRowForm {
    char type;
    double rhs;
    std::string range;
};

// False if no MPS row has these sides (lower above upper).
bool mps_row_form(Sides sides, MpsRowForm &form);

} // namespace trv
#endif
