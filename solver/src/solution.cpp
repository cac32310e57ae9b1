// solution.cpp: the life of a solution: written by an engine, committed, outdated by a change.
#include "solution.h"

#include "failure.h"

#include <algorithm>

namespace store {

namespace {

double gapof(double bound, double objval) {
    if (bound == objval)
        return 0.0;
    return std::fabs(bound - objval) / std::max(std::fabs(objval), 1e-10);
}

} // namespace

void Solution::open(int32_t nvars, int32_t nrows, int32_t nqrows) {
    isopen_ = false;
    openx_.resize(nvars);
    openrc_.resize(nvars);
    openpi_.resize(nrows);
    openqpi_.cut(0);
    openqpi_.pad(nqrows, 0.0); // an engine that knows no quadratic rows leaves them alone
    // Never NULL, so that an engine need not care for an empty model.
    openx_.room(1);
    openrc_.room(1);
    openpi_.room(1);
    openqpi_.room(1);
    opennvars_ = nvars;
    opennrows_ = nrows;
    opennqrows_ = nqrows;
    isopen_ = true;
}

void Solution::commit(const TRVresult &result, int32_t nvars, int32_t nrows, int32_t nqrows) {
    if (result.status <= TRV_NOT_SOLVED || result.status > TRV_FAILED)
        failf(TRV_ERROR_INVALID_ARGUMENT, "status %d is not the outcome of a solve", result.status);
    if ((result.has_x || result.has_duals) && !isopen_)
        fail(TRV_ERROR_INVALID_ARGUMENT, "no solution is open");
    if (isopen_ && (opennvars_ != nvars || opennrows_ != nrows || opennqrows_ != nqrows))
        failf(TRV_ERROR_INVALID_ARGUMENT,
              "the solution was opened for %d variables, %d rows and %d quadratic rows; the model has %d, %d and %d",
              opennvars_, opennrows_, opennqrows_, nvars, nrows, nqrows);
    std::string engine = result.engine ? result.engine : "";
    std::string noduals = result.noduals ? result.noduals : "";
    keepfigures(result, std::move(engine), std::move(noduals));
    nvars_ = nvars;
    nrows_ = nrows;
    nqrows_ = nqrows;
    taketheopen(result.has_x, result.has_duals);
}

void Solution::keepfigures(const TRVresult &result, std::string engine, std::string noduals) noexcept {
    engine_ = std::move(engine);
    noduals_ = std::move(noduals);
    figures_ = result;
    figures_.engine = figures_.noduals = nullptr;
    if (std::isnan(figures_.gap))
        figures_.gap = gapof(figures_.bound, figures_.objval);
    status_ = result.status;
    outdated_ = false;
}

// A solve that found no X leaves the last one as what may be started from.
void Solution::taketheopen(bool withx, bool withduals) noexcept {
    if (hasx_ && !withx)
        fallback_.swap(x_);
    droparrays();
    hasx_ = withx;
    hasduals_ = withduals;
    if (hasx_) {
        x_.swap(openx_);
        fallback_.free();
    }
    if (hasduals_) {
        rc_.swap(openrc_);
        pi_.swap(openpi_);
        qpi_.swap(openqpi_);
    }
    openx_.free();
    openrc_.free();
    openpi_.free();
    openqpi_.free();
    isopen_ = false;
}

void Solution::droparrays() noexcept {
    x_.free();
    rc_.free();
    pi_.free();
    qpi_.free();
    activity_.free();
    qactivity_.free();
    nlactivity_.free();
    hasx_ = hasduals_ = activityknown_ = qactivityknown_ = nlactivityknown_ = false;
}

void Solution::outdate() noexcept {
    if (status_ == TRV_NOT_SOLVED)
        return;
    if (hasx_)
        fallback_.swap(x_);
    droparrays();
    status_ = TRV_NOT_SOLVED;
    outdated_ = true;
}

const double *Solution::start(const Columns &columns) {
    const size_t n = columns.ids.committed();
    const Buffer<double> &last = hasx_ ? x_ : fallback_, &set = columns.start;
    if (set.empty() && last.empty())
        return nullptr;
    if (set.empty() && last.size() >= n)
        return last.data();
    merged_.resize(n);
    for (size_t i = 0; i < n; i++) {
        merged_[i] = i < set.size() ? set[i] : NAN;
        if (std::isnan(merged_[i]) && i < last.size())
            merged_[i] = last[i];
    }
    return merged_.data();
}

const Buffer<double> &Solution::activity(const Columns &columns, const Rows &rows) {
    if (activityknown_)
        return activity_;
    activity_.resize(nrows_);
    rows.each([&](int32_t r, const Row &row) {
        double sum = 0.0;
        for (int64_t k = 0; k < row.n; k++) {
            const int32_t p = columns.ids.slot(row.var[k]);
            if (p >= 0 && p < nvars_)
                sum += row.coef[k] * x_[p];
        }
        activity_[r] = sum;
    });
    activityknown_ = true;
    return activity_;
}

// Terms of quadratic rows never change, so that once is enough.
const Buffer<double> &Solution::qactivity(const Columns &columns, const QRows &qrows) {
    if (qactivityknown_)
        return qactivity_;
    qactivity_.resize(nqrows_);
    // Variables of rows that were solved were there, and stand where they stood until an update.
    const auto at = [&](int32_t id) { return x_[columns.ids.slot(id)]; };
    qrows.each([&](int32_t r, const QRow &row) {
        double sum = 0.0;
        for (int64_t k = 0; k < row.n; k++)
            sum += row.coef[k] * at(row.var[k]);
        for (int64_t k = 0; k < row.nq; k++)
            sum += row.qcoef[k] * at(row.var1[k]) * at(row.var2[k]);
        qactivity_[r] = sum;
    });
    qactivityknown_ = true;
    return qactivity_;
}

// Nonlinear rows never change either.
const Buffer<double> &Solution::nlactivity(const Columns &columns, const NlRows &nlrows) {
    if (nlactivityknown_)
        return nlactivity_;
    const PointById point(columns.ids, x_.data(), nvars_);
    nlactivity_.resize(nlrows.ids.committed());
    evaluate(nlrows, point, nlactivity_.data());
    nlactivityknown_ = true;
    return nlactivity_;
}

} // namespace store
