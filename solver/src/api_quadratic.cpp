// api_quadratic.cpp: the functions of tarvo.h for quadratic rows and objectives.
#include "border.h"
#include "qmatrix.h"

using namespace store;

int TRVsetqobjective(TRVmodel *model, int64_t n, const int32_t *var, const double *coef, int64_t nq,
                     const int32_t *var1, const int32_t *var2, const double *qcoef, double constant, int sense) {
    return border(model, [&] {
        QuadTerms quadratic = sortedpairs(model->columns.ids, nq, var1, var2, qcoef);
        model->setobjective(n, var, coef, std::move(quadratic), {}, constant, sense);
    });
}

int TRVaddqrows(TRVmodel *model, int64_t nrows, const TRVqrows *rows, const char *sense, int sensestep,
                const double *rhs, int rhsstep, const TRVnames *names, int32_t *firstid) {
    return border(model, [&] {
        requirecount("quadratic rows", nrows);
        requirepointer("rows", rows, 1);
        requirepointer("QSense", sense, nrows);
        requirepointer("QRHS", rhs, nrows);
        const int32_t first = model->qrows.add(model->columns, nrows, *rows, sense, sensestep, rhs, rhsstep, names);
        if (firstid)
            *firstid = first;
    });
}

int TRVgetqrow(TRVmodel *model, int32_t qrow, TRVqrows *row) {
    return border(model, [&] {
        requirepointer("row", row, 1);
        const int32_t slot = model->qrows.ids.require(qrow, "quadratic row");
        model->purge();
        *row = model->qrows.view(slot);
    });
}

int TRVgetqobjective(TRVmodel *model, int64_t *nq, const int32_t **var1, const int32_t **var2, const double **qcoef) {
    return border(model, [&] {
        requirepointer("nq, var1, var2, qcoef", nq && var1 && var2 && qcoef ? nq : nullptr, 1);
        model->purge();
        const QuadTerms &terms = model->qobjective.terms();
        *nq = terms.size();
        *var1 = terms.var1.data();
        *var2 = terms.var2.data();
        *qcoef = terms.coef.data();
    });
}

int TRVgetqmatrix(TRVmodel *model, TRVqmatrix *matrix) {
    return border(model, [&] {
        requirepointer("matrix", matrix, 1);
        *matrix = quadraticrows(*model);
    });
}

void TRVfreeqmatrix(TRVqmatrix *matrix) {
    if (!matrix)
        return;
    for (int32_t *array : {matrix->start, matrix->index, matrix->qstart, matrix->qvar1, matrix->qvar2})
        blocks::give(array);
    blocks::give(matrix->value);
    blocks::give(matrix->qvalue);
    blocks::trim();
    *matrix = TRVqmatrix{};
}

int TRVgethessian(TRVmodel *model, TRVmatrix *upper) {
    return border(model, [&] {
        requirepointer("upper", upper, 1);
        *upper = hessian(*model);
    });
}
