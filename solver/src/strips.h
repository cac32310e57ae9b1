// strips.h: Strips, the terms of rows told by their place in the row instead of row by row.
//
//   x - y >= c      strip 0: variables first, first + 1, ... of x, coefficient 1; strip 1: those of y, coefficient -1
//   x[p] <= b       one strip, whose variables are an array
//
// Rows of array expressions mostly are of this form: term k of row i is the i-th of strip k. Strips whose variables
// count up and share a coefficient take no memory at all, and an engine's columns are made of strips in half the time
// that rows take. Whoever looks at a row has them laid out as rows (Chunk::layout).
#pragma once

#include "registry.h"
#include "scatter.h"
#include "tarvo.h"

#include <span>
#include <vector>

namespace store {

inline int32_t varat(const TRVstrip &strip, int64_t i) {
    return strip.var ? strip.var[i] : strip.first + static_cast<int32_t>(i);
}
inline double coefat(const TRVstrip &strip, int64_t i) {
    return strip.coef ? strip.coef[i] : strip.scale;
}

class Strips {
  public:
    static constexpr int kMost = 8; // in a row

    bool empty() const { return strips_.empty(); }
    int32_t width() const { return static_cast<int32_t>(strips_.size()); }
    void clear() noexcept { strips_ = {}; }
    std::span<const TRVstrip> all() const { return strips_; }

    // Takes the strips if they say rows in the stored form (usable variables, each once in a row, finite coefficients
    // without zeros) whose terms have the same order in all rows.
    bool take(const Registry &variables, int64_t nrows, std::span<const TRVstrip> strips);
    // The terms of a row by ascending variables, in all rows.
    const std::vector<int8_t> &ascending() const { return ascending_; }
    // Terms of each column, added to what is counted.
    void count(int32_t nrows, int32_t *columns) const;
    // Each column's terms by ascending rows, numbered from `firstrow`.
    void put(int32_t nrows, int32_t firstrow, const Places &places) const;

  private:
    std::vector<TRVstrip> strips_;
    std::vector<int8_t> ascending_;
};

// The same terms row by row.
void layrows(std::span<const TRVstrip> strips, int64_t nrows, int32_t *var, double *coef);

} // namespace store
