// values.h: Values, a growing array of numbers that need not stand in memory as long as all are the same.
//
//   Values ub;
//   ub.fill(1000000, 1.0);  ub.grow(1000000);     one number and a count
//   ub[7]                                         1.0, still without an array
//   double *end = ub.room(n);  write end[0..n);  ub.grow(n);
//   ub.set(7, 2.0);  ub.data()                    from here on it is an array
//
// Most models have bounds and sides like that: 0 and 1, or none. The engine has arrays of its own, so that ours are
// wanted by few, while they would be a tenth of the memory at the peak.
#pragma once

#include "buffer.h"

#include <bit>

namespace store {

class Values {
  public:
    size_t size() const { return same_ ? count_ : all_.size(); }
    // One value throughout, not written out; value() then.
    bool same() const { return same_; }
    const double &value() const { return value_; }
    double operator[](size_t i) const { return same_ ? value_ : all_[i]; }
    const double *data() const { return all().data(); }
    const Buffer<double> &all() const {
        spread(0);
        return all_;
    }

    // n more at its end, to be written or of one value. Nothing is seen until grow, so a failure leaves no trace.
    double *room(size_t n) {
        if (n)
            spread(n);
        coming_ = Coming::kWritten;
        return all_.room(n);
    }
    void fill(size_t n, double value) {
        if (size() == 0 || (same_ && identical(value, value_))) {
            coming_ = Coming::kSame;
            next_ = value;
        } else
            std::fill_n(room(n), n, value);
    }
    // The i-th of those that are to come, and where it can be written: NULL where all are one value.
    double coming(size_t i) const { return coming_ == Coming::kSame ? next_ : all_.data()[all_.size() + i]; }
    double *coming() { return coming_ == Coming::kSame ? nullptr : all_.end(); }
    void grow(size_t n) noexcept {
        if (coming_ == Coming::kWritten)
            return all_.grow(n);
        if (!same_)
            all_.free();
        count_ = (same_ ? count_ : 0) + n;
        value_ = next_;
        same_ = true;
    }

    // set(i, value) will need no memory, whichever i: 0.0 and -0.0 are two values here.
    void expect(double value) {
        if (same_ && !identical(value, value_))
            spread(0);
    }
    void set(size_t i, double value) {
        if (same_) { // asked here, as setting many is a loop over this
            if (identical(value, value_))
                return;
            spread(0);
        }
        all_[i] = value;
    }
    // The first n of another one.
    void assign(const Values &from, size_t n) {
        Values copy;
        if (from.same_)
            copy.fill(n, from.value_);
        else
            moveterms(copy.room(n), from.all_.data(), n);
        copy.grow(n);
        all_.swap(copy.all_);
        same_ = copy.same_;
        count_ = copy.count_;
        value_ = copy.value_;
    }
    // Keeps those for which keep(i) holds.
    template <class Keep> void filter(Keep keep) noexcept {
        size_t kept = 0;
        for (size_t i = 0, n = size(); i < n; i++) {
            if (!keep(i))
                continue;
            if (!same_)
                all_[kept] = all_[i];
            kept++;
        }
        same_ ? void(count_ = kept) : all_.cut(kept);
    }
    void guard(Yard *yard) { all_.guard(yard); }

  private:
    enum class Coming { kWritten, kSame };

    static bool identical(double a, double b) { return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b); }
    // Written out, with room for so many more. Zeros are not written over memory that holds them.
    void spread(size_t more) const {
        if (!same_)
            return;
        if (count_ && identical(value_, 0.0))
            all_.zeros(count_ + more);
        else if (count_) {
            all_.reserve(count_ + more);
            std::fill_n(all_.room(count_), count_, value_);
        }
        all_.grow(count_);
        same_ = false;
    }

    // Which of the two does not show.
    mutable Buffer<double> all_;
    mutable bool same_ = true;
    size_t count_ = 0; // while it is the same
    double value_ = 0.0, next_ = 0.0;
    Coming coming_ = Coming::kSame;
};

} // namespace store
