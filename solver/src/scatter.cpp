#include "scatter.h"

#include "rows.h"

#include <algorithm>
#include <cstdlib>

namespace store {

namespace {

constexpr int32_t kSample = 256; // rows looked at in each chunk
constexpr int32_t kNear = 64;    // columns whose places share a few pages

} // namespace

bool farapart(const std::vector<Chunk> &chunks) {
    int64_t seen = 0, far = 0;
    for (const Chunk &chunk : chunks)
        for (int32_t i = 1; i < chunk.nrows; i += std::max(1, chunk.nrows / kSample)) {
            for (const TRVstrip &strip : chunk.strips.all()) {
                far += std::abs(varat(strip, i) - varat(strip, i - 1)) > kNear;
                seen++;
            }
            if (chunk.striped())
                continue;
            const Row above = chunk.row(i - 1), row = chunk.row(i);
            const int64_t n = std::min(above.n, row.n);
            for (int64_t k = 0; k < n; k++)
                far += std::abs(row.var[k] - above.var[k]) > kNear;
            seen += n;
        }
    return 2 * far > seen;
}

Bins::Bins(int32_t ncols, const Places &places) : places_(places) {
    while (ncols >> shift_ >= kBins)
        shift_++;
    entries_.room(static_cast<size_t>(kBins) * kRoom);
}

void Bins::empty(int32_t bin) {
    const Entry *entries = entries_.data() + static_cast<size_t>(bin) * kRoom;
    for (int32_t k = 0; k < count_[bin]; k++)
        places_.put(entries[k]);
    count_[bin] = 0;
}

void Bins::empty() {
    for (int32_t bin = 0; bin < kBins; bin++)
        empty(bin);
}

} // namespace store
