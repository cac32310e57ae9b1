// matrix.cpp: the matrix of a model, copied by rows or transposed in two passes (count, scatter): 12 bytes a nonzero
// and 4 a column, nothing beside. As long as ids are positions the terms are taken as they stand.
#include "matrix.h"

#include "failure.h"
#include "scatter.h"

#include <algorithm>
#include <functional>

namespace store {

namespace {

// The matrix while it is being made: owned, so that a failure gives it back.
struct Making {
    Buffer<int32_t> start, index;
    Buffer<double> value;

    // Starts alone, the others for whoever fills them.
    explicit Making(int32_t nmajor) { start.room(int64_t{nmajor} + 2); }
    Making(int32_t nmajor, int64_t nnz) : Making(nmajor) {
        if (nnz > INT32_MAX)
            failf(TRV_ERROR_SIZE_LIMIT, "%lld nonzeros exceed the limit of 2147483647", static_cast<long long>(nnz));
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
    const Places places{start + 1, made.index.data(), made.value.data()};
    const auto scatter = [&](auto &&put) {
        model.rows.each([&](int32_t r, const Row &row) {
            for (int64_t k = 0; k < row.n; k++) {
                const int32_t c = position(row.var[k]);
                if (c >= 0)
                    put(Entry{c, r, row.coef[k]});
            }
        });
    };
    if (nnz >= kManyEntries && farapart(model.rows.chunks())) {
        Bins bins(n, places);
        scatter([&](const Entry &entry) { bins.put(entry); });
        bins.empty();
    } else
        scatter([&](const Entry &entry) { places.put(entry); });
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

namespace {

// The chunk that holds all rows of the model by position, tight and not empty; NULL where there is none.
const Chunk *inonepiece(TRVmodel &model) {
    if (mapped(model) || model.rows.chunks().size() != 1)
        return nullptr;
    const Chunk &chunk = model.rows.chunks().front();
    const int32_t n = model.rows.ids.committed();
    const bool whole = !chunk.loose() && chunk.nrows == n && chunk.ptr[n] > 0;
    return whole ? &chunk : nullptr;
}

// Starts and indices for values that stand in the chunk.
TRVmatrix besidevalues(const Chunk &chunk, int32_t ncols) {
    Making made(ncols);
    columnstarts(chunk, ncols, made.start.data());
    const size_t nnz = chunk.nnz;
    int32_t *index = chunk.nrows == 1 ? made.index.zeros(nnz) : made.index.room(nnz);
    for (int32_t i = 0; chunk.nrows > 1 && i < chunk.nrows; i++)
        std::fill(index + chunk.ptr[i], index + chunk.ptr[i + 1], i);
    return made.finish(ncols, nnz);
}

} // namespace

bool ascendingthroughout(const Chunk &chunk) {
    const int32_t *var = chunk.var.data();
    return std::adjacent_find(var, var + chunk.nnz, std::greater_equal<>()) == var + chunk.nnz;
}

void columnstarts(const Chunk &chunk, int32_t ncols, int32_t *start) {
    int32_t c = 0;
    for (int64_t k = 0; k < chunk.nnz; k++)
        while (c <= chunk.var[k])
            start[c++] = static_cast<int32_t>(k);
    std::fill(start + c, start + ncols + 1, static_cast<int32_t>(chunk.nnz));
}

TRVmatrix rowsinplace(TRVmodel &model) {
    const Chunk *chunk = inonepiece(model);
    if (!chunk)
        return {};
    // The struct serves owned matrices too; callers of a view only read.
    return {chunk->nrows, chunk->ptr[chunk->nrows], const_cast<int32_t *>(chunk->ptr.data()),
            const_cast<int32_t *>(chunk->var.data()), const_cast<double *>(chunk->coef.data())};
}

TRVmatrix columnsinplace(TRVmodel &model, const double *&value, bool &owned) {
    const int32_t ncols = model.columns.ids.committed();
    TRVmatrix found = model.rows.parked(ncols);
    if (!found.start && model.rows.park(model.columns))
        found = model.rows.parked(ncols);
    owned = !found.start;
    if (owned) {
        const Chunk *chunk = inonepiece(model);
        if (chunk && ascendingthroughout(*chunk)) {
            value = chunk->coef.data();
            return besidevalues(*chunk, ncols);
        }
        if (!chunk || (chunk->nnz >= kManyEntries && farapart(model.rows.chunks())))
            found = matrixbycolumns(model);
    }
    value = found.value;
    return found;
}

TRVmatrix matrixbyrows(TRVmodel &model) {
    return mapped(model) ? byrows(model, Mapped{model.columns.ids}) : byrows(model, Same{});
}

} // namespace store
