// columns.h: Columns, the variables: arrays by slot (see registry.h), 25 bytes a variable. Start exists from the first
// value set.
#pragma once

#include "buffer.h"
#include "names.h"
#include "registry.h"
#include "tarvo.h"

namespace store {

struct Columns {
    Names names{'C'};
    Registry ids{TRV_VAR, names};
    Buffer<double> lb, ub, obj;
    Buffer<char> vtype;
    Buffer<double> start; // NaN for none; may be shorter than the others, then none

    int32_t add(int64_t n, const double *lower, int lbstep, const double *upper, int ubstep, const double *cost,
                int objstep, const char *type, int typestep, const TRVnames *newnames);
    // How many variables in the model are not continuous.
    int32_t integral() const;
    // Takes removed variables out and makes pending ones part of the model.
    void update() noexcept;
    // What TRVgetdata points into.
    void guard(Yard *yard) {
        for (Buffer<double> *buffer : {&lb, &ub, &obj, &start})
            buffer->guard(yard);
        vtype.guard(yard);
    }

    // What one value becomes when it is stored; an error names the id.
    static double checkedlb(double value, int64_t id);
    static double checkedub(double value, int64_t id);
    static double checkedobj(double value, int64_t id);
    static char checkedtype(char value, int64_t id);
};

} // namespace store
