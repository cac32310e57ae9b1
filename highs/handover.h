// handover.h: a whole model handed over to HiGHS, which copies it. No Python in it.
#pragma once

#include "library.h"

namespace tarvopy::highs {

// Bounds or sides: one number each, or with a step of 0 one for all.
struct Numbers {
    const double *from = nullptr;
    int step = 1;

    double operator[](HighsInt i) const { return from[static_cast<std::ptrdiff_t>(i) * step]; }
};

// Arrays of the caller, read during load() only. vtype holds the characters of the model; NULL for a pure LP.
struct ModelArrays {
    HighsInt ncols = 0, nrows = 0, nnz = 0;
    HighsInt sense = kHighsObjSenseMinimize;
    double offset = 0;
    const double *cost = nullptr;
    Numbers lb, ub, lower, upper;
    HighsInt format = kHighsMatrixFormatColwise;
    const HighsInt *start = nullptr, *index = nullptr;
    const double *value = nullptr;
    const char *vtype = nullptr;
};

// HiGHS' status.
HighsInt hand_over(void *highs, const ModelArrays &model);

} // namespace tarvopy::highs
