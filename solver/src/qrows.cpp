// qrows.cpp: quadratic rows come in and are taken out; the quadratic objective is replaced and filtered.
#include "qrows.h"

#include "blockpointers.h"
#include "failure.h"

#include <algorithm>

namespace store {

// ---- adding

void QRows::roomsides(int64_t nrows, const char *newsense, int sensestep, const double *newrhs, int rhsstep,
                      const TRVnames *newnames) {
    char *s = sense.room(nrows);
    double *r = rhs.room(nrows);
    for (int64_t i = 0; i < nrows; i++) {
        s[i] = newsense[i * sensestep];
        const auto who = [&] { return calledinblock(TRV_QCONSTR, ids.count(), nrows, i, newnames); };
        if (s[i] != '<' && s[i] != '>' && s[i] != '=')
            fail(TRV_ERROR_INVALID_ARGUMENT,
                 "QSense of " + who() + " is " + character(s[i]) + ", not one of '<', '>', '='");
        r[i] = checkedrhs(newrhs[i * rhsstep], s[i], who, "the right-hand side");
    }
}

void QRows::roomlinear(const Columns &columns, const TRVqrows &rows, Buffer<int64_t> &block) {
    const int64_t nrows = static_cast<int64_t>(block.size()) - 1, n = requireterms("linear terms", block);
    requirepointer("variables of terms", rows.var, n);
    requirepointer("coefficients", rows.coef, n);
    int32_t *var = var_.room(n);
    double *coef = coef_.room(n);
    moveterms(var, rows.var, n);
    moveterms(coef, rows.coef, n);
    tidyterms(columns.ids, marker_, nrows, n, block.data(), var, coef);
}

void QRows::roomquadratic(const Columns &columns, const TRVqrows &rows, Buffer<int64_t> &block) {
    const int64_t nrows = static_cast<int64_t>(block.size()) - 1, n = requireterms("quadratic terms", block);
    requirepointer("first variables of quadratic terms", rows.var1, n);
    requirepointer("second variables of quadratic terms", rows.var2, n);
    requirepointer("coefficients of quadratic terms", rows.qcoef, n);
    quad_.room(n);
    const PairSpan fresh{quad_.var1.end(), quad_.var2.end(), quad_.coef.end()};
    moveterms(fresh.var1, rows.var1, n);
    moveterms(fresh.var2, rows.var2, n);
    moveterms(fresh.coef, rows.qcoef, n);
    tidypairs(columns.ids, pairs_, nrows, n, block.data(), fresh);
}

// All is written behind what is there, and seen only when the last step that can fail has not.
int32_t QRows::add(const Columns &columns, int64_t nrows, const TRVqrows &rows, const char *newsense, int sensestep,
                   const double *newrhs, int rhsstep, const TRVnames *newnames) {
    ids.reserve(nrows);
    roompointers({&ptr_, &qptr_}, nrows);
    Buffer<int64_t> block = blockpointers(nrows, rows.ptr), qblock = blockpointers(nrows, rows.qptr);
    roomsides(nrows, newsense, sensestep, newrhs, rhsstep, newnames);
    namingrows(TRV_QCONSTR, ids.count(), nrows, newnames, [&] {
        roomlinear(columns, rows, block);
        roomquadratic(columns, rows, qblock);
    });
    names.add(ids.count(), nrows, newnames);
    sense.grow(nrows);
    rhs.grow(nrows);
    growpointers(ptr_, block);
    growpointers(qptr_, qblock);
    var_.grow(block[nrows]);
    coef_.grow(block[nrows]);
    quad_.grow(qblock[nrows]);
    return ids.add(nrows);
}

int32_t QRows::linearrows() const {
    int32_t sum = 0;
    for (int32_t i = 0; i < ids.committed(); i++)
        sum += qptr_[i] == qptr_[i + 1];
    return sum;
}

// ---- removal and update

// Takes out terms over variables that are gone, and with wholerows the rows that are.
template <class Gone> void QRows::filter(Gone gone, bool wholerows) noexcept {
    if (ptr_.empty())
        return;
    const PairSpan pairs = quad_.span();
    int64_t kept = 0, qkept = 0, from = 0, qfrom = 0;
    int32_t keptrows = 0;
    for (int32_t i = 0; i < ids.slots(); i++) {
        const int64_t to = ptr_[i + 1], qto = qptr_[i + 1];
        const bool keep = !wholerows || !ids.gone(i);
        for (int64_t k = from; keep && k < to; k++) {
            if (gone(var_[k]))
                continue;
            var_[kept] = var_[k];
            coef_[kept++] = coef_[k];
        }
        for (int64_t k = qfrom; keep && k < qto; k++)
            if (!gone(pairs.var1[k]) && !gone(pairs.var2[k]))
                pairs.copy(qkept++, k);
        keptrows += keep;
        ptr_[keptrows] = kept;
        qptr_[keptrows] = qkept;
        from = to;
        qfrom = qto;
    }
    ptr_.cut(keptrows + 1);
    qptr_.cut(keptrows + 1);
    var_.cut(kept);
    coef_.cut(kept);
    quad_.cut(qkept);
}

void QRows::purge(const Columns &columns) noexcept {
    if (stale_)
        filter([&](int32_t id) { return columns.ids.slot(id) < 0; }, false);
    stale_ = false;
}

void QRows::update(const Columns &columns) noexcept {
    if (columns.ids.anygone() || ids.anygone())
        filter([&](int32_t id) { return !columns.ids.usable(id); }, true);
    ids.compact(rhs);
    ids.compact(sense);
    ids.commit();
    stale_ = false;
}

// ---- the objective

bool QObjective::replace(QuadTerms &&terms) noexcept {
    const auto equal = [](const auto &a, const auto &b) { return std::equal(a.data(), a.data() + a.size(), b.data()); };
    if (terms.size() == terms_.size() && equal(terms.var1, terms_.var1) && equal(terms.var2, terms_.var2) &&
        equal(terms.coef, terms_.coef))
        return false;
    terms_ = std::move(terms);
    stale_ = false;
    return true;
}

int64_t QObjective::count(const Columns &columns) const {
    int64_t sum = 0;
    each(columns, [&](int32_t, int32_t, double) { sum++; });
    return sum;
}

template <class Gone> void QObjective::filter(Gone gone) noexcept {
    const PairSpan pairs = terms_.span();
    int64_t kept = 0;
    for (int64_t k = 0; k < terms_.size(); k++)
        if (!gone(pairs.var1[k]) && !gone(pairs.var2[k]))
            pairs.copy(kept++, k);
    terms_.cut(kept);
}

void QObjective::purge(const Columns &columns) noexcept {
    if (stale_)
        filter([&](int32_t id) { return columns.ids.slot(id) < 0; });
    stale_ = false;
}

void QObjective::update(const Columns &columns) noexcept {
    if (columns.ids.anygone())
        filter([&](int32_t id) { return !columns.ids.usable(id); });
    stale_ = false;
}

} // namespace store
