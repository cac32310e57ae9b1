#include "strips.h"

#include "buffer.h"
#include "scan.h"

#include <algorithm>
#include <numeric>

namespace store {

namespace {

struct Range {
    int64_t least, most;
};

Range rangeof(const TRVstrip &strip, int64_t nrows) {
    if (!strip.var)
        return {strip.first, strip.first + nrows - 1};
    int32_t least = strip.var[0], most = least;
    for (int64_t i = 1; i < nrows; i++) {
        least = std::min(least, strip.var[i]);
        most = std::max(most, strip.var[i]);
    }
    return {least, most};
}

bool plaincoefs(const TRVstrip &strip, int64_t nrows) {
    return strip.coef ? allplain(nrows, strip.coef) : allplain(1, &strip.scale);
}

// Whether a variable of one never stands beside itself in the other, and the smaller one stands in the same strip in
// all rows.
bool inorder(const TRVstrip &a, const Range &ofa, const TRVstrip &b, const Range &ofb) {
    return ofa.most < ofb.least || ofb.most < ofa.least || (!a.var && !b.var && a.first != b.first);
}

} // namespace

bool Strips::take(const Registry &variables, int64_t nrows, std::span<const TRVstrip> strips) {
    if (nrows == 0 || strips.size() > kMost || !variables.identity() || variables.anygone())
        return false;
    Range ranges[kMost];
    for (size_t k = 0; k < strips.size(); k++) {
        ranges[k] = rangeof(strips[k], nrows);
        if (ranges[k].least < 0 || ranges[k].most >= variables.count() || !plaincoefs(strips[k], nrows))
            return false;
        for (size_t j = 0; j < k; j++)
            if (!inorder(strips[j], ranges[j], strips[k], ranges[k]))
                return false;
    }
    ascending_.resize(strips.size());
    std::iota(ascending_.begin(), ascending_.end(), int8_t{0});
    std::sort(ascending_.begin(), ascending_.end(),
              [&](int8_t a, int8_t b) { return ranges[a].least < ranges[b].least; });
    strips_.assign(strips.begin(), strips.end());
    return true;
}

void Strips::count(int32_t nrows, int32_t *columns) const {
    for (const TRVstrip &strip : strips_)
        if (strip.var)
            for (int32_t i = 0; i < nrows; i++)
                columns[strip.var[i]]++;
        else
            for (int32_t i = 0; i < nrows; i++)
                columns[strip.first + i]++;
}

namespace {

template <bool Counting, bool Uniform>
void putstrip(const TRVstrip &strip, int32_t nrows, int32_t firstrow, const Places &places) {
    for (int32_t i = 0; i < nrows; i++)
        places.put({Counting ? strip.first + i : strip.var[i], firstrow + i, Uniform ? strip.scale : strip.coef[i]});
}

} // namespace

// Where strips overlap both count up, and a variable stands in an earlier row of the one that begins later.
void Strips::put(int32_t nrows, int32_t firstrow, const Places &places) const {
    for (auto k = ascending_.rbegin(); k != ascending_.rend(); ++k) {
        const TRVstrip &strip = strips_[*k];
        const auto put = strip.var ? (strip.coef ? putstrip<false, false> : putstrip<false, true>)
                                   : (strip.coef ? putstrip<true, false> : putstrip<true, true>);
        put(strip, nrows, firstrow, places);
    }
}

void layrows(std::span<const TRVstrip> strips, int64_t nrows, int32_t *var, double *coef) {
    constexpr int64_t kBlock = 1024; // rows whose lines stay in the nearest cache from one strip to the next
    const int64_t width = static_cast<int64_t>(strips.size());
    for (int64_t from = 0; from < nrows; from += kBlock) {
        const int64_t to = std::min(from + kBlock, nrows);
        for (int64_t k = 0; k < width; k++)
            for (int64_t i = from; i < to; i++) {
                var[i * width + k] = varat(strips[k], i);
                coef[i * width + k] = coefat(strips[k], i);
            }
    }
}

} // namespace store
