// api_nonlinear.cpp: the functions of tarvo.h for nonlinear rows and objectives.
#include "border.h"
#include "jacobian.h"
#include "tape_range.h"

#include <algorithm>

using namespace store;

namespace {

void requiretape(const TRVnltape *tape) {
    requirepointer("tape", tape, 1);
    requirecount("codes", tape->ncodes);
    requirepointer("codes", tape->code, tape->ncodes);
    requirecount("constants", tape->nconstants);
    requirepointer("constants", tape->constant, tape->nconstants);
}

// A semi-continuous variable may be 0, wherever its bounds are.
TRVundefined firstundefined(const TRVmodel &model) {
    const Columns &columns = model.columns;
    const int32_t n = columns.ids.committed();
    Buffer<double> lower, upper;
    for (int32_t j = 0; j < n; j++) {
        const bool semi = columns.vtype[j] == 'S';
        lower.push(semi ? std::min(columns.lb[j], 0.0) : columns.lb[j]);
        upper.push(semi ? std::max(columns.ub[j], 0.0) : columns.ub[j]);
    }
    const PointById low(columns.ids, lower.data(), n), high(columns.ids, upper.data(), n);
    TapeRange range(low.data(), high.data());
    const int32_t rows = model.nlrows.ids.committed();
    TRVundefined found{-1, ""};
    for (int32_t i = 0; i <= rows && found.row < 0; i++) {
        const std::string why = range.nowhere(i < rows ? model.nlrows.tape(i) : model.nlobjective.tape());
        if (!why.empty()) {
            found.row = i;
            std::strncpy(found.why, why.c_str(), sizeof found.why - 1);
        }
    }
    return found;
}

} // namespace

int TRVaddnlrows(TRVmodel *model, int64_t nrows, const TRVnlrows *rows, const double *lower, int lowerstep,
                 const double *upper, int upperstep, const TRVnames *names, int32_t *firstid) {
    return border(model, [&] {
        requirecount("nonlinear rows", nrows);
        requirepointer("rows", rows, 1);
        requirepointer("lower sides", lower, nrows);
        requirepointer("upper sides", upper, nrows);
        const int32_t first =
            model->nlrows.add(model->columns, model->uses, nrows, *rows, lower, lowerstep, upper, upperstep, names);
        if (firstid)
            *firstid = first;
    });
}

int TRVsetnlobjective(TRVmodel *model, int64_t n, const int32_t *var, const double *coef, int64_t nq,
                      const int32_t *var1, const int32_t *var2, const double *qcoef, const TRVnltape *tape,
                      double constant, int sense) {
    return border(model, [&] {
        requiretape(tape);
        QuadTerms quadratic = sortedpairs(model->columns.ids, nq, var1, var2, qcoef);
        NlObjective nonlinear(model->columns, *tape);
        model->setobjective(n, var, coef, std::move(quadratic), std::move(nonlinear), constant, sense);
    });
}

int TRVgetnlrow(TRVmodel *model, int32_t nlrow, TRVnlrows *row) {
    return border(model, [&] {
        requirepointer("row", row, 1);
        const int32_t slot = model->nlrows.ids.require(nlrow, "nonlinear row");
        model->purge();
        *row = model->nlrows.view(slot);
    });
}

int TRVgetnlobjective(TRVmodel *model, TRVnltape *tape) {
    return border(model, [&] {
        requirepointer("tape", tape, 1);
        *tape = model->nlobjective.view();
    });
}

int TRVevalnlrows(TRVmodel *model, const double *x, double *activity) {
    return border(model, [&] {
        const int32_t n = model->columns.ids.committed();
        requirepointer("x", x, n);
        requirepointer("activity", activity, model->nlrows.ids.committed());
        model->purge();
        evaluate(model->nlrows, PointById(model->columns.ids, x, n), activity);
    });
}

int TRVfindundefined(TRVmodel *model, TRVundefined *found) {
    return border(model, [&] {
        requirepointer("found", found, 1);
        model->purge();
        *found = firstundefined(*model);
    });
}

int TRVgetnljacobian(TRVmodel *model, const double *x, TRVmatrix *matrix) {
    return border(model, [&] {
        requirepointer("x", x, model->columns.ids.committed());
        requirepointer("matrix", matrix, 1);
        *matrix = nonlinearjacobian(*model, x);
    });
}
