// solution.h: Solution, what the last solve left: status, figures, and the arrays X, RC, Pi, QPi by position; the
// arrays that an engine is writing; and the values that the next solve may start from.
#pragma once

#include "buffer.h"
#include "columns.h"
#include "nlrows.h"
#include "qrows.h"
#include "rows.h"
#include "tarvo_engine.h"

#include <string>

namespace store {

class Solution {
  public:
    int status() const { return status_; }
    bool outdated() const { return outdated_; } // there was one, and the model has changed
    bool hasx() const { return hasx_; }
    bool hasduals() const { return hasduals_; }
    bool isopen() const { return isopen_; }
    int32_t nvars() const { return nvars_; }
    int32_t nrows() const { return nrows_; }
    int32_t nqrows() const { return nqrows_; }
    const Buffer<double> &x() const { return x_; }
    const Buffer<double> &rc() const { return rc_; }
    const Buffer<double> &pi() const { return pi_; }
    const Buffer<double> &qpi() const { return qpi_; }
    Buffer<double> &openx() { return openx_; }
    const Buffer<double> &openx() const { return openx_; }
    Buffer<double> &openrc() { return openrc_; }
    const Buffer<double> &openrc() const { return openrc_; }
    Buffer<double> &openpi() { return openpi_; }
    const Buffer<double> &openpi() const { return openpi_; }
    Buffer<double> &openqpi() { return openqpi_; }
    const Buffer<double> &openqpi() const { return openqpi_; }
    const TRVresult &figures() const { return figures_; }
    const std::string &engine() const { return engine_; }
    const std::string &noduals() const { return noduals_; } // why there are none, "" where nobody said

    void open(int32_t nvars, int32_t nrows, int32_t nqrows);
    void commit(const TRVresult &result, int32_t nvars, int32_t nrows, int32_t nqrows);
    // The model has changed: what is known is over, but X stays as what may be started from.
    void outdate() noexcept;
    // Takes gone columns out of the values to start from.
    void compact(const Registry &columns) { columns.compact(fallback_); }
    // User's Start, and where there is none the last X. By position; NULL where there is neither.
    const double *start(const Columns &columns);
    // Row activities at X, computed when first asked for.
    const Buffer<double> &activity(const Columns &columns, const Rows &rows);
    const Buffer<double> &qactivity(const Columns &columns, const QRows &qrows);
    const Buffer<double> &nlactivity(const Columns &columns, const NlRows &nlrows);
    // What TRVgetdata and TRVopensolution point into.
    void guard(Yard *yard) {
        for (Buffer<double> *buffer :
             {&x_, &rc_, &pi_, &qpi_, &openx_, &openrc_, &openpi_, &openqpi_, &fallback_, &merged_})
            buffer->guard(yard);
    }
    void coefficientschanged() { activityknown_ = false; }

  private:
    void keepfigures(const TRVresult &result, std::string engine, std::string noduals) noexcept;
    void taketheopen(bool withx, bool withduals) noexcept;
    void droparrays() noexcept;

    int status_ = TRV_NOT_SOLVED;
    bool outdated_ = false, hasx_ = false, hasduals_ = false, isopen_ = false, activityknown_ = false,
         qactivityknown_ = false, nlactivityknown_ = false;
    int32_t nvars_ = 0, nrows_ = 0, nqrows_ = 0, opennvars_ = 0, opennrows_ = 0, opennqrows_ = 0;
    TRVresult figures_{};
    std::string engine_, noduals_;
    Buffer<double> x_, rc_, pi_, qpi_, activity_, qactivity_, nlactivity_;
    Buffer<double> openx_, openrc_, openpi_, openqpi_;
    Buffer<double> fallback_; // by slot; may be shorter
    Buffer<double> merged_;
};

} // namespace store
