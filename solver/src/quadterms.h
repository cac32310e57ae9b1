// quadterms.h: quadratic terms coef * var1 * var2 as they come from the caller, checked and brought to the stored form:
// var1 <= var2, each pair once, no zeros.
//
//   rows        3 x*y, 1 z*z, 2 y*x    ->  5 x*y, 1 z*z      the first occurrence keeps its place
//   objective   1 z*z, 3 x*y, 2 y*x    ->  5 x*y, 1 z*z      in the order of the upper triangle's columns
//
// Ids ascend as positions do, so both orders outlive updates.
#pragma once

#include "buffer.h"
#include "registry.h"

namespace store {

// Where terms stand that may be written.
struct PairSpan {
    int32_t *var1, *var2;
    double *coef;

    PairSpan from(int64_t k) const { return {var1 + k, var2 + k, coef + k}; }
    void copy(int64_t to, int64_t from) const {
        var1[to] = var1[from];
        var2[to] = var2[from];
        coef[to] = coef[from];
    }
};

struct QuadTerms {
    Buffer<int32_t> var1, var2;
    Buffer<double> coef;

    int64_t size() const { return static_cast<int64_t>(coef.size()); }
    PairSpan span() { return {var1.data(), var2.data(), coef.data()}; }
    void room(int64_t n) {
        var1.room(n);
        var2.room(n);
        coef.room(n);
    }
    void grow(int64_t n) noexcept {
        var1.grow(n);
        var2.grow(n);
        coef.grow(n);
    }
    void cut(int64_t n) noexcept {
        var1.cut(n);
        var2.cut(n);
        coef.cut(n);
    }
};

// Finds equal pairs within one row, by hashing: expected linear time whatever the pairs are, where a marker by the
// first variable would be quadratic in the squares of its degree. Entries of earlier rows count as free.
class PairMarker {
  public:
    // Before a row of n terms.
    void prepare(int64_t n);
    // Index of the kept term with this pair, -1 after entering it as number `kept`.
    int64_t meet(const PairSpan &terms, int32_t var1, int32_t var2, int64_t kept);
    void advance(int64_t kept) { base_ += static_cast<uint32_t>(kept); }

  private:
    Buffer<uint32_t> met_; // base_ + index of a kept term; less than base_ is free
    uint32_t base_ = 1;
    int shift_ = 0;
    uint64_t mask_ = 0;
};

// A block of rows; ptr is rewritten. Returns the number of terms that stay, at the front.
int64_t tidypairs(const Registry &variables, PairMarker &marker, int64_t nrows, int64_t nnz, int64_t *ptr,
                  PairSpan terms);

// The terms of an objective, copied and sorted by the larger variable, then the smaller.
QuadTerms sortedpairs(const Registry &variables, int64_t n, const int32_t *var1, const int32_t *var2,
                      const double *coef);

} // namespace store
