// columns.h: Columns, the variables: arrays by slot (see registry.h), 25 bytes a variable at most. Start exists from
// the first value set.
#pragma once

#include "buffer.h"
#include "failure.h"
#include "names.h"
#include "registry.h"
#include "tarvo.h"
#include "values.h"

namespace store {

struct Columns {
    Names names{'C'};
    Registry ids{TRV_VAR, names};
    Values lb, ub;
    Buffer<double> obj;
    Buffer<char> vtype;
    Buffer<double> start; // NaN for none; may be shorter than the others, then none

    int32_t add(int64_t n, const double *lower, int lbstep, const double *upper, int ubstep, const double *cost,
                int objstep, const char *type, int typestep, const TRVnames *newnames);
    // How many variables in the model are not continuous.
    int32_t integral() const;
    int32_t semicontinuous() const;
    // Takes removed variables out and makes pending ones part of the model.
    void update() noexcept;
    // What TRVgetdata points into.
    void guard(Yard *yard) {
        lb.guard(yard);
        ub.guard(yard);
        obj.guard(yard);
        start.guard(yard);
        vtype.guard(yard);
    }

    // What one value becomes when it is stored; an error says who it is of.
    template <class Who> static double checkedlb(double value, Who who) {
        if (std::isnan(value) || value >= TRV_INFINITY)
            failvalue("LB", who, value);
        return normalized(value);
    }
    template <class Who> static double checkedub(double value, Who who) {
        if (std::isnan(value) || value <= -TRV_INFINITY)
            failvalue("UB", who, value);
        return normalized(value);
    }
    template <class Who> static double checkedobj(double value, Who who) {
        if (!isfinite(value))
            failvalue("Obj", who, value, "it must be finite");
        return value;
    }
    template <class Who> static char checkedtype(char value, Who who) {
        if (value != 'C' && value != 'B' && value != 'I' && value != 'S')
            fail(TRV_ERROR_INVALID_ARGUMENT,
                 "VType of " + who() + " is " + character(value) + ", not one of 'C', 'B', 'I', 'S'");
        return value;
    }
};

} // namespace store
