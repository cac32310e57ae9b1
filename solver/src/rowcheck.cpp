// rowcheck.cpp: the check of a block of rows, one pass over its terms.
//
// The common row has ascending ids, finite values and no zero: for it the pass reads each term once and writes nothing.
// Only a row that is not ascending is looked at again for duplicates, and only from the first row that loses a term on
// does anything move.
#include "rows.h"

#include "failure.h"
#include "scan.h"

#include <algorithm>
#include <cinttypes>

namespace store {

void Marker::prepare(int64_t variables, int64_t terms) {
    if (terms > INT32_MAX - static_cast<int64_t>(next_)) {
        std::fill(met_.data(), met_.end(), 0);
        next_ = 1;
    }
    met_.pad(variables, 0);
}

namespace {

struct Scan {
    bool inrange = true, finite = true, ascending = true, nonzero = true;
};

Scan scanrow(int64_t n, const int32_t *var, const double *coef, int32_t count) {
    Scan s;
    int32_t previous = -1;
    for (int64_t k = 0; k < n; k++) {
        s.inrange &= static_cast<uint32_t>(var[k]) < static_cast<uint32_t>(count);
        s.finite &= isfinite(coef[k]);
        s.ascending &= var[k] > previous;
        s.nonzero &= coef[k] != 0.0;
        previous = var[k];
    }
    return s;
}

[[noreturn]] void refuserow(const Registry &variables, int64_t row, int64_t n, const int32_t *var, const double *coef) {
    for (int64_t k = 0; k < n; k++) {
        if (!variables.usable(var[k]))
            throw RowFailure{{TRV_ERROR_NOT_IN_MODEL, variables.absence(var[k])}, row};
        if (!isfinite(coef[k]))
            throw RowFailure{{TRV_ERROR_INVALID_ARGUMENT,
                              "the coefficient of " + variables.called(var[k]) + " is " + number(coef[k])},
                             row};
    }
    throw RowFailure{{TRV_ERROR_INVALID_ARGUMENT, "invalid terms"}, row};
}

bool shorthasdoubles(int64_t n, const int32_t *var) {
    for (int64_t k = 1; k < n; k++)
        for (int64_t j = 0; j < k; j++)
            if (var[j] == var[k])
                return true;
    return false;
}

// Adds later occurrences to the first one, which keeps its place, and drops them. Returns whether a sum was not finite.
bool sumdoubles(Marker &marker, const Registry &variables, int64_t &n, int32_t *var, double *coef) {
    marker.prepare(variables.count(), n);
    const int32_t base = marker.next();
    int64_t kept = 0;
    bool finite = true;
    for (int64_t k = 0; k < n; k++) {
        int32_t &met = marker.met(var[k]);
        if (met >= base) {
            coef[met - base] += coef[k];
            finite &= isfinite(coef[met - base]);
            continue;
        }
        met = static_cast<int32_t>(base + kept);
        var[kept] = var[k];
        coef[kept++] = coef[k];
    }
    marker.advance(kept);
    n = kept;
    return finite;
}

int64_t dropzeros(int64_t n, int32_t *var, double *coef) {
    int64_t kept = 0;
    for (int64_t k = 0; k < n; k++) {
        if (coef[k] == 0.0)
            continue;
        var[kept] = var[k];
        coef[kept++] = coef[k];
    }
    return kept;
}

// Returns the number of terms that stay, at the front of the row.
int64_t tidyrow(const Registry &variables, Marker &marker, int64_t row, int64_t n, int32_t *var, double *coef) {
    Scan scan = scanrow(n, var, coef, variables.count());
    bool usable = scan.inrange && scan.finite;
    if (usable && (!variables.identity() || variables.anygone()))
        for (int64_t k = 0; k < n; k++)
            usable &= variables.usable(var[k]);
    if (!usable)
        refuserow(variables, row, n, var, coef);
    // Eight ids compared in pairs cost less than the marker's misses.
    if (!scan.ascending && (n > 8 || shorthasdoubles(n, var))) {
        int64_t before = n;
        if (!sumdoubles(marker, variables, n, var, coef))
            refuserow(variables, row, n, var, coef);
        scan.nonzero &= n == before;
    }
    return scan.nonzero ? n : dropzeros(n, var, coef);
}

} // namespace

namespace {

bool pointershold(int64_t nrows, int64_t nnz, const int64_t *ptr) {
    bool hold = ptr[0] == 0 && ptr[nrows] <= nnz;
    for (int64_t i = 0; i < nrows; i++)
        hold &= ptr[i] <= ptr[i + 1];
    return hold;
}

constexpr int64_t kBlock = 4096; // terms looked at several times while they are in the nearest cache

// Where the ids do not ascend, one row must end and another begin: counted over all terms, and over the ends of rows.
int32_t descents(int64_t n, const int32_t *var) {
    int32_t count = 0;
    for (int64_t k = 1; k < n; k++)
        count += var[k] <= var[k - 1];
    return count;
}

int64_t descentsatends(int64_t nrows, const int64_t *ptr, const int32_t *var) {
    int64_t count = 0;
    for (int64_t i = 1; i < nrows; i++) {
        const int64_t begin = ptr[i];
        if (begin > 0 && begin < ptr[i + 1])
            count += var[begin] <= var[begin - 1];
    }
    return count;
}

} // namespace

// A pass without a branch per row: rows of two terms are the common case.
bool tidyalready(const Registry &variables, int64_t nrows, int64_t nnz, const int64_t *ptr, const int32_t *var,
                 const double *coef) {
    if (!variables.identity() || variables.anygone() || !pointershold(nrows, nnz, ptr))
        return false;
    const int64_t n = ptr[nrows];
    int64_t down = 0;
    for (int64_t from = 0; from < n; from += kBlock) {
        const int64_t terms = std::min(kBlock, n - from);
        if (!allbelow(terms, var + from, variables.count()) || !allplain(terms, coef + from))
            return false;
        down += descents(from ? terms + 1 : terms, from ? var + from - 1 : var);
    }
    return down == descentsatends(nrows, ptr, var);
}

int64_t tidyterms(const Registry &variables, Marker &marker, int64_t nrows, int64_t nnz, int64_t *ptr, int32_t *var,
                  double *coef) {
    if (tidyalready(variables, nrows, nnz, ptr, var, coef))
        return ptr[nrows];
    if (ptr[0] != 0)
        failf(TRV_ERROR_INVALID_ARGUMENT, "row pointers begin with %" PRId64 ", not with 0", ptr[0]);
    int64_t from = 0, kept = 0;
    for (int64_t i = 0; i < nrows; i++) {
        const int64_t to = ptr[i + 1];
        if (to < from)
            failf(TRV_ERROR_INVALID_ARGUMENT, "row pointers decrease from %" PRId64 " to %" PRId64 " at row %" PRId64,
                  from, to, i);
        if (to > nnz)
            failf(TRV_ERROR_INVALID_ARGUMENT,
                  "row pointer %" PRId64 " at row %" PRId64 " is beyond the %" PRId64 " terms", to, i, nnz);
        if (to - from > INT32_MAX)
            failf(TRV_ERROR_SIZE_LIMIT, "row %" PRId64 " of the block has %" PRId64 " terms", i, to - from);
        const int64_t n = tidyrow(variables, marker, i, to - from, var + from, coef + from);
        if (kept != from) {
            moveterms(var + kept, var + from, n);
            moveterms(coef + kept, coef + from, n);
        }
        kept += n;
        ptr[i + 1] = kept;
        from = to;
    }
    return kept;
}

} // namespace store
