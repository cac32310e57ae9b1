// termflaw.h: what is wrong with the linear terms of one row, for a message that names the row. Looked for only when a
// block was refused, and in the caller's own terms: those of a refused block may be half tidy.
#pragma once

#include "failure.h"
#include "registry.h"

#include <string>
#include <unordered_map>

namespace store {

struct TermFlaw {
    int code = TRV_OK; // nothing is wrong
    std::string why;
};

inline TermFlaw termflaw(const Registry &variables, int64_t n, const int32_t *var, const double *coef) {
    std::unordered_map<int32_t, double> sums;
    for (int64_t k = 0; k < n; k++) {
        const int32_t id = var[k];
        if (!variables.usable(id))
            return {TRV_ERROR_NOT_IN_MODEL, variables.absence(id)};
        if (!isfinite(sums[id] += coef[k]))
            return {TRV_ERROR_INVALID_ARGUMENT,
                    "the coefficient of " + variables.called(id) + " is " + number(sums[id])};
    }
    return {};
}

} // namespace store
