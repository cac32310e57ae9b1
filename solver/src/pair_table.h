// Pairs of columns, in either order, to the number of the term that names them.
//
//     PairTable pairs;
//     pairs.place(3, 7) = 0;       -1 where the pair is new
//     pairs.place(7, 3)            0
//     pairs.clear();               at no cost: thousands of rows have a few pairs each
#ifndef TARVO_PAIR_TABLE_H
#define TARVO_PAIR_TABLE_H

#include <algorithm>
#include <cstdint>
#include <vector>

namespace trv {

class PairTable {
  public:
    // Valid until the next call.
    std::int64_t &place(std::int32_t one, std::int32_t other) {
        if (2 * used_ >= slots_.size()) {
            grow();
        }
        const std::uint64_t key = static_cast<std::uint64_t>(static_cast<std::uint32_t>(std::min(one, other))) << 32 |
                                  static_cast<std::uint32_t>(std::max(one, other));
        Slot &slot = slots_[find(key)];
        if (slot.round != round_) {
            slot = {key, -1, round_};
            ++used_;
        }
        return slot.term;
    }
    void clear() {
        ++round_;
        used_ = 0;
    }

  private:
    struct Slot {
        std::uint64_t key;
        std::int64_t term;
        std::uint64_t round; // free unless it is the present one
    };
    std::size_t find(std::uint64_t key) const {
        const std::size_t mask = slots_.size() - 1;
        std::uint64_t hash = key * 0x9E3779B97F4A7C15u;
        std::size_t i = (hash ^ hash >> 32) & mask;
        while (slots_[i].round == round_ && slots_[i].key != key) {
            i = (i + 1) & mask;
        }
        return i;
    }
    void grow() {
        std::vector<Slot> old(slots_.size() * 2, Slot{0, -1, 0});
        old.swap(slots_);
        for (const Slot &slot : old) {
            if (slot.round == round_) {
                slots_[find(slot.key)] = slot;
            }
        }
    }

    std::vector<Slot> slots_ = std::vector<Slot>(64, Slot{0, -1, 0}); // a power of two, at most half full
    std::size_t used_ = 0;
    std::uint64_t round_ = 1;
};

} // namespace trv
#endif
