// scatter.h: entries of a matrix, met by rows, on their way to their columns.
#pragma once

#include "buffer.h"

#include <vector>

namespace store {

struct Chunk;

struct Entry {
    int32_t column, row;
    double value;
};

// Where the next entry of each column goes.
struct Places {
    int32_t *next, *index;
    double *value;

    void put(const Entry &entry) const {
        const int32_t at = next[entry.column]++;
        index[at] = entry.row;
        value[at] = entry.value;
    }
};

// From here on it pays to look whether columns are far apart.
constexpr int64_t kManyEntries = 1 << 20;

// Whether neighbouring rows lead to columns far from each other, by a sample: then nearly every entry that goes
// straight to its place misses the caches and the page tables (25 ns instead of 7).
bool farapart(const std::vector<Chunk> &chunks);

// Collects entries by ranges of columns, and empties a range's bin when it is full: its places then stay in the cache
// while they are filled. Entries of a column keep their order. 16 MB while it works, 14 ns an entry.
class Bins {
  public:
    Bins(int32_t ncols, const Places &places);
    void put(const Entry &entry) {
        const int32_t bin = entry.column >> shift_;
        entries_[bin * kRoom + count_[bin]++] = entry;
        if (count_[bin] == kRoom)
            empty(bin);
    }
    void empty();

  private:
    static constexpr int32_t kBins = 256, kRoom = 4096;

    void empty(int32_t bin);

    Places places_;
    int shift_ = 0;
    int32_t count_[kBins] = {};
    Buffer<Entry> entries_;
};

} // namespace store
