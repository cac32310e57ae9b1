// Kernels over single summands and over constants; flat_forms.cpp has those over whole forms.
#include "flat_rows.h"

#include <cstring>

namespace flat {

int64_t size_of(const Shape &shape) {
    int64_t size = 1;
    for (int64_t extent : shape)
        size *= extent;
    return size;
}

Summand single(Buffer<int32_t> ids, double scale) {
    Summand summand;
    summand.nrows = ids.size();
    summand.width = 1;
    summand.cols = std::move(ids);
    summand.scale = scale;
    return summand;
}

Summand scaled(const Summand &summand, double factor) {
    Summand result = summand;
    if (summand.coef.empty()) {
        result.scale = summand.scale * factor;
    } else if (factor != 1.0) {
        int64_t n = summand.nnz();
        result.coef = Buffer<double>(n);
        const double *from = summand.coef.data();
        std::transform(from, from + n, result.coef.write(), [factor](double c) { return c * factor; });
    }
    return result;
}

Summand scaled_rows(const Summand &summand, const double *factors) {
    Summand result = summand;
    result.coef = Buffer<double>(summand.nnz());
    result.scale = 1.0;
    double *to = result.coef.write();
    const double *from = summand.coef.data();
    for (int64_t row = 0; row < summand.nrows; ++row) {
        const double factor = factors[row];
        for (int64_t k = summand.begin(row), end = summand.end(row); k < end; ++k)
            to[k] = (from ? from[k] : summand.scale) * factor;
    }
    return result;
}

namespace {

// Width 1 is what variables and their shifted, scaled and broadcast arrays are: no pointers to follow.
Summand gathered_single(const Summand &summand, const int64_t *map, int64_t nrows) {
    Summand result;
    result.nrows = nrows;
    result.width = 1;
    result.scale = summand.scale;
    result.vars = summand.vars;
    result.cols = Buffer<int32_t>(nrows);
    int32_t *cols = result.cols.write();
    for (int64_t i = 0; i < nrows; ++i)
        cols[i] = summand.column(map[i]);
    if (!summand.coef.empty()) {
        result.coef = Buffer<double>(nrows);
        double *coef = result.coef.write();
        for (int64_t i = 0; i < nrows; ++i)
            coef[i] = summand.coef[map[i]];
    }
    return result;
}

} // namespace

Summand gathered(const Summand &summand, const int64_t *map, int64_t nrows) {
    if (summand.ptr.empty() && summand.width == 1)
        return gathered_single(summand, map, nrows);
    Summand result;
    result.nrows = nrows;
    result.width = summand.width;
    result.scale = summand.scale;
    result.vars = summand.vars;
    int64_t total = nrows * summand.width;
    if (!summand.ptr.empty()) {
        result.ptr = Buffer<int64_t>(nrows + 1);
        int64_t *ptr = result.ptr.write();
        total = 0;
        for (int64_t i = 0; i < nrows; ++i) {
            ptr[i] = total;
            total += summand.end(map[i]) - summand.begin(map[i]);
        }
        ptr[nrows] = total;
    }
    result.cols = Buffer<int32_t>(total);
    int32_t *cols = result.cols.write();
    if (!summand.coef.empty())
        result.coef = Buffer<double>(total);
    double *coef = result.coef.write();
    int64_t k = 0;
    for (int64_t i = 0; i < nrows; ++i)
        for (int64_t j = summand.begin(map[i]), end = summand.end(map[i]); j < end; ++j, ++k) {
            cols[k] = summand.column(j);
            if (coef)
                coef[k] = summand.coef[j];
        }
    return result;
}

std::optional<int32_t> counting_ids(const Summand &summand) {
    const auto first = [](const Buffer<int32_t> &buffer) -> std::optional<int32_t> {
        if (buffer.empty())
            return 0; // the column itself
        return buffer.counts() ? std::optional(buffer.counting()) : std::nullopt;
    };
    const auto cols = first(summand.cols), vars = first(summand.vars);
    return cols && vars ? std::optional(*cols + *vars) : std::nullopt;
}

namespace {

// Writes rows first..last of one summand, row r at place[r - first], and moves the places on.
template <bool HasCols, bool HasVars>
void write_block(const Summand &summand, int64_t first, int64_t last, int64_t *place, int32_t *ids, double *coef) {
    const double *from = summand.coef.data();
    const int32_t *cols = summand.cols.data(), *vars = summand.vars.data();
    for (int64_t row = first; row < last; ++row) {
        int64_t p = place[row - first];
        for (int64_t k = summand.begin(row), end = summand.end(row); k < end; ++k, ++p) {
            const int32_t column = HasCols ? cols[k] : static_cast<int32_t>(k);
            ids[p] = HasVars ? vars[column] : column;
            coef[p] = from ? from[k] : summand.scale;
        }
        place[row - first] = p;
    }
}

void write_block(const Summand &summand, int64_t first, int64_t last, int64_t *place, int32_t *ids, double *coef) {
    bool cols = !summand.cols.empty(), vars = !summand.vars.empty();
    auto write = cols ? (vars ? write_block<true, true> : write_block<true, false>)
                      : (vars ? write_block<false, true> : write_block<false, false>);
    write(summand, first, last, place, ids, coef);
}

// One summand's terms already stand in the order of the result.
void write_single(const Summand &summand, int32_t *ids, double *coef) {
    int64_t n = summand.nnz();
    if (n == 0)
        return;
    if (const auto first = counting_ids(summand))
        for (int64_t k = 0; k < n; ++k)
            ids[k] = *first + static_cast<int32_t>(k);
    else if (summand.vars.empty() || summand.cols.empty())
        std::memcpy(ids, summand.vars.empty() ? summand.cols.data() : summand.vars.data(), sizeof(int32_t) * n);
    else
        for (int64_t k = 0; k < n; ++k)
            ids[k] = summand.vars.data()[summand.cols.data()[k]];
    if (summand.coef.empty())
        std::fill_n(coef, n, summand.scale);
    else
        std::memcpy(coef, summand.coef.data(), sizeof(double) * n);
}

// One term of this summand a row, at a fixed place within rows of `stride` terms.
void write_column(const Summand &summand, int64_t first, int64_t last, int64_t stride, int32_t *ids, double *coef) {
    const double *from = summand.coef.data();
    if (const auto id = counting_ids(summand)) {
        for (int64_t row = first; row < last; ++row, ids += stride)
            *ids = *id + static_cast<int32_t>(row);
    } else {
        const int32_t *cols = summand.cols.data(), *vars = summand.vars.data();
        for (int64_t row = first; row < last; ++row, ids += stride) {
            int32_t column = cols ? cols[row] : static_cast<int32_t>(row);
            *ids = vars ? vars[column] : column;
        }
    }
    for (int64_t row = first; row < last; ++row, coef += stride)
        *coef = from ? from[row] : summand.scale;
}

} // namespace

void write_rows(std::span<const Summand> summands, int64_t nrows, int64_t *ptr, int32_t *ids, double *coef) {
    write_pointers(summands, nrows, ptr);
    if (summands.size() == 1)
        return write_single(summands[0], ids, coef);
    const bool single = all_single(summands);
    const int64_t stride = static_cast<int64_t>(summands.size());
    int64_t place[block_rows];
    for (int64_t first = 0; first < nrows; first += block_rows) {
        int64_t last = std::min(first + block_rows, nrows);
        for (int64_t s = 0; single && s < stride; ++s)
            write_column(summands[s], first, last, stride, ids + first * stride + s, coef + first * stride + s);
        if (single)
            continue;
        std::copy(ptr + first, ptr + last, place);
        for (const Summand &summand : summands)
            write_block(summand, first, last, place, ids, coef);
    }
}

namespace {

bool has_explicit_ids(const Summand &summand) {
    return summand.vars.empty() && !summand.cols.empty();
}

} // namespace

Summand joined(std::span<const Summand> summands, int64_t nrows) {
    if (summands.size() == 1 && has_explicit_ids(summands[0]))
        return summands[0];
    Summand result;
    result.nrows = nrows;
    bool fixed = true;
    int64_t total = 0;
    for (const Summand &summand : summands) {
        fixed = fixed && summand.ptr.empty();
        result.width += summand.width;
        total += summand.nnz();
    }
    Buffer<int64_t> ptr(nrows + 1);
    result.cols = Buffer<int32_t>(total);
    result.coef = Buffer<double>(total);
    write_rows(summands, nrows, ptr.write(), result.cols.write(), result.coef.write());
    if (!fixed) {
        result.ptr = std::move(ptr);
        result.width = 0;
    }
    return result;
}

} // namespace flat
