// qmatrix.cpp: the quadratic parts of a model copied for an engine. Both are stored in the order in which they are
// handed over, so each is one pass.
#include "qmatrix.h"

#include "failure.h"

#include <cinttypes>

namespace store {

namespace {

void requirecount32(const char *what, int64_t n) {
    if (n > INT32_MAX)
        failf(TRV_ERROR_SIZE_LIMIT, "%" PRId64 " %s exceed the limit of 2147483647", n, what);
}

// Ids to positions; the variables of rows in the model are in the model.
void copypositions(const Registry &ids, int64_t n, const int32_t *from, int32_t *to) {
    if (ids.identity())
        return moveterms(to, from, n);
    for (int64_t k = 0; k < n; k++)
        to[k] = ids.position(from[k]);
}

struct MakingRows {
    Buffer<int32_t> start, index, qstart, qvar1, qvar2;
    Buffer<double> value, qvalue;

    MakingRows(int64_t nrows, int64_t nnz, int64_t nquad) {
        start.room(nrows + 1);
        qstart.room(nrows + 1);
        index.room(nnz);
        value.room(nnz);
        qvar1.room(nquad);
        qvar2.room(nquad);
        qvalue.room(nquad);
    }
    TRVqmatrix finish(int64_t nrows, int64_t nnz, int64_t nquad) {
        return {nrows,
                nnz,
                nquad,
                start.release(),
                index.release(),
                value.release(),
                qstart.release(),
                qvar1.release(),
                qvar2.release(),
                qvalue.release()};
    }
};

} // namespace

TRVmatrix hessian(TRVmodel &model) {
    model.purge();
    const Columns &columns = model.columns;
    const int32_t n = columns.ids.committed();
    const int64_t nnz = model.qobjective.count(columns);
    requirecount32("terms of the Hessian", nnz);
    Buffer<int32_t> start, index;
    Buffer<double> value;
    index.room(nnz);
    value.room(nnz);
    start.pad(static_cast<size_t>(n) + 1, 0);
    int64_t at = 0;
    model.qobjective.each(columns, [&](int32_t i, int32_t j, double coef) {
        start[j + 1]++;
        index.data()[at] = i;
        value.data()[at++] = i == j ? 2.0 * coef : coef;
    });
    for (int32_t j = 0; j < n; j++)
        start[j + 1] += start[j];
    return {n, nnz, start.release(), index.release(), value.release()};
}

TRVqmatrix quadraticrows(TRVmodel &model) {
    model.purge();
    const QRows &qrows = model.qrows;
    const Registry &ids = model.columns.ids;
    const int32_t n = qrows.ids.committed();
    const int64_t nnz = qrows.linearterms(), nquad = qrows.quadraticterms();
    requirecount32("linear terms of quadratic rows", nnz);
    requirecount32("quadratic terms of rows", nquad);
    MakingRows made(n, nnz, nquad);
    made.start.data()[0] = made.qstart.data()[0] = 0;
    if (n == 0)
        return made.finish(0, 0, 0);
    const TRVqrows all = qrows.view(0);
    for (int32_t i = 0; i < n; i++) {
        made.start.data()[i + 1] = static_cast<int32_t>(all.ptr[i + 1]);
        made.qstart.data()[i + 1] = static_cast<int32_t>(all.qptr[i + 1]);
    }
    copypositions(ids, nnz, all.var, made.index.data());
    moveterms(made.value.data(), all.coef, nnz);
    copypositions(ids, nquad, all.var1, made.qvar1.data());
    copypositions(ids, nquad, all.var2, made.qvar2.data());
    moveterms(made.qvalue.data(), all.qcoef, nquad);
    return made.finish(n, nnz, nquad);
}

} // namespace store
