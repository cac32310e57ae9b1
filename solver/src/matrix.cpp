// matrix.cpp: the matrix of a model, copied by rows or transposed in two passes (count, scatter): 12 bytes a nonzero
// and 4 a column, nothing beside. As long as ids are positions the terms are taken as they stand.
#include "matrix.h"

#include "failure.h"

#include <algorithm>

namespace store {

namespace {

// The matrix while it is being made: owned, so that a failure gives it back.
struct Making {
    Buffer<int32_t> start, index;
    Buffer<double> value;

    Making(int32_t nmajor, int64_t nnz) {
        if (nnz > INT32_MAX)
            failf(TRV_ERROR_SIZE_LIMIT, "%lld nonzeros exceed the limit of 2147483647", static_cast<long long>(nnz));
        start.room(nmajor + 2);
        index.room(nnz);
        value.room(nnz);
    }
    TRVmatrix finish(int32_t nmajor, int64_t nnz) {
        return {nmajor, nnz, start.release(), index.release(), value.release()};
    }
};

// Position of an id, in the two forms that the loops are compiled for.
struct Same {
    int32_t operator()(int32_t id) const { return id; }
};
struct Mapped {
    const Registry &ids;
    int32_t operator()(int32_t id) const { return ids.position(id); }
};

template <class Position> TRVmatrix bycolumns(const TRVmodel &model, Position position) {
    const int32_t n = model.columns.ids.committed();
    const int64_t nnz = model.rows.nonzeros(model.columns);
    Making made(n, nnz);
    // Counts stand two places on: the sums then stand one place on, and scattering moves each of them to its own place.
    int32_t *start = made.start.data();
    std::fill(start, start + n + 2, 0);
    model.rows.each([&](int32_t, const Row &row) {
        for (int64_t k = 0; k < row.n; k++) {
            const int32_t c = position(row.var[k]);
            if (c >= 0)
                start[c + 2]++;
        }
    });
    for (int32_t c = 0; c < n; c++)
        start[c + 2] += start[c + 1];
    int32_t *index = made.index.data();
    double *value = made.value.data();
    model.rows.each([&](int32_t r, const Row &row) {
        for (int64_t k = 0; k < row.n; k++) {
            const int32_t c = position(row.var[k]);
            if (c < 0)
                continue;
            const int32_t at = start[c + 1]++;
            index[at] = r;
            value[at] = row.coef[k];
        }
    });
    return made.finish(n, nnz);
}

template <class Position> TRVmatrix byrows(const TRVmodel &model, Position position) {
    const int32_t n = model.rows.ids.committed();
    const int64_t nnz = model.rows.nonzeros(model.columns);
    Making made(n, nnz);
    int32_t *start = made.start.data(), *index = made.index.data(), at = 0;
    double *value = made.value.data();
    model.rows.each([&](int32_t r, const Row &row) {
        start[r] = at;
        for (int64_t k = 0; k < row.n; k++) {
            const int32_t c = position(row.var[k]);
            if (c < 0)
                continue;
            index[at] = c;
            value[at++] = row.coef[k];
        }
    });
    start[n] = at;
    return made.finish(n, nnz);
}

bool mapped(TRVmodel &model) {
    model.rows.purge(model.columns);
    return !model.columns.ids.identity() || model.rows.stray();
}

} // namespace

TRVmatrix matrixbycolumns(TRVmodel &model) {
    return mapped(model) ? bycolumns(model, Mapped{model.columns.ids}) : bycolumns(model, Same{});
}

TRVmatrix rowsinplace(TRVmodel &model) {
    const int32_t n = model.rows.ids.committed();
    if (mapped(model) || model.rows.chunks().size() != 1)
        return {};
    const Chunk &chunk = model.rows.chunks().front();
    const int64_t nnz = chunk.nrows == n ? chunk.ptr[n] : 0;
    if (nnz == 0 || nnz > INT32_MAX || chunk.loose())
        return {};
    // The struct serves owned matrices too; callers of a view only read.
    return {n, nnz, const_cast<int32_t *>(chunk.ptr.data()), const_cast<int32_t *>(chunk.var.data()),
            const_cast<double *>(chunk.coef.data())};
}

TRVmatrix matrixbyrows(TRVmodel &model) {
    return mapped(model) ? byrows(model, Mapped{model.columns.ids}) : byrows(model, Same{});
}

} // namespace store
