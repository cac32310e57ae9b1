// tape_range.h: TapeRange, the ranges of the parts of a tape over the bounds of its variables, by interval arithmetic
// in one pass; in search of a part that is nowhere defined, such as the logarithm of what is never positive.
//
//   TapeRange range(lower, upper);      by id of variable
//   range.nowhere(tape)                 "the log of what lies in [-5, -1]", "" where nothing is wrong
#pragma once

#include "buffer.h"
#include "tape.h"

#include <string>

namespace store {

class TapeRange {
  public:
    TapeRange(const double *lower, const double *upper) : lower_(lower), upper_(upper) {}

    // Ranges are as wide as the operands taken for themselves allow, so that what is found is certain, and much is not
    // found.
    std::string nowhere(const Tape &tape);

  private:
    struct Interval {
        double low, high;
    };

    Interval of(int op, Interval left, Interval right);
    Interval ofpower(Interval base, double exponent);
    Interval monotone(int op, Interval of) const;
    Interval undefined(const char *what, Interval of);

    const double *lower_, *upper_;
    Buffer<Interval> stack_;
    std::string found_;
};

} // namespace store
