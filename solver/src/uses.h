// uses.h: Uses, how often each variable stands where it cannot simply be taken out: in tapes and in general
// constraints.
#pragma once

#include "buffer.h"
#include "registry.h"

#include <algorithm>

namespace store {

// 8 bytes a variable from the first such element on: a removal asks about one variable, and must not search all of
// them for it.
class Uses {
  public:
    void reserve(const Registry &variables) { count_.pad(variables.count(), 0); }
    // What is below 0 is no variable but an operation of a tape.
    void add(int64_t n, const int32_t *ids, int64_t by) noexcept {
        for (int64_t k = 0; k < n; k++)
            if (ids[k] >= 0)
                count_[ids[k]] += by;
    }
    bool any(int32_t id) const { return static_cast<size_t>(id) < count_.size() && count_[id] > 0; }

  private:
    Buffer<int64_t> count_; // by id
};

// Slots in ascending order.
inline bool among(const Buffer<int32_t> &slots, int32_t slot) {
    return std::binary_search(slots.data(), slots.data() + slots.size(), slot);
}

} // namespace store
