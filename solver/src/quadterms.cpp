// quadterms.cpp: the check of quadratic terms, and how equal pairs are found.
//
// What is tidy already (ascending pairs in each row; a diagonal; an upper triangle by columns) is read once and copied.
// An objective in any other order is sorted by two counting passes over the variables, the first left out where the
// smaller variables ascend already, as those of an upper triangle by rows do.
#include "quadterms.h"

#include "blockpointers.h"
#include "failure.h"

#include <algorithm>
#include <bit>

namespace store {

namespace {

// The smaller variable first. Returns whether all were ever given.
bool orderpairs(int64_t n, int32_t *var1, int32_t *var2, int32_t count) {
    const uint32_t limit = static_cast<uint32_t>(count);
    uint32_t inrange = 1;
    for (int64_t k = 0; k < n; k++) {
        const int32_t a = var1[k], b = var2[k];
        inrange &= (static_cast<uint32_t>(a) < limit) & (static_cast<uint32_t>(b) < limit);
        var1[k] = std::min(a, b);
        var2[k] = std::max(a, b);
    }
    return inrange;
}

bool allfinite(int64_t n, const double *coef) {
    bool finite = true;
    for (int64_t k = 0; k < n; k++)
        finite &= isfinite(coef[k]);
    return finite;
}

bool anyzero(int64_t n, const double *coef) {
    bool zero = false;
    for (int64_t k = 0; k < n; k++)
        zero |= coef[k] == 0.0;
    return zero;
}

bool allusable(const Registry &variables, int64_t n, const PairSpan &terms) {
    if (variables.identity() && !variables.anygone())
        return true;
    bool usable = true;
    for (int64_t k = 0; k < n; k++)
        usable &= variables.usable(terms.var1[k]) && variables.usable(terms.var2[k]);
    return usable;
}

// What is wrong with a product, TRV_OK if nothing is.
Failure pairflaw(const Registry &variables, int32_t var1, int32_t var2, double coef) {
    for (const int32_t var : {var1, var2})
        if (!variables.usable(var))
            return {TRV_ERROR_NOT_IN_MODEL, variables.absence(var)};
    if (isfinite(coef))
        return {TRV_OK, ""};
    return {TRV_ERROR_INVALID_ARGUMENT, "the coefficient of the product of " + variables.called(var1) + " and " +
                                            variables.called(var2) + " is " + number(coef)};
}

void requireproduct(const Registry &variables, int32_t var1, int32_t var2, double coef) {
    if (const Failure flaw = pairflaw(variables, var1, var2, coef); flaw.code)
        fail(flaw.code, "objective: " + flaw.text);
}

void requirerow(const Registry &variables, int64_t row, int64_t n, const PairSpan &terms) {
    for (int64_t k = 0; k < n; k++)
        if (const Failure flaw = pairflaw(variables, terms.var1[k], terms.var2[k], terms.coef[k]); flaw.code)
            throw RowFailure{flaw, row};
}

uint64_t keyof(int32_t major, int32_t minor) {
    return static_cast<uint64_t>(static_cast<uint32_t>(major)) << 32 | static_cast<uint32_t>(minor);
}

// Whether the pairs ascend in each row, counted as descents over all terms and over the beginnings of rows.
bool ascending(int64_t nrows, const int64_t *ptr, const PairSpan &terms) {
    const auto descends = [&](int64_t k) {
        return keyof(terms.var1[k], terms.var2[k]) <= keyof(terms.var1[k - 1], terms.var2[k - 1]);
    };
    int64_t all = 0, atbeginnings = 0;
    for (int64_t k = 1; k < ptr[nrows]; k++)
        all += descends(k);
    for (int64_t i = 1; i < nrows; i++)
        if (ptr[i] > 0 && ptr[i] < ptr[i + 1])
            atbeginnings += descends(ptr[i]);
    return all == atbeginnings;
}

bool shorthasdoubles(int64_t n, const PairSpan &terms) {
    for (int64_t k = 1; k < n; k++)
        for (int64_t j = 0; j < k; j++)
            if (terms.var1[j] == terms.var1[k] && terms.var2[j] == terms.var2[k])
                return true;
    return false;
}

int64_t sumdoubles(PairMarker &marker, int64_t n, const PairSpan &terms) {
    marker.prepare(n);
    int64_t kept = 0;
    for (int64_t k = 0; k < n; k++) {
        const int64_t met = marker.meet(terms, terms.var1[k], terms.var2[k], kept);
        if (met >= 0)
            terms.coef[met] += terms.coef[k];
        else
            terms.copy(kept++, k);
    }
    marker.advance(kept);
    return kept;
}

int64_t dropzeros(int64_t n, const PairSpan &terms) {
    int64_t kept = 0;
    for (int64_t k = 0; k < n; k++)
        if (terms.coef[k] != 0.0)
            terms.copy(kept++, k);
    return kept;
}

int64_t tidyrow(const Registry &variables, PairMarker &marker, int64_t row, int64_t n, const PairSpan &terms) {
    if (n > 8 || shorthasdoubles(n, terms)) { // eight pairs compared with each other cost less than hashing them
        n = sumdoubles(marker, n, terms);
        if (!allfinite(n, terms.coef))
            requirerow(variables, row, n, terms);
    }
    return dropzeros(n, terms);
}

// ---- sorting an objective

struct Entry {
    int32_t var1, var2;
    double coef;
};

// Stable, by one of the two variables: counts, then places. entry(k) is the k-th of n.
template <class From, class Key> Buffer<Entry> scattered(int32_t count, int64_t n, From entry, Key key) {
    Buffer<int64_t> place;
    place.pad(static_cast<size_t>(count) + 1, 0);
    for (int64_t k = 0; k < n; k++)
        place[key(entry(k)) + 1]++;
    for (int32_t v = 0; v < count; v++)
        place[v + 1] += place[v];
    Buffer<Entry> to;
    to.resize(n);
    for (int64_t k = 0; k < n; k++) {
        const Entry e = entry(k);
        to[place[key(e)]++] = e;
    }
    return to;
}

// Equal pairs stand side by side.
QuadTerms merged(const Registry &variables, const Buffer<Entry> &sorted) {
    QuadTerms terms;
    terms.room(sorted.size());
    const PairSpan out = terms.span();
    int64_t kept = 0;
    for (size_t k = 0, next = 0; k < sorted.size(); k = next) {
        double sum = sorted[k].coef;
        for (next = k + 1;
             next < sorted.size() && sorted[next].var1 == sorted[k].var1 && sorted[next].var2 == sorted[k].var2;)
            sum += sorted[next++].coef;
        out.var1[kept] = sorted[k].var1;
        out.var2[kept] = sorted[k].var2;
        out.coef[kept] = sum;
        kept += sum != 0.0;
    }
    for (int64_t k = 0; k < kept; k++)
        if (!isfinite(out.coef[k]))
            requireproduct(variables, out.var1[k], out.var2[k], out.coef[k]);
    terms.grow(kept);
    return terms;
}

QuadTerms sorted(const Registry &variables, int64_t n, const int32_t *var1, const int32_t *var2, const double *coef) {
    const auto given = [&](int64_t k) {
        return Entry{std::min(var1[k], var2[k]), std::max(var1[k], var2[k]), coef[k]};
    };
    const auto smaller = [](const Entry &e) { return e.var1; };
    const auto larger = [](const Entry &e) { return e.var2; };
    bool byrows = true;
    for (int64_t k = 1; k < n; k++)
        byrows &= smaller(given(k)) >= smaller(given(k - 1));
    if (byrows)
        return merged(variables, scattered(variables.count(), n, given, larger));
    const Buffer<Entry> first = scattered(variables.count(), n, given, smaller);
    const auto again = [&](int64_t k) { return first[k]; };
    return merged(variables, scattered(variables.count(), n, again, larger));
}

// Whether the pairs stand in the stored order as they are, the smaller variable first.
bool bycolumns(int64_t n, const int32_t *var1, const int32_t *var2) {
    bool tidy = n == 0 || var1[0] <= var2[0];
    for (int64_t k = 1; k < n; k++)
        tidy &= (var1[k] <= var2[k]) & (keyof(var2[k], var1[k]) > keyof(var2[k - 1], var1[k - 1]));
    return tidy;
}

void requirepairs(const Registry &variables, int64_t n, const int32_t *var1, const int32_t *var2, const double *coef) {
    const uint32_t limit = static_cast<uint32_t>(variables.count());
    bool usable = variables.identity() && !variables.anygone();
    for (int64_t k = 0; k < n; k++)
        usable &=
            (static_cast<uint32_t>(var1[k]) < limit) & (static_cast<uint32_t>(var2[k]) < limit) & isfinite(coef[k]);
    for (int64_t k = 0; !usable && k < n; k++)
        requireproduct(variables, var1[k], var2[k], coef[k]);
}

} // namespace

void PairMarker::prepare(int64_t n) {
    const uint64_t places = std::bit_ceil(static_cast<uint64_t>(2 * n));
    if (static_cast<uint64_t>(n) > UINT32_MAX - base_) {
        std::fill(met_.data(), met_.end(), 0U);
        base_ = 1;
    }
    met_.pad(places, 0);
    mask_ = places - 1;
    shift_ = 64 - std::countr_zero(places);
}

int64_t PairMarker::meet(const PairSpan &terms, int32_t var1, int32_t var2, int64_t kept) {
    // Fibonacci hashing: the upper bits of the product depend on all bits of the pair.
    uint64_t at = keyof(var1, var2) * 0x9E3779B97F4A7C15ULL;
    at = (at ^ at >> 32) * 0x9E3779B97F4A7C15ULL >> shift_;
    for (;; at = (at + 1) & mask_) {
        if (met_[at] < base_) {
            met_[at] = base_ + static_cast<uint32_t>(kept);
            return -1;
        }
        const int64_t k = met_[at] - base_;
        if (terms.var1[k] == var1 && terms.var2[k] == var2)
            return k;
    }
}

int64_t tidypairs(const Registry &variables, PairMarker &marker, int64_t nrows, int64_t nnz, int64_t *ptr,
                  PairSpan terms) {
    requirepointers(nrows, nnz, ptr);
    const int64_t n = ptr[nrows];
    const bool inrange = orderpairs(n, terms.var1, terms.var2, variables.count());
    if (!inrange || !allfinite(n, terms.coef) || !allusable(variables, n, terms))
        for (int64_t i = 0; i < nrows; i++)
            requirerow(variables, i, ptr[i + 1] - ptr[i], terms.from(ptr[i]));
    if (!anyzero(n, terms.coef) && ascending(nrows, ptr, terms))
        return n;
    int64_t from = 0, kept = 0;
    for (int64_t i = 0; i < nrows; i++) {
        const int64_t to = ptr[i + 1], left = tidyrow(variables, marker, i, to - from, terms.from(from));
        for (int64_t k = 0; kept != from && k < left; k++)
            terms.copy(kept + k, from + k);
        kept += left;
        ptr[i + 1] = kept;
        from = to;
    }
    return kept;
}

QuadTerms sortedpairs(const Registry &variables, int64_t n, const int32_t *var1, const int32_t *var2,
                      const double *coef) {
    requirecount("quadratic terms", n);
    requirepointer("first variables of quadratic terms", var1, n);
    requirepointer("second variables of quadratic terms", var2, n);
    requirepointer("coefficients of quadratic terms", coef, n);
    requirepairs(variables, n, var1, var2, coef);
    if (!bycolumns(n, var1, var2) || anyzero(n, coef))
        return sorted(variables, n, var1, var2, coef);
    QuadTerms terms;
    terms.room(n);
    moveterms(terms.var1.data(), var1, n);
    moveterms(terms.var2.data(), var2, n);
    moveterms(terms.coef.data(), coef, n);
    terms.grow(n);
    return terms;
}

} // namespace store
