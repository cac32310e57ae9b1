// What the kernels over rows of linear and of quadratic summands have in common; S is Summand or QuadSummand.
#pragma once

#include "flat.h"

#include <optional>

namespace flat {

// Kernels that read one summand after the other do so in blocks of rows: places and written lines stay in the cache.
constexpr int64_t block_rows = 1024;

// One term a row in each: what variables and their sums are.
template <class S> bool all_single(std::span<const S> summands) {
    return std::all_of(summands.begin(), summands.end(), [](const S &s) { return s.ptr.empty() && s.width == 1; });
}

// The ids that a summand's terms have where they count up, which is then how they are written: the first one.
std::optional<int32_t> counting_ids(const Summand &summand);

// Where the rows of all summands together begin; nrows + 1 of them.
template <class S> void write_pointers(std::span<const S> summands, int64_t nrows, int64_t *ptr) {
    int64_t width = 0;
    for (const S &summand : summands)
        width += summand.ptr.empty() ? summand.width : 0;
    for (int64_t row = 0; row <= nrows; ++row)
        ptr[row] = row * width;
    for (const S &summand : summands)
        if (!summand.ptr.empty())
            for (int64_t row = 0; row <= nrows; ++row)
                ptr[row] += summand.ptr[row];
}

} // namespace flat
