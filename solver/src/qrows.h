// qrows.h: QRows, the quadratic rows: sense and right-hand side by slot (9 bytes a row), linear and quadratic terms in
// one piece of CSR form each, over ids as the linear rows are. QObjective, the quadratic terms of the objective.
//
//   row i    coef[k] * var[k],                k in ptr[i] .. ptr[i+1]
//          + quad.coef[k] * var1[k] * var2[k],  k in qptr[i] .. qptr[i+1]
//
// No single coefficient of these is ever set, so nothing here needs room to grow inside.
#pragma once

#include "columns.h"
#include "names.h"
#include "quadterms.h"
#include "registry.h"
#include "rows.h"
#include "tarvo.h"

#include <cmath>

namespace store {

// One quadratic row: its linear terms, then its quadratic ones.
struct QRow {
    int64_t n;
    const int32_t *var;
    const double *coef;
    int64_t nq;
    const int32_t *var1, *var2;
    const double *qcoef;
};

class QRows {
  public:
    Names names{'Q'};
    Registry ids{TRV_QCONSTR, names};
    Buffer<double> rhs; // +-INFINITY for none
    Buffer<char> sense; // '<' '>' '='

    int32_t add(const Columns &columns, int64_t nrows, const TRVqrows &rows, const char *newsense, int sensestep,
                const double *newrhs, int rhsstep, const TRVnames *newnames);

    QRow row(int32_t slot) const {
        const int64_t from = ptr_[slot], qfrom = qptr_[slot];
        return {ptr_[slot + 1] - from,     var_.data() + from,        coef_.data() + from,      qptr_[slot + 1] - qfrom,
                quad_.var1.data() + qfrom, quad_.var2.data() + qfrom, quad_.coef.data() + qfrom};
    }
    // The row as the bounds of its terms and the arrays of all.
    TRVqrows view(int32_t slot) const {
        return {ptr_.data() + slot, var_.data(),       coef_.data(),     qptr_.data() + slot,
                quad_.var1.data(),  quad_.var2.data(), quad_.coef.data()};
    }
    double lower(int32_t slot) const { return sense[slot] == '<' ? -INFINITY : rhs[slot]; }
    double upper(int32_t slot) const { return sense[slot] == '>' ? INFINITY : rhs[slot]; }

    // Of the rows in the model.
    int64_t linearterms() const { return ptr_.empty() ? 0 : ptr_[ids.committed()]; }
    int64_t quadraticterms() const { return qptr_.empty() ? 0 : qptr_[ids.committed()]; }
    // Rows in the model without a quadratic term.
    int32_t linearrows() const;
    // f(slot, QRow) for the rows in the model, in order.
    template <class F> void each(F f) const {
        for (int32_t i = 0; i < ids.committed(); i++)
            f(i, row(i));
    }

    // As in Rows.
    void variablesremoved() { stale_ = true; }
    void purge(const Columns &columns) noexcept;
    void update(const Columns &columns) noexcept;
    // What TRVgetdata points into.
    void guard(Yard *yard) {
        rhs.guard(yard);
        sense.guard(yard);
    }

    // What one right-hand side becomes when it is stored; an error says who it is of.
    template <class Who> static double checkedrhs(double value, char sense, Who who, const char *what) {
        const bool none = (sense == '<' && value >= TRV_INFINITY) || (sense == '>' && value <= -TRV_INFINITY);
        if (!isfinite(value) && !none)
            failvalue(what, who, value);
        return normalized(value);
    }

  private:
    void roomlinear(const Columns &columns, const TRVqrows &rows, Buffer<int64_t> &block);
    void roomquadratic(const Columns &columns, const TRVqrows &rows, Buffer<int64_t> &block);
    void roomsides(int64_t nrows, const char *newsense, int sensestep, const double *newrhs, int rhsstep,
                   const TRVnames *newnames);
    template <class Gone> void filter(Gone gone, bool wholerows) noexcept;

    Buffer<int64_t> ptr_, qptr_; // slots + 1, or empty
    Buffer<int32_t> var_;
    Buffer<double> coef_;
    QuadTerms quad_;
    bool stale_ = false;
    Marker marker_;
    PairMarker pairs_;
};

class QObjective {
  public:
    // False if these were the terms already.
    bool replace(QuadTerms &&terms) noexcept;
    // In the order of the upper triangle's columns. Terms of pending variables, which have no position, included.
    const QuadTerms &terms() const { return terms_; }
    // Terms between variables in the model.
    int64_t count(const Columns &columns) const;
    // f(position1, position2, coefficient) for these.
    template <class F> void each(const Columns &columns, F f) const {
        const int64_t n = terms_.size();
        const bool same = columns.ids.identity() && columns.ids.committed() == columns.ids.slots();
        for (int64_t k = 0; k < n; k++) {
            const int32_t i = same ? terms_.var1[k] : columns.ids.position(terms_.var1[k]);
            const int32_t j = same ? terms_.var2[k] : columns.ids.position(terms_.var2[k]);
            if (i >= 0 && j >= 0)
                f(i, j, terms_.coef[k]);
        }
    }

    // As in Rows.
    void variablesremoved() { stale_ = true; }
    void purge(const Columns &columns) noexcept;
    void update(const Columns &columns) noexcept;

  private:
    template <class Gone> void filter(Gone gone) noexcept;

    QuadTerms terms_;
    bool stale_ = false;
};

} // namespace store
